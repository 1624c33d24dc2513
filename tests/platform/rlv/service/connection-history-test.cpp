#include "rlv/service/connection-history.h"

#include <gtest/gtest.h>

namespace {

using rlv::ConnectionEnd;
using rlv::ConnectionHistory;
using support::Peer;

constexpr Peer kMe{0, 0, 100};
constexpr Peer kOther{7, 7, 200};

rlv::FailedCommand failed(const std::string &options) { return {options, 1, "no", true}; }

std::vector<std::uint64_t> numbersOf(const ConnectionHistory &history, const Peer &peer) {
    std::vector<std::uint64_t> numbers;
    for (const auto &outcome : history.of(peer, 0))
        numbers.push_back(outcome.number);
    return numbers;
}

using Numbers = std::vector<std::uint64_t>;

TEST(AConnectionHistory, NumbersConnectionsUpwardsFromOne) {
    ConnectionHistory history;
    EXPECT_EQ(1U, history.open(kMe));
    EXPECT_EQ(2U, history.open(kOther));
}

TEST(AConnectionHistory, TellsUsersAndProcessesApart) {
    ConnectionHistory history;
    history.open(kMe);
    history.open({kMe.user, kMe.group, kOther.process});
    history.open({kOther.user, kMe.group, kMe.process});
    EXPECT_EQ(Numbers{1}, numbersOf(history, kMe));
}

TEST(AConnectionHistory, KeepsTheFirstEndOfAConnection) {
    ConnectionHistory history;
    const auto number = history.open(kMe);
    history.end(number, ConnectionEnd::closed);
    history.end(number, ConnectionEnd::vanished);
    EXPECT_EQ(ConnectionEnd::closed, history.of(kMe, 0).at(0).end);
}

TEST(AConnectionHistory, CountsTheLostOnes) {
    ConnectionHistory::Limits limits;
    limits.textBytesPerConnection = 20;
    ConnectionHistory history(limits);
    const auto number = history.open(kMe);
    EXPECT_EQ(0U, history.failedOn(number));
    history.add(number, failed("-A VPK-DENY"));
    history.add(number, failed("one whose text is too long to be kept"));
    EXPECT_EQ(2U, history.failedOn(number)) << "with those beyond the list";
    history.addBeyondList(number, 5);
    EXPECT_EQ(7U, history.failedOn(number));
    EXPECT_EQ(0U, history.failedOn(number + 1));
}

TEST(AConnectionHistory, CountsWhatItsListHasNoRoomFor) {
    ConnectionHistory::Limits limits;
    limits.textBytesPerConnection = 1000;
    ConnectionHistory history(limits);
    const auto number = history.open(kMe);
    history.add(number, failed("first"));
    history.add(number, failed(std::string(1000, 'x')));
    history.add(number, failed("later"));
    const auto outcome = history.of(kMe, 0).at(0);
    ASSERT_EQ(1U, outcome.failed.size());
    EXPECT_EQ("first", outcome.failed[0].options);
    EXPECT_EQ(2U, outcome.failedBeyondList);
}

TEST(AConnectionHistory, HasRoomForWhatFillsItsListToTheByte) {
    const rlv::FailedCommand one = failed("-A VPK-DENY");
    const std::size_t bytes = sizeof one + one.options.size() + one.message.size();
    ConnectionHistory::Limits limits;
    limits.textBytesPerConnection = 2 * bytes;
    limits.textBytesInAll = 4 * bytes;
    ConnectionHistory history(limits);
    for (const auto number : {history.open(kMe), history.open(kMe)}) {
        for (int i = 0; i < 3; ++i)
            history.add(number, one);
    }
    for (const auto &outcome : history.of(kMe, 0)) {
        EXPECT_EQ(2U, outcome.failed.size());
        EXPECT_EQ(1U, outcome.failedBeyondList);
    }
}

TEST(AConnectionHistory, DropsTheOldestTextsButNotTheirNumber) {
    ConnectionHistory::Limits limits;
    limits.textBytesInAll = 2000;
    ConnectionHistory history(limits);
    const auto old = history.open(kMe);
    history.add(old, failed(std::string(1000, 'x')));
    const auto young = history.open(kMe);
    history.add(young, failed(std::string(1000, 'y')));
    const auto outcomes = history.of(kMe, 0);
    EXPECT_TRUE(outcomes.at(0).failed.empty());
    EXPECT_EQ(1U, outcomes.at(0).failedBeyondList);
    EXPECT_EQ(1U, outcomes.at(1).failed.size());
}

TEST(AConnectionHistory, ForgetsTheOldestThatEndedWellFirst) {
    ConnectionHistory::Limits limits;
    limits.endedPerUser = 2;
    ConnectionHistory history(limits);
    for (int i = 0; i < 4; ++i)
        history.open(kMe);
    history.add(1, failed("x"));
    history.end(1, ConnectionEnd::closed);
    history.end(2, ConnectionEnd::closed);
    history.end(3, ConnectionEnd::vanished);
    EXPECT_EQ((Numbers{1, 3, 4}), numbersOf(history, kMe));
    history.end(4, ConnectionEnd::vanished);
    EXPECT_EQ((Numbers{3, 4}), numbersOf(history, kMe));
}

TEST(AConnectionHistory, LetsOneUserNotPushOutAnothers) {
    ConnectionHistory::Limits limits;
    limits.endedPerUser = 2;
    ConnectionHistory history(limits);
    history.end(history.open(kMe), ConnectionEnd::closed);
    for (int i = 0; i < 5; ++i)
        history.end(history.open(kOther), ConnectionEnd::closed);
    EXPECT_EQ(Numbers{1}, numbersOf(history, kMe));
    EXPECT_EQ((Numbers{5, 6}), numbersOf(history, kOther));
}

TEST(AConnectionHistory, ForgetsTheOldestOfAllBeyondTheLimitInAll) {
    ConnectionHistory::Limits limits;
    limits.endedInAll = 2;
    ConnectionHistory history(limits);
    history.end(history.open(kMe), ConnectionEnd::closed);
    history.end(history.open(kOther), ConnectionEnd::closed);
    history.end(history.open(kOther), ConnectionEnd::closed);
    EXPECT_TRUE(numbersOf(history, kMe).empty());
    EXPECT_EQ((Numbers{2, 3}), numbersOf(history, kOther));
}

} // namespace
