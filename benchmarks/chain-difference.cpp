// What it costs to bring a chain of the kernel's to new rules: rule by rule (deleting by handle, inserting before a
// handle) and by emptying and refilling it, each as one transaction, and which of the two the service chooses. To be
// run as root in a network namespace of its own: unshare -n chain-difference.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "rlv/table/chain-plan.h"
#include "rlv/table/ruleset-backend.h"

namespace {

using rlv::Change;
using rlv::Changes;
using rlv::Rule;
using Clock = std::chrono::steady_clock;

const std::string kChain = "VPK-DENY";
constexpr int kRepetitions = 5;

Rule ruleNumber(std::uint32_t number) {
    Rule rule;
    rule.protocol = 6;
    rule.source = rlv::Network{0x0a000000U + number, 32};
    rule.sourcePorts = rlv::PortRange{80, 80};
    rule.target.kind = rlv::Target::Kind::drop;
    return rule;
}

double commitMilliseconds(rlv::RulesetBackend &backend, const Changes &changes) {
    const auto start = Clock::now();
    const auto failures = backend.commit(changes, std::nullopt);
    const std::chrono::duration<double, std::milli> taken = Clock::now() - start;
    if (!failures.empty()) {
        std::fprintf(stderr, "refused: errno %d\n", failures.front().error);
        std::exit(EXIT_FAILURE);
    }
    return taken.count();
}

Changes refill(const std::vector<Rule> &rules) {
    Changes changes{{Change::Kind::flushChain, &kChain, nullptr, 0}};
    for (const Rule &rule : rules)
        changes.push_back({Change::Kind::appendRule, &kChain, &rule, 0});
    return changes;
}

Changes bySteps(const rlv::ChainPlan &plan, const std::vector<rlv::StandingRule> &standing,
                const std::vector<Rule> &rules) {
    Changes changes;
    for (const std::size_t place : plan.deletions)
        changes.push_back({Change::Kind::deleteRule, &kChain, nullptr, standing[place].handle});
    for (const auto &insertion : plan.insertions) {
        const bool atTheEnd = insertion.before == rlv::ChainPlan::kAtTheEnd;
        changes.push_back({atTheEnd ? Change::Kind::appendRule : Change::Kind::insertRule, &kChain,
                           &rules[insertion.appended], atTheEnd ? 0 : standing[insertion.before].handle});
    }
    return changes;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Every `every`-th rule gives way to another, or, where `onlyDelete`, to none.
void compare(rlv::RulesetBackend &backend, std::uint32_t count, std::uint32_t every, bool onlyDelete) {
    std::vector<Rule> before;
    std::vector<Rule> after;
    for (std::uint32_t i = 0; i < count; ++i) {
        before.push_back(ruleNumber(i));
        if (i % every != 0)
            after.push_back(before.back());
        else if (!onlyDelete)
            after.push_back(ruleNumber(1'000'000 + i));
    }
    std::vector<const Rule *> wanted;
    wanted.reserve(after.size());
    for (const Rule &rule : after)
        wanted.push_back(&rule);
    std::vector<double> steps;
    std::vector<double> refills;
    const std::vector<bool> all(count, true);
    const char *chosen = "";
    for (int i = 0; i < kRepetitions; ++i) {
        commitMilliseconds(backend, refill(before));
        refills.push_back(commitMilliseconds(backend, refill(after)));
        commitMilliseconds(backend, refill(before));
        const auto standing = backend.read()->chains.at(kChain).rules;
        rlv::PlanLimits noRefill;
        noRefill.mayRefill = false;
        steps.push_back(
            commitMilliseconds(backend, bySteps(rlv::planChain(standing, all, wanted, noRefill), standing, after)));
        chosen = rlv::planChain(standing, all, wanted).refill ? "refill" : "steps";
    }
    std::printf("%8u %7.1f %% %-8s %10.1f %10.1f %8.2f   %s\n", count, 100.0 / every, onlyDelete ? "gone" : "changed",
                median(steps), median(refills), median(steps) / median(refills), chosen);
    std::fflush(stdout);
}

} // namespace

int main() {
    const auto backend = rlv::openKernelBackend("VPK-");
    commitMilliseconds(*backend,
                       {{Change::Kind::addTable, nullptr, nullptr, 0}, {Change::Kind::addChain, &kChain, nullptr, 0}});
    std::printf("   rules     share          steps, ms  refill, ms    ratio   chosen\n");
    for (const std::uint32_t count : {1'000U, 10'000U, 40'000U}) {
        for (const std::uint32_t every : {100U, 20U, 10U, 5U, 2U}) {
            if (count == 40'000U && every < 10)
                continue;
            compare(*backend, count, every, true);
            compare(*backend, count, every, false);
        }
    }
    return EXIT_SUCCESS;
}
