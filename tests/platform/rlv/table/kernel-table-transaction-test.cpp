// What one connection makes of the kernel's table: foreign programs are iptables and nft themselves.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel-host.h"
#include "random-connections.h"
#include "rlv/shaped/shaped-backend.h"
#include "rlv/table/ruleset-backend.h"
#include "rlv/table/table.h"
#include "rlv/table/transactional-table.h"
#include "support/filter-oracle.h"
#include "support/process.h"
#include "support/random-seed.h"

namespace {

using kernel::Host;
using kernel::Words;
using randomly::parsed;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Change = rlv::Change;
using Kind = rlv::Change::Kind;

bool canRun(const Host &host) {
    return host.iptables("-V").output.find("(nf_tables)") != std::string::npos && host.iptables("-S").status == 0 &&
           host.run({"nft", "list", "ruleset"}).status == 0;
}

// The handles of nft, and the texts of iptables: both show the rules in one order, one to a line.
filter::Table readTable(const Host &host) {
    filter::Table table;
    std::string name;
    const std::regex chain("\tchain (\\S+) \\{.*");
    const std::regex rule("\t\t.* # handle (\\d+)");
    std::istringstream listing(host.run({"nft", "-a", "list", "table", "ip", "filter"}).output);
    for (std::string line; std::getline(listing, line);) {
        std::smatch match;
        if (std::regex_match(line, match, chain))
            table[name = match[1]];
        else if (std::regex_match(line, match, rule))
            table[name].lines.push_back({std::stoull(match[1]), ""});
        else if (line.find("\t\ttype filter hook") == 0)
            table[name].isBase = true;
        for (auto at = line.find("vmap"); at != std::string::npos;) {
            at = line.find("jump ", at);
            if (at != std::string::npos) {
                at += 5;
                table[line.substr(at, line.find_first_of(" ,", at) - at)].isPinned = true;
            }
        }
    }
    std::map<std::string, std::size_t> next;
    std::istringstream texts(host.run({"iptables", "-S"}).output);
    for (std::string line; std::getline(texts, line);) {
        if (line.rfind("-A ", 0) != 0)
            continue;
        const auto blank = line.find(' ', 3);
        name = line.substr(3, blank - 3);
        table.at(name).lines.at(next[name]++).text = line.substr(blank + 1);
    }
    return table;
}

class InKernel : public randomly::RandomConnections {
public:
    explicit InKernel(unsigned seed, bool hasTrees) : RandomConnections(seed, rlv::kMaxRules) {
        table_ = hasTrees ? host_.visit([] { return openTreeTable(); }) : host_.openTable();
        hasTrees_ = hasTrees;
        hasForeigners_ = !hasTrees;
        if (hasTrees) {
            addresses_ = 60;
            mostCommands_ = 40;
        }
    }
    std::size_t trees = 0; // that transactions left

private:
    static std::unique_ptr<rlv::Table> openTreeTable() {
        rlv::shape::Limits limits;
        limits.treeFrom = 8;
        limits.tuning.leafRules = limits.tuning.costlyLeafRules = 4;
        limits.tuning.leastRules = 2;
        return std::make_unique<rlv::TransactionalTable>(
            rlv::makeShapedBackend(rlv::openKernelBackend("VPK-"), "VPK-", limits), "VPK-");
    }

    filter::Table truth() override {
        const filter::Table table = readTable(host_);
        filter::Table result = randomly::folded(table);
        trees += result.size() < table.size() ? 1 : 0;
        return result;
    }

    void editRandomly() override {
        const auto table = truth();
        const std::string own = pick(randomly::kOwn);
        const std::string other = pick(randomly::kOwn);
        const std::string chain = oneIn(2) ? own : oneIn(2) ? "INPUT" : "OTHER";
        const auto found = table.find(chain);
        const std::string count = std::to_string(found == table.end() ? 0 : found->second.lines.size());
        const std::string place = std::to_string(1 + upTo(3));
        const std::string rule = randomly::ruleText(upTo(5), oneIn(3), oneIn(3) ? other : "DROP").given;
        const std::vector<std::string> programs{
            "iptables -N " + chain,
            "iptables -X " + chain,
            "iptables -F " + chain,
            "iptables -A " + chain + " " + rule,
            "iptables -A " + chain + " -c 7 700 " + rule,
            "iptables -I " + chain + " " + place + " " + rule,
            "iptables -I " + chain + " -i lo " + rule,
            "iptables -A " + chain + " -m comment --comment hi " + rule,
            "iptables -D " + chain + " " + place,
            "iptables -D " + chain + " " + (count == "0" ? "1" : count),
            "iptables -D " + chain + " " + rule,
            "nft add rule ip filter " + chain + " meta mark 5 counter drop",
            // Out of reach: jumps that go too far by way of a map are a test of their own.
            "nft 'add chain ip filter MAPS; add rule ip filter MAPS tcp dport vmap { 80 : jump " + own + " }'",
        };
        const std::string command = pick(programs);
        const auto result = host_.run({"sh", "-c", command});
        history_ += "foreign: " + command + " -> " + std::to_string(result.status) + "\n";
        edits += result.status == 0 ? 1 : 0;
    }

    Host host_;
};

TEST(RandomConnectionsToAKernelTable, ComeToWhatIptablesWouldComeTo) {
    if (!canRun(Host()))
        GTEST_SKIP() << "needs a kernel with nf_tables and the nf_tables variant of iptables";
    InKernel random(seeds::seedOfThisRun(), false);
    random.run(seeds::stepsOfThisRun(20));
    std::cout << random.commands << " commands, " << random.pushes << " pushes, " << random.edits << " edits"
              << std::endl;
}

TEST(RandomConnectionsToAKernelTable, ComeToTheSameWithTrees) {
    if (!canRun(Host()))
        GTEST_SKIP() << "needs a kernel with nf_tables and the nf_tables variant of iptables";
    InKernel random(seeds::seedOfThisRun(), true);
    random.run(seeds::stepsOfThisRun(20));
    std::cout << random.commands << " commands, " << random.pushes << " pushes, " << random.trees << " trees"
              << std::endl;
    EXPECT_GT(random.trees, 0U);
}

class AKernelTransaction : public testing::Test {
protected:
    void SetUp() override {
        if (!canRun(host))
            GTEST_SKIP() << "needs a kernel with nf_tables and the nf_tables variant of iptables";
        table = host.openTable();
    }

    void accepted(const Words &commands) {
        for (const std::string &options : commands)
            EXPECT_EQ("", table->apply({parsed(options)}, options).message) << options;
    }
    rlv::PushReport sent(const Words &commands) {
        table->open();
        accepted(commands);
        return table->push();
    }
    static Words namesOf(const rlv::PushReport &report) {
        Words names;
        for (const rlv::LostCommand &lost : report.lost)
            names.push_back(lost.options + ": " + lost.message);
        return names;
    }
    std::string listing() const { return host.listing(); }
    std::string ruleset() const { return host.run({"nft", "-a", "list", "ruleset"}).output; }
    std::unique_ptr<rlv::RulesetBackend> openBackend() const {
        return host.visit([] { return rlv::openKernelBackend("VPK-"); });
    }

    Host host;
    std::unique_ptr<rlv::Table> table;
};

TEST_F(AKernelTransaction, KeepsHandlesAndCountersOfWhatComesAgain) {
    host.must("iptables -N VPK-A; iptables -A INPUT -c 1 100 -j VPK-A; iptables -A VPK-A -c 2 200 -s 10.0.0.1 -j DROP;"
              "iptables -A VPK-A -c 3 300 -p tcp -d 10.0.0.2 --dport 80 -j ACCEPT;"
              "iptables -A VPK-A -c 4 400 -j LOG --log-prefix a:; iptables -A VPK-A -c 5 500 -j DROP");
    const std::string before = ruleset();
    const Words again{"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -p tcp -d 10.0.0.2 --dport 80 -j ACCEPT",
                      "-A VPK-A -j LOG -v --log-prefix=a:"};
    Words all = again;
    all.push_back("-A VPK-A -j DROP");
    const auto nothing = sent(all);
    EXPECT_EQ(0U, nothing.changes);
    EXPECT_EQ(4U, nothing.kept);
    EXPECT_EQ(before, ruleset());
    all.insert(all.begin() + 2, "-A VPK-A -s 10.0.0.3 -j DROP");
    const auto one = sent(all);
    EXPECT_EQ(1U, one.changes);
    for (const std::string counters : {"-c 1 100", "-c 2 200", "-c 3 300", "-c 4 400", "-c 5 500"})
        EXPECT_THAT(listing(), HasSubstr(counters));
    EXPECT_EQ(1U, sent(again).removed - 1U);
    EXPECT_THAT(listing(), HasSubstr("-c 4 400"));
}

// The kernel follows a map of verdicts, which the service does not.
TEST_F(AKernelTransaction, NamesTheJumpThatGoesTooFarByWayOfAMap) {
    ASSERT_THAT(sent({"-N VPK-A", "-N VPK-B", "-A VPK-A -s 10.0.0.1 -j DROP"}).lost, IsEmpty());
    host.must("iptables -A INPUT -j ACCEPT; nft 'add rule ip filter INPUT tcp dport vmap { 80 : jump VPK-A }'");
    EXPECT_THAT(namesOf(sent({"-A VPK-A -j VPK-B", "-A VPK-B -j VPK-A", "-A VPK-B -j DROP"})),
                ElementsAre("-A VPK-B -j VPK-A: iptables: RULE_APPEND failed (Too many links): rule in chain VPK-B"));
    EXPECT_THAT(listing(), HasSubstr("-A VPK-A -c 0 0 -j VPK-B"));
    EXPECT_THAT(listing(), HasSubstr("-A VPK-B -c 0 0 -j DROP"));
    EXPECT_THAT(sent({"-F VPK-A"}).lost, IsEmpty());
    table->open();
    EXPECT_EQ(4, table->apply({parsed("-X VPK-A")}, "-X VPK-A").code);
}

// A table with an owner takes nothing from anybody else.
TEST_F(AKernelTransaction, NamesWhatATableWithAnOwnerRefuses) {
    const auto owner = host.visit([] {
        return std::make_unique<process::Child>(Words{
            "sh", "-c",
            "(echo 'table ip filter { flags owner; chain VPK-A { } ; }'; echo 'list tables'; exec sleep 60) | nft -i"});
    });
    if (!owner->waitReady([&] { return ruleset().find("VPK-A") != std::string::npos; }, process::Duration(5'000)))
        GTEST_SKIP() << "nft makes no table with an owner: " << owner->errors();
    const std::string before = ruleset();
    const auto report = sent({"-N VPK-B", "-A VPK-A -j DROP", "-A VPK-A -j VPK-B"});
    EXPECT_EQ(3U, report.lost.size()) << testing::PrintToString(namesOf(report));
    EXPECT_EQ(0U, report.changes);
    EXPECT_EQ(before, ruleset());
}

TEST_F(AKernelTransaction, IsToldOfEachRefusalInADryRunThatChangesNothing) {
    ASSERT_THAT(sent({"-N VPK-A", "-A VPK-A -j ACCEPT"}).lost, IsEmpty());
    const auto backend = openBackend();
    const std::string before = ruleset();
    const auto generation = backend->generation();
    const std::string present = "VPK-A";
    const std::string absent = "VPK-B";
    const rlv::Rule rule = parsed("-A VPK-A -s 10.0.0.1 -j DROP").rule;
    const rlv::Rule jump = parsed("-A VPK-A -j VPK-B").rule;
    const rlv::Changes changes{{Kind::addChain, &present, nullptr, 0},    {Kind::appendRule, &present, &rule, 0},
                               {Kind::appendRule, &absent, &rule, 0},     {Kind::appendRule, &present, &jump, 0},
                               {Kind::deleteRule, &present, nullptr, 99}, {Kind::deleteChain, &present, nullptr, 0}};
    std::vector<std::pair<std::size_t, int>> refused;
    for (const auto &failure : backend->dryRun(changes))
        refused.emplace_back(failure.index.value_or(99), failure.error);
    using Pair = std::pair<std::size_t, int>;
    EXPECT_THAT(refused,
                ElementsAre(Pair{0, EEXIST}, Pair{2, ENOENT}, Pair{3, ENOENT}, Pair{4, ENOENT}, Pair{5, EBUSY}));
    EXPECT_THAT(backend->dryRun({{Kind::flushChain, &present, nullptr, 0}, {Kind::appendRule, &present, &rule, 0}}),
                IsEmpty());
    EXPECT_EQ(generation, backend->generation());
    EXPECT_EQ(before, ruleset());
}

TEST_F(AKernelTransaction, RaisesTheGenerationByOne) {
    ASSERT_THAT(sent({"-N VPK-A"}).lost, IsEmpty());
    const auto backend = openBackend();
    const std::string chain = "VPK-A";
    const rlv::Rule rule = parsed("-A VPK-A -s 10.0.0.1 -j DROP").rule;
    for (int i = 0; i < 3; ++i) {
        const auto generation = backend->generation();
        EXPECT_THAT(backend->commit({{Kind::appendRule, &chain, &rule, 0}}, generation), IsEmpty());
        EXPECT_EQ(generation + 1, backend->generation());
        const auto late = backend->commit({{Kind::appendRule, &chain, &rule, 0}}, generation);
        ASSERT_EQ(1U, late.size());
        EXPECT_EQ(ERESTART, late.front().error);
    }
}

// Refusals beyond what the socket holds are found all the same.
TEST_F(AKernelTransaction, FindsThousandsOfRefusals) {
    ASSERT_THAT(sent({"-N VPK-A"}).lost, IsEmpty());
    const auto backend = openBackend();
    const std::string absent = "VPK-B";
    const rlv::Rule rule = parsed("-A VPK-A -s 10.0.0.1 -j DROP").rule;
    const rlv::Changes changes(20'000, {Kind::appendRule, &absent, &rule, 0});
    const auto refused = backend->commit(changes, backend->generation());
    EXPECT_LT(1'000U, refused.size());
    EXPECT_GE(changes.size(), refused.size());
    for (const auto &failure : refused)
        ASSERT_EQ(ENOENT, failure.error);
}

Words fillingOf(int rules, int changed) {
    Words commands{"-F VPK-A"};
    for (int i = 0; i < rules; ++i)
        commands.push_back("-A VPK-A -s 10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + " -j " +
                           (i == changed ? "ACCEPT" : "DROP"));
    return commands;
}

// A loop of foreign programs that put rules into INPUT, take them out again and fill a chain of their own.
TEST_F(AKernelTransaction, ComesToAnEndWhileAForeignProgramNeverRests) {
    constexpr int kRules = 2'000;
    ASSERT_THAT(sent({"-N VPK-A", "-N VPK-B"}).lost, IsEmpty());
    host.must("iptables -N OTHER; iptables -A INPUT -m comment --comment first -j ACCEPT");
    const auto rival = host.visit([] {
        return std::make_unique<process::Child>(
            Words{"sh", "-c",
                  "while :; do nft insert rule ip filter INPUT tcp dport 1 drop; iptables -A OTHER -j DROP;"
                  "iptables -D INPUT 1; done"});
    });
    const auto start = std::chrono::steady_clock::now();
    for (int i = 3; i < 6; ++i) {
        Words commands = fillingOf(kRules, i * 100);
        commands.insert(commands.begin(), "-D INPUT -j VPK-A");
        commands.push_back("-A INPUT -j VPK-A");
        table->open();
        for (const std::string &options : commands)
            table->apply({parsed(options)}, options); // the first -D finds nothing
        const auto report = table->push();
        EXPECT_THAT(namesOf(report), IsEmpty());
    }
    const auto taken = std::chrono::steady_clock::now() - start;
    std::cout << std::chrono::duration_cast<std::chrono::milliseconds>(taken).count() << " ms" << std::endl;
    EXPECT_GT(std::chrono::seconds(30), taken);
    rival->kill();
    const auto after = readTable(host);
    ASSERT_EQ(static_cast<std::size_t>(kRules), after.at("VPK-A").lines.size());
    EXPECT_EQ("-s 10.1.2.0/32 -j ACCEPT", after.at("VPK-A").lines[500].text);
    EXPECT_EQ("-j VPK-A", after.at("INPUT").lines.back().text);
    const auto isHook = [](const filter::Line &line) { return line.text == "-j VPK-A"; };
    EXPECT_EQ(1, std::count_if(after.at("INPUT").lines.begin(), after.at("INPUT").lines.end(), isHook));
    EXPECT_THAT(listing(), HasSubstr("--comment first"));
}

} // namespace
