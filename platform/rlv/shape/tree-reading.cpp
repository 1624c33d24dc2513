#include "rlv/shape/tree-reading.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <set>
#include <utility>

namespace rlv::shape {

namespace {

class Reader {
public:
    Reader(const std::string &chain, const Chains &chains, const Limits &limits)
        : chains_(chains), result_{Tree(chain, limits), {}, {}} {}

    Reading read() {
        const std::string &chain = result_.tree.chain();
        for (auto at = chains_.lower_bound(chain + "."); at != chains_.end() && at->first.rfind(chain + ".", 0) == 0;
             ++at)
            result_.tree.names().reserve(at->first);
        target_ = targetOfTree();
        hasBranches_ = leadsToSubChains(chain);
        seen_.insert(chain);
        open_.push_back({kRoot, Region()});
        for (; !open_.empty(); open_.pop_front())
            readChain(open_.front());
        findOrphans();
        return std::move(result_);
    }

private:
    struct Open {
        NodeIndex node = kRoot;
        Region region;
    };

    bool isSubChain(const std::string &name) const { return treeOf(name) == result_.tree.chain(); }

    static bool isBranch(const Rule &rule) {
        return rule.target.kind == Target::Kind::jump && !treeOf(rule.target.text).empty();
    }

    // The one that most rules have, where there are sub-chains: what has another one there is somebody else's.
    std::optional<Target> targetOfTree() const {
        std::vector<std::pair<Target, std::size_t>> counts;
        bool isTree = false;
        for (const auto &[name, placed] : chains_) {
            if (name != result_.tree.chain() && !isSubChain(name))
                continue;
            isTree = isTree || isSubChain(name);
            for (const PlacedRule &rule : placed) {
                if (rule.rule && !isBranch(*rule.rule))
                    count(counts, rule.rule->target);
            }
        }
        const auto isFewer = [](const auto &left, const auto &right) { return left.second < right.second; };
        const auto most = std::max_element(counts.begin(), counts.end(), isFewer);
        return isTree && most != counts.end() ? std::optional(most->first) : std::nullopt;
    }

    bool leadsToSubChains(const std::string &name) const {
        const auto chain = chains_.find(name);
        return chain != chains_.end() &&
               std::any_of(chain->second.begin(), chain->second.end(), [this](const PlacedRule &placed) {
                   return placed.rule && isBranch(*placed.rule) && isSubChain(placed.rule->target.text) &&
                          chains_.count(placed.rule->target.text) > 0;
               });
    }

    static void count(std::vector<std::pair<Target, std::size_t>> &counts, const Target &target) {
        const auto known =
            std::find_if(counts.begin(), counts.end(), [&](const auto &entry) { return entry.first == target; });
        if (known == counts.end())
            counts.emplace_back(target, 1);
        else
            ++known->second;
    }

    void readChain(const Open &at) {
        const std::string name = result_.tree.node(at.node).name;
        const auto chain = chains_.find(name);
        if (chain == chains_.end())
            return;
        for (const PlacedRule &placed : chain->second) {
            if (placed.rule && isBranch(*placed.rule))
                readBranch(at, name, placed);
            else
                readRule(at, name, placed);
        }
    }

    void readBranch(const Open &at, const std::string &chain, const PlacedRule &placed) {
        const std::string &target = placed.rule->target.text;
        const Region region = intersection(at.region, regionOf(*placed.rule));
        // Where no packet goes, what is below cannot be told apart by what packets are.
        if (!isSubChain(target) || chains_.count(target) == 0 || isEmpty(region) || !seen_.insert(target).second) {
            result_.damage.strayBranches.push_back({chain, placed.id});
            result_.tree.holdOther(at.node, placed, false);
            return;
        }
        const NodeIndex node = result_.tree.holdNode(at.node, target, placed.id, *placed.rule);
        open_.push_back({node, region});
    }

    void readRule(const Open &at, const std::string &chain, const PlacedRule &placed) {
        if (at.node == kRoot) {
            // A list has the targets that it has, whatever stands beside it.
            if (placed.rule && (!hasBranches_ || isOfTree(placed)))
                result_.tree.holdEntry(kRoot, placed.id, *placed.rule);
            else
                result_.tree.holdOther(kRoot, placed, true);
        } else if (!isOfTree(placed)) {
            result_.damage.foreign.push_back({chain, placed.id});
            result_.tree.holdOther(at.node, placed, false);
        } else if (!at.region.covers(regionOf(*placed.rule))) {
            addUnreached(chain, placed);
            result_.tree.holdOther(at.node, placed, false);
        } else {
            result_.tree.holdEntry(at.node, placed.id, *placed.rule);
        }
    }

    bool isOfTree(const PlacedRule &placed) const { return placed.rule && target_ && placed.rule->target == *target_; }

    void addUnreached(const std::string &chain, const PlacedRule &placed) {
        result_.damage.unreached.push_back({chain, placed.id});
        result_.unreached.push_back({placed.id, *placed.rule});
    }

    void findOrphans() {
        for (const auto &[name, placed] : chains_) {
            if (!isSubChain(name) || seen_.count(name) > 0)
                continue;
            result_.damage.orphans.push_back(name);
            for (const PlacedRule &rule : placed) {
                if (isOfTree(rule))
                    addUnreached(name, rule);
            }
        }
    }

    const Chains &chains_;
    Reading result_;
    std::optional<Target> target_;
    bool hasBranches_ = false; // of the chain itself
    std::set<std::string> seen_;
    std::deque<Open> open_;
};

} // namespace

Reading readTree(const std::string &chain, const Chains &chains, const Limits &limits) {
    return Reader(chain, chains, limits).read();
}

} // namespace rlv::shape
