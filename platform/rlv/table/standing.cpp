#include "rlv/table/standing.h"

#include <algorithm>
#include <array>
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
        return std::move(result_);
    }

private:
    using Places = std::vector<Standing::Place>;
    using Kept = std::vector<const HeldRule *>; // for each place the rule that is still there, or null

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

    // The rules that are hooks of ours, in order. What leads to chains that did not stand is not.
    std::vector<const HeldRule *> ourHooks(const std::string &name) const {
        std::vector<const HeldRule *> hooks;
        for (const HeldRule &held : chainIn(ruleset_, name).rules) {
            const std::string *const target = hookTarget(held);
            if (target != nullptr && standing_.chains.count(*target) > 0)
                hooks.push_back(&held);
        }
        return hooks;
    }

    // From behind, so that of two equal hooks the later stays: that is the one which was appended with the others.
    static Kept keep(const Places &places, const std::vector<const HeldRule *> &hooks, const HeldChain &chain) {
        std::unordered_map<std::uint64_t, const HeldRule *> others;
        for (const HeldRule &held : chain.rules)
            others.emplace(held.handle, &held);
        Kept kept(places.size(), nullptr);
        std::size_t left = hooks.size();
        for (std::size_t i = places.size(); i > 0; --i) {
            const Standing::Place &place = places[i - 1];
            if (place.hook.empty()) {
                const auto found = others.find(place.handle);
                kept[i - 1] = found == others.end() ? nullptr : found->second;
                continue;
            }
            std::size_t at = left;
            while (at > 0 && *hookTarget(*hooks[at - 1]) != place.hook)
                --at;
            if (at == 0)
                continue;
            kept[i - 1] = hooks[at - 1];
            left = at - 1;
        }
        return kept;
    }

    // The handle of the rule before which a missing hook comes back: the first that is left of those behind it, else
    // the one after the last that is left of those before it; 0 for the end.
    static std::uint64_t behind(const Kept &kept, std::size_t place, const HeldChain &chain) {
        for (std::size_t i = place + 1; i < kept.size(); ++i) {
            if (kept[i] != nullptr)
                return kept[i]->handle;
        }
        for (std::size_t i = place; i > 0; --i) {
            if (kept[i - 1] == nullptr)
                continue;
            const auto after = static_cast<std::size_t>(kept[i - 1] - chain.rules.data()) + 1;
            return after < chain.rules.size() ? chain.rules[after].handle : 0;
        }
        return 0;
    }

    // What goes, goes last: something may have to come back before it.
    void setHooks(const std::string &name, const Places &places) {
        const HeldChain &chain = chainIn(ruleset_, name);
        const auto hooks = ourHooks(name);
        const Kept kept = keep(places, hooks, chain);
        for (std::size_t i = 0; i < places.size(); ++i) {
            if (places[i].hook.empty() || kept[i] != nullptr)
                continue;
            tell(name, "missing: -j " + places[i].hook);
            const std::uint64_t before = behind(kept, i, chain);
            Rule &rule = result_.hooks.emplace_back();
            rule.target = {Target::Kind::jump, places[i].hook};
            add(before == 0 ? Kind::appendRule : Kind::insertRule, &name, &rule, before);
        }
        for (const HeldRule *const hook : hooks) {
            if (std::find(kept.begin(), kept.end(), hook) != kept.end())
                continue;
            tell(name, "twice or at another place: " + textOf(*hook));
            add(Kind::deleteRule, &name, nullptr, hook->handle);
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
        if (std::find(kHookChains.begin(), kHookChains.end(), name) != kHookChains.end())
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

bool holdsForeignRules(const Ruleset &ruleset, const std::string &chainPrefix) {
    return std::any_of(ruleset.chains.begin(), ruleset.chains.end(), [&](const auto &entry) {
        const auto &rules = entry.second.rules;
        return isOwnChain(entry.first, chainPrefix) &&
               std::any_of(rules.begin(), rules.end(), [](const HeldRule &held) { return !held.rule; });
    });
}

Restoration restore(const Standing &standing, const Ruleset &ruleset, bool isWhole) {
    return Restorer(standing, ruleset, isWhole).make();
}

} // namespace rlv
