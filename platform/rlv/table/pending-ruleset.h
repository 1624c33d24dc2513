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
#include "rlv/table/ruleset.h"

namespace rlv {

// Answers commands as iptables would and keeps what they come to as a difference from the ruleset: its size goes with
// the rules of the outcome, never with the number of commands.
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
    const Rule &appendedRule(const std::string &chain, std::size_t place) const;
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
    // Brings the difference to another ruleset. Commands of which the aim cannot be reached there are added to `lost`.
    // What one ruleset makes needless is not forgotten: the next may need it.
    void rebase(Ruleset ruleset, std::vector<LostCommand> &lost);

private:
    // A command that is not sent yet; 0 is none.
    struct Origin {
        std::uint64_t number = 0;
        std::string options;
    };
    struct Appended {
        Rule rule;
        Origin origin;
    };
    struct Deleted {
        std::size_t place = 0; // in the standing rules
        Origin origin;
    };
    struct Chain {
        bool exists = true;
        std::map<std::string, std::size_t> jumps;
        std::vector<bool> doomed; // of the standing rules; empty when none is
        std::size_t doomedCount = 0;
        std::vector<Appended> appended;
        std::vector<Deleted> deleted;
        Origin made;
        Origin flushed; // once flushed, no standing rule is left
        Origin removed;
    };
    struct PendingCommand {
        Command command;
        Origin origin;
    };

    Answer carryOut(const std::vector<Command> &commands, const Origin &origin);
    Answer flushChain(const std::string &name, const Origin &origin);
    Answer makeChain(const std::string &name, const Origin &origin);
    Answer removeChain(const std::string &name, const Origin &origin);
    Answer appendRules(const std::vector<Command> &commands, const Origin &origin);
    Answer deleteRules(const std::vector<Command> &commands, const Origin &origin);
    Answer carryOutAgain(const std::vector<Command> &commands, const Origin &origin);
    void carryOutAgain(std::vector<LostCommand> &lost);
    std::vector<std::pair<std::string, Origin>> madeBuiltInChains() const;
    void makeAgain(const std::vector<std::pair<std::string, Origin>> &builtInChains);
    void lose(const Origin &origin, const Answer &answer, std::vector<LostCommand> &lost);

    Chain *find(const std::string &name);
    const StandingChain *standingChain(const std::string &name) const;
    bool isForeign(const std::string &name) const;
    std::size_t standingCount(const std::string &name) const;
    void reset();
    void doom(const std::string &name, Chain &chain, std::size_t place);
    static void uncountJump(Chain &chain, const Rule &rule);
    bool isReferenced(const std::string &name) const;
    bool jumpsTooFar() const;
    bool jumpsTooFarFrom(const std::string &name, int jumps, std::map<std::string, int> &seen) const;
    std::vector<PendingCommand> commands() const;

    std::size_t maxRules_;
    Ruleset standing_;
    std::map<std::string, Chain> chains_;
    std::size_t count_ = 0;
    std::uint64_t lastOrigin_ = 0;
    bool changed_ = false;
    bool isBounded_ = true;               // by maxRules_
    std::vector<PendingCommand> rebased_; // what the last rebase() carried out; empty when commands came since
    std::set<std::uint64_t> lostNumbers_; // of rebased_
};

} // namespace rlv

#endif
