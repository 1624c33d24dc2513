// How what is pending on one ruleset is carried out on another.
#ifndef PLATFORM_RLV_TABLE_REBASE_H
#define PLATFORM_RLV_TABLE_REBASE_H

#include <string>
#include <utility>
#include <vector>

#include "rlv/table/pending-ruleset.h"

namespace rlv {

// Somebody was faster, so that the ruleset is another one than that of which commands were answered: they are carried
// out again, one by one. What others have made or removed already is no failure of a command.
class Rebase {
public:
    explicit Rebase(PendingRuleset &pending) : pending_(pending) {}

    // Brings the difference to another ruleset. Commands of which the aim cannot be reached there are added to `lost`.
    // What one ruleset makes needless is kept: the next may need it.
    void onto(Ruleset ruleset, std::vector<LostCommand> &lost);

private:
    using BuiltInChains = std::vector<std::pair<std::string, Origin>>;

    std::vector<PendingCommand> takeCommands();
    void keep(std::vector<PendingCommand> commands) { pending_.kept_ = std::move(commands); }
    void carryOutKept(std::vector<LostCommand> &lost);
    Answer carryOut(const std::vector<Command> &commands, const Origin &origin);
    BuiltInChains emptyBuiltInChains() const;
    void make(const BuiltInChains &chains);

    PendingRuleset &pending_;
};

} // namespace rlv

#endif
