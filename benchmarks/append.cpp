// append [RULES]: what the kernel takes for one more rule beside RULES (10,000) about random addresses, as a list and
// as a tree of sub-chains. With each transaction the kernel prepares the changed chain anew and, whatever the change,
// looks through the whole table for loops and for jumps that go too deep: so the same is measured with a small chain
// beside the long one, and in a table that has nothing else. What is left is the share of the chain itself; it may be
// half of the list's in the tree. Exits with 0 when it is. To be run as root in a network namespace of its own: unshare
// -n append.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "rlv/shaped/shaped-backend.h"
#include "rlv/table/ruleset-backend.h"
#include "support/rule-lists.h"

namespace {

using rlv::Change;
using rlv::Changes;
using rlv::Rule;
using Clock = std::chrono::steady_clock;
using Kind = Change::Kind;

constexpr int kRepetitions = 201;
constexpr unsigned kSeed = 1;
const std::string kPrefix = "VPK-";
const std::string kLong = "VPK-DENY";
const std::string kSmall = "VPK-SMALL";
const std::string kTarget = "VPK-LOGANDDROP";
const std::string kHook = "INPUT";

void commit(rlv::RulesetBackend &backend, const Changes &changes) {
    const auto failures = backend.commit(changes, std::nullopt);
    if (!failures.empty())
        throw std::runtime_error("refused: errno " + std::to_string(failures.front().error));
}

Rule jumpTo(const std::string &chain) {
    Rule rule;
    rule.target = {rlv::Target::Kind::jump, chain};
    return rule;
}

void removeAll(rlv::RulesetBackend &backend) {
    const auto ruleset = backend.read();
    if (!ruleset)
        throw std::runtime_error("others change the rules");
    Changes changes;
    for (const auto &[name, chain] : ruleset->chains)
        changes.push_back({Kind::flushChain, &name, nullptr, 0});
    for (const auto &[name, chain] : ruleset->chains) {
        if (!chain.isBase)
            changes.push_back({Kind::deleteChain, &name, nullptr, 0});
    }
    commit(backend, changes);
}

// All chains are hooked in: only what packets get to is looked through.
void make(const std::vector<Rule> &rules, bool isTree) {
    const auto kernel = rlv::openKernelBackend(kPrefix);
    removeAll(*kernel);
    const Rule toLong = jumpTo(kLong);
    const Rule toSmall = jumpTo(kSmall);
    rlv::shape::Limits limits;
    if (!isTree)
        limits.treeFrom = 0;
    const auto backend = rlv::makeShapedBackend(rlv::openKernelBackend(kPrefix), kPrefix, limits);
    const auto before = backend->read();
    Changes changes{{Kind::addTable, nullptr, nullptr, 0}, {Kind::addBaseChain, &kHook, nullptr, 0}};
    for (const std::string *name : {&kTarget, &kLong, &kSmall})
        changes.push_back({Kind::addChain, name, nullptr, 0});
    for (const Rule &rule : rules)
        changes.push_back({Kind::appendRule, &kLong, &rule, 0});
    changes.push_back({Kind::appendRule, &kHook, &toLong, 0});
    changes.push_back({Kind::appendRule, &kHook, &toSmall, 0});
    const auto failures = backend->commit(changes, before->generation);
    if (!failures.empty())
        throw std::runtime_error("refused: errno " + std::to_string(failures.front().error));
}

// The chains into which rules about new addresses come: a leaf of the tree, or the chain itself.
std::vector<std::string> placesIn(rlv::RulesetBackend &kernel, bool isTree) {
    if (!isTree)
        return {kLong};
    std::vector<std::string> leaves;
    const auto ruleset = kernel.read();
    for (const auto &[name, chain] : ruleset->chains) {
        const auto leadsOn = [](const auto &jump) { return jump.first != kTarget; };
        if (name.rfind(kLong + ".", 0) == 0 && std::none_of(chain.jumps.begin(), chain.jumps.end(), leadsOn))
            leaves.push_back(name);
    }
    if (leaves.empty())
        throw std::runtime_error("the chain is no tree");
    return leaves;
}

// In microseconds. By turns in the chains, so that none grows much.
double medianOfAppends(const std::vector<std::string> &chains) {
    const auto kernel = rlv::openKernelBackend(kPrefix);
    Rule rule = jumpTo(kTarget);
    std::vector<double> taken;
    for (std::uint32_t i = 0; i < kRepetitions; ++i) {
        rule.source = rlv::Network{0xc0000200U + i, 32};
        const auto start = Clock::now();
        commit(*kernel, {{Kind::appendRule, &chains[i % chains.size()], &rule, 0}});
        taken.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    std::sort(taken.begin(), taken.end());
    return taken[taken.size() / 2];
}

struct Figures {
    double chain = 0;  // one rule more in the long chain
    double beside = 0; // in a small one of the same table
};

Figures measure(const std::vector<Rule> &rules, bool isTree) {
    make(rules, isTree);
    const auto kernel = rlv::openKernelBackend(kPrefix);
    Figures figures;
    figures.chain = medianOfAppends(placesIn(*kernel, isTree));
    figures.beside = medianOfAppends({kSmall});
    return figures;
}

void print(const char *what, const Figures &figures, double alone) {
    std::printf("%-12s %9.1f us one rule more, of these %7.1f us for the chain and %7.1f us for the whole table\n",
                what, figures.chain, figures.chain - figures.beside, figures.beside - alone);
}

int run(std::size_t count) {
    const auto rules = rulelists::make(rulelists::form("random addresses"), count, kSeed);
    const double alone = measure({}, false).beside;
    std::printf("%-12s %9.1f us one rule more\n", "empty table", alone);
    const Figures list = measure(rules, false);
    print("list", list, alone);
    const Figures tree = measure(rules, true);
    print("tree", tree, alone);
    const double ratio = (tree.chain - tree.beside) / (list.chain - list.beside);
    const bool isMet = ratio <= 0.5;
    std::printf("the tree's share is %.3f of the list's (bar 0.5): %s\n", ratio, isMet ? "passed" : "missed");
    return isMet ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv) try {
    return run(argc > 1 ? std::stoul(argv[1]) : 10'000);
} catch (const std::exception &error) {
    std::fprintf(stderr, "append: %s\n", error.what());
    return EXIT_FAILURE;
}
