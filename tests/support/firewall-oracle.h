// What the rule database and the kernel's chains must hold after a row of operations, worked out from the laid-down
// behaviour alone and with no code of the plugin or the platform.
#ifndef TESTS_SUPPORT_FIREWALL_ORACLE_H
#define TESTS_SUPPORT_FIREWALL_ORACLE_H

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace firewall_oracle {

// A row of the rule table.
struct Row {
    std::string protocol;
    std::string domain;
    std::string port;
    int direction = 0;
    int isAllowed = 0;
};
bool operator==(const Row &left, const Row &right);
std::ostream &operator<<(std::ostream &stream, const Row &row);

using Rows = std::vector<Row>;
using Chain = std::vector<std::string>; // rules as "iptables -S" shows them, without "-A chain "

// Understands a rule list; empty when any of its rules is malformed. `isAllowed` of the rows is left 0.
std::optional<Rows> parse(const std::string &list);

// The rule that stands in the kernel for `row` in one direction, or nothing when the service refuses it. `inbound`
// takes domain and port for the packet's source, otherwise they are its destination.
std::optional<std::string> kernelRule(const Row &row, bool inbound, const std::string &target);

// A policy host with the plugin, its database, and the filter table of an IPv4 kernel.
class Road {
public:
    // The host starts, for the first time or again: hooks move to the end, chains are rebuilt.
    void start();

    // The four rule operations; the result is the remote methods': 0, -1, or the service's code for the first rule that
    // it refused.
    int applyAllow(const std::string &list);
    int applyDeny(const std::string &list);
    int flushAllow();
    int flushDeny();

    // Plugin commands: the reply, "" or "fail".
    std::string execute(const std::string &command, const std::string &data);
    // A policy document with these rules.
    std::string applyPolicy(const std::vector<std::string> &allow);

    int setStatus(int status);
    void applyStatus(int status);
    int storedStatus() const { return stored_; }

    // Somebody else empties a chain or appends a rule to a built-in one.
    void foreignFlush(const std::string &chain);
    void foreignAppend(const std::string &builtIn, const std::string &rule);

    const Rows &rows() const { return rows_; }
    // True once a backup must exist.
    bool backedUp() const { return backedUp_; }
    Chain allow;
    Chain deny;
    Chain logAndDrop;
    Chain input;
    Chain output;

private:
    int apply(const std::string &list, bool allowed);
    int append(const Row &row);
    void save(const Row &row);
    void rebuild();
    int flush(bool allowed);

    Rows rows_; // in the table's natural order
    bool backedUp_ = false;
    bool enabled_ = false;
    int stored_ = 1;
};

} // namespace firewall_oracle

#endif
