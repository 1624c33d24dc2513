// What commands make of one chain before anything is sent.
#ifndef PLATFORM_RLV_TABLE_PENDING_CHAIN_H
#define PLATFORM_RLV_TABLE_PENDING_CHAIN_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "rlv/table/chain-plan.h"
#include "rlv/table/command.h"
#include "rlv/table/ruleset.h"

namespace rlv {

// The command of a client that something comes of; 0 is none. Rules of one command differ in their addresses alone.
struct Origin {
    std::uint64_t number = 0; // rises with the commands
    std::string options;
};

struct PendingCommand {
    Command command;
    Origin origin;
};

// A difference from the rules that stand in the chain, which its owner has and passes as `standing`. Rules are named by
// their places: those that stand, and behind them the appended ones.
struct PendingChain {
    struct Appended {
        Rule rule;
        Origin origin;
    };
    struct Deleted {
        std::size_t place = 0;
        Origin origin;
    };
    using StandingRules = std::vector<StandingRule>;

    // How many rules there will be.
    std::size_t size(const StandingRules &standing) const { return standing.size() - doomedCount + appended.size(); }
    // True when nothing has to be sent for the rules.
    bool areRulesUntouched() const { return doomedCount == 0 && appended.empty() && flushed.number == 0; }

    void flush(const StandingRules &standing, const Origin &origin);
    void append(const Rule &rule, const Origin &origin);
    // Where the first rule stands that equals each command's, two commands being two rules; none where one is missing.
    // Places fall.
    std::optional<std::vector<std::size_t>> placesOf(const std::vector<Command> &commands,
                                                     const StandingRules &standing) const;
    void remove(std::size_t place, const StandingRules &standing, const Origin &origin);
    // Takes back the appended rules from this place among them on, and jumps that no rule makes. Needs no memory.
    void takeBackFrom(std::size_t place);
    // Takes the appended rules of these commands back, and says how many they were.
    std::size_t takeBack(const std::set<std::uint64_t> &commands);

    std::vector<const Rule *> appendedRules() const;
    // Rules that do not all do the same have an order, whatever `limits` say.
    ChainPlan plan(const StandingRules &standing, PlanLimits limits) const;
    // Brings the rules to what they are by this plan.
    void carryOut(const ChainPlan &plan, StandingChain &standing);

    // Adds the commands that come to this. A chain of which `isMadeByRules` needs none to be made.
    void addCommands(const std::string &name, bool isMadeByRules, const StandingRules &standing,
                     std::vector<PendingCommand> &commands) const;

    bool exists = true;
    std::map<std::string, std::size_t> jumps; // to each chain, from all of its rules
    std::vector<bool> doomed;                 // of the standing rules; empty when none is
    std::size_t doomedCount = 0;
    std::vector<Appended> appended;
    std::vector<Deleted> deleted;
    Origin made;
    Origin flushed; // once flushed, no standing rule is left
    Origin removed;

private:
    void carryOutInAnyOrder(const ChainPlan &plan, StandingChain &standing);
    bool isDoomed(std::size_t place) const { return !doomed.empty() && doomed[place]; }
    void uncountJump(const Rule &rule);
};

} // namespace rlv

#endif
