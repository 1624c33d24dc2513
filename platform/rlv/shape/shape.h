// How a logical chain lies in the kernel: a chain whose rules all have one and the same target as a decision tree of
// plain rules. The chain itself holds branches ("-d 10.0.0.0/13 -j VPK-DENY.j3/5") and the rules that no branch takes,
// the sub-chains that they lead to hold the same, down to chains of a few rules. Each rule stands exactly once, so that
// counters and deletions stay what they are. A packet that no rule of a sub-chain matches comes back and goes on: so
// it meets exactly the rules that it can match, and since all of them say the same it does not matter in which order.
//
// Values and functions of them alone: nothing here knows of netlink. Not thread-safe.
#ifndef PLATFORM_RLV_SHAPE_SHAPE_H
#define PLATFORM_RLV_SHAPE_SHAPE_H

#include <cstddef>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "rlv/shape/arrangement.h"
#include "rlv/shape/operations.h"

namespace rlv::shape {

struct Limits {
    std::size_t treeFrom = 64; // up to so many rules a list stays a list; 0: every chain is one
    // Chains below one another. The kernel takes 15 jumps: these, one from the hook's chain and one to the rules'
    // target leave two for others.
    unsigned depth = 11;
    Tuning tuning;
};

// A rule as it stands in a chain.
struct PlacedRule {
    Id id = 0;
    std::optional<Rule> rule; // none where it is no rule of our kind
};
// What stands in each chain, in order.
using Chains = std::map<std::string, std::vector<PlacedRule>, std::less<>>;

// What a reading found that no update leaves behind.
struct Damage {
    struct At {
        std::string chain;
        Id id = 0;
    };
    std::vector<At> unreached;        // rules of the logical chain that no packet, or not each of theirs, gets to
    std::vector<At> foreign;          // in sub-chains: rules of other kinds, or with another target
    std::vector<At> strayBranches;    // second ways to a sub-chain, to another target's, or that no packet can take
    std::vector<std::string> orphans; // sub-chains that no branch leads to

    bool isNone() const { return unreached.empty() && foreign.empty() && strayBranches.empty() && orphans.empty(); }
};

struct LogicalRule {
    Id id = 0;
    Rule rule;
};

struct Update {
    Operations operations; // none where nothing has to change
    // Rules that were to be removed and equal one that was added: they stay, and are what was added. The rule's id and
    // the place among the added ones.
    struct Stays {
        Id id = 0;
        std::size_t added = 0;
    };
    std::vector<Stays> stays;
};

class Shape {
public:
    // An empty chain.
    explicit Shape(std::string chain, Limits limits = Limits());
    ~Shape();
    Shape(const Shape &other);
    Shape &operator=(const Shape &other) = delete;
    Shape(Shape &&other) noexcept;
    Shape &operator=(Shape &&other) noexcept;

    // The logical chain `chain` from what stands in it and in all chains of names that begin with its own; others in
    // `chains` are not looked at. Nothing but what is given decides: the same chains always give the same shape.
    static Shape read(const std::string &chain, const Chains &chains, Limits limits = Limits());

    // What the reading found; empty after an update.
    const Damage &damage() const;

    // The logical chain: each rule once, those that are not reached left out, and so are those of other kinds, and of
    // another target in a tree. In the order of the chain while that is a list, else in no particular one.
    std::vector<LogicalRule> rules() const;
    std::size_t size() const;
    bool isTree() const;
    // False where a chain with these rules would be a list if it were a tree, or one that is to be tried as a tree
    // where it is a list.
    bool isOfItsSize() const;

    // Takes away the rules of these ids and adds others, in order; their ids are new. Gives back what has to change,
    // and is the new shape at once. All damage ends with it: what is not reached goes (where an added rule equals it,
    // with its counters), what is foreign in sub-chains goes, and what is foreign in the chain itself stays where it
    // is unless it is among the removed. Where the targets come to be different ones, the chain becomes a list again,
    // with the added rules at its end. Of the rules that equal an added one, at most so many stay; the others come
    // again with their counters.
    //
    // Branches get ids from `nextId` on, which is counted up. Throws std::invalid_argument, with nothing changed, for
    // an id of which nothing stands in rules() or in the chain itself, and for an added one that is in use or 0.
    Update update(const std::vector<Id> &removed, const std::vector<LogicalRule> &added, Id &nextId,
                  std::size_t mostStay = std::numeric_limits<std::size_t>::max());

    // No sub-chain gets this name.
    void reserve(const std::string &name);
    // What stands in these chains, in order, what is foreign included.
    std::map<std::string, std::vector<Id>> idsIn(const std::set<std::string> &chains) const;
    std::vector<std::string> subChains() const; // that are reached
    // What is foreign in the chain itself, in order, but for what is part of the damage: updates leave it where it is.
    std::vector<Id> others() const;

    // As it stands, for whoever has to write or compare it.
    Chains chains() const;
    std::size_t chainCount() const; // the chain itself included
    // Jumps from the chain itself to the deepest sub-chain.
    unsigned depth() const;
    // No packet looks at more rules, branches included, and sub-chains counted as often as they are entered.
    std::size_t longestWalk() const;

private:
    struct State;
    std::unique_ptr<State> state_; // never empty, but in one that was moved from
};

} // namespace rlv::shape

#endif
