#include "rlv/table/restoration.h"

#include <algorithm>
#include <limits>
#include <set>
#include <unordered_map>

#include "rlv/table/chain-plan.h"
#include "rlv/table/layout.h"
#include "rlv/table/longest-increasing-subsequence.h"
#include "rlv/table/rule-text.h"

namespace rlv {

namespace {

constexpr std::size_t kMaxTexts = 10;

using Kind = Change::Kind;

bool hasHooks(const std::vector<DesiredState::Place> &places) {
    return std::any_of(places.begin(), places.end(), [](const auto &place) { return !place.hook.empty(); });
}

const StandingChain &chainIn(const Ruleset &ruleset, const std::string &name) {
    static const StandingChain none;
    const auto found = ruleset.chains.find(name);
    return found == ruleset.chains.end() ? none : found->second;
}

std::string textOf(const StandingRule &standing) {
    return standing.rule ? describe(*standing.rule) : "a rule of another kind";
}

bool haveOneTarget(const std::vector<Rule> &rules) {
    return std::all_of(rules.begin(), rules.end(),
                       [&](const Rule &rule) { return rule.target == rules.front().target; });
}

bool areSame(const std::vector<Rule> &rules, const std::vector<StandingRule> &standing) {
    const auto isSame = [](const Rule &rule, const StandingRule &other) { return other.rule == rule; };
    return std::equal(rules.begin(), rules.end(), standing.begin(), standing.end(), isSame);
}

bool areSameInAnyOrder(const std::vector<Rule> &rules, const std::vector<StandingRule> &standing) {
    if (rules.size() != standing.size())
        return false;
    std::unordered_map<const Rule *, std::size_t, RuleHash, SameRule> left;
    left.reserve(rules.size());
    for (const Rule &rule : rules)
        ++left[&rule];
    return std::all_of(standing.begin(), standing.end(), [&](const StandingRule &one) {
        const auto found = one.rule ? left.find(&*one.rule) : left.end();
        return found != left.end() && found->second-- > 0;
    });
}

class Restorer {
public:
    Restorer(const DesiredState &desired, const Ruleset &ruleset, bool isWhole)
        : desired_(desired), ruleset_(ruleset), isWhole_(isWhole) {}

    // New chains first, so that rules may jump to them.
    Restoration make() {
        for (const auto &[name, rules] : desired_.chains)
            makeChain(name);
        for (const auto &[name, places] : desired_.builtInChains) {
            if (hasHooks(places) && !chainIn(ruleset_, name).isBase)
                makeHookChain(name);
        }
        for (const auto &[name, rules] : desired_.chains)
            fillChain(name, rules);
        for (const auto &[name, places] : desired_.builtInChains)
            setHooks(name, places);
        wake();
        return std::move(result_);
    }

private:
    using Places = std::vector<DesiredState::Place>;
    // For each place the position in the chain at which its rule still stands, or kGone. Positions rise.
    using Kept = std::vector<std::size_t>;
    static constexpr std::size_t kGone = std::numeric_limits<std::size_t>::max();

    void tell(const std::string &chain, const std::string &what) {
        ++result_.differences;
        if (result_.texts.size() < kMaxTexts)
            result_.texts.push_back(chain + ": " + what);
    }

    void add(Kind kind, const std::string *chain, const Rule *rule = nullptr, std::uint64_t handle = 0) {
        result_.changes.push_back({kind, chain, rule, handle});
    }

    void add(const Changes &changes) { result_.changes.insert(result_.changes.end(), changes.begin(), changes.end()); }

    void addTable() {
        if (result_.changes.empty())
            add(Kind::addTable, nullptr);
    }

    // One of which somebody has made a base chain is taken away first: nothing can jump to it.
    void makeChain(const std::string &name) {
        const auto standing = ruleset_.chains.find(name);
        if (standing != ruleset_.chains.end() && !standing->second.isBase)
            return;
        addTable();
        if (standing == ruleset_.chains.end()) {
            tell(name, "the chain is missing");
        } else {
            tell(name, "packets enter the table through this chain");
            add(Kind::flushChain, &name);
            add(Kind::deleteChain, &name);
        }
        add(Kind::addChain, &name);
        made_.insert(name);
    }

    void makeHookChain(const std::string &name) {
        tell(name, "the chain is missing, or packets do not enter the table through it");
        addTable();
        add(Kind::addBaseChain, &name);
    }

    // Last, because the kernel lets no base chain come after it.
    void wake() {
        if (!ruleset_.isDormant)
            return;
        tell("filter", "the table is switched off (dormant)");
        add(Kind::wakeTable, nullptr);
    }

    void fillChain(const std::string &name, const std::vector<Rule> &rules) {
        const StandingChain none;
        const StandingChain &chain = made_.count(name) > 0 ? none : chainIn(ruleset_, name);
        const auto &standing = chain.rules;
        if (!chain.disorder.empty()) {
            tell(name, chain.disorder);
            add(Kind::tidyChain, &name);
        }
        const bool isOrdered = chain.isOrdered || !haveOneTarget(rules);
        if (isOrdered ? areSame(rules, standing) : areSameInAnyOrder(rules, standing))
            return;
        tellOfRules(name, rules, chainIn(ruleset_, name).rules);
        std::vector<const Rule *> appended;
        appended.reserve(rules.size());
        for (const Rule &rule : rules)
            appended.push_back(&rule);
        ChainPlan plan =
            planChain(standing, std::vector<bool>(standing.size(), true), appended, {isWhole_, true, isOrdered});
        if (!isWhole_ && !plan.refill) { // handles may be gone already
            plan.refill = true;
            plan.deletions.clear();
        }
        add(removalsOf(plan, name, standing));
        add(insertionsOf(plan, name, standing, appended));
    }

    void tellOfRules(const std::string &name, const std::vector<Rule> &rules,
                     const std::vector<StandingRule> &standing) {
        const std::size_t before = result_.differences;
        std::unordered_map<std::string, std::size_t> here;
        for (const StandingRule &rule : standing)
            ++here[textOf(rule)];
        for (const Rule &rule : rules) {
            const std::string text = describe(rule);
            if (here[text] > 0)
                --here[text];
            else
                tell(name, "missing: " + text);
        }
        for (const StandingRule &rule : standing) {
            const std::string text = textOf(rule);
            if (here[text] > 0 && here[text]-- > 0)
                tell(name, "foreign: " + text);
        }
        if (result_.differences == before)
            tell(name, "the rules are in another order");
    }

    // Where hooks of ours stand, rising. What leads to chains that did not stand is none.
    std::vector<std::size_t> ourHooks(const StandingChain &chain) const {
        std::vector<std::size_t> hooks;
        for (std::size_t position = 0; position < chain.rules.size(); ++position) {
            const std::string *const target = bareJumpTarget(chain.rules[position]);
            if (target != nullptr && desired_.chains.count(*target) > 0)
                hooks.push_back(position);
        }
        return hooks;
    }

    // The places of others of which the rules are still there. Where their owner has put them into another order, those
    // that have kept the old one among themselves, as many as there are. A removes the table, we make it again, and its
    // handles begin anew: then one of our hooks may have the handle that a rule of others had.
    static Kept keepOthers(const Places &places, const std::vector<std::size_t> &hooks, const StandingChain &chain) {
        std::unordered_map<std::uint64_t, std::size_t> positions;
        for (std::size_t position = 0; position < chain.rules.size(); ++position) {
            if (!std::binary_search(hooks.begin(), hooks.end(), position))
                positions.emplace(chain.rules[position].handle, position);
        }
        std::vector<std::size_t> left;  // the places of which the rules are there
        std::vector<std::size_t> where; // they are
        for (std::size_t i = 0; i < places.size(); ++i) {
            const auto position = places[i].hook.empty() ? positions.find(places[i].handle) : positions.end();
            if (position == positions.end())
                continue;
            left.push_back(i);
            where.push_back(position->second);
        }
        Kept kept(places.size(), kGone);
        for (const std::size_t i : longestIncreasingSubsequence(where))
            kept[left[i]] = where[i];
        return kept;
    }

    // What is kept rises, and goes on doing so with this position at this place.
    static bool fits(const Kept &kept, std::size_t place, std::size_t position) {
        const auto isKept = [](std::size_t one) { return one != kGone; };
        const auto behind = std::find_if(kept.begin() + static_cast<std::ptrdiff_t>(place) + 1, kept.end(), isKept);
        const auto before = std::find_if(kept.rend() - static_cast<std::ptrdiff_t>(place), kept.rend(), isKept);
        return (behind == kept.end() || position < *behind) && (before == kept.rend() || *before < position);
    }

    // The oldest hooks first: when somebody has added one that stands there already, or has moved one by adding it
    // again, the one that was there before is the one that is where it should be.
    static Kept keep(const Places &places, std::vector<std::size_t> hooks, const StandingChain &chain) {
        Kept kept = keepOthers(places, hooks, chain);
        std::sort(hooks.begin(), hooks.end(), [&](std::size_t left, std::size_t right) {
            return chain.rules[left].handle < chain.rules[right].handle;
        });
        for (const std::size_t position : hooks) {
            for (std::size_t i = 0; i < places.size(); ++i) {
                if (kept[i] != kGone || places[i].hook != *bareJumpTarget(chain.rules[position]) ||
                    !fits(kept, i, position))
                    continue;
                kept[i] = position;
                break;
            }
        }
        return kept;
    }

    // The handle of the rule before which a missing hook comes back: the first that is left of those behind it, else
    // the one after the last that is left of those before it. Where none is left, a hook before which there was nothing
    // of others comes first, as it did. 0 for the end.
    static std::uint64_t behind(const Places &places, const Kept &kept, std::size_t place, const StandingChain &chain) {
        const auto handleAt = [&](std::size_t position) {
            return position < chain.rules.size() ? chain.rules[position].handle : 0;
        };
        for (std::size_t i = place + 1; i < kept.size(); ++i) {
            if (kept[i] != kGone)
                return handleAt(kept[i]);
        }
        for (std::size_t i = place; i > 0; --i) {
            if (kept[i - 1] != kGone)
                return handleAt(kept[i - 1] + 1);
        }
        const bool wasFirst = std::none_of(places.begin(), places.begin() + static_cast<std::ptrdiff_t>(place),
                                           [](const auto &one) { return one.hook.empty(); });
        return wasFirst ? handleAt(0) : 0;
    }

    // What goes, goes last: something may have to come back before it.
    void setHooks(const std::string &name, const Places &places) {
        const StandingChain &chain = chainIn(ruleset_, name);
        const auto hooks = ourHooks(chain);
        const Kept kept = keep(places, hooks, chain);
        for (std::size_t i = 0; i < places.size(); ++i) {
            if (places[i].hook.empty() || kept[i] != kGone)
                continue;
            tell(name, "missing: -j " + places[i].hook);
            const std::uint64_t before = behind(places, kept, i, chain);
            Rule &rule = result_.hooks.emplace_back();
            rule.target = {Target::Kind::jump, places[i].hook};
            add(before == 0 ? Kind::appendRule : Kind::insertRule, &name, &rule, before);
        }
        for (const std::size_t hook : hooks) {
            if (std::find(kept.begin(), kept.end(), hook) != kept.end())
                continue;
            tell(name, "twice or at another place: " + textOf(chain.rules[hook]));
            add(Kind::deleteRule, &name, nullptr, chain.rules[hook].handle);
        }
    }

    const DesiredState &desired_;
    const Ruleset &ruleset_;
    bool isWhole_;
    Restoration result_;
    std::set<std::string> made_; // chains that begin empty
};

} // namespace

Restoration restore(const DesiredState &desired, const Ruleset &ruleset, bool isWhole) {
    return Restorer(desired, ruleset, isWhole).make();
}

} // namespace rlv
