// The kernel's own table, read and changed without anything in between.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <variant>
#include <vector>

#include <gmock/gmock.h>

#include "kernel-host.h"
#include "rlv/table/rule-text.h"
#include "rlv/table/ruleset-backend.h"

namespace {

using rlv::Change;
using testing::IsEmpty;
using testing::SizeIs;
using Kind = Change::Kind;

const std::string kA = "VPK-A";
const std::string kB = "VPK-B";

std::vector<std::uint64_t> handlesOf(const rlv::StandingChain &chain) {
    std::vector<std::uint64_t> handles;
    for (const rlv::StandingRule &standing : chain.rules)
        handles.push_back(standing.handle);
    return handles;
}

bool isReadable(int descriptor) {
    pollfd waited{descriptor, POLLIN, 0};
    return ::poll(&waited, 1, 0) == 1;
}

class AKernelBackend : public testing::Test {
protected:
    AKernelBackend() : backend(host.visit([] { return rlv::openKernelBackend("VPK-"); })) {}

    void SetUp() override {
        host.must("iptables -N VPK-A; iptables -N VPK-B; iptables -N OTHER; iptables -A INPUT -j VPK-A;"
                  "iptables -A VPK-A -s 10.0.0.1 -j VPK-B; iptables -A VPK-A -j DROP; iptables -A OTHER -j VPK-B;"
                  "iptables -A VPK-B -s 10.0.0.2 -j DROP; iptables -A VPK-B -s 10.0.0.3 -j DROP;"
                  "iptables -A VPK-B -s 10.0.0.4 -j DROP");
    }

    rlv::Ruleset read() { return backend->read().value(); }

    std::vector<rlv::ChangeFailure> append(const std::string &chain, const std::string &text,
                                           std::optional<std::uint32_t> generation = std::nullopt) {
        const auto command = std::get<rlv::Command>(rlv::parseCommand("-A VPK-A " + text, "VPK-"));
        return backend->commit({{Kind::appendRule, &chain, &command.rule, 0}}, generation);
    }

    kernel::Host host;
    std::unique_ptr<rlv::RulesetBackend> backend;
};

TEST_F(AKernelBackend, GivesTheHandlesOfOneChainInOrder) {
    const rlv::Ruleset ruleset = read();
    for (const auto &name : {kA, kB})
        EXPECT_EQ(handlesOf(ruleset.chains.at(name)), backend->readHandles(name, ruleset.generation)) << name;
    EXPECT_THAT(*backend->readHandles(kB, ruleset.generation), SizeIs(3));
}

TEST_F(AKernelBackend, GivesNoHandlesOnceSomebodyHasChangedSomething) {
    const auto generation = backend->generation();
    host.must("iptables -A OTHER -j ACCEPT");
    EXPECT_FALSE(backend->readHandles(kA, generation));
    EXPECT_TRUE(backend->readHandles(kA, backend->generation()));
}

TEST_F(AKernelBackend, ReadsInPartsWhatItReadsAsAWhole) {
    const rlv::Ruleset whole = read();
    const rlv::Ruleset parts = backend->readInParts().value();
    EXPECT_EQ(whole.generation, parts.generation);
    ASSERT_EQ(whole.chains.size(), parts.chains.size());
    for (const auto &[name, chain] : whole.chains) {
        const rlv::StandingChain &other = parts.chains.at(name);
        EXPECT_EQ(handlesOf(chain), handlesOf(other)) << name;
        EXPECT_EQ(chain.jumps, other.jumps) << name;
        EXPECT_EQ(chain.usesElsewhere, other.usesElsewhere) << name;
        EXPECT_EQ(chain.isBase, other.isBase) << name;
    }
}

TEST_F(AKernelBackend, TellsRulesOfOthersFromTheirJumps) {
    const rlv::Ruleset ruleset = read();
    EXPECT_THAT(ruleset.chains.at("OTHER").rules, IsEmpty());
    EXPECT_EQ(1U, ruleset.chains.at("OTHER").jumps.at(kB));
    EXPECT_EQ(1U, ruleset.chains.at(kA).jumps.at(kB));
    EXPECT_EQ(0U, ruleset.chains.at(kB).usesElsewhere);
    EXPECT_TRUE(ruleset.chains.at("INPUT").isBase);
    EXPECT_FALSE(ruleset.chains.at(kA).isBase);
}

TEST_F(AKernelBackend, CountsWhatRefersToAChainWithoutARule) {
    host.must("nft 'add map ip filter m { type ipv4_addr : verdict; elements = { 10.1.1.1 : jump VPK-B }; }'");
    EXPECT_EQ(1U, read().chains.at(kB).usesElsewhere);
    EXPECT_EQ(0U, read().chains.at(kA).usesElsewhere);
}

TEST_F(AKernelBackend, SeesThatItsTableSleepsAndWakesIt) {
    host.must("nft 'add table ip other { flags dormant; }'");
    EXPECT_FALSE(read().isDormant);
    host.must("nft 'add table ip filter { flags dormant; }'");
    EXPECT_TRUE(read().isDormant);
    EXPECT_TRUE(backend->readInParts()->isDormant);
    EXPECT_THAT(backend->commit({{Kind::wakeTable, nullptr, nullptr, 0}}, std::nullopt), IsEmpty());
    EXPECT_FALSE(read().isDormant);
}

TEST_F(AKernelBackend, CommitsToTheGenerationThatItIsGiven) {
    const auto generation = backend->generation();
    EXPECT_THAT(append(kA, "-s 10.0.0.9 -j DROP", generation), IsEmpty());
    EXPECT_EQ(rlv::generationAfter(generation), backend->generation());
    const auto failures = append(kA, "-s 10.0.0.8 -j DROP", generation);
    ASSERT_THAT(failures, SizeIs(1));
    EXPECT_FALSE(failures[0].index);
    EXPECT_EQ(ERESTART, failures[0].error);
    EXPECT_THAT(read().chains.at(kA).rules, SizeIs(3));
}

TEST_F(AKernelBackend, TriesChangesWithoutMakingThem) {
    const std::string missing = "VPK-MISSING";
    const auto refused = backend->dryRun({{Kind::addChain, &kA, nullptr, 0},
                                          {Kind::deleteChain, &missing, nullptr, 0},
                                          {Kind::flushChain, &kB, nullptr, 0}});
    ASSERT_THAT(refused, SizeIs(2));
    EXPECT_EQ(0U, refused[0].index);
    EXPECT_EQ(EEXIST, refused[0].error);
    EXPECT_EQ(1U, refused[1].index);
    EXPECT_EQ(ENOENT, refused[1].error);
    EXPECT_THAT(read().chains.at(kB).rules, SizeIs(3));
}

TEST_F(AKernelBackend, KnowsNothingOfOthersBeforeItListens) {
    const auto generation = backend->generation();
    EXPECT_FALSE(backend->isUntouched(generation, generation));
    host.must("iptables -A VPK-A -s 10.0.0.9 -j DROP");
    EXPECT_FALSE(backend->takeDisturbance().isOurs);
}

TEST_F(AKernelBackend, HearsOfOthersAndNotOfItself) {
    const int descriptor = host.visit([&] { return backend->listen(); }).value();
    EXPECT_EQ(descriptor, backend->listen());
    // It knows what has happened from the first transaction that it hears of.
    EXPECT_THAT(append(kA, "-s 10.0.0.7 -j DROP"), IsEmpty());
    const auto before = backend->generation();
    EXPECT_THAT(append(kA, "-s 10.0.0.9 -j DROP"), IsEmpty());
    const auto own = backend->generation();
    EXPECT_TRUE(backend->isUntouched(before, own));
    EXPECT_FALSE(backend->takeDisturbance().isOurs);

    host.must("iptables -A VPK-A -s 10.0.0.8 -j DROP");
    EXPECT_TRUE(isReadable(descriptor));
    EXPECT_FALSE(backend->isUntouched(own, backend->generation()));
    const rlv::Disturbance met = backend->takeDisturbance();
    EXPECT_TRUE(met.isOurs);
    EXPECT_EQ("iptables", met.name);
    EXPECT_FALSE(backend->takeDisturbance().isOurs) << "told once";
}

// Above 64 changes the notices are not read but left out, and what others do is still heard of afterwards.
TEST_F(AKernelBackend, HearsOfOthersAfterManyChangesOfItsOwn) {
    host.visit([&] { return backend->listen(); });
    EXPECT_THAT(append(kA, "-s 10.0.0.7 -j DROP"), IsEmpty());
    for (const std::size_t count : {64, 65, 500}) {
        const auto command = std::get<rlv::Command>(rlv::parseCommand("-A VPK-B -s 10.0.0.9 -j DROP", "VPK-"));
        const rlv::Changes changes(count, {Kind::appendRule, &kB, &command.rule, 0});
        const auto before = backend->generation();
        EXPECT_THAT(backend->commit(changes, before), IsEmpty());
        const auto own = backend->generation();
        EXPECT_TRUE(backend->isUntouched(before, own)) << count;
        EXPECT_FALSE(backend->takeDisturbance().isOurs) << count;
        host.must("iptables -D VPK-B 1");
        EXPECT_TRUE(backend->takeDisturbance().isOurs) << count;
        EXPECT_FALSE(backend->isUntouched(own, backend->generation())) << count;
    }
}

} // namespace
