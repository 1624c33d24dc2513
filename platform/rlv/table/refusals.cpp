#include "rlv/table/refusals.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <string>
#include <system_error>
#include <utility>

namespace rlv {

namespace {

using Kind = Change::Kind;
using Failures = std::vector<ChangeFailure>;

Answer notFoundAmong(std::size_t changes, int error) {
    return {4, std::string("iptables: the kernel refuses some of ") + std::to_string(changes) + " changes (" +
                   std::generic_category().message(error) + "), and to find out which takes too long"};
}

// From the jump that goes too far on, the kernel refuses all rules for it: it looks at the table as a whole.
void removeConsequences(Failures &failures) {
    const auto isTooFar = [](const ChangeFailure &failure) { return failure.error == EMLINK; };
    const auto first = std::find_if(failures.begin(), failures.end(), isTooFar);
    if (first != failures.end())
        failures.erase(std::remove_if(first + 1, failures.end(), isTooFar), failures.end());
}

// Not for anything in the changes: with the half of them that there is room for, the firewall would stand open.
bool isShortage(const ChangeFailure &failure) { return failure.error == ENOMEM || failure.error == ENOBUFS; }

// Of changes that were refused each for itself, those that cost one command or chain.
class Blame {
public:
    explicit Blame(const Transaction &transaction) : transaction_(transaction) {}

    // False where the change costs everything.
    bool add(const ChangeFailure &failure) {
        const Change &change = transaction_.changes[*failure.index];
        const Transaction::Source &source = transaction_.sources[*failure.index];
        const Answer answer = answerTo(change, failure.error);
        if (change.rule != nullptr)
            rules_[*source.chain].push_back({source.appended, answer});
        else if (change.kind == Kind::deleteChain)
            removals_.emplace(*source.chain, answer);
        else if (isBlamable(change.kind))
            chains_.emplace(*source.chain, answer);
        return isBlamable(change.kind);
    }

    void takeRemovals(PendingRuleset &pending, std::vector<LostCommand> &lost) const {
        for (const auto &[name, answer] : removals_)
            pending.loseRemoval(name, answer, lost);
    }

    void takeRest(PendingRuleset &pending, std::vector<LostCommand> &lost) {
        for (const auto &[name, answer] : chains_) {
            pending.loseChain(name, answer, lost);
            rules_.erase(name);
        }
        for (const auto &[name, refused] : rules_)
            pending.loseAppended(name, refused, lost);
    }

private:
    const Transaction &transaction_;
    std::map<std::string, Answer> removals_;
    std::map<std::string, Answer> chains_; // that cannot be made
    std::map<std::string, std::vector<PendingRuleset::RefusedRule>> rules_;
};

} // namespace

bool isBlamable(Kind kind) {
    return kind == Kind::appendRule || kind == Kind::insertRule || kind == Kind::addChain ||
           kind == Kind::addBaseChain || kind == Kind::deleteChain;
}

void Refusals::blame(const Transaction &transaction, const Failures &failures, PendingRuleset &pending,
                     PushReport &report) {
    const auto discardFor = [&](const ChangeFailure &failure) {
        const Change &refused = transaction.changes[failure.index.value_or(transaction.changes.size() - 1)];
        pending.discard(answerTo(refused, failure.error), report.lost);
    };
    const auto shortage = std::find_if(failures.begin(), failures.end(), isShortage);
    if (shortage != failures.end()) {
        report.mayPass = true;
        return discardFor(*shortage);
    }
    auto located = locate(transaction.changes, failures);
    if (!located)
        return pending.discard(notFoundAmong(transaction.changes.size(), failures.front().error), report.lost);
    removeConsequences(*located);
    Blame blame(transaction);
    bool isClear = !located->empty();
    for (const ChangeFailure &failure : *located)
        isClear = blame.add(failure) && isClear;
    blame.takeRemovals(pending, report.lost);
    if (!isClear)
        return discardFor(failures.front());
    blame.takeRest(pending, report.lost);
}

// The failures of which it is known which change was refused. None where the search takes too long.
std::optional<Failures> Refusals::locate(const Changes &changes, const Failures &failures) {
    Failures located;
    std::copy_if(failures.begin(), failures.end(), std::back_inserter(located),
                 [](const ChangeFailure &failure) { return failure.index.has_value(); });
    return located.empty() ? search(changes) : located;
}

// Where the kernel does not say which change it refused: halves in dry runs. What is good so far stands before each
// half, since later changes may need it. A refusal that only the end of a transaction meets is found nowhere.
std::optional<Failures> Refusals::search(const Changes &changes) {
    Failures found;
    Changes good;
    std::vector<std::pair<std::size_t, std::size_t>> left{{0, changes.size()}};
    while (!left.empty()) {
        const auto [begin, end] = left.back();
        left.pop_back();
        Changes tried = good;
        tried.insert(tried.end(), changes.begin() + static_cast<std::ptrdiff_t>(begin),
                     changes.begin() + static_cast<std::ptrdiff_t>(end));
        searchCost_ += kDryRunCost + tried.size();
        if (searchCost_ > maxSearchCost_)
            return std::nullopt;
        const auto refused = backend_.dryRun(tried);
        if (refused.empty()) {
            good = std::move(tried);
        } else if (end - begin == 1) {
            found.push_back({begin, refused.front().error});
        } else {
            const std::size_t middle = begin + (end - begin) / 2;
            left.emplace_back(middle, end);
            left.emplace_back(begin, middle);
        }
    }
    return found;
}

} // namespace rlv
