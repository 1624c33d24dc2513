// The rules in force, kept in a database file with a backup beside it.
#ifndef PLUGIN_FIREWALL_STORAGE_H
#define PLUGIN_FIREWALL_STORAGE_H

#include <memory>
#include <string>
#include <vector>

#include <mavo/database.h>

#include "firewall-rule-parser.h"

// One open connection to the rule database; made for one operation of the engine and dropped after it. Several may be
// open at once. Every public operation holds one mutex of the whole process while it runs, and does file input and
// output under it. Failures of the database leave as mavo::Exception unless said otherwise.
class FirewallStorage {
public:
    // Opens the main file; failing that, restores it from the backup; failing that, deletes both files and creates an
    // empty database. Throws when that fails too. The directory must exist.
    FirewallStorage();

    // Stores a rule; one with the same protocol, domain and port is replaced. A direction other than 0, 1 and 2 or a
    // target other than "ACCEPT" and "DROP" is refused. Throws mavo::Exception "insert failure".
    void saveRule(const FirewallRule &rule);
    void flushDenyRules();
    void flushAllowRules();
    // Appends the next `count` rules, or all rules when it is -1, to `rules`, each with the target "ACCEPT" or "DROP".
    // Returns how many were appended; 0 when none is left.
    int getNextRulesByCount(std::vector<std::shared_ptr<FirewallRule>> &rules, int count);
    // Whether a rule with the same protocol, domain and port but another action or direction is stored. Any target but
    // "ACCEPT" counts as deny.
    bool ifOppositeRuleExists(const FirewallRule &rule);

private:
    // None of these takes the mutex.
    void openAndPrepareDb(const std::string &path, int flags);
    void prepareStorage();
    // Copies the main file to the backup; a failure is logged and goes no further.
    void syncBackupDb();
    void flushRules(int isAllowed);

    std::unique_ptr<mavo::database::Connection> connection;
    int offset; // rules handed out so far
};

#endif
