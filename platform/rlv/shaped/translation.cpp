#include "rlv/shaped/translation.h"

#include <algorithm>

#include "rlv/shape/chain-names.h"
#include "rlv/shaped/folding.h"

namespace rlv {

namespace {

using Kind = Change::Kind;

bool isAboutRules(Kind kind) {
    return kind == Kind::deleteRule || kind == Kind::flushChain || kind == Kind::appendRule ||
           kind == Kind::insertRule || kind == Kind::tidyChain;
}

class Translator {
public:
    Translator(const Changes &changes, const LaidRuleset &known, Way way, const TranslationMeans &means)
        : changes_(changes), known_(known), way_(way), means_(means) {}

    // All that is to become of a chain's rules comes where the last change of them stands.
    std::optional<Translation> translate() {
        for (std::size_t place = 0; place < changes_.size(); ++place) {
            if (isAboutRules(changes_[place].kind))
                places_[*changes_[place].chain].push_back(place);
        }
        for (std::size_t place = 0; place < changes_.size(); ++place) {
            if (!add(place))
                return std::nullopt;
        }
        return std::move(result_);
    }

private:
    bool add(std::size_t place) {
        const Change &change = changes_[place];
        if (change.kind == Kind::addChain)
            makeChain(place);
        const LaidChain *const chain = change.chain == nullptr ? nullptr : find(*change.chain);
        if (chain == nullptr || !(isAboutRules(change.kind) || change.kind == Kind::deleteChain)) {
            pass(place);
            return true;
        }
        if (change.kind == Kind::deleteChain) {
            removeChain(*change.chain, *chain, place);
            return true;
        }
        const auto &places = places_.at(*change.chain);
        return place != places.back() || lay(*change.chain, *chain, places);
    }

    const LaidChain *find(const std::string &name) const {
        if (result_.gone.count(name) > 0)
            return nullptr;
        const auto next = result_.next.find(name);
        if (next != result_.next.end())
            return &next->second;
        const auto known = known_.chains.find(name);
        return known == known_.chains.end() ? nullptr : &known->second;
    }

    void pass(std::size_t place) {
        if (changes_[place].kind == Kind::tidyChain)
            return;
        if (changes_[place].kind == Kind::deleteChain)
            result_.gone.insert(*changes_[place].chain);
        result_.changes.push_back(changes_[place]);
        result_.causes.emplace_back(place);
    }

    // Nothing stays in force of what a chain of its name has left behind in sub-chains.
    void makeChain(std::size_t place) {
        const std::string &name = *changes_[place].chain;
        StrayChains left;
        for (const auto &[stray, kind] : known_.stray) {
            if (shape::treeOf(stray) == name)
                left.emplace(stray, kind);
        }
        if (!isNameOfTree(name, means_.chainPrefix) || (means_.limits.treeFrom == 0 && left.empty()))
            return;
        Block block(LaidChain(shape::Shape(name, means_.limits)));
        for (const auto &[stray, kind] : left) {
            if (kind.isBase)
                block.next.taken.insert(stray);
            else if (kind.isHeld || way_ == Way::plainly)
                block.next.pinned.insert(stray);
        }
        block.next.reserveNames();
        result_.gone.erase(name);
        result_.next.insert_or_assign(name, LaidChain(block.next));
        if (way_ != Way::plainly)
            clear(left, block, place);
        take(std::move(block));
    }

    void clear(const StrayChains &left, Block &block, std::size_t place) {
        for (const auto &[stray, kind] : left) {
            if (!kind.isBase)
                block.add(Kind::flushChain, stray, place);
        }
        for (const auto &[stray, kind] : left) {
            if (kind.isBase || kind.isHeld)
                continue;
            block.add(Kind::deleteChain, stray, place);
            result_.gone.insert(stray);
        }
    }

    void removeChain(const std::string &name, const LaidChain &chain, std::size_t place) {
        Block block(chain);
        const auto subChains = subChainsOf(chain, name);
        for (const Kind kind : {Kind::flushChain, Kind::deleteChain}) {
            for (const std::string &sub : subChains) {
                if (kind == Kind::flushChain || chain.pinned.count(sub) == 0)
                    block.add(kind, sub, place);
            }
        }
        take(std::move(block));
        result_.next.erase(name);
        pass(place);
    }

    bool lay(const std::string &name, const LaidChain &chain, const std::vector<std::size_t> &places) {
        const auto outcome = outcomeOf(chain, changes_, places, means_.nextId);
        if (!outcome)
            return false;
        auto block = laid(name, chain, *outcome, places);
        if (!block)
            return false;
        LaidChain next = std::move(block->next);
        take(std::move(*block));
        result_.next.insert_or_assign(name, std::move(next));
        return true;
    }

    std::optional<Block> laid(const std::string &name, const LaidChain &chain, const Outcome &outcome,
                              const std::vector<std::size_t> &places) const {
        const auto &[prefix, limits, reader, nextId] = means_;
        if (way_ == Way::asTrees)
            return layOut(name, chain, outcome, changes_, places, limits, reader, nextId);
        if (way_ == Way::asLists && outcome.isTidied && chain.isDamaged())
            return layAsList(name, chain, outcome, places.back(), limits, reader, nextId);
        return layPlainly(name, chain, outcome, changes_, places, limits, reader);
    }

    void take(Block block) {
        result_.changes.insert(result_.changes.end(), block.changes.begin(), block.changes.end());
        result_.causes.insert(result_.causes.end(), block.causes.begin(), block.causes.end());
        result_.blocks.push_back(std::move(block));
    }

    const Changes &changes_;
    const LaidRuleset &known_;
    Way way_;
    const TranslationMeans &means_;
    Translation result_;
    std::map<std::string, std::vector<std::size_t>> places_; // of the changes of each chain's rules
};

} // namespace

std::optional<Translation> translate(const Changes &changes, const LaidRuleset &known, Way way,
                                     const TranslationMeans &means) {
    return Translator(changes, known, way, means).translate();
}

} // namespace rlv
