// What the kernel's notices say of us.
#include "rlv/table/ruleset-watch.h"

#include <array>
#include <functional>
#include <string>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

namespace {

using Fill = std::function<void(nlmsghdr *)>;

constexpr std::uint32_t kOurs = 7;
constexpr std::uint32_t kOthers = 8;

class TheNotices : public testing::Test {
protected:
    void take(int type, const Fill &fill, std::uint32_t from = kOthers, int family = NFPROTO_IPV4,
              int subsystem = NFNL_SUBSYS_NFTABLES) {
        alignas(nlmsghdr) std::array<char, 4096> bytes{};
        nlmsghdr *const message = mnl_nlmsg_put_header(bytes.data());
        message->nlmsg_type = static_cast<std::uint16_t>(subsystem << 8 | type);
        message->nlmsg_pid = from;
        auto *const head = static_cast<nfgenmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
        head->nfgen_family = static_cast<std::uint8_t>(family);
        fill(message);
        sieve.take(message);
    }
    static Fill rule(const std::string &chain, const std::string &table = "filter") {
        return [=](nlmsghdr *message) {
            mnl_attr_put_strz(message, NFTA_RULE_TABLE, table.c_str());
            mnl_attr_put_strz(message, NFTA_RULE_CHAIN, chain.c_str());
        };
    }
    static Fill chain(const std::string &name, int uses, bool isBase = false) {
        return [=](nlmsghdr *message) {
            mnl_attr_put_strz(message, NFTA_CHAIN_TABLE, "filter");
            mnl_attr_put_strz(message, NFTA_CHAIN_NAME, name.c_str());
            if (uses >= 0)
                mnl_attr_put_u32(message, NFTA_CHAIN_USE, htonl(static_cast<std::uint32_t>(uses)));
            if (isBase)
                mnl_attr_put_strz(message, NFTA_CHAIN_HOOK, "");
        };
    }
    void end(std::uint32_t number, std::uint32_t process = 5, const std::string &name = "nft") {
        take(
            NFT_MSG_NEWGEN,
            [&](nlmsghdr *message) {
                mnl_attr_put_u32(message, NFTA_GEN_ID, htonl(number));
                mnl_attr_put_u32(message, NFTA_GEN_PROC_PID, htonl(process));
                mnl_attr_put_strz(message, NFTA_GEN_PROC_NAME, name.c_str());
            },
            0, AF_UNSPEC);
    }
    // A transaction of somebody else's with this one message.
    bool concernsUs(int type, const Fill &fill, std::uint32_t from = kOthers, int family = NFPROTO_IPV4,
                    int subsystem = NFNL_SUBSYS_NFTABLES) {
        take(type, fill, from, family, subsystem);
        end(++generation);
        return sieve.takeDisturbance().isOurs;
    }
    // The same: whether the table is as it was.
    bool leavesTheTable(int type, const Fill &fill, std::uint32_t from = kOthers, int family = NFPROTO_IPV4) {
        const std::uint32_t before = generation;
        take(type, fill, from, family);
        end(++generation);
        return sieve.isUntouched(before, generation);
    }

    rlv::NoticeSieve sieve{"VPK-", kOurs};
    std::uint32_t generation = 100;
};

TEST_F(TheNotices, ConcernUsWhereOneOfOurChainsIsNamed) {
    EXPECT_TRUE(concernsUs(NFT_MSG_NEWRULE, rule("VPK-A")));
    EXPECT_TRUE(concernsUs(NFT_MSG_DELRULE, rule("VPK-A")));
    EXPECT_TRUE(concernsUs(NFT_MSG_DELCHAIN, chain("VPK-A", 0)));
    EXPECT_TRUE(concernsUs(NFT_MSG_NEWCHAIN, chain("VPK-A", 0)));
    EXPECT_FALSE(concernsUs(NFT_MSG_NEWRULE, rule("OTHER")));
    EXPECT_FALSE(concernsUs(NFT_MSG_DELRULE, rule("INPUT")));
    EXPECT_FALSE(concernsUs(NFT_MSG_DELCHAIN, chain("OTHER", 0)));
}

TEST_F(TheNotices, ConcernUsWhereARuleLeadsToUs) {
    EXPECT_TRUE(concernsUs(NFT_MSG_DELRULE, [](nlmsghdr *message) {
        rule("INPUT")(message);
        mnl_attr_put_strz(message, NFTA_RULE_USERDATA, "jump VPK-A");
    }));
}

TEST_F(TheNotices, ConcernUsWhereTableOrBuiltInChainsComeAndGo) {
    EXPECT_TRUE(concernsUs(NFT_MSG_NEWTABLE, rule("")));
    EXPECT_TRUE(concernsUs(NFT_MSG_DELTABLE, rule("")));
    EXPECT_TRUE(concernsUs(NFT_MSG_DELCHAIN, chain("INPUT", 0, true)));
    EXPECT_TRUE(concernsUs(NFT_MSG_NEWCHAIN, chain("OUTPUT", 0, true)));
    EXPECT_FALSE(concernsUs(NFT_MSG_NEWCHAIN, chain("FORWARD", 3, true)));
}

// A chain of ours that was renamed shows under its new name alone.
TEST_F(TheNotices, ConcernUsWhereAChainInUseMayBeARenamedOne) {
    EXPECT_TRUE(concernsUs(NFT_MSG_NEWCHAIN, chain("OTHER", 1)));
    EXPECT_TRUE(concernsUs(NFT_MSG_NEWCHAIN, chain("OTHER", -1))) << "where nobody knows";
    EXPECT_FALSE(concernsUs(NFT_MSG_NEWCHAIN, chain("OTHER", 0)));
    EXPECT_FALSE(concernsUs(NFT_MSG_NEWCHAIN, chain("OTHER", 1, true)));
}

TEST_F(TheNotices, OfSetsAndOthersDoNotConcernUs) { EXPECT_FALSE(concernsUs(NFT_MSG_NEWSET, rule("VPK-A"))); }

TEST_F(TheNotices, OfOtherTablesFamiliesAndOurselvesDoNotConcernUs) {
    EXPECT_FALSE(concernsUs(NFT_MSG_NEWRULE, rule("VPK-A", "nat")));
    EXPECT_FALSE(concernsUs(NFT_MSG_NEWRULE, rule("VPK-A"), kOthers, NFPROTO_IPV6));
    EXPECT_FALSE(concernsUs(NFT_MSG_NEWRULE, rule("VPK-A"), kOurs));
    EXPECT_FALSE(concernsUs(NFT_MSG_NEWTABLE, rule(""), kOthers, NFPROTO_IPV4, NFNL_SUBSYS_IPSET));
}

TEST_F(TheNotices, AreWholeAtTheEndOfATransaction) {
    take(NFT_MSG_NEWRULE, rule("VPK-A"));
    take(NFT_MSG_NEWRULE, rule("OTHER"));
    EXPECT_FALSE(sieve.takeDisturbance().isOurs);
    end(101);
    EXPECT_TRUE(sieve.takeDisturbance().isOurs);
    EXPECT_FALSE(sieve.takeDisturbance().isOurs) << "told once";
    end(102);
    EXPECT_FALSE(sieve.takeDisturbance().isOurs);
}

TEST_F(TheNotices, KeepWhatConcernsUsAmongOtherChanges) {
    for (const int type : {NFT_MSG_NEWCHAIN, NFT_MSG_DELCHAIN}) {
        take(NFT_MSG_NEWRULE, rule("VPK-A"));
        EXPECT_TRUE(concernsUs(type, chain("OTHER", 0)));
    }
    take(NFT_MSG_NEWRULE, rule("VPK-A"));
    EXPECT_TRUE(concernsUs(NFT_MSG_NEWRULE, rule("OTHER")));
}

TEST_F(TheNotices, NameWhoDidIt) {
    take(NFT_MSG_NEWRULE, rule("VPK-A"));
    end(101, 42, "a\nb~\x7f");
    const auto disturbance = sieve.takeDisturbance();
    EXPECT_EQ(42U, disturbance.process);
    EXPECT_EQ("a?b~?", disturbance.name) << "he writes into our log";
    take(NFT_MSG_NEWRULE, rule("VPK-A"));
    take(NFT_MSG_NEWGEN, [](nlmsghdr *message) { mnl_attr_put_u32(message, NFTA_GEN_ID, htonl(102)); });
    EXPECT_EQ(0U, sieve.takeDisturbance().process);
}

TEST_F(TheNotices, TellWhetherTheTableWasTouched) {
    end(generation);
    EXPECT_TRUE(sieve.isUntouched(100, 100));
    EXPECT_TRUE(leavesTheTable(NFT_MSG_NEWRULE, rule("A", "nat")));
    EXPECT_TRUE(leavesTheTable(NFT_MSG_NEWRULE, rule("VPK-A"), kOurs));
    EXPECT_FALSE(leavesTheTable(NFT_MSG_NEWRULE, rule("A")));
    EXPECT_TRUE(sieve.isUntouched(103, 103)) << "since then nobody has touched it";
    EXPECT_FALSE(sieve.isUntouched(102, 103));
    EXPECT_FALSE(sieve.isUntouched(103, 104)) << "of which nothing was heard yet";
    EXPECT_FALSE(leavesTheTable(NFT_MSG_NEWSET, rule("A")));
}

TEST_F(TheNotices, AreNotKnownBeforeTheFirstOne) {
    EXPECT_FALSE(sieve.isUntouched(0, 0));
    end(101);
    EXPECT_FALSE(sieve.isUntouched(100, 101)) << "what was before may have touched it";
    EXPECT_TRUE(sieve.isUntouched(101, 101));
}

TEST_F(TheNotices, MayBeLost) {
    end(100);
    take(NFT_MSG_NEWRULE, rule("A"));
    sieve.lose();
    EXPECT_FALSE(sieve.isUntouched(100, 100));
    const auto disturbance = sieve.takeDisturbance();
    EXPECT_TRUE(disturbance.isOurs) << "anything may have happened";
    EXPECT_EQ(0U, disturbance.process);
    EXPECT_EQ("", disturbance.name);
    end(101);
    EXPECT_FALSE(sieve.takeDisturbance().isOurs);
    EXPECT_FALSE(sieve.isUntouched(100, 101));
    EXPECT_TRUE(sieve.isUntouched(101, 101));
}

TEST_F(TheNotices, OfAnEndWithoutANumberAreLost) {
    end(100);
    take(NFT_MSG_NEWGEN, [](nlmsghdr *) {});
    EXPECT_FALSE(sieve.isUntouched(100, 100));
    EXPECT_TRUE(sieve.takeDisturbance().isOurs);
}

TEST_F(TheNotices, MayBeLeftOutWhereNobodyElseChangesAnything) {
    sieve.skipTo(105);
    EXPECT_FALSE(sieve.isUntouched(105, 105)) << "nothing is known yet";
    end(100);
    sieve.skipTo(105);
    EXPECT_TRUE(sieve.isUntouched(100, 105));
    EXPECT_FALSE(sieve.isUntouched(100, 100));
}

TEST_F(TheNotices, GoOnWhenTheNumbersBeginAnew) {
    end(0xfffffffe);
    take(NFT_MSG_NEWRULE, rule("A"));
    end(1);
    EXPECT_FALSE(sieve.isUntouched(0xfffffffe, 1));
    EXPECT_TRUE(sieve.isUntouched(1, 1));
    end(2);
    EXPECT_TRUE(sieve.isUntouched(1, 2));
}

} // namespace
