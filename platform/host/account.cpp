#include "host/account.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <limits>
#include <system_error>

#include "host/call-watch.h"
#include "host/databases.h"
#include "host/expected-commands.h"
#include "host/firewall-plugin.h"
#include "host/stored-rules.h"
#include "mavo/database.h"
#include "rlv/rlv-query.h"

namespace host {
namespace {

using Kind = rlv::Difference::Kind;

// For a small device with all the rules that there may be.
constexpr std::chrono::milliseconds kCompareTimeout{10'000};
constexpr std::uint64_t kNoConnections = std::numeric_limits<std::uint64_t>::max();

std::string numbered(std::uint64_t count, const char *one, const char *many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

bool holdsStoredRules(const std::string &chain) { return chain == kAllowChain || chain == kDenyChain; }

std::string adviceOnMissing(const rlv::Difference &difference) {
    const std::string stored = holdsStoredRules(difference.chain) && !difference.rule.empty() ? "stored, " : "";
    if (!difference.why.empty())
        return stored + "and the service refuses it: " + difference.why;
    return stored + "not in the kernel: vpkctl reload puts it back";
}

// A rebuild takes out one of each jump before it puts one back, and so leaves a second one.
std::string adviceOnForeign(const rlv::Difference &difference) {
    if (difference.why.empty())
        return "not one of ours: vpkctl reload takes it out";
    return difference.why + ": iptables -D " + difference.chain + " " + difference.rule + " takes one out";
}

// What stands in the wrong place can be put right, what the chain or the table is cannot.
std::string adviceOnChanged(const rlv::Difference &difference) {
    return difference.why + (difference.rule.empty() ? "; vpkctl reload cannot mend that" : "; vpkctl reload mends it");
}

std::string adviceOnTwice(const rlv::Difference &) { return "stands once more than stored, which changes nothing"; }

std::string adviceOnShadowing(const rlv::Difference &) {
    return "a rule of others that may decide before ours are asked";
}

std::string adviceOnUnanswered(const rlv::Difference &) {
    return "no address is known for the name; in force as soon as one is";
}

// How a kind of difference is shown, and counted.
struct KindOfFinding {
    const char *word;
    std::string (*advice)(const rlv::Difference &);
    std::uint64_t Account::*count;
};

const KindOfFinding &kindOf(Kind kind) {
    static const std::array<KindOfFinding, rlv::kDifferenceKinds> kinds{{
        {"MISSING", adviceOnMissing, &Account::differences},
        {"FOREIGN", adviceOnForeign, &Account::differences},
        {"CHANGED", adviceOnChanged, &Account::differences},
        {"TWICE", adviceOnTwice, &Account::twice},
        {"SHADOWED", adviceOnShadowing, &Account::shadowed},
        {"UNANSWERED", adviceOnUnanswered, &Account::unanswered},
    }};
    return kinds.at(static_cast<std::size_t>(kind));
}

std::uint64_t &countOf(RuleCounts &counts, bool allowed) { return allowed ? counts.allow : counts.deny; }

// What is stored, and what it comes to as far as that can be told without the service.
void tellExpected(Account &account, const rules::EachCommand &each) {
    RuleCounts stored;
    RuleCounts expected;
    forEachStoredRule([&](const StoredRule &row) {
        ++countOf(stored, row.allowed);
        countOf(expected, row.allowed) +=
            static_cast<std::uint64_t>(rules::forEachCommandOf(row.rule, row.allowed, each));
    });
    account.stored = stored;
    account.expected = expected;
}

// What the database gives for an exception is its problem; what the service gives passes.
void tellExpectedUnlessUnreadable(Account &account, const rules::EachCommand &each) {
    try {
        tellExpected(account, each);
    } catch (const std::system_error &) {
        throw;
    } catch (const std::bad_alloc &) {
        throw;
    } catch (const std::exception &error) {
        account.databaseProblem = error.what();
    } catch (const mavo::database::Unavailable &unavailable) {
        account.databaseProblem = unavailable.what();
    }
}

void takeOver(const rlv::Comparison &comparison, Account &account) {
    account.simulated = comparison.simulated;
    for (const auto &difference : comparison.differences) {
        const KindOfFinding &kind = kindOf(difference.kind);
        account.findings.push_back({kind.word, difference.chain, difference.rule, kind.advice(difference)});
    }
    for (std::size_t kind = 0; kind < rlv::kDifferenceKinds; ++kind)
        account.*kindOf(static_cast<Kind>(kind)).count += comparison.counts.at(kind);
    RuleCounts expected;
    RuleCounts inForce;
    for (const auto &chain : comparison.chains) {
        if (!holdsStoredRules(chain.name))
            continue;
        countOf(expected, chain.name == kAllowChain) = chain.wanted;
        countOf(inForce, chain.name == kAllowChain) = chain.inForce;
    }
    account.expected = expected;
    account.inForce = inForce;
}

// Where nobody knows what should stand, the number of what does is all that can be told.
void countWhatStands(const rlv::ServiceState &state, Account &account) {
    account.simulated = state.simulated;
    RuleCounts standing;
    for (const auto &chain : state.chains) {
        if (holdsStoredRules(chain.name))
            countOf(standing, chain.name == kAllowChain) = chain.rules;
    }
    account.inForce = standing;
}

void tellWalks(const rlv::ServiceState &state, Account &account) {
    RuleCounts walks;
    for (const auto &chain : state.chains) {
        if (holdsStoredRules(chain.name))
            countOf(walks, chain.name == kAllowChain) = chain.longestWalk;
    }
    account.walks = walks;
}

void compareRules(bool reading, Account &account) {
    // A service that hangs is found out sooner than one that is slow.
    const auto state = rlv::query(kNoConnections, kQueryTimeout);
    const auto comparison = rlv::compare(
        [&](const rules::EachCommand &each) {
            forEachLayoutCommand(each);
            tellExpectedUnlessUnreadable(account, each);
        },
        reading, kCompareTimeout);
    account.drift = state.drift;
    tellWalks(state, account);
    if (account.databaseProblem.empty())
        takeOver(comparison, account);
    else
        countWhatStands(state, account);
}

void compareBackup(Account &account) {
    std::string difference;
    try {
        difference = ruleBackupDifference();
    } catch (const std::exception &error) {
        account.databaseProblem = error.what();
    } catch (const mavo::database::Unavailable &unavailable) {
        account.databaseProblem = unavailable.what();
    }
    if (difference.empty())
        return;
    account.findings.push_back({"DIFFERS", {}, {}, difference});
    ++account.differences;
}

} // namespace

bool Account::isInForce() const {
    return serviceProblem.empty() && databaseProblem.empty() && differences == 0 && unanswered == 0 && !lacksNames;
}

std::string Account::summary() const {
    if (!serviceProblem.empty())
        return "not known: " + serviceProblem;
    std::string line = "in force";
    if (differences > 0)
        line = "NOT in force: " + numbered(differences, "difference", "differences") + " (vpkctl verify shows them)";
    else if (!databaseProblem.empty())
        line = "not known: the rules cannot be read";
    else if (unanswered > 0 || lacksNames)
        line = "NOT in force: host names without an address";
    if (shadowed > 0)
        line += "; " + numbered(shadowed, "rule", "rules") + " of others " + (shadowed == 1 ? "decides" : "decide") +
                " before it";
    return line + (simulated ? " (simulated: the kernel is not touched)" : "");
}

int Account::exitStatus(bool strict) const {
    return isInForce() && rebuild.empty() && (!strict || shadowed == 0) ? 0 : 1;
}

Account takeAccount(bool reading) {
    Account account;
    try {
        compareRules(reading, account);
    } catch (const std::system_error &error) {
        account.serviceProblem = error.what();
        if (!account.stored && account.databaseProblem.empty())
            tellExpectedUnlessUnreadable(account, [](std::string_view) {});
    }
    if (account.databaseProblem.empty())
        compareBackup(account);
    return account;
}

} // namespace host
