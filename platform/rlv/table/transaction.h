// A plan as changes that the kernel makes, and what their refusals are called.
#ifndef PLATFORM_RLV_TABLE_TRANSACTION_H
#define PLATFORM_RLV_TABLE_TRANSACTION_H

#include <cstddef>
#include <string>
#include <vector>

#include "rlv/table/chain-plan.h"
#include "rlv/table/pending-ruleset.h"
#include "rlv/table/ruleset-backend.h"

namespace rlv {

// How often others may be faster than our bound transactions before one goes that holds whatever they do.
constexpr int kBoundAttempts = 10;

// What is sent for a plan. Points into the plan and the pending ruleset.
struct Transaction {
    // What a change comes from, so that a refusal finds its command.
    struct Source {
        const std::string *chain;
        std::size_t appended;
    };
    Changes changes;
    std::vector<Source> sources; // one for each change
};

// `plan` is what `pending` has planned.
Transaction makeTransaction(const RulesetPlan &plan, const PendingRuleset &pending);

// As iptables would say that the kernel has refused it.
Answer answerTo(const Change &change, int error);

// True when somebody has changed the ruleset before a bound transaction came.
bool isConflict(const std::vector<ChangeFailure> &failures);

} // namespace rlv

#endif
