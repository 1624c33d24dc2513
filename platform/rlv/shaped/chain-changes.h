// What is to become of one logical chain, and the changes of the kernel's chains that this comes to.
#ifndef PLATFORM_RLV_SHAPED_CHAIN_CHANGES_H
#define PLATFORM_RLV_SHAPED_CHAIN_CHANGES_H

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rlv/shaped/laid-chain.h"
#include "rlv/table/ruleset-backend.h"

namespace rlv {

using Cause = std::optional<std::size_t>; // the place of a logical change among those of a transaction

// The logical changes of one chain, put together.
struct Outcome {
    struct Added {
        shape::LogicalRule rule;
        shape::Id before = 0; // a rule that stays; 0: at the end
        std::size_t cause = 0;
    };
    bool isFlushed = false;
    bool isTidied = false;
    std::size_t flushCause = 0;
    std::unordered_map<shape::Id, std::size_t> gone; // with their causes
    std::vector<Added> added;

    bool goes(shape::Id id) const { return isFlushed || gone.count(id) > 0; }
    Cause causeOf(shape::Id id) const;
};

// Added rules get ids from `nextId` on. None where a rule is named that whoever reads cannot know.
std::optional<Outcome> outcomeOf(const LaidChain &chain, const Changes &changes, const std::vector<std::size_t> &places,
                                 shape::Id &nextId);

// A rule of others stays behind rules of ours, or one of ours is to come before it: what would be laid out anew would
// come to stand on its other side, and its packets with it.
bool isHeldByOthers(const std::string &name, const LaidChain &chain, const Outcome &outcome);

// What is left of `standing`, with what is added in its place. `idOf` and `make` go from elements to ids, and from
// added rules to elements.
template <typename Element, typename IdOf, typename Make>
std::vector<Element> composed(const std::vector<Element> &standing, const Outcome &outcome, IdOf idOf, Make make) {
    std::unordered_map<shape::Id, std::vector<Element>> before;
    for (const Outcome::Added &added : outcome.added) {
        if (added.before != 0)
            before[added.before].push_back(make(added));
    }
    std::vector<Element> result;
    result.reserve(standing.size() + outcome.added.size());
    for (const Element &element : standing) {
        const auto inserted = before.empty() ? before.end() : before.find(idOf(element));
        if (inserted != before.end())
            result.insert(result.end(), inserted->second.begin(), inserted->second.end());
        if (!outcome.goes(idOf(element)))
            result.push_back(element);
    }
    for (const Outcome::Added &added : outcome.added) {
        if (added.before == 0)
            result.push_back(make(added));
    }
    return result;
}

// Changes of the kernel's chains, and the chain as they leave it. What they point to goes with them.
struct Block {
    explicit Block(LaidChain after) : next(std::move(after)) {}

    void add(Change::Kind kind, const std::string &chain, Cause cause, std::uint64_t handle = 0);
    void addRule(Change::Kind kind, const std::string &chain, const Rule &rule, Cause cause, std::uint64_t before = 0,
                 const Counters *counted = nullptr);
    // One of `operations`.
    void addOperation(Change::Kind kind, const shape::Operation &operation, Cause cause, std::uint64_t handle = 0,
                      const Counters *counted = nullptr);

    Changes changes;
    std::vector<Cause> causes; // one for each
    LaidChain next;
    std::deque<std::string> names;
    std::deque<Rule> rules;
    std::deque<Counters> counters;
    shape::Operations operations;

private:
    const Counters *kept(const Counters *counted);
};

// Reads handles and counters out of the kernel.
class CountReader {
public:
    // The backend must outlive the object.
    CountReader(RulesetBackend &backend, std::uint32_t generation) : backend_(backend), generation_(generation) {}

    using Counts = std::unordered_map<shape::Id, Counters>;
    // Of all that stands in these chains: the handles go into `chain`. False where somebody has changed the ruleset.
    [[nodiscard]] bool read(LaidChain &chain, const std::set<std::string> &names, Counts &counts) const;

private:
    RulesetBackend &backend_;
    std::uint32_t generation_;
};

// The names of the chain's sub-chains, also of those that no branch leads to.
std::vector<std::string> subChainsOf(const LaidChain &chain, const std::string &name);

// As they are given, each rule added to the chain itself. Holds whatever else others have made of sub-chains. None
// where somebody has changed the ruleset.
std::optional<Block> layPlainly(const std::string &name, const LaidChain &chain, const Outcome &outcome,
                                const Changes &changes, const std::vector<std::size_t> &places,
                                const shape::Limits &limits, const CountReader &reader);

// All rules in the chain itself, and no sub-chains. What is sent anew that nobody has asked for has the `cause`. None
// where somebody has changed the ruleset.
std::optional<Block> layAsList(const std::string &name, const LaidChain &chain, const Outcome &outcome,
                               std::size_t cause, const shape::Limits &limits, const CountReader &reader,
                               shape::Id &nextId);

// The chain as it is best, all that others have made of its sub-chains taken out. None where somebody has changed the
// ruleset.
std::optional<Block> layOut(const std::string &name, const LaidChain &chain, const Outcome &outcome,
                            const Changes &changes, const std::vector<std::size_t> &places, const shape::Limits &limits,
                            const CountReader &reader, shape::Id &nextId);

} // namespace rlv

#endif
