#include "rlv/shape/tree-reading.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <string_view>
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
        code_ = codeOfTree();
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

    bool isBranch(const Rule &rule) const {
        return rule.target.kind == Target::Kind::jump && isSubChain(rule.target.text);
    }

    // That of the chain to which the first branch leads: it says what the rules have that are ours. One that no rule
    // has is of a chain that others have named so. None for a list.
    std::string codeOfTree() {
        const auto chain = chains_.find(result_.tree.chain());
        if (chain == chains_.end())
            return {};
        std::set<std::string_view> nobodys;
        for (const PlacedRule &placed : chain->second) {
            if (!placed.rule || !isBranch(*placed.rule) || chains_.count(placed.rule->target.text) == 0)
                continue;
            const std::string_view code = targetCodeOf(placed.rule->target.text);
            if (nobodys.count(code) == 0 && isOfAnyRule(code))
                return std::string(code);
            nobodys.insert(code);
        }
        return {};
    }

    bool isOfAnyRule(std::string_view code) {
        return std::any_of(chains_.begin(), chains_.end(), [&](const auto &entry) {
            const std::vector<PlacedRule> &rules = entry.second;
            return std::any_of(rules.begin(), rules.end(), [&](const PlacedRule &placed) {
                return hasCode(placed, code) && !isBranch(*placed.rule);
            });
        });
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
        if (targetCodeOf(target) != code_ || chains_.count(target) == 0 || isEmpty(region) ||
            !seen_.insert(target).second) {
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
            if (placed.rule && (code_.empty() || hasCode(placed, code_)))
                result_.tree.holdEntry(kRoot, placed.id, *placed.rule);
            else
                result_.tree.holdOther(kRoot, placed, true);
        } else if (!hasCode(placed, code_)) {
            result_.damage.foreign.push_back({chain, placed.id});
            result_.tree.holdOther(at.node, placed, false);
        } else if (!at.region.covers(regionOf(*placed.rule))) {
            addUnreached(chain, placed);
            result_.tree.holdOther(at.node, placed, false);
        } else {
            result_.tree.holdEntry(at.node, placed.id, *placed.rule);
        }
    }

    // One after another nearly always have the same target.
    bool hasCode(const PlacedRule &placed, std::string_view code) {
        if (!placed.rule)
            return false;
        if (!last_ || !(*last_ == placed.rule->target)) {
            last_ = placed.rule->target;
            lastCode_ = targetCodeOf(*last_);
        }
        return lastCode_ == code;
    }

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
                if (hasCode(rule, targetCodeOf(name)) && !isBranch(*rule.rule))
                    addUnreached(name, rule);
            }
        }
    }

    const Chains &chains_;
    Reading result_;
    std::string code_;
    std::optional<Target> last_; // that was asked for, and what stands for it
    std::string lastCode_;
    std::set<std::string> seen_;
    std::deque<Open> open_;
};

} // namespace

Reading readTree(const std::string &chain, const Chains &chains, const Limits &limits) {
    return Reader(chain, chains, limits).read();
}

} // namespace rlv::shape
