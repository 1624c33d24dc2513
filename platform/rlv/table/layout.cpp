#include "rlv/table/layout.h"

namespace rlv {

using Kind = Change::Kind;

Changes removalsOf(const ChainPlan &plan, const std::string &chain, const std::vector<StandingRule> &standing) {
    Changes changes;
    if (plan.refill)
        changes.push_back({Kind::flushChain, &chain, nullptr, 0});
    for (const std::size_t place : plan.deletions)
        changes.push_back({Kind::deleteRule, &chain, nullptr, standing[place].handle});
    return changes;
}

Changes insertionsOf(const ChainPlan &plan, const std::string &chain, const std::vector<StandingRule> &standing,
                     const std::vector<const Rule *> &appended) {
    Changes changes;
    changes.reserve(plan.insertions.size());
    for (const auto &[place, before] : plan.insertions) {
        if (before == ChainPlan::kAtTheEnd)
            changes.push_back({Kind::appendRule, &chain, appended[place], 0});
        else
            changes.push_back({Kind::insertRule, &chain, appended[place], standing[before].handle});
    }
    return changes;
}

} // namespace rlv
