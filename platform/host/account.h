// What is in force, measured against what should be. Text, JSON and exit statuses are made of it, and of nothing else.
#ifndef PLATFORM_HOST_ACCOUNT_H
#define PLATFORM_HOST_ACCOUNT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rlv/rlv-query.h"

namespace host {

struct RuleCounts {
    std::uint64_t allow = 0;
    std::uint64_t deny = 0;
};

// One line of it.
struct Finding {
    std::string
        kind; // MISSING, FOREIGN, CHANGED, DIFFERS; and TWICE, SHADOWED and UNANSWERED, which differ from nothing
    std::string chain;  // empty where it is about no chain
    std::string rule;   // without "-A chain "; empty where it is about the chain, or about a file
    std::string advice; // what it is, and what to do
};

struct Account {
    // Why the traffic-control service cannot be asked, and why the rules cannot be read; empty when they can. Then what
    // comes of them is not known.
    std::string serviceProblem;
    std::string databaseProblem;
    bool simulated = false;
    rlv::DriftState drift;              // what others have done to the tables
    std::optional<RuleCounts> stored;   // rows
    std::optional<RuleCounts> expected; // kernel rules that they make: one for each direction and address
    std::optional<RuleCounts> inForce;  // of those, that stand
    std::optional<RuleCounts> walks;    // the most rules that a packet looks at in the chain
    std::vector<Finding> findings;      // of each kind the first 1,000
    std::uint64_t differences = 0;      // all MISSING, FOREIGN, CHANGED and DIFFERS
    std::uint64_t shadowed = 0;
    std::uint64_t twice = 0;
    std::uint64_t unanswered = 0;
    std::string rebuild;     // why, or when, the tables are built anew; empty when nothing of the kind is waited for
    bool lacksNames = false; // there are host names without an address

    // All that is stored stands as it should, and nothing else does where only that should.
    bool isInForce() const;
    // One line: "in force", or why not, and with what else.
    std::string summary() const;
    // 0 where all is in force and stays so, else 1; when `strict`, 1 too where rules of others decide before ours.
    int exitStatus(bool strict) const;
};

// Between two plugin calls. With `reading`, the kernel is read where what stands there is only known from what was
// sent. Blocks for as long as the service takes, 10 s at most.
Account takeAccount(bool reading);

} // namespace host

#endif
