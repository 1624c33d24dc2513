// What stands in a packet filter's IPv4 filter table.
#ifndef PLATFORM_RLV_TABLE_RULESET_H
#define PLATFORM_RLV_TABLE_RULESET_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "rlv/rule.h"

namespace rlv {

struct StandingRule {
    std::uint64_t handle = 0;
    std::optional<Rule> rule; // none where it is no rule of our kind
};

// A rule of the kernel that a Rule cannot hold, as far as it can be told.
struct OtherRule {
    // What becomes of a packet that it matches. `decides` stands for all of which it is not known.
    enum class Effect { goesOn, jumps, returns, decides };
    std::string text; // nearly as iptables shows it
    Effect effect = Effect::goesOn;
    std::string target; // the chain that it jumps or goes to; empty for none
};

// What a rule has counted.
struct Counters {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};

struct StandingChain {
    // Of the chains that the service may change; empty for others.
    std::vector<StandingRule> rules;
    // False: all of our rules do the same to a packet, and stand where the backend has put them. Their order here says
    // nothing.
    bool isOrdered = true;
    // False: the backend would lay the chain out otherwise now, see Change::Kind::tidyChain.
    bool isTidy = true;
    // What others have made of how the chain lies in the kernel, beyond what its rules show, for people; empty where
    // that is nothing. Change::Kind::tidyChain puts an end to it.
    std::string disorder;
    // Chains that lie below this one in the kernel, and stay, emptied, when it is deleted: something of others refers
    // to them.
    std::set<std::string> leavesBehind;
    // It was left behind that way by a chain of ours, and is still ours to be removed, though no command can name it.
    bool isLeftBehind = false;
    // False where rules have no handles, because they were sent from here and not read since.
    bool handlesKnown = true;
    std::map<std::string, std::size_t> jumps;  // how many rules jump or go to each chain, those of others included
    std::size_t usesElsewhere = 0;             // what else refers to the chain: maps of verdicts
    std::map<std::uint64_t, OtherRule> others; // of `rules`, those that are no rule of our kind, by handle
    bool mayDecide = false;                    // of a chain without `rules`: one of them decides by itself
    bool isBase = false;                       // packets enter the table here
    int baseChainError = 0; // the errno with which the kernel refuses to take this chain for INPUT or OUTPUT
};

struct Ruleset {
    std::uint32_t generation = 0; // the number that changes with every transaction of anybody
    std::map<std::string, StandingChain> chains;
    bool isDormant = false; // the whole table is switched off
};

} // namespace rlv

#endif
