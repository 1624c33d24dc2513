#include "rlv/shaped/folding.h"

#include <algorithm>
#include <utility>

#include "rlv/shape/chain-names.h"
#include "rlv/shaped/chain-changes.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

using shape::Damage;
using shape::Id;
using shape::PlacedRule;

// The rules leave the chain: there may be many.
std::vector<PlacedRule> takenFrom(StandingChain &chain) {
    std::vector<PlacedRule> placed;
    placed.reserve(chain.rules.size());
    for (StandingRule &standing : chain.rules)
        placed.push_back({standing.handle, std::move(standing.rule)});
    return placed;
}

std::string counted(std::size_t number, const char *what) {
    return number == 0 ? "" : std::string(what) + " (" + std::to_string(number) + ")";
}

// One logical chain.
class Folder {
public:
    // `known` stands still, or nothing is known.
    Folder(const std::string &name, Ruleset &ruleset, const shape::Limits &limits, const LaidChain *known)
        : name_(name), ruleset_(ruleset), limits_(limits), known_(known) {}

    LaidChain fold() {
        shape::Chains placed = takePlaced();
        LaidChain laid(shape::Shape::read(name_, placed, limits_));
        laid.taken = std::move(taken_);
        if (!subChains_.empty())
            findPinned(laid);
        StandingChain &chain = ruleset_.chains.at(name_);
        if (subChains_.empty()) {
            giveBack(placed.at(name_), laid, chain);
        } else {
            chain.disorder = disorderOf(laid, placed);
            if (!chain.disorder.empty())
                laid.asRead = placed;
            takeRules(laid, placed, chain);
            takeJumps(chain);
            chain.isOrdered = !laid.shape.isTree();
            for (const std::string &sub : subChains_)
                ruleset_.chains.erase(sub);
        }
        laid.reserveNames();
        chain.leavesBehind = laid.pinned;
        chain.isTidy = laid.isDamaged() || isHeldByOthers(name_, laid, Outcome()) || isTidy(laid);
        return laid;
    }

private:
    // What is named as a sub-chain is one, whatever leads to it; but where packets enter the table no jump can go.
    shape::Chains takePlaced() {
        shape::Chains placed;
        placed[name_] = takenFrom(ruleset_.chains.at(name_));
        const std::string first = name_ + ".";
        for (auto at = ruleset_.chains.lower_bound(first);
             at != ruleset_.chains.end() && at->first.compare(0, first.size(), first) == 0; ++at) {
            if (shape::treeOf(at->first) != name_)
                continue;
            if (at->second.isBase) {
                taken_.insert(at->first);
                continue;
            }
            subChains_.insert(at->first);
            placed.emplace(at->first, takenFrom(at->second));
        }
        return placed;
    }

    // Cheaper to tell than which one.
    static bool isNamedLikeOne(const PlacedRule &rule) {
        return rule.rule && rule.rule->target.kind == Target::Kind::jump &&
               !shape::treeOf(rule.rule->target.text).empty();
    }

    void findPinned(LaidChain &laid) const {
        for (const auto &[other, chain] : ruleset_.chains) {
            if (subChains_.count(other) > 0 && chain.usesElsewhere > 0)
                laid.pinned.insert(other);
            if (other == name_ || subChains_.count(other) > 0)
                continue;
            for (const auto &[target, count] : chain.jumps) {
                if (subChains_.count(target) > 0)
                    laid.pinned.insert(target);
            }
        }
    }

    static void giveBack(std::vector<PlacedRule> &placed, LaidChain &laid, StandingChain &chain) {
        laid.order.reserve(placed.size());
        for (std::size_t i = 0; i < placed.size(); ++i) {
            laid.order.push_back(placed[i].id);
            chain.rules[i].rule = std::move(placed[i].rule);
        }
    }

    // In the order in which a packet meets them: a sub-chain's where the branch to it stands.
    void takeRules(LaidChain &laid, shape::Chains &placed, StandingChain &chain) {
        const Damage &damage = laid.shape.damage();
        for (const Damage::At &at : damage.unreached)
            unreached_.insert(at.id);
        for (const std::vector<Damage::At> *places : {&damage.foreign, &damage.strayBranches}) {
            for (const Damage::At &at : *places)
                strange_.insert(at.id);
        }
        std::vector<std::string> reached = laid.shape.subChains();
        reached_.insert(reached.begin(), reached.end());
        chain.rules.clear();
        chain.rules.reserve(laid.shape.size());
        laid.order.reserve(laid.shape.size());
        takeRulesOf(name_, placed, laid, chain);
        for (const std::string &sub : reached)
            chain.others.merge(ruleset_.chains.at(sub).others);
    }

    void takeRulesOf(const std::string &name, shape::Chains &placed, LaidChain &laid, StandingChain &chain) {
        for (PlacedRule &rule : placed.at(name)) {
            const bool isStrange = strange_.count(rule.id) > 0;
            if (unreached_.count(rule.id) > 0)
                continue;
            if (!isStrange && isBranch(rule)) {
                takeRulesOf(rule.rule->target.text, placed, laid, chain);
                continue;
            }
            chain.rules.push_back({rule.id, std::move(rule.rule)});
            laid.order.push_back(rule.id);
            if (isStrange)
                laid.strangers.insert(rule.id);
        }
    }

    bool isBranch(const PlacedRule &rule) const {
        return isNamedLikeOne(rule) && reached_.count(rule.rule->target.text) > 0;
    }

    // Also those of rules that are not reached: the kernel counts them.
    void takeJumps(StandingChain &chain) const {
        for (const std::string &sub : subChains_) {
            for (const auto &[target, count] : ruleset_.chains.at(sub).jumps)
                chain.jumps[target] += count;
        }
        for (const std::string &sub : subChains_)
            chain.jumps.erase(sub);
    }

    // An empty one that something of others refers to cannot go.
    static bool isLeftOver(const LaidChain &laid, const shape::Chains &placed, const std::string &orphan) {
        return laid.pinned.count(orphan) > 0 && placed.at(orphan).empty();
    }

    static std::string disorderOf(const LaidChain &laid, const shape::Chains &placed) {
        const Damage &damage = laid.shape.damage();
        const auto orphans = std::count_if(damage.orphans.begin(), damage.orphans.end(),
                                           [&](const std::string &name) { return !isLeftOver(laid, placed, name); });
        std::string text;
        for (const std::string &part :
             {counted(damage.unreached.size(), "rules that not all of their packets get to"),
              counted(damage.foreign.size(), "foreign rules in sub-chains"),
              counted(damage.strayBranches.size(), "stray branches"),
              counted(static_cast<std::size_t>(orphans), "sub-chains that no branch leads to")}) {
            if (!part.empty())
                text += (text.empty() ? "changed: " : ", ") + part;
        }
        // By itself that is nothing that could be put right.
        if (!text.empty() && !laid.pinned.empty())
            text += ", " + counted(laid.pinned.size(), "sub-chains that others refer to");
        return text;
    }

    bool isTidy(LaidChain &laid) const {
        if (laid.shape.isOfItsSize() || (known_ != nullptr && known_->tried))
            return true;
        shape::Shape tried = laid.shape;
        Id next = kFirstSentId;
        const bool isTidy = tried.update({}, {}, next).operations.empty();
        if (isTidy)
            laid.tried = LaidChain::Tried{laid.shape.size(), 0};
        return isTidy;
    }

    const std::string &name_;
    Ruleset &ruleset_;
    const shape::Limits &limits_;
    const LaidChain *known_;
    std::set<std::string> subChains_;
    std::set<std::string> taken_; // names like theirs, of chains by which packets enter the table
    std::set<std::string> reached_;
    std::set<Id> unreached_;
    std::set<Id> strange_;
};

void findHeld(const Ruleset &ruleset, StrayChains &strays) {
    for (const auto &[name, chain] : ruleset.chains) {
        for (const auto &[target, count] : chain.jumps) {
            const auto stray = strays.find(target);
            if (stray != strays.end() && shape::treeOf(name) != shape::treeOf(target))
                stray->second.isHeld = true;
        }
    }
}

} // namespace

bool isNameOfTree(const std::string &name, const std::string &chainPrefix) {
    return isOwnChain(name, chainPrefix) && name.size() <= shape::kMaxTreeNameLength;
}

Folding fold(Ruleset ruleset, const std::string &chainPrefix, const shape::Limits &limits, const LaidChains &known) {
    Folding folding;
    std::vector<std::string> names;
    std::set<std::string> trees;
    for (const auto &[name, chain] : ruleset.chains) {
        if (isNameOfTree(name, chainPrefix) && !chain.isBase)
            names.push_back(name);
        else if (const std::string tree(shape::treeOf(name)); !tree.empty() && !chain.isBase)
            trees.insert(tree);
    }
    for (const std::string &name : names) {
        const auto standing = known.find(name);
        const LaidChain *const one = standing == known.end() ? nullptr : &standing->second;
        if (limits.treeFrom > 0 || trees.count(name) > 0 || one != nullptr)
            folding.laid.emplace(name, Folder(name, ruleset, limits, one).fold());
    }
    for (auto &[name, chain] : ruleset.chains) {
        const std::string tree(shape::treeOf(name));
        if (tree.empty())
            continue;
        folding.stray.emplace(name, StrayChain{chain.isBase, chain.usesElsewhere > 0});
        chain.isLeftBehind = !chain.isBase && isNameOfTree(tree, chainPrefix);
    }
    findHeld(ruleset, folding.stray);
    folding.ruleset = std::move(ruleset);
    return folding;
}

bool takeOver(const LaidChain &known, LaidChain &fresh, StandingChain &chain) {
    const shape::Chains before = known.placed();
    const shape::Chains now = fresh.placed();
    const auto isSameChain = [](const auto &left, const auto &right) {
        return left.first == right.first && left.second.size() == right.second.size();
    };
    if (!std::equal(before.begin(), before.end(), now.begin(), now.end(), isSameChain))
        return false;
    LaidChain taken = known;
    std::unordered_map<Id, const std::optional<Rule> *> rules;
    for (auto left = before.begin(), right = now.begin(); left != before.end(); ++left, ++right) {
        for (std::size_t i = 0; i < left->second.size(); ++i) {
            taken.setHandle(left->second[i].id, right->second[i].id);
            rules[left->second[i].id] = &right->second[i].rule;
        }
    }
    chain.rules.clear();
    for (const Id id : known.order)
        chain.rules.push_back({id, *rules.at(id)});
    fresh = std::move(taken);
    return true;
}

} // namespace rlv
