// The chains as they stand in the kernel: laid out, among neighbours, rebuilt.
#include "system/system-test.h"

namespace {

using network::rulesOf;
using systemtest::kHooks;
using systemtest::kLogAndDrop;
using systemtest::Lines;
using systemtest::Rows;
using systemtest::storedRules;

using Chains = systemtest::SystemTest;
using RunningChains = systemtest::RunningSystemTest;

TEST_F(Chains, AreLaidOutInAnEmptyTable) {
    ASSERT_TRUE(system.start());
    const Lines expected{"-P INPUT ACCEPT",
                         "-P FORWARD ACCEPT",
                         "-P OUTPUT ACCEPT",
                         "-N VPK-ALLOW",
                         "-N VPK-DENY",
                         "-N VPK-LOGANDDROP",
                         "-A INPUT -j VPK-ALLOW",
                         "-A INPUT -j VPK-DENY",
                         "-A OUTPUT -j VPK-ALLOW",
                         "-A OUTPUT -j VPK-DENY",
                         "-A VPK-LOGANDDROP -j LOG --log-prefix \"IPTables-Dropped:\"",
                         "-A VPK-LOGANDDROP -j DROP"};
    EXPECT_EQ(network::listRules(), expected);
}

TEST_F(Chains, StandOnceAfterASecondStart) {
    ASSERT_TRUE(system.start());
    deny("tcp:192.0.2.1:80:in");
    const Lines before = network::listRules();
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(network::listRules(), before);
}

TEST_F(Chains, AreHookedInBehindTheNeighboursRules) {
    for (const char *chain : {"INPUT", "OUTPUT"}) {
        network::iptables({"-A", chain, "-s", "192.0.2.7", "-j", "DROP"});
        network::iptables({"-A", chain, "-p", "udp", "--dport", "9", "-j", "ACCEPT"});
    }
    ASSERT_TRUE(system.start());
    const Lines expected{"-s 192.0.2.7/32 -j DROP", "-p udp -m udp --dport 9 -j ACCEPT", kHooks[0], kHooks[1]};
    EXPECT_EQ(rulesOf("INPUT"), expected);
    EXPECT_EQ(rulesOf("OUTPUT"), expected);
}

TEST_F(Chains, MoveTheirHooksBehindRulesThatNeighboursAddedMeanwhile) {
    ASSERT_TRUE(system.start());
    network::iptables({"-N", "NEIGHBOUR"});
    for (const char *chain : {"INPUT", "OUTPUT"}) {
        network::iptables({"-I", chain, "1", "-j", "NEIGHBOUR"});
        network::iptables({"-I", chain, "3", "-s", "192.0.2.7", "-j", "DROP"});
        network::iptables({"-A", chain, "-s", "192.0.2.8", "-j", "ACCEPT"});
    }
    ASSERT_TRUE(system.restartHost());
    const Lines expected{"-j NEIGHBOUR", "-s 192.0.2.7/32 -j DROP", "-s 192.0.2.8/32 -j ACCEPT", kHooks[0], kHooks[1]};
    EXPECT_EQ(rulesOf("INPUT"), expected);
    EXPECT_EQ(rulesOf("OUTPUT"), expected);
}

TEST_F(Chains, LeaveOtherTablesAndChainsAlone) {
    network::iptables({"-t", "mangle", "-A", "INPUT", "-s", "192.0.2.7", "-j", "DROP"});
    network::iptables({"-P", "FORWARD", "DROP"});
    network::iptables({"-A", "FORWARD", "-s", "192.0.2.7", "-j", "DROP"});
    network::iptables({"-N", "NEIGHBOUR"});
    network::iptables({"-A", "NEIGHBOUR", "-j", "RETURN"});
    const auto neighbours = [] {
        return process::capture({"iptables", "-t", "mangle", "-S"}).output +
               process::capture({"iptables", "-S", "FORWARD"}).output +
               process::capture({"iptables", "-S", "NEIGHBOUR"}).output;
    };
    const std::string before = neighbours();
    ASSERT_TRUE(system.start());
    deny("*:*:*");
    EXPECT_EQ(system.execute("FlushDenyRules"), 0);
    EXPECT_EQ(neighbours(), before);
}

TEST_F(Chains, KeepTheNeighboursPacketCounters) {
    network::iptables({"-A", "OUTPUT", "-s", "127.0.0.1", "-c", "5", "500"});
    ASSERT_TRUE(system.start());
    EXPECT_NE(process::capture({"iptables", "-vS", "OUTPUT"}).output.find("-s 127.0.0.1/32 -c 5 500"),
              std::string::npos);
}

TEST_F(Chains, TakeOverWhatAnotherLeftInThem) {
    for (const char *chain : {"VPK-ALLOW", "VPK-DENY", "VPK-LOGANDDROP"}) {
        network::iptables({"-N", chain});
        network::iptables({"-A", chain, "-s", "192.0.2.7", "-j", "ACCEPT"});
    }
    ASSERT_TRUE(system.start());
    EXPECT_EQ(rulesOf("VPK-ALLOW"), Lines());
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines());
    EXPECT_EQ(rulesOf("VPK-LOGANDDROP"), kLogAndDrop);
}

TEST_F(RunningChains, HoldOneRulePerDirection) {
    allow("tcp:192.0.2.1:80:in;UDP:192.0.2.0/24:8000-8080:OUT;icmp:192.0.2.2:*");
    const Lines expected{"-s 192.0.2.1/32 -p tcp -m tcp --sport 80 -j ACCEPT",
                         "-d 192.0.2.0/24 -p udp -m udp --dport 8000:8080 -j ACCEPT",
                         "-s 192.0.2.2/32 -p icmp -j ACCEPT", "-d 192.0.2.2/32 -p icmp -j ACCEPT"};
    EXPECT_EQ(rulesOf("VPK-ALLOW"), expected);
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines());
}

TEST_F(RunningChains, AreRebuiltFromTheDatabaseWhenARuleChangesItsAction) {
    deny("tcp:192.0.2.1:80:in;tcp:192.0.2.2:80:in");
    network::iptables({"-A", "VPK-DENY", "-s", "192.0.2.9", "-j", "ACCEPT"});
    allow("tcp:192.0.2.1:80:in");
    EXPECT_EQ(rulesOf("VPK-ALLOW"), Lines{"-s 192.0.2.1/32 -p tcp -m tcp --sport 80 -j ACCEPT"});
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines{"-s 192.0.2.2/32 -p tcp -m tcp --sport 80 -j VPK-LOGANDDROP"});
    const Rows expected{{"tcp", "192.0.2.2", "80", 1, 0}, {"tcp", "192.0.2.1", "80", 1, 1}};
    EXPECT_EQ(storedRules(), expected);
}

TEST_F(RunningChains, AreRebuiltFromTheDatabaseWhenOnlyTheDirectionChanges) {
    deny("tcp:192.0.2.1:80:in;tcp:192.0.2.2:80:in");
    network::iptables({"-A", "VPK-ALLOW", "-s", "192.0.2.9", "-j", "ACCEPT"});
    deny("tcp:192.0.2.1:80:out");
    EXPECT_EQ(rulesOf("VPK-ALLOW"), Lines());
    const Lines expected{"-s 192.0.2.2/32 -p tcp -m tcp --sport 80 -j VPK-LOGANDDROP",
                         "-d 192.0.2.1/32 -p tcp -m tcp --dport 80 -j VPK-LOGANDDROP"};
    EXPECT_EQ(rulesOf("VPK-DENY"), expected);
}

TEST_F(RunningChains, HoldARuleTwiceThatWasAppliedTwiceUntilARebuild) {
    const std::string rule = "-s 192.0.2.1/32 -p tcp -m tcp --sport 80 -j VPK-LOGANDDROP";
    deny("tcp:192.0.2.1:80:in");
    deny("tcp:192.0.2.1:80:in");
    EXPECT_EQ(rulesOf("VPK-DENY"), (Lines{rule, rule}));
    EXPECT_EQ(storedRules().size(), 1U);
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines{rule});
}

TEST_F(RunningChains, KeepWhatStoodBeforeTheFirstRefusedRuleOfAList) {
    EXPECT_EQ(system.execute("ApplyDenyRules", "tcp:192.0.2.1:80:in;tcp:192.0.2.2:70000:in;tcp:192.0.2.3:80:in"), 1);
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines{"-s 192.0.2.1/32 -p tcp -m tcp --sport 80 -j VPK-LOGANDDROP"});
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "192.0.2.1", "80", 1, 0}}));
}

TEST_F(RunningChains, AreUntouchedByAListWithAMalformedRule) {
    EXPECT_EQ(system.execute("ApplyDenyRules", "tcp:192.0.2.1:80:in;tcp:192.0.2.2"), 1);
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines());
    EXPECT_EQ(storedRules(), Rows());
}

TEST_F(RunningChains, AreFlushedOneKindAtATime) {
    allow("tcp:192.0.2.1:80:in");
    deny("tcp:192.0.2.2:80:in");
    EXPECT_EQ(system.execute("FlushAllowRules"), 0);
    EXPECT_EQ(rulesOf("VPK-ALLOW"), Lines());
    EXPECT_EQ(rulesOf("VPK-DENY").size(), 1U);
    EXPECT_EQ(system.execute("FlushDenyRules"), 0);
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines());
    EXPECT_EQ(rulesOf("VPK-LOGANDDROP"), kLogAndDrop);
    EXPECT_EQ(storedRules(), Rows());
}

TEST_F(RunningChains, HoldTheAllowListOfAPolicyDocumentAsDenyRules) {
    EXPECT_EQ(
        system.control({"exec", "ApplyPolicy", R"({"ALLOW":["tcp:192.0.2.1:80:in"],"DENY":["udp:*:53"]})"}).status, 0);
    EXPECT_EQ(rulesOf("VPK-ALLOW"), Lines());
    EXPECT_EQ(rulesOf("VPK-DENY"), Lines{"-s 192.0.2.1/32 -p tcp -m tcp --sport 80 -j VPK-LOGANDDROP"});
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "192.0.2.1", "80", 1, 0}}));
}

TEST_F(RunningChains, ComeBackByThemselvesAfterAForeignFlush) {
    allow("tcp:192.0.2.1:80:in");
    deny("tcp:192.0.2.2:80:in");
    const Lines before = network::listRules();
    network::iptables({"-F"});
    EXPECT_TRUE(process::waitUntil([&] { return network::listRules() == before; }, process::Duration(1'000)));
}

// The service cannot know what stood, but the host does.
TEST_F(RunningChains, ComeBackWhenTheyWereFlushedWhileTheServiceWasAway) {
    allow("tcp:192.0.2.1:80:in");
    deny("tcp:192.0.2.2:80:in");
    const Lines before = network::listRules();
    system.killService();
    network::iptables({"-F"});
    ASSERT_NE(network::listRules(), before);
    ASSERT_TRUE(system.startService());
    EXPECT_TRUE(process::waitUntil([&] { return network::listRules() == before; }));
    EXPECT_TRUE(process::waitUntil([] {
        return wholesystem::contentOf(wholesystem::kHostLog).find("the traffic-control service was started anew") !=
               std::string::npos;
    }));
    network::iptables({"-F"});
    EXPECT_TRUE(process::waitUntil([&] { return network::listRules() == before; }, process::Duration(1'000)))
        << "and the service knows again";
}

} // namespace
