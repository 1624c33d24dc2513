// How the kernel is brought to what is pending.
#ifndef PLATFORM_RLV_TABLE_PUSH_H
#define PLATFORM_RLV_TABLE_PUSH_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "rlv/table/mending.h"
#include "rlv/table/refusals.h"
#include "rlv/table/table.h"
#include "rlv/table/tracked-ruleset.h"
#include "rlv/table/transaction.h"

namespace rlv {

// One push, from the first attempt to the one that the kernel takes. An attempt plans on what is known to stand and
// commits one transaction. Somebody may have been faster: then what stands is read, what is pending is brought to it,
// and the next attempt goes. The kernel may refuse some of it: then that is blamed on its commands, and the next
// attempt goes without them.
class Push {
public:
    // All must outlive the object.
    Push(RulesetBackend &backend, TrackedRuleset &tracked, Mending &mending, const std::string &chainPrefix,
         std::size_t maxSearchCost)
        : backend_(backend), tracked_(tracked), mending_(mending), chainPrefix_(chainPrefix),
          refusals_(backend, maxSearchCost) {}

    // Attempts until nothing is pending. Adds what it comes to to the report, also of what was lost before it throws:
    // as the backend, TrackedRuleset and Mending do.
    void attemptUntilTaken(PushReport &report);

private:
    enum class Outcome { taken, otherGeneration, outrun, refused };
    struct Limits {
        bool mayBind;
        bool mayBeOutrun;
    };

    Outcome attempt(Limits limits, PushReport &report);
    std::vector<ChangeFailure> commit(const Changes &changes, bool bound);
    bool fetchHandles(const RulesetPlan &plan);
    bool wasFaster(const Transaction &transaction, const std::vector<ChangeFailure> &failures, bool mayBeOutrun);
    void count(const RulesetPlan &plan, PushReport &report) const;

    RulesetBackend &backend_;
    TrackedRuleset &tracked_;
    Mending &mending_;
    const std::string &chainPrefix_;
    Refusals refusals_;
};

} // namespace rlv

#endif
