#include "rlv/table/standing.h"

#include <algorithm>
#include <array>
#include <limits>
#include <set>
#include <unordered_map>

#include "rlv/table/chain-plan.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

constexpr std::array kHookChains{"INPUT", "OUTPUT"};
constexpr std::size_t kMaxTexts = 10;

using Kind = Change::Kind;

// The chain that a bare jump leads to; null for every other rule.
const std::string *hookTarget(const HeldRule &held) {
    if (!held.rule || held.rule->target.kind != Target::Kind::jump)
        return nullptr;
    Rule bare;
    bare.target = held.rule->target;
    return *held.rule == bare ? &held.rule->target.text : nullptr;
}

std::vector<Standing::Place> placesIn(const HeldChain &chain, const std::string &chainPrefix) {
    std::vector<Standing::Place> places;
    for (const HeldRule &held : chain.rules) {
        const std::string *const target = hookTarget(held);
        if (target != nullptr && isOwnChain(*target, chainPrefix))
            places.push_back({*target, 0});
        else
            places.push_back({"", held.handle});
    }
    return places;
}

// True when there were others, which are gone.
bool leaveLastHooks(std::vector<Standing::Place> &places) {
    std::set<std::string> seen;
    const auto end = std::remove_if(places.rbegin(), places.rend(), [&](const Standing::Place &place) {
        return !place.hook.empty() && !seen.insert(place.hook).second;
    });
    const bool isAny = end != places.rend();
    places.erase(places.begin(), end.base());
    return isAny;
}

bool isHookChain(const std::string &name) {
    return std::find(kHookChains.begin(), kHookChains.end(), name) != kHookChains.end();
}

bool hasHooks(const std::vector<Standing::Place> &places) {
    return std::any_of(places.begin(), places.end(), [](const auto &place) { return !place.hook.empty(); });
}

const HeldChain &chainIn(const Ruleset &ruleset, const std::string &name) {
    static const HeldChain none;
    const auto found = ruleset.chains.find(name);
    return found == ruleset.chains.end() ? none : found->second;
}

std::string textOf(const HeldRule &held) { return held.rule ? describe(*held.rule) : "a rule of another kind"; }

class Restorer {
public:
    Restorer(const Standing &standing, const Ruleset &ruleset, bool isWhole)
        : standing_(standing), ruleset_(ruleset), isWhole_(isWhole) {}

    // New chains first, so that rules may jump to them.
    Restoration make() {
        for (const auto &[name, rules] : standing_.chains)
            makeChain(name);
        for (const auto &[name, places] : standing_.hookChains) {
            if (hasHooks(places) && !chainIn(ruleset_, name).isBase)
                makeHookChain(name);
        }
        for (const auto &[name, rules] : standing_.chains)
            fillChain(name, rules);
        for (const auto &[name, places] : standing_.hookChains)
            setHooks(name, places);
        wake();
        return std::move(result_);
    }

private:
    using Places = std::vector<Standing::Place>;
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

    void addTable() {
        if (result_.changes.empty())
            add(Kind::addTable, nullptr);
    }

    // One of which somebody has made a base chain is taken away first: nothing can jump to it.
    void makeChain(const std::string &name) {
        const auto held = ruleset_.chains.find(name);
        if (held != ruleset_.chains.end() && !held->second.isBase)
            return;
        addTable();
        if (held == ruleset_.chains.end()) {
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
        const std::vector<HeldRule> none;
        const auto &held = made_.count(name) > 0 ? none : chainIn(ruleset_, name).rules;
        const auto isSame = [](const Rule &rule, const HeldRule &other) { return other.rule == rule; };
        if (std::equal(rules.begin(), rules.end(), held.begin(), held.end(), isSame))
            return;
        tellOfRules(name, rules, chainIn(ruleset_, name).rules);
        std::vector<const Rule *> appended;
        appended.reserve(rules.size());
        for (const Rule &rule : rules)
            appended.push_back(&rule);
        ChainPlan plan = planChain(held, std::vector<bool>(held.size(), true), appended, {isWhole_, true});
        if (!isWhole_ && !plan.refill) { // handles may be gone already
            plan.refill = true;
            plan.deletions.clear();
        }
        addRules(name, held, appended, plan);
    }

    void addRules(const std::string &name, const std::vector<HeldRule> &held, const std::vector<const Rule *> &rules,
                  const ChainPlan &plan) {
        if (plan.refill)
            add(Kind::flushChain, &name);
        for (const std::size_t place : plan.deletions)
            add(Kind::deleteRule, &name, nullptr, held[place].handle);
        for (const auto &insertion : plan.insertions) {
            if (insertion.before == ChainPlan::kAtTheEnd)
                add(Kind::appendRule, &name, rules[insertion.appended]);
            else
                add(Kind::insertRule, &name, rules[insertion.appended], held[insertion.before].handle);
        }
    }

    void tellOfRules(const std::string &name, const std::vector<Rule> &rules, const std::vector<HeldRule> &held) {
        const std::size_t before = result_.differences;
        std::unordered_map<std::string, std::size_t> here;
        for (const HeldRule &rule : held)
            ++here[textOf(rule)];
        for (const Rule &rule : rules) {
            const std::string text = describe(rule);
            if (here[text] > 0)
                --here[text];
            else
                tell(name, "missing: " + text);
        }
        for (const HeldRule &rule : held) {
            const std::string text = textOf(rule);
            if (here[text] > 0 && here[text]-- > 0)
                tell(name, "foreign: " + text);
        }
        if (result_.differences == before)
            tell(name, "the rules are in another order");
    }

    // Where hooks of ours stand. What leads to chains that did not stand is none.
    std::vector<std::size_t> ourHooks(const HeldChain &chain) const {
        std::vector<std::size_t> hooks;
        for (std::size_t position = 0; position < chain.rules.size(); ++position) {
            const std::string *const target = hookTarget(chain.rules[position]);
            if (target != nullptr && standing_.chains.count(*target) > 0)
                hooks.push_back(position);
        }
        return hooks;
    }

    // The places of others of which the rules are still there. Where their owner has put them into another order, those
    // that have kept the old one among themselves, as many as there are.
    static Kept keepOthers(const Places &places, const HeldChain &chain) {
        std::unordered_map<std::uint64_t, std::size_t> positions;
        for (std::size_t position = 0; position < chain.rules.size(); ++position)
            positions.emplace(chain.rules[position].handle, position);
        Kept found(places.size(), kGone);
        std::vector<std::size_t>
            rowEnds; // by the length of a rising row, the place of the lowest position that ends one
        std::vector<std::size_t> before(places.size(), kGone); // the place before it in its row
        for (std::size_t i = 0; i < places.size(); ++i) {
            const auto position = places[i].hook.empty() ? positions.find(places[i].handle) : positions.end();
            if (position == positions.end())
                continue;
            found[i] = position->second;
            const auto row = std::lower_bound(rowEnds.begin(), rowEnds.end(), found[i],
                                              [&](std::size_t place, std::size_t at) { return found[place] < at; });
            before[i] = row == rowEnds.begin() ? kGone : *(row - 1);
            if (row == rowEnds.end())
                rowEnds.push_back(i);
            else
                *row = i;
        }
        Kept kept(places.size(), kGone);
        for (std::size_t i = rowEnds.empty() ? kGone : rowEnds.back(); i != kGone; i = before[i])
            kept[i] = found[i];
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
    static Kept keep(const Places &places, std::vector<std::size_t> hooks, const HeldChain &chain) {
        Kept kept = keepOthers(places, chain);
        std::sort(hooks.begin(), hooks.end(), [&](std::size_t left, std::size_t right) {
            return chain.rules[left].handle < chain.rules[right].handle;
        });
        for (const std::size_t position : hooks) {
            for (std::size_t i = 0; i < places.size(); ++i) {
                if (kept[i] != kGone || places[i].hook != *hookTarget(chain.rules[position]) ||
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
    static std::uint64_t behind(const Places &places, const Kept &kept, std::size_t place, const HeldChain &chain) {
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
        const HeldChain &chain = chainIn(ruleset_, name);
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

    const Standing &standing_;
    const Ruleset &ruleset_;
    bool isWhole_;
    Restoration result_;
    std::set<std::string> made_; // chains that begin empty
};

} // namespace

Standing standingIn(const Ruleset &ruleset, const std::string &chainPrefix) {
    Standing standing;
    for (const auto &[name, chain] : ruleset.chains) {
        if (isHookChain(name))
            standing.hookChains[name] = placesIn(chain, chainPrefix);
        if (!isOwnChain(name, chainPrefix) || chain.isBase)
            continue;
        std::vector<Rule> &rules = standing.chains[name];
        rules.reserve(chain.rules.size());
        for (const HeldRule &held : chain.rules) {
            if (held.rule)
                rules.push_back(*held.rule);
        }
    }
    return standing;
}

Standing firstStandingIn(const Ruleset &ruleset, const std::string &chainPrefix) {
    Standing standing = standingIn(ruleset, chainPrefix);
    for (auto &[name, places] : standing.hookChains)
        leaveLastHooks(places);
    return standing;
}

bool isDisturbed(const Ruleset &ruleset, const std::string &chainPrefix) {
    return ruleset.isDormant || std::any_of(ruleset.chains.begin(), ruleset.chains.end(), [&](const auto &entry) {
               const auto &[name, chain] = entry;
               if (isHookChain(name)) {
                   auto places = placesIn(chain, chainPrefix);
                   return leaveLastHooks(places);
               }
               return isOwnChain(name, chainPrefix) && std::any_of(chain.rules.begin(), chain.rules.end(),
                                                                   [](const HeldRule &held) { return !held.rule; });
           });
}

Restoration restore(const Standing &standing, const Ruleset &ruleset, bool isWhole) {
    return Restorer(standing, ruleset, isWhole).make();
}

} // namespace rlv
