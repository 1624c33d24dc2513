#include "rlv/table/transaction.h"

#include <algorithm>
#include <cerrno>
#include <map>

#include "rlv/table/answers.h"
#include "rlv/table/layout.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

using Kind = Change::Kind;

// What iptables calls a change when the kernel refuses it.
struct ChangeWords {
    const char *operation;
    const char *object;
};

ChangeWords wordsOf(Kind kind) {
    static const std::map<Kind, ChangeWords> words{
        {Kind::addTable, {"TABLE_ADD", "table"}},
        {Kind::wakeTable, {"TABLE_ADD", "table"}},
        {Kind::addBaseChain, {"CHAIN_ADD", "chain"}},
        {Kind::addChain, {"CHAIN_USER_ADD", "chain"}},
        {Kind::deleteRule, {"RULE_DELETE", "rule in chain"}},
        {Kind::flushChain, {"RULE_FLUSH", "rule in chain"}},
        {Kind::appendRule, {"RULE_APPEND", "rule in chain"}},
        {Kind::insertRule, {"RULE_INSERT", "rule in chain"}},
        {Kind::tidyChain, {"CHAIN_UPDATE", "chain"}},
        {Kind::deleteChain, {"CHAIN_DEL", "chain"}},
    };
    return words.at(kind);
}

class TransactionMaker {
public:
    explicit TransactionMaker(const PendingRuleset &pending) : pending_(pending) {}

    // New chains first, so that rules may jump to them; then all that goes, then all that comes, and last the chains
    // that nothing refers to any more.
    Transaction make(const RulesetPlan &plan) {
        addChains(plan);
        for (const auto &[name, change] : plan)
            removeRules(name, change.plan);
        for (const auto &[name, change] : plan)
            addRules(name, change.plan, change.tidy);
        for (const auto &[name, change] : plan) {
            if (change.remove)
                add({Kind::deleteChain, &name, nullptr, 0}, name);
        }
        return std::move(result_);
    }

private:
    void add(const Change &change, const std::string &chain, std::size_t appended = 0) {
        result_.changes.push_back(change);
        result_.sources.push_back({&chain, appended});
    }

    void addChains(const RulesetPlan &plan) {
        const auto isMade = [](const auto &entry) { return entry.second.make; };
        if (const auto made = std::find_if(plan.begin(), plan.end(), isMade); made != plan.end())
            add({Kind::addTable, nullptr, nullptr, 0}, made->first);
        for (const auto &[name, change] : plan) {
            if (change.make)
                add({isBuiltInChain(name) ? Kind::addBaseChain : Kind::addChain, &name, nullptr, 0}, name);
        }
    }

    void removeRules(const std::string &name, const ChainPlan &plan) {
        for (const Change &change : removalsOf(plan, name, pending_.standingRules(name)))
            add(change, name);
    }

    void addRules(const std::string &name, const ChainPlan &plan, bool isTidied) {
        const Changes changes = insertionsOf(plan, name, pending_.standingRules(name), pending_.appendedRules(name));
        for (std::size_t i = 0; i < changes.size(); ++i)
            add(changes[i], name, plan.insertions[i].appended);
        if (isTidied)
            add({Kind::tidyChain, &name, nullptr, 0}, name);
    }

    const PendingRuleset &pending_;
    Transaction result_;
};

} // namespace

Transaction makeTransaction(const RulesetPlan &plan, const PendingRuleset &pending) {
    return TransactionMaker(pending).make(plan);
}

Answer answerTo(const Change &change, int error) {
    const ChangeWords words = wordsOf(change.kind);
    return kernelRefused(words.operation, error, words.object, change.chain == nullptr ? "filter" : *change.chain);
}

bool isConflict(const std::vector<ChangeFailure> &failures) {
    return std::any_of(failures.begin(), failures.end(), [](const auto &failure) { return failure.error == ERESTART; });
}

} // namespace rlv
