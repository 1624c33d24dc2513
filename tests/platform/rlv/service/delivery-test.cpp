// When what a connection has changed is sent, and what is told of what is lost.
#include "rlv/service/delivery.h"

#include <cerrno>
#include <cstddef>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service-parts.h"

namespace {

int trims = 0;

} // namespace

// Instead of the C library's.
extern "C" int malloc_trim(std::size_t /*pad*/) noexcept {
    ++trims;
    return 1;
}

namespace {

using parts::Texts;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class ADelivery : public testing::Test {
protected:
    ADelivery() {
        around.table.open();
        begin();
    }
    void begin() {
        number = around.context.history.open(kPeer);
        delivery.open(number);
        around.table.takeCalls();
        log.take();
    }
    void command(const std::string &options) {
        delivery.announce(options);
        delivery.accepted();
    }
    bool isSentAlone(parts::Milliseconds deadline = parts::Milliseconds(10'000)) {
        return parts::runUntil(
            around.loop, [this] { return !calls().empty(); }, deadline);
    }
    // For much longer than the timer would take.
    bool staysUnsent() { return !isSentAlone(parts::Milliseconds(60)); }
    // Sending and discarding.
    Texts calls() const {
        Texts kept;
        for (const std::string &call : around.table.calls) {
            if (call == "push" || call == "discard")
                kept.push_back(call);
        }
        return kept;
    }
    Texts failures() const {
        Texts texts;
        for (const auto &outcome : around.context.history.of(kPeer, number - 1)) {
            for (const rlv::FailedCommand &failed : outcome.failed)
                texts.push_back(failed.options + " (" + std::to_string(failed.code) + ", " + failed.message + ")" +
                                (failed.wasRefused ? " refused" : ""));
        }
        return texts;
    }

    static constexpr support::Peer kPeer{7, 7, 100};
    parts::Around around;
    parts::Log log;
    rlv::Delivery delivery{around.context};
    std::uint64_t number = 0;
};

TEST_F(ADelivery, SendsByItselfWhatWasAdded) {
    command("-A VPK-A -j DROP");
    EXPECT_THAT(calls(), IsEmpty());
    const auto begin = support::EventLoop::Clock::now();
    command("-A VPK-A -j DROP");
    EXPECT_TRUE(isSentAlone());
    EXPECT_GE(support::EventLoop::Clock::now() - begin, parts::Milliseconds(14)) << "with those that come soon after";
    EXPECT_THAT(calls(), ElementsAre("push"));
    EXPECT_TRUE(delivery.close());
    EXPECT_THAT(calls(), ElementsAre("push")) << "once";
}

TEST_F(ADelivery, SendsNothingOfAConnectionWithoutCommands) {
    EXPECT_TRUE(delivery.close());
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(around.table.calls, Not(Contains("remember")));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(ADelivery, SendsAgainWhatComesLater) {
    command("-A VPK-A -j DROP");
    ASSERT_TRUE(isSentAlone());
    around.table.takeCalls();
    command("-A VPK-A -j DROP");
    EXPECT_TRUE(isSentAlone());
}

TEST_F(ADelivery, DefersAllFromTheFirstRemovalOn) {
    command("-A VPK-A -j DROP");
    delivery.announce("-F VPK-A");
    EXPECT_THAT(calls(), ElementsAre("push")) << "what was added before";
    delivery.accepted();
    around.table.takeCalls();
    command("-A VPK-A -j DROP");
    command("-F VPK-A");
    EXPECT_TRUE(staysUnsent());
    EXPECT_TRUE(delivery.close());
    EXPECT_THAT(calls(), ElementsAre("push"));
    EXPECT_THAT(around.table.calls, Contains("remember")) << "what is whole should stand";
}

TEST_F(ADelivery, SendsNothingBeforeAFirstRemoval) {
    delivery.announce("-F VPK-A");
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ADelivery, DiscardsWhatIsDeferredWhereItIsInterrupted) {
    command("-F VPK-A");
    around.table.discarded.lost = {{"-F VPK-A", 1, "from the table"}};
    delivery.interrupt("the client vanished");
    EXPECT_THAT(calls(), ElementsAre("discard"));
    EXPECT_THAT(failures(), ElementsAre("-F VPK-A (1, iptables: not sent: the client vanished)"));
    EXPECT_THAT(around.table.calls, Not(Contains("remember")));
}

TEST_F(ADelivery, SendsWhatWasAddedWhereItIsInterrupted) {
    command("-A VPK-A -j DROP");
    delivery.interrupt("the client vanished");
    EXPECT_THAT(calls(), ElementsAre("push"));
    EXPECT_THAT(around.table.calls, Not(Contains("remember")));
    around.table.takeCalls();
    EXPECT_TRUE(staysUnsent());
}

TEST_F(ADelivery, DiscardsNothingWhereNothingIsDeferred) {
    delivery.announce("-F VPK-A");
    delivery.interrupt("the client vanished");
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ADelivery, SaysWhatTheTableHasLost) {
    command("-A VPK-A -j DROP");
    rlv::PushReport report;
    report.changes = 1;
    report.lost = {{"-A VPK-A -j DROP", 4, "no"}};
    around.table.pushed = report;
    EXPECT_FALSE(delivery.close());
    EXPECT_FALSE(delivery.lossMayPass());
    EXPECT_THAT(failures(), ElementsAre("-A VPK-A -j DROP (4, no)"));
    EXPECT_THAT(log.lines, Contains("E connection 1: lost (4, no): -A VPK-A -j DROP"));
    EXPECT_THAT(around.table.calls, Not(Contains("remember")));
    EXPECT_EQ(1U, around.context.history.failedOn(number));
}

TEST_F(ADelivery, CountsWhatTheTableHasNoListOf) {
    command("-A VPK-A -j DROP");
    rlv::PushReport report;
    report.lostBeyondList = 9;
    around.table.pushed = report;
    EXPECT_FALSE(delivery.close());
    EXPECT_EQ(9U, around.context.history.failedOn(number));
    EXPECT_THAT(log.lines, Contains("E connection 1: lost: 9 more"));
}

TEST_F(ADelivery, KnowsALossThatMayPass) {
    rlv::PushReport report;
    report.mayPass = true;
    around.table.pushed = report;
    command("-A VPK-A -j DROP");
    ASSERT_TRUE(isSentAlone());
    EXPECT_TRUE(delivery.lossMayPass());
    around.table.pushed->mayPass = false;
    command("-A VPK-A -j DROP");
    delivery.close();
    EXPECT_TRUE(delivery.lossMayPass()) << "of all that was sent";
}

TEST_F(ADelivery, LosesWhatCannotBeSent) {
    around.table.failing["push"] = EIO;
    around.table.discarded.lost = {{"-A VPK-A -j DROP", 1, "from the table"}};
    command("-A VPK-A -j DROP");
    ASSERT_TRUE(isSentAlone());
    EXPECT_THAT(calls(), ElementsAre("push", "discard"));
    EXPECT_TRUE(delivery.lossMayPass());
    EXPECT_THAT(failures(), ElementsAre("-A VPK-A -j DROP (1, iptables: sending failed: told to: Input/output error)"));
    EXPECT_THAT(log.lines, Contains("E connection 1: sending failed: told to: Input/output error"));
    EXPECT_FALSE(delivery.close());
    EXPECT_THAT(calls(), ElementsAre("push", "discard")) << "nothing is left to be sent";
}

TEST_F(ADelivery, CountsOneLossAtLeastWhereTheTextsAreGone) {
    around.table.failing["push"] = EIO;
    command("-A VPK-A -j DROP");
    EXPECT_FALSE(delivery.close());
    EXPECT_EQ(1U, around.context.history.failedOn(number));
}

TEST_F(ADelivery, SaysThatWhatWasLostCannotBeTold) {
    around.table.failing["discard"] = EIO;
    command("-F VPK-A");
    delivery.interrupt("the client vanished");
    EXPECT_THAT(log.lines, Contains("E connection 1: what was lost cannot be told: told to: Input/output error"));
    EXPECT_FALSE(delivery.close());
}

TEST_F(ADelivery, HasLostWhatOthersHaveChangedForGood) {
    around.table.mended.problem = "they fight";
    command("-A VPK-A -j DROP");
    EXPECT_FALSE(delivery.close());
    EXPECT_THAT(failures(), ElementsAre("what others have changed (4, not put right: they fight)"));
}

TEST_F(ADelivery, FailsWithACommandThatItsSenderBelievesIn) {
    delivery.lose({"-A VPK-A -j DROP", 2, "no such target"});
    EXPECT_FALSE(delivery.close());
    EXPECT_THAT(failures(), ElementsAre("-A VPK-A -j DROP (2, no such target)"));
}

TEST_F(ADelivery, BeginsAnewWithEachConnection) {
    rlv::PushReport report;
    report.mayPass = true;
    report.lost = {{"x", 4, "no"}};
    around.table.pushed = report;
    command("-F VPK-A");
    EXPECT_FALSE(delivery.close());
    around.table.pushed.reset();
    begin();
    EXPECT_FALSE(delivery.lossMayPass());
    command("-A VPK-A -j DROP");
    EXPECT_TRUE(isSentAlone()) << "and is not deferred";
    EXPECT_TRUE(delivery.close());
}

// Rules that have come and gone leave freed memory; few are not worth the while.
TEST_F(ADelivery, GivesMemoryBackAfterManyRules) {
    rlv::PushReport report;
    report.added = 12'000;
    report.removed = 7'999;
    around.table.pushed = report;
    command("-A VPK-A -j DROP");
    EXPECT_TRUE(delivery.close());
    EXPECT_EQ(0, trims) << "the client does not wait for it";
    parts::runDue(around.loop);
    EXPECT_EQ(1, trims);
    --report.removed;
    around.table.pushed = report;
    begin();
    command("-A VPK-A -j DROP");
    EXPECT_TRUE(delivery.close());
    parts::runDue(around.loop);
    EXPECT_EQ(1, trims);
}

TEST_F(ADelivery, ForgetsAtItsOpeningWhatWasToBeSent) {
    command("-A VPK-A -j DROP");
    begin();
    EXPECT_TRUE(staysUnsent());
    EXPECT_TRUE(delivery.close());
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(around.table.calls, Not(Contains("remember"))) << "nothing came of this connection";
}

TEST_F(ADelivery, LogsWhatWasSent) {
    rlv::PushReport report;
    report.changes = 5;
    report.added = 3;
    report.removed = 2;
    report.kept = 1;
    report.refilled = {"VPK-A"};
    around.table.pushed = report;
    command("-A VPK-A -j DROP");
    delivery.close();
    EXPECT_THAT(log.lines,
                ElementsAre("connection 1: sent 5 changes (3 rules added, 2 removed, 1 kept)",
                            "connection 1: chain VPK-A was emptied and filled anew, its counters begin at 0"));
    log.take();
    around.table.pushed = rlv::PushReport();
    command("-A VPK-A -j DROP");
    delivery.close();
    EXPECT_THAT(log.lines, ElementsAre("connection 1: nothing to send"));
}

} // namespace
