// A ruleset, and what the commands of one connection make of it before anything is sent.
#ifndef PLATFORM_RLV_TABLE_PENDING_RULESET_H
#define PLATFORM_RLV_TABLE_PENDING_RULESET_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "rlv/rlv-query.h"
#include "rlv/table/chain-plan.h"
#include "rlv/table/command.h"
#include "rlv/table/pending-chain.h"
#include "rlv/table/ruleset.h"

namespace rlv {

// Answers commands as iptables would and keeps what they come to as a difference from the ruleset: its size goes with
// the rules of the outcome, never with the number of commands.
//
// All of it is about chains as commands name them and rules as they give them. How these lie in the kernel is none of
// its business: a plan leaves here, and handles and generations come back.
class PendingRuleset {
public:
    // At most so many rules and chains, those of others in the chains that hold rules of ours included.
    explicit PendingRuleset(std::size_t maxRules) : maxRules_(maxRules) {}

    // A new ruleset, without a difference.
    void load(Ruleset ruleset);
    // Nothing: no ruleset and no difference. Where it cannot be kept up: load() comes next.
    void clear() noexcept;
    const Ruleset &standing() const { return standing_; }

    // Carries out commands that are the same but for their addresses, all or none. `options` is kept with what comes of
    // them.
    Answer apply(const std::vector<Command> &commands, const std::string &options);
    std::size_t room() const { return count_ < maxRules_ ? maxRules_ - count_ : 0; }

    // True when there is anything to be sent, if only to find that it comes to nothing.
    bool isChanged() const { return changed_; }

    // Of the chains that were touched. Unless `isCurrent`, it holds for whatever others have made of the ruleset since.
    RulesetPlan plan(bool isCurrent) const;
    // What the plan's places stand for. A chain that is not there has no rules.
    const std::vector<StandingRule> &standingRules(const std::string &chain) const;
    std::vector<const Rule *> appendedRules(const std::string &chain) const;
    void setHandles(const std::string &chain, const std::vector<std::uint64_t> &handles);

    // Take back what was refused: its commands are added to `lost`.
    struct RefusedRule {
        std::size_t place = 0; // among the appended
        Answer answer;
    };
    // Places rise. A command is lost with all of its rules.
    void loseAppended(const std::string &chain, const std::vector<RefusedRule> &refused,
                      std::vector<LostCommand> &lost);
    void loseChain(const std::string &chain, const Answer &answer, std::vector<LostCommand> &lost);
    void loseRemoval(const std::string &chain, const Answer &answer, std::vector<LostCommand> &lost);

    // The ruleset is now what the commands have made of it, by this plan.
    void adopt(const RulesetPlan &plan, std::uint32_t generation);
    // No command has come: what is discarded is in `lost`, in the order in which it was sent.
    void discard(const Answer &answer, std::vector<LostCommand> &lost);

private:
    friend class Rebase; // carries the commands out again, on another ruleset

    Answer carryOut(const std::vector<Command> &commands, const Origin &origin);
    Answer flushChain(const std::string &name, const Origin &origin);
    Answer makeChain(const std::string &name, const Origin &origin);
    Answer removeChain(const std::string &name, const Origin &origin);
    Answer appendRules(const std::vector<Command> &commands, const Origin &origin);
    bool append(const std::vector<Command> &commands, const Origin &origin, PendingChain &chain) const;
    Answer deleteRules(const std::vector<Command> &commands, const Origin &origin);
    // The commands that it comes to, in the order in which they were sent.
    std::vector<PendingCommand> difference() const;
    void lose(const Origin &origin, const Answer &answer, std::vector<LostCommand> &lost);

    PendingChain *find(const std::string &name);
    const StandingChain *standingChain(const std::string &name) const;
    bool isForeign(const std::string &name) const;
    bool isReferenced(const std::string &name) const;
    bool jumpsTooFar() const;
    void reset();

    std::size_t maxRules_;
    Ruleset standing_;
    std::map<std::string, PendingChain> chains_;
    std::size_t count_ = 0;
    std::uint64_t lastOrigin_ = 0;
    bool changed_ = false;
    bool isBounded_ = true;               // by maxRules_
    std::vector<PendingCommand> kept_;    // of which the difference was made anew; empty when commands came since
    std::set<std::uint64_t> lostNumbers_; // of kept_
};

} // namespace rlv

#endif
