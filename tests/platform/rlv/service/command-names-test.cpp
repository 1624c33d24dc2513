// The names in a connection's commands, and the addresses that take their places.
#include "rlv/service/command-names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/rule-text.h"
#include "service-parts.h"
#include "support/name-server.h"

namespace {

using parts::Texts;
using rlv::LookUpResult;
using testing::ElementsAre;
using Kind = LookUpResult::Kind;

class CommandNames : public testing::Test {
protected:
    CommandNames() { nameserver::useNameServer("10.0.0.1 one.example\n10.0.0.2 one.example\n10.0.0.3 two.example\n"); }

    static rlv::Command command(const std::string &options) {
        return std::get<rlv::Command>(rlv::parseCommand(options, "VPK-"));
    }
    // The rules that it comes to, or why it does not; "looking up" in between.
    Texts tried(const rlv::Command &given) {
        std::vector<rlv::Command> commands{given};
        const auto refusal = names.resolve(commands);
        if (refusal)
            return {std::to_string(refusal->code) + " " + refusal->message};
        if (names.isLookingUp())
            return {"looking up"};
        Texts texts;
        for (const rlv::Command &one : commands) {
            EXPECT_EQ("", one.sourceName + one.destinationName);
            texts.push_back(describe(one.rule));
        }
        return texts;
    }
    Texts tried(const std::string &options) { return tried(command(options)); }
    // With what a look-up finds.
    Texts resolved(const std::string &options) {
        EXPECT_THAT(tried(options), ElementsAre("looking up"));
        EXPECT_TRUE(parts::runUntil(around.loop, [this] { return !names.isLookingUp(); }));
        return tried(options);
    }
    static LookUpResult found(std::size_t count) {
        LookUpResult result;
        result.kind = Kind::found;
        for (std::uint32_t i = 1; i <= count; ++i)
            result.addresses.push_back(0x0a000000 + i);
        return result;
    }

    parts::Around around;
    int lookedUp = 0;
    rlv::CommandNames names{around.context, [this](const std::string &name, const LookUpResult &result) {
                                ++lookedUp;
                                names.learn(name, result);
                            }};
};

TEST_F(CommandNames, AreNoneInACommandOfAddresses) {
    EXPECT_THAT(tried("-A VPK-A -s 10.0.0.9 -j DROP"), ElementsAre("-s 10.0.0.9/32 -j DROP"));
    EXPECT_THAT(tried("-A VPK-A -j DROP"), ElementsAre("-j DROP"));
}

TEST_F(CommandNames, StandForEachOfTheirAddresses) {
    EXPECT_THAT(resolved("-A VPK-A -s one.example -j DROP"),
                ElementsAre("-s 10.0.0.1/32 -j DROP", "-s 10.0.0.2/32 -j DROP"));
    EXPECT_THAT(resolved("-A VPK-A -d two.example -j ACCEPT"), ElementsAre("-d 10.0.0.3/32 -j ACCEPT"));
    EXPECT_EQ(2, lookedUp);
}

TEST_F(CommandNames, OfBothSidesStandForEachPair) {
    rlv::Command both = command("-A VPK-A -s one.example -j DROP");
    both.destinationName = "two.example";
    names.learn("one.example", found(2));
    names.learn("two.example", found(1));
    EXPECT_THAT(tried(both),
                ElementsAre("-s 10.0.0.1/32 -d 10.0.0.1/32 -j DROP", "-s 10.0.0.2/32 -d 10.0.0.1/32 -j DROP"));
    both.destinationName.clear();
    both.rule.destination = rlv::Network{0x0a090909, 32};
    EXPECT_THAT(tried(both),
                ElementsAre("-s 10.0.0.1/32 -d 10.9.9.9/32 -j DROP", "-s 10.0.0.2/32 -d 10.9.9.9/32 -j DROP"))
        << "an address that is given stays";
}

TEST_F(CommandNames, AreLookedUpOneAfterTheOther) {
    rlv::Command both = command("-A VPK-A -s one.example -j DROP");
    both.destinationName = "two.example";
    EXPECT_THAT(tried(both), ElementsAre("looking up"));
    ASSERT_TRUE(parts::runUntil(around.loop, [this] { return !names.isLookingUp(); }));
    EXPECT_THAT(tried(both), ElementsAre("looking up"));
    ASSERT_TRUE(parts::runUntil(around.loop, [this] { return !names.isLookingUp(); }));
    EXPECT_EQ(2U, tried(both).size());
}

TEST_F(CommandNames, StandForNoMorePairsThanAreTaken) {
    rlv::Command both = command("-A VPK-A -s one.example -j DROP");
    both.destinationName = "two.example";
    names.learn("one.example", found(16));
    names.learn("two.example", found(16));
    EXPECT_EQ(256U, tried(both).size());
    names.learn("two.example", found(17));
    EXPECT_THAT(tried(both), ElementsAre("4 the names stand for 272 pairs of addresses; at most 256 are taken"));
}

TEST_F(CommandNames, StayWhatTheyAreUntilTheNextConnection) {
    resolved("-A VPK-A -s one.example -j DROP");
    nameserver::useNameServer("10.0.0.7 one.example\n");
    EXPECT_EQ(2U, tried("-A VPK-A -s one.example -j DROP").size());
    EXPECT_EQ(1, lookedUp);
    names.open();
    EXPECT_THAT(resolved("-A VPK-A -s one.example -j DROP"), ElementsAre("-s 10.0.0.7/32 -j DROP"));
}

TEST_F(CommandNames, AreNotLookedUpAgainWhereTheyAreInUse) {
    around.context.names.announce({"one.example"});
    ASSERT_TRUE(
        parts::runUntil(around.loop, [this] { return around.context.names.standing("one.example").has_value(); }));
    EXPECT_EQ(2U, tried("-A VPK-A -s one.example -j DROP").size());
    EXPECT_EQ(0, lookedUp);
}

TEST_F(CommandNames, AreNotLookedUpByAServiceWithout) {
    around.context.resolveNames = false;
    EXPECT_THAT(tried("-A VPK-A -s one.example -j DROP"),
                ElementsAre("2 host/network `one.example' not found: this service looks up no names (--no-resolve)"));
}

TEST_F(CommandNames, WithoutAnAddressAreNotFoundAndSayWhy) {
    names.learn("none.example", {Kind::absent, {}});
    EXPECT_THAT(tried("-A VPK-A -s none.example -j DROP"), ElementsAre("2 host/network `none.example' not found"));
    names.learn("failed.example", {Kind::failed, {}});
    EXPECT_THAT(tried("-A VPK-A -s failed.example -j DROP"), ElementsAre("2 host/network `failed.example' not found"));
    names.learn("many.example", {Kind::tooMany, {}});
    EXPECT_THAT(tried("-A VPK-A -s many.example -j DROP"),
                ElementsAre("2 host/network `many.example' not found: it has more than 256 addresses"));
}

// Names that stall share the time that a connection has for them.
TEST_F(CommandNames, AreNotLookedUpWhenTheTimeIsOver) {
    nameserver::NameServer server;
    server.set("stalled.example", nameserver::silence());
    const auto start = support::EventLoop::Clock::now();
    const std::string why = " not found: the look-ups of this connection took more than 2 seconds";
    EXPECT_THAT(resolved("-A VPK-A -s a.stalled.example -j DROP"),
                ElementsAre("2 host/network `a.stalled.example'" + why));
    EXPECT_GE(support::EventLoop::Clock::now() - start, parts::Milliseconds(1'900));
    EXPECT_THAT(tried("-A VPK-A -s one.example -j DROP"), ElementsAre("2 host/network `one.example'" + why));
    names.open();
    EXPECT_EQ(2U, resolved("-A VPK-A -s one.example -j DROP").size()) << "the next one has time of its own";
}

TEST_F(CommandNames, AreWaitedForNoMoreWhenThatIsStopped) {
    EXPECT_THAT(tried("-A VPK-A -s one.example -j DROP"), ElementsAre("looking up"));
    names.stop();
    EXPECT_FALSE(names.isLookingUp());
    EXPECT_FALSE(parts::runUntil(
        around.loop, [this] { return lookedUp > 0; }, parts::Milliseconds(60)));
}

TEST_F(CommandNames, AreNotedWithTheAddressesThatRulesGot) {
    around.context.names.announce({"one.example"});
    ASSERT_TRUE(
        parts::runUntil(around.loop, [this] { return around.context.names.standing("one.example").has_value(); }));
    tried("-D VPK-A -s one.example -j DROP");
    const auto before = around.context.names.state(false).generation;
    nameserver::useNameServer("10.0.0.9 one.example\n");
    around.context.names.announce({"one.example"});
    ASSERT_TRUE(
        parts::runUntil(around.loop, [this] { return around.context.names.standing("one.example").has_value(); }));
    EXPECT_EQ(before, around.context.names.state(false).generation) << "no rule was made of it";
    names.open();
    EXPECT_EQ(1U, tried("-A VPK-A -s one.example -j DROP").size());
    nameserver::useNameServer("10.0.0.8 one.example\n");
    around.context.names.announce({"one.example"});
    ASSERT_TRUE(
        parts::runUntil(around.loop, [this] { return around.context.names.standing("one.example").has_value(); }));
    EXPECT_EQ(before + 1, around.context.names.state(false).generation) << "that rule has to be made anew";
}

} // namespace
