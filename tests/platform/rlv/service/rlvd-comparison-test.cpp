// What a client wants, compared over the service's socket.
#include "rlvd-process.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace rlvd;
using rlv::Comparison;
using rlv::Difference;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = Difference::Kind;
using Texts = std::vector<std::string>;

constexpr std::chrono::milliseconds kTimeout{10'000};

Comparison compare(const Texts &wanted, bool reading = false) {
    return rlv::compare(
        [&](const auto &each) {
            for (const auto &options : wanted)
                each(options);
        },
        reading, kTimeout);
}

std::string drop(std::size_t number) {
    return "-A VPK-DENY -s 10." + std::to_string(number / 65536) + "." + std::to_string(number / 256 % 256) + "." +
           std::to_string(number % 256) + " -j DROP";
}

Texts manyRules(std::size_t count) {
    Texts texts{"-N VPK-DENY"};
    for (std::size_t i = 0; i < count; ++i)
        texts.push_back(drop(i));
    return texts;
}

TEST(AComparisonOverTheSocket, FindsNothingWhereAllStands) {
    const SimulatedService service;
    Client client;
    const Texts all = manyRules(20'000);
    for (const auto &options : all)
        ASSERT_EQ(client.commit(options), "0: ");
    ASSERT_EQ(client.close(), 0);
    for (const bool reading : {false, true}) {
        const Comparison comparison = compare(all, reading);
        EXPECT_THAT(comparison.differences, IsEmpty());
        ASSERT_EQ(comparison.chains.size(), 1U);
        EXPECT_EQ(comparison.chains[0].wanted, 20'000U);
        EXPECT_EQ(comparison.chains[0].inForce, 20'000U);
        EXPECT_TRUE(comparison.simulated);
    }
}

TEST(AComparisonOverTheSocket, TellsWhatDiffers) {
    const SimulatedService service;
    Client client;
    for (const std::string options :
         {"-N VPK-DENY", "-A VPK-DENY -s 10.0.0.1 -j DROP", "-A VPK-DENY -d 10.0.0.2 -j DROP"})
        ASSERT_EQ(client.commit(options), "0: ");
    ASSERT_EQ(client.close(), 0);
    const Comparison comparison = compare({"-N VPK-DENY", "-A VPK-DENY -s 10.0.0.1 -j DROP", drop(3)});
    ASSERT_EQ(comparison.differences.size(), 2U);
    EXPECT_EQ(comparison.differences[0].kind, Kind::missing);
    EXPECT_EQ(comparison.differences[0].rule, "-s 10.0.0.3/32 -j DROP");
    EXPECT_EQ(comparison.differences[1].kind, Kind::foreign);
    EXPECT_EQ(comparison.differences[1].rule, "-d 10.0.0.2/32 -j DROP");
    EXPECT_EQ(comparison.count(Kind::missing), 1U);
    EXPECT_EQ(comparison.count(Kind::foreign), 1U);
}

TEST(AComparisonOverTheSocket, LooksPastAnOpenConnection) {
    const SimulatedService service;
    {
        const Client earlier;
        ASSERT_EQ(earlier.commit("-N VPK-DENY"), "0: ");
    }
    Client client;
    ASSERT_EQ(client.commit("-F VPK-DENY"), "0: "); // from here on all waits for the end
    ASSERT_EQ(client.commit(drop(1)), "0: ");
    EXPECT_EQ(compare({"-N VPK-DENY", drop(1)}).count(Kind::missing), 1U);
    ASSERT_EQ(client.close(), 0);
    EXPECT_THAT(compare({"-N VPK-DENY", drop(1)}).differences, IsEmpty());
}

TEST(AComparisonOverTheSocket, TellsWhyARuleCannotStand) {
    const SimulatedService service({"--no-resolve"});
    const Comparison comparison =
        compare({"-A VPK-DENY -s 10.0.0.1 --sport 80 -j DROP", "-A VPK-DENY -s host.example -j DROP", "-F VPK-DENY", "",
                 "-A VPK-DENY -s " + std::string(5'000, 'a') + " -j DROP"});
    Texts reasons;
    for (const auto &difference : comparison.differences) {
        if (!difference.why.empty())
            reasons.push_back(difference.chain + ": " + difference.why);
    }
    EXPECT_THAT(reasons, ElementsAre(HasSubstr("VPK-DENY: iptables: unknown option \"--sport\""),
                                     HasSubstr("VPK-DENY: this service looks up no names"),
                                     "VPK-DENY: a command that makes nothing", HasSubstr(": iptables: bad blanks"),
                                     HasSubstr("VPK-DENY: iptables: too long a command")));
}

TEST(AComparisonOverTheSocket, IsRefusedWhenItIsNone) {
    const SimulatedService service;
    for (const std::string text : {"x", "\xff\xff-N VPK-DENY"}) {
        RawClient client;
        ASSERT_TRUE(client.send(Request::Kind::compare, 0, text));
        const auto reply = client.receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->kind, Reply::Kind::refused);
        EXPECT_EQ(reply->code, EPROTO);
    }
}

TEST(AComparisonOverTheSocket, HoldsNoMoreRulesThanATable) {
    const SimulatedService service;
    try {
        compare(manyRules(300'000));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code().value(), EMSGSIZE);
    }
    EXPECT_THAT(compare({}).differences, IsEmpty()) << "the service goes on";
}

TEST(AComparisonOverTheSocket, PassesOnWhatItsSourceThrows) {
    const SimulatedService service;
    EXPECT_THROW(rlv::compare([](const auto &) { throw std::runtime_error("unreadable"); }, false, kTimeout),
                 std::runtime_error);
    EXPECT_THROW(rlv::compare(
                     [](const auto &each) {
                         for (int i = 0; i < 10'000; ++i)
                             each(drop(1));
                         throw std::runtime_error("unreadable");
                     },
                     false, kTimeout),
                 std::runtime_error);
}

TEST(AnEncodedComparison, IsTheSameWhenDecoded) {
    Comparison comparison;
    comparison.simulated = true;
    comparison.chains = {{"VPK-DENY", 3, 2}};
    for (std::size_t kind = 0; kind < rlv::kDifferenceKinds; ++kind) {
        comparison.differences.push_back({static_cast<Kind>(kind), "chain", std::string(9'000, 'r'), "why"});
        comparison.counts[kind] = 10 + kind;
    }
    std::string text;
    for (const auto &packet : rlv::protocol::encodeState(comparison))
        text += rlv::protocol::decodeReply(packet)->text;
    const auto decoded = rlv::protocol::decodeComparison(text);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(decoded->simulated);
    EXPECT_EQ(decoded->chains.at(0).inForce, 2U);
    EXPECT_EQ(decoded->counts, comparison.counts);
    ASSERT_EQ(decoded->differences.size(), rlv::kDifferenceKinds);
    EXPECT_EQ(decoded->differences.back().kind, Kind::unanswered);
    EXPECT_EQ(decoded->differences.back().rule, std::string(9'000, 'r'));
    EXPECT_FALSE(rlv::protocol::decodeComparison(text.substr(0, text.size() - 1)));
}

} // namespace
