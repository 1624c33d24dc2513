// Long chains as trees in the kernel, by the program.
#include "rlvd-process.h"

#include <algorithm>
#include <csignal>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using namespace rlvd;

std::string rule(int number) {
    return "-s 10." + std::to_string(number % 7) + "." + std::to_string(number / 7) + "." +
           std::to_string(number * 37 % 251) + "/32 -j DROP";
}

class AServiceWithTrees : public testing::Test {
protected:
    static constexpr int kRules = 200;

    static std::string listing() { return process::capture({"iptables", "-S"}).output; }
    static std::size_t count(const std::string &text) {
        const std::string all = listing();
        std::size_t found = 0;
        for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
            ++found;
        return found;
    }
    static void rebuild() {
        Client client;
        client.commit("-N VPK-DENY");
        EXPECT_EQ("0: ", client.commit("-F VPK-DENY"));
        for (int i = 0; i < kRules; ++i)
            EXPECT_EQ("0: ", client.commit("-A VPK-DENY " + rule(i)));
        EXPECT_EQ(0, client.close());
    }
    static bool iptables(std::vector<std::string> words) {
        words.insert(words.begin(), "iptables");
        return process::capture(words).status == 0;
    }
    // By a connection of its own.
    static std::string committed(const std::string &command) {
        Client client;
        const std::string answer = client.commit(command);
        const int code = client.close();
        return code == 0 ? answer : "closed with " + std::to_string(code);
    }
    static std::string handles() { return process::capture({"nft", "-a", "list", "table", "ip", "filter"}).output; }
};

TEST_F(AServiceWithTrees, FindsItsTreeAgainWhenItWasKilled) {
    std::string before;
    {
        Service service({"--tree-from", "64"});
        rebuild();
        EXPECT_GT(count("-N VPK-DENY."), 3U);
        EXPECT_EQ(count("-j DROP"), std::size_t{kRules});
        before = handles();
        service.process().kill();
    }
    Service next({"--tree-from", "64"});
    EXPECT_EQ(rulesOf("VPK-DENY"), std::size_t{kRules});
    rebuild();
    EXPECT_EQ(handles(), before);
    EXPECT_EQ(rlv::query(0).chains.size(), 1U) << "sub-chains are nobody's business";
}

TEST_F(AServiceWithTrees, HasListsWhereItIsToldToAndChangesThemWithTheNextConnection) {
    for (const char *const from : {"0", "64", "1000", "150"}) {
        Service service({"--tree-from", from});
        rebuild();
        const bool isTree = std::string(from) == "64" || std::string(from) == "150";
        EXPECT_EQ(count("-N VPK-DENY.") > 0, isTree) << from;
        EXPECT_EQ(count("-j DROP"), std::size_t{kRules}) << from;
        EXPECT_EQ(rulesOf("VPK-DENY"), std::size_t{kRules}) << from;
    }
}

TEST_F(AServiceWithTrees, RefusesTheNamesOfSubChains) {
    Service service({"--tree-from", "64"});
    Client client;
    for (const char *const command : {"-N VPK-DENY.j3/1", "-F VPK-DENY.j3/1", "-X VPK-DENY.j3/1",
                                      "-A VPK-DENY.j3/1 -j DROP", "-A INPUT -j VPK-DENY.j3/1"})
        EXPECT_THAT(client.commit(command), HasSubstr("letters, digits and -_.")) << command;
}

TEST_F(AServiceWithTrees, LeavesNothingWhenItsTablesAreRemoved) {
    {
        Service service({"--tree-from", "64"});
        rebuild();
    }
    const auto removed = ended({"--remove-tables"});
    EXPECT_EQ(removed.status, 0) << removed.errors;
    EXPECT_THAT(listing(), testing::Not(HasSubstr("VPK-")));
}

// A renamed chain takes its branches along, and is one of ours by its name: emptied, it cannot have them back.
TEST_F(AServiceWithTrees, ComesBackWhereOthersHaveRenamedAndEmptiedAChain) {
    const Service service({"--tree-from", "64"});
    rebuild();
    ASSERT_EQ("0: ", committed("-A OUTPUT -j VPK-DENY"));
    ASSERT_TRUE(iptables({"-E", "VPK-DENY", "VPK-OLD"}));
    ASSERT_EQ("0: ", committed("-A VPK-DENY -s 192.0.2.1 -j DROP"));
    ASSERT_TRUE(iptables({"-F", "VPK-OLD"}) && iptables({"-F", "OUTPUT"}));
    ASSERT_EQ("0: ", committed("-A VPK-DENY -s 192.0.2.2 -j DROP"));
    EXPECT_EQ(count("-A OUTPUT -j VPK-DENY\n"), 1U);
    EXPECT_EQ(rulesOf("VPK-DENY"), std::size_t{kRules} + 2);
}

// Its hook goes with it, and so would all that it denied.
TEST_F(AServiceWithTrees, TakesOutOfForceWhatWasRenamedIntoASubChainWhileItWasAway) {
    for (const char *const from : {"0", "64"}) {
        ASSERT_EQ(process::capture({"nft", "flush", "ruleset"}).status, 0);
        {
            const Service service({"--tree-from", "64"});
            rebuild();
            ASSERT_EQ("0: ", committed("-A OUTPUT -j VPK-DENY"));
        }
        ASSERT_TRUE(iptables({"-E", "VPK-DENY", "VPK-DENY.d0/zz"}));
        const Service service({"--tree-from", from});
        ASSERT_EQ("0: ", committed("-N VPK-DENY"));
        EXPECT_EQ(count("-A VPK-DENY.d0/"), 0U) << from;
        ASSERT_EQ("0: ", committed("-A VPK-DENY -s 192.0.2.1 -j DROP"));
        EXPECT_EQ(count("-j DROP"), 1U) << from;
        EXPECT_EQ(count("-N VPK-DENY.d0/"), 1U) << from << ": the hook of others' leads there";
    }
}

// What others have put into our chain is theirs to bring back.
TEST_F(AServiceWithTrees, ComesBackWithoutAJumpToAChainOfOthersThatIsGone) {
    for (const char *const from : {"0", "64"}) {
        ASSERT_EQ(process::capture({"nft", "flush", "ruleset"}).status, 0);
        const Service service({"--tree-from", from});
        rebuild();
        ASSERT_EQ("0: ", committed("-A OUTPUT -j VPK-DENY"));
        ASSERT_TRUE(iptables({"-N", "f2b.ssh"}) && iptables({"-A", "VPK-DENY", "-j", "f2b.ssh"}));
        ASSERT_EQ("0: ", committed("-A VPK-DENY -s 192.0.2.1 -j DROP"));
        ASSERT_EQ(process::capture({"nft", "flush", "ruleset"}).status, 0);
        ASSERT_EQ("0: ", committed("-A VPK-DENY -s 192.0.2.2 -j DROP"));
        EXPECT_EQ(count("-A OUTPUT -j VPK-DENY\n"), 1U) << from;
        EXPECT_EQ(rulesOf("VPK-DENY"), std::size_t{kRules} + 2) << from;
    }
}

} // namespace
