#include "rlv/table/comparison.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include "rlv/table/rule-text.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

constexpr std::uint64_t kMaxListed = 1'000;

using Kind = Difference::Kind;
using Effect = OtherRule::Effect;

// Where the rules of a chain do the same to a packet, none of them matters beside another, nor does their order.
bool isOrdered(const std::vector<Rule> &rules) {
    return std::any_of(rules.begin(), rules.end(),
                       [&](const Rule &rule) { return rule.target != rules.front().target; });
}

const OtherRule &otherOf(const StandingChain &chain, const StandingRule &standing) {
    static const OtherRule unknown{"[a rule of another kind]", Effect::decides, {}};
    const auto found = chain.others.find(standing.handle);
    return found == chain.others.end() ? unknown : found->second;
}

std::string textOf(const StandingChain &chain, const StandingRule &standing) {
    return standing.rule ? describe(*standing.rule) : otherOf(chain, standing).text;
}

// One chain that is wholly ours.
class OwnChain {
public:
    OwnChain(const std::string &name, const StandingChain &chain, const std::vector<Rule> &wanted,
             Comparison &comparison)
        : name_(name), chain_(chain), wanted_(wanted), comparison_(comparison) {}

    // Gives back how many of the wanted rules stand.
    std::size_t compare() {
        const bool ordered = isOrdered(wanted_);
        pairEqualRules(ordered);
        pairChangedRules(ordered);
        tell(missing_, Kind::missing);
        for (const std::size_t place : foreign_)
            add(comparison_, {Kind::foreign, name_, textOf(chain_, chain_.rules[place]), {}});
        if (ordered && isComplete_)
            compareOrder();
        return inForce_;
    }

private:
    struct Count {
        std::size_t left = 0; // of the wanted ones, those that do not stand
    };

    void pairEqualRules(bool ordered) {
        std::unordered_map<const Rule *, Count, RuleHash, SameRule> counts;
        counts.reserve(wanted_.size());
        for (const Rule &rule : wanted_)
            ++counts[&rule].left;
        for (std::size_t place = 0; place < chain_.rules.size(); ++place) {
            const auto &standing = chain_.rules[place].rule;
            const auto found = standing ? counts.find(&*standing) : counts.end();
            if (found == counts.end() || (ordered && found->second.left == 0)) {
                foreign_.push_back(place);
            } else if (found->second.left == 0) {
                add(comparison_, {Kind::twice, name_, describe(*standing), {}});
            } else {
                --found->second.left;
                ++inForce_;
            }
        }
        if (inForce_ == wanted_.size())
            return;
        for (std::size_t place = wanted_.size(); place > 0; --place) {
            Count &count = counts[&wanted_[place - 1]];
            if (count.left > 0) {
                --count.left;
                missing_.push_back(place - 1);
            }
        }
        std::reverse(missing_.begin(), missing_.end());
        isComplete_ = false;
    }

    // A rule with the same match, or at the same place in an order, is the wanted one with something else about it.
    void pairChangedRules(bool ordered) {
        if (missing_.empty() || foreign_.empty())
            return;
        std::unordered_multimap<const Rule *, std::size_t, MatchHash, SameMatch> byMatch;
        for (const std::size_t place : missing_)
            byMatch.emplace(&wanted_[place], place);
        std::set<std::size_t> found;
        const auto isChanged = [&](std::size_t place) {
            const auto &standing = chain_.rules[place].rule;
            auto wanted = standing ? byMatch.find(&*standing) : byMatch.end();
            if (wanted == byMatch.end() && ordered)
                wanted =
                    std::find_if(byMatch.begin(), byMatch.end(), [&](const auto &one) { return one.second == place; });
            if (wanted == byMatch.end())
                return false;
            add(comparison_, {Kind::changed, name_, textOf(chain_, chain_.rules[place]),
                              "wanted: " + describe(wanted_[wanted->second])});
            found.insert(wanted->second);
            byMatch.erase(wanted);
            return true;
        };
        foreign_.erase(std::remove_if(foreign_.begin(), foreign_.end(), isChanged), foreign_.end());
        const auto isFound = [&](std::size_t place) { return found.count(place) > 0; };
        missing_.erase(std::remove_if(missing_.begin(), missing_.end(), isFound), missing_.end());
    }

    void tell(const std::vector<std::size_t> &places, Kind kind) {
        for (const std::size_t place : places)
            add(comparison_, {kind, name_, describe(wanted_[place]), {}});
    }

    // All wanted rules stand: do they one after another?
    void compareOrder() {
        std::size_t next = 0;
        for (const StandingRule &standing : chain_.rules) {
            if (next < wanted_.size() && standing.rule && *standing.rule == wanted_[next])
                ++next;
        }
        if (next < wanted_.size())
            add(comparison_,
                {Kind::changed, name_, describe(wanted_[next]), "wanted after: " + describe(wanted_[next - 1])});
    }

    const std::string &name_;
    const StandingChain &chain_;
    const std::vector<Rule> &wanted_;
    Comparison &comparison_;
    std::vector<std::size_t> foreign_; // places of rules that stand
    std::vector<std::size_t> missing_; // places of wanted rules
    std::size_t inForce_ = 0;
    bool isComplete_ = true;
};

// INPUT or OUTPUT, where only some jumps are ours.
class BuiltInChain {
public:
    BuiltInChain(const std::string &name, const Ruleset &ruleset, const WantedChains &wanted, Comparison &comparison)
        : name_(name), ruleset_(ruleset), wantedChains_(wanted), chain_(ruleset.chains.at(name)),
          wanted_(wanted.at(name)), comparison_(comparison), places_(wanted_.size()) {}

    // Gives back how many of the wanted jumps stand.
    std::size_t compare() {
        if (!chain_.isBase)
            add(comparison_, {Kind::changed, name_, {}, "wanted: a base chain, no packet enters this one"});
        else if (chain_.baseChainError != 0)
            add(comparison_, {Kind::changed, name_, {}, "wanted: a base chain of type filter at the hook of its name"});
        findHooks();
        findChangedHooks();
        compareOrder();
        findShadowing();
        return static_cast<std::size_t>(
            std::count_if(places_.begin(), places_.end(), [](const auto &place) { return place.has_value(); }));
    }

private:
    void findHooks() {
        for (std::size_t place = 0; place < chain_.rules.size(); ++place) {
            const auto &standing = chain_.rules[place].rule;
            const auto hook = standing ? std::find(wanted_.begin(), wanted_.end(), *standing) : wanted_.end();
            if (hook == wanted_.end())
                continue;
            ours_.insert(place);
            auto &first = places_[static_cast<std::size_t>(hook - wanted_.begin())];
            if (first)
                add(comparison_, {Kind::foreign, name_, describe(*standing), "it stands there once already"});
            else
                first = place;
        }
    }

    // Which chain a rule leads to, however.
    std::string targetOf(std::size_t place) const {
        const StandingRule &standing = chain_.rules[place];
        if (!standing.rule)
            return otherOf(chain_, standing).target;
        return standing.rule->target.kind == Target::Kind::jump ? standing.rule->target.text : std::string();
    }

    void findChangedHooks() {
        for (std::size_t i = 0; i < wanted_.size(); ++i) {
            if (places_[i])
                continue;
            std::size_t place = 0;
            while (place < chain_.rules.size() && targetOf(place) != wanted_[i].target.text)
                ++place;
            if (place == chain_.rules.size()) {
                add(comparison_, {Kind::missing, name_, describe(wanted_[i]), {}});
                continue;
            }
            ours_.insert(place);
            add(comparison_,
                {Kind::changed, name_, textOf(chain_, chain_.rules[place]), "wanted: " + describe(wanted_[i])});
        }
    }

    void compareOrder() {
        for (std::size_t i = 1; i < wanted_.size(); ++i) {
            if (places_[i] && places_[i - 1] && *places_[i] < *places_[i - 1])
                add(comparison_,
                    {Kind::changed, name_, describe(wanted_[i]), "wanted after: " + describe(wanted_[i - 1])});
        }
    }

    void findShadowing() {
        std::size_t end = 0;
        for (const auto &place : places_)
            end = std::max(end, place.value_or(0));
        for (std::size_t place = 0; place < end; ++place) {
            if (ours_.count(place) == 0 && mayDecide(chain_, chain_.rules[place], true))
                add(comparison_, {Kind::shadowing, name_, textOf(chain_, chain_.rules[place]), {}});
        }
    }

    bool mayDecide(const StandingChain &in, const StandingRule &standing, bool isBase) const {
        if (!standing.rule) {
            const OtherRule &other = otherOf(in, standing);
            return other.effect == Effect::decides || (other.effect == Effect::returns && isBase) ||
                   (other.effect == Effect::jumps && mayDecide(other.target));
        }
        const Target &target = standing.rule->target;
        if (target.kind == Target::Kind::jump)
            return mayDecide(target.text);
        return target.kind != Target::Kind::log;
    }

    // The kernel lets no chain jump to itself in the end.
    bool mayDecide(const std::string &name) const {
        const auto found = ruleset_.chains.find(name);
        if (found == ruleset_.chains.end() || wantedChains_.count(name) > 0)
            return true;
        const StandingChain &chain = found->second;
        return chain.mayDecide ||
               std::any_of(chain.rules.begin(), chain.rules.end(),
                           [&](const StandingRule &standing) { return mayDecide(chain, standing, false); }) ||
               std::any_of(chain.jumps.begin(), chain.jumps.end(),
                           [&](const auto &jump) { return jump.second > 0 && mayDecide(jump.first); });
    }

    const std::string &name_;
    const Ruleset &ruleset_;
    const WantedChains &wantedChains_;
    const StandingChain &chain_;
    const std::vector<Rule> &wanted_;
    Comparison &comparison_;
    std::vector<std::optional<std::size_t>> places_; // of the wanted jumps
    std::set<std::size_t> ours_;                     // places of rules that are, or should be, such a jump
};

std::size_t compareChain(const std::string &name, const Ruleset &ruleset, const WantedChains &wanted,
                         Comparison &comparison) {
    const auto found = ruleset.chains.find(name);
    if (found == ruleset.chains.end()) {
        static const StandingChain none;
        add(comparison, {Kind::missing, name, {}, {}});
        return OwnChain(name, none, wanted.at(name), comparison).compare();
    }
    if (isBuiltInChain(name))
        return BuiltInChain(name, ruleset, wanted, comparison).compare();
    if (found->second.isBase)
        add(comparison, {Kind::changed, name, {}, "wanted: a chain that packets enter by our jumps alone"});
    for (const std::string &below : found->second.leavesBehind)
        add(comparison, {Kind::changed, below, {}, "wanted: no jump to it but those from " + name});
    return OwnChain(name, found->second, wanted.at(name), comparison).compare();
}

} // namespace

void add(Comparison &comparison, Difference difference) {
    if (++comparison.counts.at(static_cast<std::size_t>(difference.kind)) <= kMaxListed)
        comparison.differences.push_back(std::move(difference));
}

void compareChains(const Ruleset &ruleset, const WantedChains &wanted, Comparison &comparison) {
    if (ruleset.isDormant)
        add(comparison, {Kind::changed, {}, {}, "wanted: the table filter switched on, it is dormant"});
    for (const auto &[name, rules] : wanted) {
        const std::size_t inForce = compareChain(name, ruleset, wanted, comparison);
        comparison.chains.push_back({name, rules.size(), ruleset.isDormant ? 0 : inForce});
    }
}

} // namespace rlv
