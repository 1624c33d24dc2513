// The service while others change the kernel's tables.
#include "rlvd-process.h"

#include <algorithm>
#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using namespace rlvd;

// So long what others have done may be in force.
constexpr process::Duration kMended{1'000};

class TheServiceAmongOthers : public testing::Test {
protected:
    void SetUp() override { others("nft flush ruleset"); } // the namespace is that of all tests

    static std::string listing() { return process::capture({"iptables", "-S"}).output; }
    static void others(const std::string &command) {
        const auto result = process::capture({"sh", "-ec", command});
        ASSERT_EQ(0, result.status) << command << ": " << result.errors;
    }
    static void makeTables() {
        Client client;
        for (const char *const command :
             {"-N VPK-ALLOW", "-N VPK-DENY", "-N VPK-LOGANDDROP", "-A INPUT -j VPK-ALLOW", "-A INPUT -j VPK-DENY",
              "-A OUTPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-DENY",
              "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:", "-A VPK-LOGANDDROP -j DROP",
              "-A VPK-ALLOW -s 10.0.0.1 -j ACCEPT", "-A VPK-DENY -s 10.0.0.2 -j VPK-LOGANDDROP",
              "-A VPK-DENY -p tcp -d 10.0.0.3 --dport 80:90 -j VPK-LOGANDDROP"})
            EXPECT_EQ("0: ", client.commit(command)) << command;
        EXPECT_EQ(0, client.close());
    }
    static rlv::DriftState drift() { return rlv::query(0).drift; }
    static bool becomes(const std::string &wanted) {
        return process::waitUntil([&] { return listing() == wanted; }, kMended);
    }
};

// In one transaction.
std::string atOnce(const std::string &commands) {
    return "printf '*filter\\n" + commands + "\\nCOMMIT\\n' | iptables-restore --noflush";
}

struct Edit {
    const char *name;
    std::string command;
    const char *told;
};

void PrintTo(const Edit &edit, std::ostream *out) { *out << edit.name; }

class TheServicePutsBack : public TheServiceAmongOthers, public testing::WithParamInterface<Edit> {};

TEST_P(TheServicePutsBack, WithinASecond) {
    Service service({});
    makeTables();
    const std::string before = listing();
    others(GetParam().command);
    EXPECT_TRUE(becomes(before)) << listing() << service.log();
    EXPECT_THAT(service.log(), HasSubstr(GetParam().told));
    const auto state = drift();
    EXPECT_EQ(1U, state.repairs) << service.log();
    EXPECT_EQ("", state.problem);
}

INSTANTIATE_TEST_SUITE_P(
    OfAllKinds, TheServicePutsBack,
    testing::Values(
        Edit{"flushOfAll", "iptables -F", "VPK-DENY: missing: -s 10.0.0.2/32 -j VPK-LOGANDDROP"},
        Edit{"allChains", atOnce("-F\\n-X"), "VPK-ALLOW: the chain is missing"},
        Edit{"flushOfTheRuleset", "nft flush ruleset", "INPUT: the chain is missing"},
        Edit{"oneRule", "iptables -D VPK-DENY -s 10.0.0.2 -j VPK-LOGANDDROP",
             "VPK-DENY: missing: -s 10.0.0.2/32 -j VPK-LOGANDDROP"},
        Edit{"exchangedRule", "iptables -R VPK-DENY 1 -s 10.0.0.2 -j ACCEPT",
             "VPK-DENY: foreign: -s 10.0.0.2/32 -j ACCEPT"},
        Edit{"foreignRule", "iptables -I VPK-ALLOW -j ACCEPT", "VPK-ALLOW: foreign: -j ACCEPT"},
        Edit{"ruleOfAnotherKind", "iptables -I VPK-DENY -p tcp --dport 9 -m comment --comment x -j RETURN",
             "VPK-DENY: foreign: a rule of another kind"},
        Edit{"dropMadeAccept", "iptables -R VPK-LOGANDDROP 2 -j ACCEPT", "VPK-LOGANDDROP: missing: -j DROP"},
        Edit{"logPrefix", "iptables -R VPK-LOGANDDROP 1 -j LOG --log-prefix other", "VPK-LOGANDDROP: missing: -j LOG"},
        Edit{"firstHook", "iptables -D INPUT -j VPK-ALLOW", "INPUT: missing: -j VPK-ALLOW"},
        Edit{"lastHook", "iptables -D OUTPUT -j VPK-DENY", "OUTPUT: missing: -j VPK-DENY"},
        Edit{"hookTwice", "iptables -I INPUT -j VPK-DENY", "INPUT: twice or at another place: -j VPK-DENY"},
        Edit{"hooksInAnotherOrder", atOnce("-D INPUT -j VPK-ALLOW\\n-A INPUT -j VPK-ALLOW"),
             "INPUT: twice or at another place: -j VPK-ALLOW"},
        Edit{"order", atOnce("-D VPK-DENY 1\\n-A VPK-DENY -s 10.0.0.2 -j VPK-LOGANDDROP"),
             "VPK-DENY: the rules are in another order"}),
    [](const auto &one) { return std::string(one.param.name); });

TEST_F(TheServiceAmongOthers, NamesTheProcessThatDidIt) {
    Service service({});
    makeTables();
    others("iptables -F VPK-DENY");
    ASSERT_TRUE(process::waitUntil([] { return drift().repairs == 1; })) << service.log();
    EXPECT_THAT(service.log(), HasSubstr("iptables (process "));
    EXPECT_EQ("iptables", drift().processName);
    EXPECT_NE(0U, drift().process);
    EXPECT_THAT(drift().texts, testing::SizeIs(2));
}

TEST_F(TheServiceAmongOthers, LeavesWhatTheyDoElsewhere) {
    Service service({});
    others("iptables -N NEIGHBOUR && iptables -A INPUT -s 10.9.0.1 -j ACCEPT");
    makeTables();
    others("iptables -I INPUT -j NEIGHBOUR && iptables -A NEIGHBOUR -s 10.9.0.2 -j ACCEPT && "
           "iptables -I INPUT 3 -s 10.9.0.3 -j DROP && iptables -A OUTPUT -s 10.9.0.4 -j ACCEPT && "
           "iptables -P FORWARD DROP && nft add table inet theirs");
    const std::string before = listing();
    others("iptables -D INPUT -j VPK-DENY && iptables -D OUTPUT -j VPK-DENY");
    EXPECT_TRUE(becomes(before)) << listing() << service.log();
}

// Behind a rule of others that accepts, ours would decide nothing.
TEST_F(TheServiceAmongOthers, KeepsItsHooksBeforeTheRulesBeforeWhichTheyStood) {
    Service service({});
    makeTables();
    others("iptables -A INPUT -s 10.9.0.1 -j ACCEPT");
    const std::string before = listing();
    for (const std::string &command :
         {std::string("iptables -A INPUT -j VPK-DENY"), atOnce("-D INPUT -j VPK-ALLOW\\n-A INPUT -j VPK-ALLOW")}) {
        others(command);
        EXPECT_TRUE(becomes(before)) << command << "\n" << listing() << service.log();
    }
    others("printf '*filter\\n:INPUT ACCEPT\\n-A INPUT -s 10.9.0.1 -j ACCEPT\\nCOMMIT\\n' | iptables-restore");
    EXPECT_TRUE(becomes(before)) << listing() << service.log();
}

TEST_F(TheServiceAmongOthers, LetsEachHookStandOnceThoughOthersDoubledThemBeforeItsStart) {
    {
        Service earlier({});
        makeTables();
    }
    const std::string before = listing();
    others("iptables -I INPUT -j VPK-DENY && iptables -A OUTPUT -j VPK-ALLOW");
    Service service({});
    Client client;
    for (const char *const command :
         {"-D INPUT -j VPK-ALLOW", "-D INPUT -j VPK-DENY", "-D OUTPUT -j VPK-ALLOW", "-D OUTPUT -j VPK-DENY",
          "-A INPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-ALLOW", "-A INPUT -j VPK-DENY", "-A OUTPUT -j VPK-DENY"})
        EXPECT_EQ("0: ", client.commit(command)) << command;
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(before, listing()) << service.log();
}

TEST_F(TheServiceAmongOthers, DoesNotLookAtWhatDoesNotConcernIt) {
    Service service({"--verbose"});
    makeTables();
    others("iptables -N NEIGHBOUR && iptables -A INPUT -j NEIGHBOUR && iptables -F NEIGHBOUR && nft add table inet x");
    others("iptables -F VPK-DENY");
    ASSERT_TRUE(process::waitUntil([] { return drift().repairs == 1; })) << service.log();
    EXPECT_THAT(service.log(), HasSubstr("has changed the tables: 2 differences"));
    EXPECT_EQ(service.log().find("has changed the tables"), service.log().rfind("has changed the tables"));
}

TEST_F(TheServiceAmongOthers, OnlyTellsWithoutRepair) {
    Service service({"--no-repair"});
    makeTables();
    others("iptables -F VPK-DENY");
    const std::string after = listing();
    ASSERT_TRUE(process::waitUntil([] { return drift().differences == 2; })) << service.log();
    EXPECT_FALSE(drift().isMending);
    EXPECT_EQ("not put back (--no-repair)", drift().problem);
    EXPECT_EQ(after, listing());
    EXPECT_EQ(0U, drift().repairs);
    Client client;
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -s 10.0.0.9 -j VPK-LOGANDDROP"));
    EXPECT_EQ(0, client.close());
    EXPECT_THAT(listing(), AllOf(HasSubstr("-A VPK-DENY -s 10.0.0.9/32"), Not(HasSubstr("-s 10.0.0.2/32"))));
}

TEST_F(TheServiceAmongOthers, ForgetsWhenItsTablesAreRemoved) {
    Service service({});
    makeTables();
    const auto removed = ended({"--remove-tables"});
    EXPECT_EQ(0, removed.status) << removed.errors;
    EXPECT_THAT(listing(), Not(HasSubstr("VPK")));
    others("iptables -N VPK-DENY");
    EXPECT_EQ(0, Client().close()) << "at whose end it puts back what should stand";
    EXPECT_THAT(listing(), Not(HasSubstr("10.0.0.2"))) << service.log();
    EXPECT_EQ(0U, drift().repairs);
    others("iptables -X VPK-DENY");
    makeTables();
    const std::string before = listing();
    others("iptables -F");
    EXPECT_TRUE(becomes(before)) << "a later connection is put back again";
}

TEST_F(TheServiceAmongOthers, KeepsItsTablesWhenOthersAreRemoved) {
    Service service({});
    makeTables();
    const std::string before = listing();
    const auto elsewhere = words({"--remove-tables"});
    std::vector<std::string> inAnotherNetwork{"unshare", "--net"};
    inAnotherNetwork.insert(inAnotherNetwork.end(), elsewhere.begin(), elsewhere.end());
    for (const auto &result : {ended({"--remove-tables", "--chain-prefix", "TEST-"}),
                               ended({"--remove-tables", "--simulate"}), process::capture(inAnotherNetwork)}) {
        EXPECT_EQ(0, result.status) << result.errors;
        EXPECT_EQ(before, listing()) << result.errors;
        others("iptables -F VPK-DENY");
        EXPECT_TRUE(becomes(before)) << "it still knows what should stand";
    }
}

TEST_F(TheServiceAmongOthers, ForgetsForRootAlone) {
    const SimulatedService service({"--client-user", "1"});
    process::Options how;
    how.user = 1;
    const auto refused = process::capture(
        {process::builtForEveryone("rlvd"), "--socket", kSocket, "--log-stderr", "--remove-tables", "--simulate"}, how);
    EXPECT_EQ(1, refused.status);
    EXPECT_THAT(refused.errors, HasSubstr("does not take them out: only root may"));
}

// A loop that flushes whenever it finds a rule again.
TEST_F(TheServiceAmongOthers, DoesNotFightForEver) {
    Service service({});
    makeTables();
    const std::string before = listing();
    process::Child fighter(
        {"sh", "-c",
         "while :; do iptables -C VPK-DENY -s 10.0.0.2 -j VPK-LOGANDDROP 2>/dev/null && iptables -F VPK-DENY; done"});
    ASSERT_TRUE(process::waitUntil([] { return drift().nextAttemptSeconds >= 2; })) << service.log();
    const auto state = drift();
    EXPECT_EQ("iptables", state.processName);
    EXPECT_THAT(service.log(), HasSubstr("fights back"));
    EXPECT_LT(state.repairs, 12U);
    fighter.kill();
    EXPECT_TRUE(process::waitUntil([&] { return listing() == before; })) << service.log();
}

// Its pause is over with the connection, which has looked.
TEST_F(TheServiceAmongOthers, PutsBackAtOnceAgainAfterAConnectionHasEndedAFight) {
    Service service({});
    makeTables();
    const std::string before = listing();
    {
        const process::Child fighter({"sh", "-c",
                                      "while :; do iptables -C VPK-DENY -s 10.0.0.2 -j VPK-LOGANDDROP 2>/dev/null && "
                                      "iptables -F VPK-DENY; done"});
        ASSERT_TRUE(process::waitUntil([] { return drift().nextAttemptSeconds >= 4; })) << service.log();
    }
    Client client;
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(before, listing());
    EXPECT_EQ(-1, drift().nextAttemptSeconds);
    others("iptables -F VPK-DENY");
    EXPECT_TRUE(becomes(before)) << listing() << service.log();
}

// The hooks lead to the chain under its new name, which no notice would show for ours.
TEST_F(TheServiceAmongOthers, MakesAChainAgainThatSomebodyHasRenamed) {
    Service service({});
    makeTables();
    others("iptables -E VPK-DENY OTHER");
    ASSERT_TRUE(process::waitUntil([] { return drift().repairs == 1; }, kMended)) << listing() << service.log();
    EXPECT_THAT(listing(), HasSubstr("-A VPK-DENY -s 10.0.0.2/32 -j VPK-LOGANDDROP"));
    EXPECT_THAT(listing(), HasSubstr("-A INPUT -j VPK-ALLOW\n-A INPUT -j VPK-DENY\n"));
}

bool isDormant() {
    return process::capture({"nft", "list", "table", "ip", "filter"}).output.find("dormant") != std::string::npos;
}

// Then no rule of it is in force.
TEST_F(TheServiceAmongOthers, SwitchesOnATableThatSomebodyHasSwitchedOff) {
    Service service({});
    makeTables();
    const std::string before = listing();
    others("nft 'add table ip filter { flags dormant; }'");
    EXPECT_TRUE(process::waitUntil([] { return !isDormant(); }, kMended)) << service.log();
    EXPECT_THAT(service.log(), HasSubstr("filter: the table is switched off (dormant)"));
    others("nft 'add table ip filter { flags dormant; }; flush chain ip filter INPUT; delete chain ip filter INPUT'");
    EXPECT_TRUE(process::waitUntil([&] { return !isDormant() && listing() == before; }, kMended)) << service.log();
    EXPECT_EQ("", drift().problem);
}

TEST_F(TheServiceAmongOthers, SwitchesOnATableThatWasSwitchedOffBeforeItsStart) {
    others("nft 'add table ip filter { flags dormant; }'");
    Service service({});
    makeTables();
    EXPECT_FALSE(isDormant()) << service.log();
}

TEST_F(TheServiceAmongOthers, TellsWhoWatchesOfWhatItCannotJudge) {
    Service service({});
    others("iptables -N VPK-DENY");
    RawClient watcher;
    ASSERT_TRUE(watcher.send(rlv::protocol::Request::Kind::watch));
    const auto first = watcher.receive();
    ASSERT_TRUE(first);
    EXPECT_EQ(rlv::protocol::Reply::Kind::watched, first->kind);
    EXPECT_EQ(rlv::query(0).serviceId, first->number);
    EXPECT_EQ(0, first->code);
    others("iptables -A VPK-DENY -j ACCEPT");
    const auto second = watcher.receive();
    ASSERT_TRUE(second);
    EXPECT_EQ(1, second->code);
}

TEST_F(TheServiceAmongOthers, PutsBackInTheMiddleOfAConnectionToo) {
    Service service({});
    makeTables();
    const std::string before = listing();
    Client client;
    EXPECT_EQ("0: ", client.commit("-F VPK-DENY"));
    others("iptables -F");
    EXPECT_TRUE(becomes(before)) << listing() << service.log();
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -s 10.0.0.9 -j VPK-LOGANDDROP"));
    EXPECT_EQ(0, client.close());
    EXPECT_THAT(listing(), AllOf(HasSubstr("-A VPK-DENY -s 10.0.0.9/32"), Not(HasSubstr("-s 10.0.0.2/32"))));
    EXPECT_THAT(listing(), HasSubstr("-A INPUT -j VPK-ALLOW\n-A INPUT -j VPK-DENY\n"));
}

TEST_F(TheServiceAmongOthers, SaysAtTheEndOfAConnectionWhatItCannotPutRight) {
    Service service({});
    makeTables();
    // A chain that is no base chain takes the name, so that the kernel refuses ours.
    others("nft 'flush ruleset; add table ip filter; add chain ip filter INPUT'");
    Client client;
    EXPECT_EQ(EIO, client.close());
    EXPECT_THAT(drift().problem, HasSubstr("CHAIN_ADD failed"));
}

} // namespace
