// The firewall engine: the plugin's chains, and the rules in them.
#ifndef PLUGIN_FIREWALL_H
#define PLUGIN_FIREWALL_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <vpk-pil/vpk-pil.h>

#include "firewall-rule-parser.h"
#include "firewall-storage.h"
#include "iptables/RlvIptables.h"

// Allow rules stand in "VPK-ALLOW", deny rules in "VPK-DENY", both hooked into "INPUT" and "OUTPUT" in this order; what
// a deny rule matches goes through "VPK-LOGANDDROP". Every rule is kept in the rule database too.
//
// Each operation opens a connection to the traffic-control service and one to the database for itself, and blocks on
// both. One thread at a time. The four rule operations build the chains first when that has not succeeded yet. They
// return 0 on success, -1 when the chains cannot be built or on a mavo::Exception, which is logged, and the error code
// of the first command that failed otherwise; a std::runtime_error says that the service cannot be reached.
class Firewall : public AbstractPolicyProvider {
public:
    // Throws std::runtime_error when there is no memory for the backend.
    Firewall();
    // Leaves the chains as they are.
    ~Firewall() override;

    // Builds the chains and their hooks, however much of them stands already, and applies the stored rules. Returns 1
    // on success and 0 on failure.
    int InitTables();
    // Apply and store each rule of the list, none when one is malformed. A failed command ends it: the rules before
    // stay applied and stored.
    int ApplyAllowRules(std::string &rules);
    int ApplyDenyRules(std::string &rules);
    // Delete all stored rules of one kind and empty their chain.
    int FlushAllowRules();
    int FlushDenyRules();
    // Empties both rule chains and fills them from the database, inside the connection of the caller; failed commands
    // are passed over.
    void ReapplyRules();

private:
    // What the four rule operations have in common: the chains, the connections, and the errors that they catch, which
    // are logged under the operation's name.
    int run(const char *name, const std::function<int(FirewallStorage &)> &operation);
    int applyRules(FirewallStorage &storage, const std::vector<FirewallRule> &rules, const std::string &chain,
                   const std::string &storedTarget);
    int applyRule(const std::string &chain, const FirewallRule &rule);
    void reapplyRule(FirewallRule &rule);

    std::unique_ptr<iptables::Interface> m_iptables;
    bool m_initialized;
};

#endif
