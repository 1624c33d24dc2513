// What the kernel has refused, and which commands that costs.
#ifndef PLATFORM_RLV_TABLE_REFUSALS_H
#define PLATFORM_RLV_TABLE_REFUSALS_H

#include <cstddef>
#include <optional>
#include <vector>

#include "rlv/table/pending-ruleset.h"
#include "rlv/table/ruleset-backend.h"
#include "rlv/table/table.h"
#include "rlv/table/transaction.h"

namespace rlv {

// How much one push may spend on the search for refused messages: the messages in its dry runs, of which each takes 7
// to 20 us, and kDryRunCost for each dry run, which takes 8 to 16 ms by itself. The search is to end before those who
// wait for their connections give up, after 10 s.
constexpr std::size_t kMaxSearchCost = 500'000;
constexpr std::size_t kDryRunCost = 1'000;

// True for changes of which a refusal costs one command or chain, and not everything.
bool isBlamable(Change::Kind kind);

// The refusals that one push meets. The backend must outlive the object.
class Refusals {
public:
    Refusals(RulesetBackend &backend, std::size_t maxSearchCost) : backend_(backend), maxSearchCost_(maxSearchCost) {}

    // Takes the commands of refused changes out of what is pending, or all commands where a refusal is nobody's in
    // particular, and adds them to `report`. What is left can be sent.
    void blame(const Transaction &transaction, const std::vector<ChangeFailure> &failures, PendingRuleset &pending,
               PushReport &report);

private:
    std::optional<std::vector<ChangeFailure>> locate(const Changes &changes,
                                                     const std::vector<ChangeFailure> &failures);
    std::optional<std::vector<ChangeFailure>> search(const Changes &changes);

    RulesetBackend &backend_;
    std::size_t maxSearchCost_;
    std::size_t searchCost_ = 0;
};

} // namespace rlv

#endif
