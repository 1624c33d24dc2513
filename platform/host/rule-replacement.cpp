#include "host/rule-replacement.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "host/exception-text.h"
#include "host/firewall-plugin.h"
#include "host/log.h"
#include "host/plugin-files.h"
#include "host/rule-difference.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "mavo/rmi.h"
#include "rlv/rlv-query.h"
#include "rules/rule-commands.h"

namespace host {
namespace {

// As many rules as there may be, and names among them to look up.
constexpr std::chrono::milliseconds kRehearsalTimeout{60'000};
constexpr std::size_t kMostRefusalsTold = 10;

// The new rule, as the history shows it, that makes this command; empty where there is none.
std::string ruleOf(const RuleChange &change, const std::string &command) {
    for (const auto &rule : change.added) {
        bool makesIt = false;
        rules::forEachCommandOf(rule.rule, rule.allowed,
                                [&](std::string_view options) { makesIt = makesIt || options == command; });
        if (makesIt)
            return rules::lineOf(rule.rule, rule.allowed);
    }
    return {};
}

// What is not there need not be removed, and what stays stays, refused or not.
std::string refusals(const rlv::Rehearsal &rehearsal, const RuleChange &change) {
    std::string text;
    std::uint64_t count = 0;
    for (const auto &command : rehearsal.refused) {
        const std::string rule = count < kMostRefusalsTold ? ruleOf(change, command.options) : std::string();
        if (rule.empty())
            continue;
        ++count;
        text += (text.empty() ? "" : "; ") + rule + ": " + command.message;
    }
    if (rehearsal.refusedBeyondList == 0 && count < kMostRefusalsTold)
        return text;
    return text + (text.empty() ? "" : "; ") + "and more";
}

// Throws where it refuses something, or does not answer.
void rehearse(const RuleChange &change) {
    if (change.added.empty()) {
        static_cast<void>(rlv::query(0, kQueryTimeout)); // it will be needed
        return;
    }
    const auto rehearsal =
        rlv::rehearse([&change](const auto &each) { forEachCommandOf(change, each); }, kRehearsalTimeout);
    const std::string refused = refusals(rehearsal, change);
    if (!refused.empty())
        throw mavo::rmi::BadArguments("the traffic-control service refuses rules, and nothing was changed: " + refused);
}

// What it may not be able to put back, it has said in the log.
std::string putBack(mavo::database::Exchange &exchange) {
    try {
        exchange.takeBack();
        return {};
    } catch (...) {
        return textOfException();
    }
}

// What was left in the middle of a change, and damage, is dealt with as by each of the plugin's openings.
void recover() {
    constexpr int kReadWrite = 2; // SQLite's open flag
    try {
        const mavo::database::Connection connection(kRuleDatabase, kReadWrite, true);
    } catch (const mavo::Exception &) { // there is none, or nothing is left of it: reading tells
    }
}

} // namespace

void RuleReplacement::requireEnabled() const {
    static_cast<void>(served_.plugin());
    if (served_.applied() != 1 || life_.storedStatus() == 0)
        throw mavo::rmi::BadArguments("the plugin is disabled, and its rules stay as they are until it is enabled");
    requirePluginFiles();
}

std::string RuleReplacement::rehearseReplacement(const std::string &list) const {
    requireEnabled();
    const RuleChange change = changeTo(list, storedRows());
    rehearse(change);
    return changeDocument(change);
}

std::string RuleReplacement::rehearseRemoval(const std::string &list) const {
    requireEnabled();
    return changeDocument(removalOf(list, storedRows()));
}

std::string RuleReplacement::replace(const std::string &list) {
    requireEnabled();
    recover();
    return store(changeTo(list, storedRows()));
}

std::string RuleReplacement::remove(const std::string &list) {
    requireEnabled();
    recover();
    return store(removalOf(list, storedRows()));
}

std::string RuleReplacement::store(const RuleChange &change) {
    std::string document = changeDocument(change);
    if (change.isEmpty())
        return document;
    std::string names;
    for (const auto &rule : change.added)
        names += rules::textOf(rule.rule) + ";";
    served_.names().announceIn(names);
    rehearse(change);
    newCommands_.clear();
    for (const auto &rule : change.added)
        rules::forEachCommandOf(rule.rule, rule.allowed,
                                [this](std::string_view options) { newCommands_.emplace_back(options); });
    std::sort(newCommands_.begin(), newCommands_.end());
    exchange_ = std::make_unique<mavo::database::Exchange>(kRuleDatabase);
    isUnsettled_ = true; // from here on files and kernel may differ, whatever comes
    try {
        exchange_->change([&change](mavo::database::Connection &database) { carryOut(change, database); });
        exchange_->takePlace();
    } catch (...) {
        exchange_.reset();
        throw;
    }
    bringUp();
    return document;
}

// Where none comes up the kernel has what it had, or, should a connection have been interrupted, is given it again.
void RuleReplacement::bringUp() {
    std::string problem;
    try {
        return life_.bringUpAsApplied();
    } catch (...) {
        problem = textOfException();
    }
    const auto exchange = std::move(exchange_);
    const std::string left = putBack(*exchange);
    if (!left.empty())
        problem += "; the rules of before could not be put back, and the new ones are stored: " + left;
    throw std::runtime_error(left.empty() ? problem + "; the rules are as they were" : problem);
}

// Why what was new is not in force; empty when it is. A kept rule may lack an address as it did before.
std::string RuleReplacement::lostOf(const Verdict &verdict) const {
    if (!verdict.interruption.empty())
        return verdict.interruption;
    if (!verdict.unknown.empty())
        return verdict.unknown;
    if (verdict.isUnopened)
        return "the traffic-control service could not be used";
    for (const auto &line : verdict.notInForce) {
        const auto isIt = [&line](const std::string &command) { return line.compare(0, command.size(), command) == 0; };
        if (line.compare(0, 3, "-A ") != 0 || std::any_of(newCommands_.begin(), newCommands_.end(), isIt))
            return line;
    }
    return {};
}

void RuleReplacement::conclude(Verdict &verdict, mavo::rmi::Reply &reply) {
    const auto exchange = std::move(exchange_);
    const bool isUnsettled = std::exchange(isUnsettled_, false);
    if (exchange == nullptr) {
        if (isUnsettled && verdict.interruption.empty())
            verdict.interruption = "the rules could not be replaced";
        return;
    }
    const std::string lost = lostOf(verdict);
    if (lost.empty())
        return;
    const std::string left = putBack(*exchange);
    const std::string state = left.empty()
                                  ? "the rules of before are stored again"
                                  : "the rules of before could not be put back, and the new ones are stored: " + left;
    logError("rules could not be replaced: " + lost + "; " + state);
    reply.status = mavo::rmi::Status::exception;
    reply.body.clear();
    reply.error = "not all rules came into force: " + lost + "; " + state;
    if (verdict.interruption.empty())
        verdict.interruption = state;
}

} // namespace host
