#include "iptables/RlvIptables.h"

#include <functional>
#include <ostream>
#include <type_traits>

#include <gmock/gmock.h>

#include "iptables/RlvHandler.h"
#include "support/fake-rlv.h"
#include "support/fake-vlog.h"

namespace {

using iptables::Interface;
using iptables::RlvHandler;
using iptables::RlvIptables;
using testing::ElementsAre;

static_assert(std::has_virtual_destructor<Interface>::value && std::is_abstract<Interface>::value);

FirewallRule rule(const std::string &text, const std::string &target = "ACCEPT") { return {text, target}; }

struct Case {
    std::string command;
    std::function<int(Interface &)> operation;
};

void PrintTo(const Case &one, std::ostream *stream) { *stream << one.command; }

class ABackendOperation : public testing::TestWithParam<Case> {
protected:
    ABackendOperation() { fakerlv::reset(); }
    RlvIptables backend;
};

class ACommand : public testing::Test {
protected:
    ACommand() {
        fakerlv::reset();
        fakevlog::clear();
    }
};

TEST_P(ABackendOperation, SendsOneCommand) {
    const RlvHandler handler;
    EXPECT_EQ(GetParam().operation(backend), 0);
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize", "commit " + GetParam().command));
}

TEST_P(ABackendOperation, LogsItsCommand) {
    const RlvHandler handler;
    fakevlog::clear();
    GetParam().operation(backend);
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: invokeRLVIptablesCommit options: " + GetParam().command));
}

TEST_P(ABackendOperation, ReturnsAndLogsTheErrorOfTheService) {
    const RlvHandler handler;
    fakevlog::clear();
    fakerlv::answer(GetParam().command, {0, 4, "refused: 100%s"});
    EXPECT_EQ(GetParam().operation(backend), 4);
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: invokeRLVIptablesCommit options: " + GetParam().command,
                                                  "E VPK: invokeRLVIptablesCommit Iptables ERROR: 4 : refused: 100%s"));
    EXPECT_THAT(fakevlog::functions("RlvIptables.cpp"),
                ElementsAre("invokeRLVIptablesCommit", "invokeRLVIptablesCommit"));
}

INSTANTIATE_TEST_SUITE_P(OnChains, ABackendOperation,
                         testing::Values(Case{"-F VPK-ALLOW", [](Interface &b) { return b.flushChain("VPK-ALLOW"); }},
                                         Case{"-N VPK-DENY", [](Interface &b) { return b.makeChain("VPK-DENY"); }},
                                         Case{"-X VPK-X", [](Interface &b) { return b.removeChain("VPK-X"); }},
                                         Case{"-D INPUT -j VPK-ALLOW",
                                              [](Interface &b) { return b.deleteChainTarget("INPUT", "VPK-ALLOW"); }},
                                         Case{"-A INPUT -j VPK-ALLOW",
                                              [](Interface &b) { return b.appendChainTarget("INPUT", "VPK-ALLOW"); }}));

INSTANTIATE_TEST_SUITE_P(
    OfInboundRules, ABackendOperation,
    testing::Values(
        Case{"-A C -p tcp -s 10.0.0.5 --sport 80 -j VPK-LOGANDDROP",
             [](Interface &b) { return b.applyInboundRule("C", rule("tcp:10.0.0.5:80:in", "VPK-LOGANDDROP")); }},
        Case{"-A C -p udp -j ACCEPT", [](Interface &b) { return b.applyInboundRule("C", rule("udp:*:*")); }},
        Case{"-A C -s a -j ACCEPT", [](Interface &b) { return b.applyInboundRule("C", rule("*:a:*")); }},
        Case{"-A C --sport 8000:8080 -j ACCEPT",
             [](Interface &b) { return b.applyInboundRule("C", rule("*:*:8000-8080:out")); }},
        Case{"-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:", [](Interface &b) {
                 return b.applyInboundRule("VPK-LOGANDDROP", rule("*:*:*", "LOG -v --log-prefix=IPTables-Dropped:"));
             }}));

INSTANTIATE_TEST_SUITE_P(
    OfOutboundRules, ABackendOperation,
    testing::Values(
        Case{"-A VPK-ALLOW -p tcp -d 10.0.0.5 --dport 8000:8080 -j ACCEPT",
             [](Interface &b) { return b.applyOutboundRule("VPK-ALLOW", rule("tcp:10.0.0.5:8000-8080:out")); }},
        Case{"-A C -p udp -j ACCEPT", [](Interface &b) { return b.applyOutboundRule("C", rule("udp:*:*")); }},
        Case{"-A C -d a -j ACCEPT", [](Interface &b) { return b.applyOutboundRule("C", rule("*:a:*:in")); }},
        Case{"-A C --dport 53 -j ACCEPT", [](Interface &b) { return b.applyOutboundRule("C", rule("*:*:53")); }},
        Case{"-A C -j ACCEPT", [](Interface &b) { return b.applyOutboundRule("C", rule("*:*:*")); }},
        // Nothing is quoted or escaped.
        Case{"-A C -p t'c p -d $(a) \"b\" --dport 1 -j X -y",
             [](Interface &b) { return b.applyOutboundRule("C", rule("t'c p:$(a) \"b\":1", "X -y")); }}));

TEST_F(ACommand, ThatFailsWithoutAMessageIsLoggedWithAnEmptyOne) {
    const RlvHandler handler;
    fakevlog::clear();
    fakerlv::answer("-F C", {0, 2, std::nullopt});
    EXPECT_EQ(RlvIptables().flushChain("C"), 2);
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: invokeRLVIptablesCommit options: -F C",
                                                  "E VPK: invokeRLVIptablesCommit Iptables ERROR: 2 : "));
}

TEST_F(ACommand, ReturnsTheResultOfTheServiceWhenThereIsNoErrorCode) {
    const RlvHandler handler;
    fakevlog::clear();
    fakerlv::answer("-F C", {-7, 0, std::nullopt});
    EXPECT_EQ(RlvIptables().flushChain("C"), -7);
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: invokeRLVIptablesCommit options: -F C"));
}

TEST_F(ACommand, ReturnsTheErrorCodeRatherThanTheResult) {
    const RlvHandler handler;
    fakerlv::answer("-F C", {-7, 3, "no"});
    EXPECT_EQ(RlvIptables().flushChain("C"), 3);
}

// The leak checker sees to it that the message is released.
TEST_F(ACommand, ThatSucceedsMayComeWithAMessage) {
    const RlvHandler handler;
    fakevlog::clear();
    fakerlv::answer("-F C", {0, 0, "a warning"});
    EXPECT_EQ(RlvIptables().flushChain("C"), 0);
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: invokeRLVIptablesCommit options: -F C"));
}

TEST_F(ACommand, WithoutAConnectionIsSentOnHandleZero) {
    EXPECT_EQ(RlvIptables().flushChain("C"), 4);
    EXPECT_THAT(fakerlv::calls(), ElementsAre("commit -F C failed"));
    EXPECT_EQ(fakevlog::messages().back(), "E VPK: invokeRLVIptablesCommit Iptables ERROR: 4 : no connection");
}

TEST_F(ACommand, ThatFailsIsNeitherRepeatedNorUndone) {
    const RlvHandler handler;
    fakerlv::answer("-N C", {0, 1, "exists"});
    RlvIptables backend;
    backend.makeChain("C");
    backend.flushChain("C");
    EXPECT_THAT(fakerlv::calls(), ElementsAre("initialize", "commit -N C failed", "commit -F C"));
}

TEST(TheFactory, GivesTheBackendOfTheService) {
    const auto backend = iptables::Factory::getImplementation();
    EXPECT_NE(dynamic_cast<RlvIptables *>(backend.get()), nullptr);
}

} // namespace
