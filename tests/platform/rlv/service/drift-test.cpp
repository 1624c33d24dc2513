// When others' changes are looked for and put back, and what is told of them.
#include "rlv/service/drift.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service-parts.h"
#include "support/unique-fd.h"

namespace {

using parts::Milliseconds;
using parts::runDue;
using parts::Texts;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Clock = support::EventLoop::Clock;

class TheDrift : public testing::Test {
protected:
    TheDrift() : notices(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        table.notices = notices.get();
        table.isKnown = true;
    }
    rlv::Drift &drift(bool isMending = true) {
        if (!made) {
            made = std::make_unique<rlv::Drift>(loop, table, isMending);
            made->onUnjudged([this] { ++unjudged; });
            table.takeCalls();
        }
        return *made;
    }

    void notice(bool isOurs = true) {
        table.disturbance = {isOurs, 5, "nft"};
        drift().takeNotices();
    }
    rlv::MendReport found(std::size_t differences, std::size_t changes, const std::string &problem = "") {
        rlv::MendReport report;
        for (std::size_t i = 1; i <= differences && i <= 2; ++i)
            report.texts.push_back("text " + std::to_string(i));
        report.differences = differences;
        report.changes = changes;
        report.problem = problem;
        return report;
    }
    int looks() const { return static_cast<int>(std::count(table.calls.begin(), table.calls.end(), "mend")); }
    // Notices and looks, one after another; false where one is put off.
    bool lookTimes(int times) {
        for (int i = 0; i < times; ++i) {
            const int before = looks();
            notice();
            if (drift().state().nextAttemptSeconds >= 0)
                return false;
            EXPECT_TRUE(parts::runUntil(loop, [&] { return looks() > before; }));
        }
        return true;
    }

    support::EventLoop loop;
    support::UniqueFd notices;
    parts::ToldTable table;
    parts::Log log;
    std::unique_ptr<rlv::Drift> made;
    int unjudged = 0;
};

TEST_F(TheDrift, IsPutBackAtOnceForFiveTimesAndThenAfterGrowingPauses) {
    for (const unsigned repairs : {0U, 1U, 4U})
        EXPECT_EQ(0, rlv::Drift::pauseAfter(repairs).count());
    EXPECT_EQ(1'000, rlv::Drift::pauseAfter(5).count());
    EXPECT_EQ(2'000, rlv::Drift::pauseAfter(6).count());
    EXPECT_EQ(256'000, rlv::Drift::pauseAfter(13).count());
    EXPECT_EQ(300'000, rlv::Drift::pauseAfter(14).count());
    EXPECT_EQ(300'000, rlv::Drift::pauseAfter(40).count());
    EXPECT_EQ(300'000, rlv::Drift::pauseAfter(4'000'000'000U).count());
}

TEST_F(TheDrift, TellsTheTableAndTheStateWhetherItIsPutBack) {
    EXPECT_TRUE(drift().state().isMending);
    EXPECT_TRUE(table.isMending);
    made.reset();
    EXPECT_FALSE(drift(false).state().isMending);
    EXPECT_FALSE(table.isMending);
}

TEST_F(TheDrift, IsLookedForWhenOthersHaveChangedWhatIsOurs) {
    notice(false);
    runDue(loop);
    EXPECT_EQ(0, looks());
    notice();
    EXPECT_EQ(0, looks()) << "from the loop alone";
    runDue(loop);
    EXPECT_EQ(1, looks());
    EXPECT_EQ(0, unjudged);
}

TEST_F(TheDrift, IsLookedForOnceForManyNotices) {
    notice();
    notice();
    notice();
    runDue(loop);
    EXPECT_EQ(1, looks());
}

TEST_F(TheDrift, IsHeardOfFromTheTable) {
    drift();
    table.disturbance = {true, 5, "nft"};
    ASSERT_EQ(0, ::eventfd_write(notices.get(), 1));
    EXPECT_TRUE(parts::runUntil(loop, [this] { return looks() > 0; }));
    EXPECT_EQ(1, looks());
}

TEST_F(TheDrift, WakesTheProcessNowAndThenHoweverManyNoticesCome) {
    drift();
    ASSERT_EQ(0, ::eventfd_write(notices.get(), 1));
    const auto begin = Clock::now();
    ASSERT_TRUE(parts::runUntil(loop, [this] { return table.takings >= 4; }));
    EXPECT_GE(Clock::now() - begin, Milliseconds(3 * 25));
}

TEST_F(TheDrift, IsNotHeardOfAnyMoreAfterTheEnd) {
    notice();
    made.reset();
    table.takings = 0;
    ASSERT_EQ(0, ::eventfd_write(notices.get(), 1));
    runDue(loop);
    EXPECT_EQ(0, table.takings);
    EXPECT_EQ(0, looks());
}

TEST_F(TheDrift, SaysThatItIsNotHeardOf) {
    table.failing["listen"] = EPERM;
    EXPECT_EQ("others' changes are not heard of: told to: Operation not permitted", drift().state().problem);
    EXPECT_THAT(log.lines, ElementsAre("E others' changes are not heard of: told to: Operation not permitted"));
}

TEST_F(TheDrift, IsLookedForWithoutNoticesToo) {
    table.notices.reset();
    notice();
    runDue(loop);
    EXPECT_EQ(1, looks());
}

TEST_F(TheDrift, IsNobodysToJudgeWhereItIsNotKnownWhatShouldStand) {
    table.isKnown = false;
    notice();
    runDue(loop);
    EXPECT_EQ(1, unjudged);
    EXPECT_EQ(0, looks());
    drift().forget();
    notice();
    EXPECT_EQ(1, unjudged) << "what was forgotten is nobody's concern";
    drift().endConnection(true);
    table.isKnown = false;
    notice();
    EXPECT_EQ(2, unjudged);
}

TEST_F(TheDrift, IsToldOfOnceItIsPutBack) {
    table.mended = found(3, 1);
    notice();
    runDue(loop);
    const auto state = drift().state();
    EXPECT_EQ(1U, state.repairs);
    EXPECT_THAT(state.texts, ElementsAre("text 1", "text 2"));
    EXPECT_EQ(3U, state.differences);
    EXPECT_EQ("nft", state.processName);
    EXPECT_EQ(5U, state.process);
    EXPECT_EQ("", state.problem);
    EXPECT_EQ(-1, state.nextAttemptSeconds);
    EXPECT_THAT(log.lines, ElementsAre("E nft (process 5) has changed the tables: 3 differences", "E text 1",
                                       "E text 2", "E and 1 more", "all was put back with 1 change"));
}

TEST_F(TheDrift, IsToldOfInTheRightNumber) {
    table.mended = found(1, 2);
    drift().endConnection(false);
    EXPECT_THAT(log.take(), ElementsAre("E somebody has changed the tables: 1 difference", "E text 1",
                                        "all was put back with 2 changes"));
    table.mended = found(0, 0, "why");
    drift().endConnection(false);
    EXPECT_THAT(log.take(), ElementsAre("E not all is as it was: why"));
}

TEST_F(TheDrift, LeavesWhatWasFoundLastToBeTold) {
    table.mended = found(1, 1);
    drift().endConnection(false);
    table.mended = {};
    log.take();
    drift().endConnection(false);
    EXPECT_EQ(1U, drift().state().differences);
    EXPECT_EQ(1U, drift().state().repairs);
    EXPECT_THAT(log.lines, IsEmpty());
}

// What stays as it is needs one line and not one with each look.
TEST_F(TheDrift, IsLoggedWhenItIsNewOrPutBack) {
    table.mended = found(1, 0, "why");
    drift().endConnection(false);
    EXPECT_THAT(log.take(), Contains("E not all is as it was: why"));
    drift().endConnection(false);
    EXPECT_THAT(log.take(), IsEmpty());
    table.mended.problem = "another why";
    drift().endConnection(false);
    EXPECT_THAT(log.take(), Contains("E not all is as it was: another why"));
    table.mended.texts = {"another text"};
    drift().endConnection(false);
    EXPECT_THAT(log.take(), Contains("E another text"));
    table.mended.changes = 1;
    drift().endConnection(false);
    EXPECT_THAT(log.take(), Contains("E another text"));
}

TEST_F(TheDrift, IsLookedForAgainSoonWhereSomeOfItIsLeft) {
    table.mended = found(1, 0, "why");
    notice();
    runDue(loop);
    EXPECT_EQ(1, looks());
    EXPECT_EQ("why", drift().state().problem);
    EXPECT_EQ(1, drift().state().nextAttemptSeconds);
    table.mended = {};
    const auto begin = Clock::now();
    ASSERT_TRUE(parts::runUntil(loop, [this] { return looks() == 2; }));
    EXPECT_GE(Clock::now() - begin, Milliseconds(900));
    EXPECT_EQ("", drift().state().problem);
    EXPECT_EQ(-1, drift().state().nextAttemptSeconds);
}

TEST_F(TheDrift, IsLookedForAgainAfterAConnectionThatLeavesSomeOfIt) {
    table.mended = found(1, 0, "why");
    EXPECT_EQ("why", drift().endConnection(true));
    EXPECT_EQ(-1, drift().state().nextAttemptSeconds) << "so soon that it is not worth to be told";
    table.mended = {};
    const auto begin = Clock::now();
    ASSERT_TRUE(parts::runUntil(loop, [this] { return looks() == 2; }));
    EXPECT_GE(Clock::now() - begin, Milliseconds(400));
}

TEST_F(TheDrift, IsRememberedByAConnectionThatIsWholeAlone) {
    drift().endConnection(false);
    EXPECT_THAT(table.takeCalls(), ElementsAre("mend"));
    drift().endConnection(true);
    EXPECT_THAT(table.takeCalls(), ElementsAre("remember", "mend"));
}

TEST_F(TheDrift, IsOnlyToldOfWhereItIsNotPutBack) {
    table.mended = found(1, 0, "not put back");
    EXPECT_EQ("", drift(false).endConnection(true));
    EXPECT_EQ("not put back", drift().state().problem);
    EXPECT_EQ(0U, drift().state().repairs);
    table.takeCalls();
    EXPECT_FALSE(parts::runUntil(
        loop, [this] { return looks() > 0; }, Milliseconds(600)));
}

TEST_F(TheDrift, SaysThatTheTablesCannotBeCompared) {
    table.failing["mend"] = EIO;
    const std::string problem = "the tables cannot be compared: told to: Input/output error";
    EXPECT_EQ("", drift().endConnection(true)) << "of the connection's commands that says nothing";
    EXPECT_EQ(problem, drift().state().problem);
    drift().forget();
    EXPECT_EQ("", drift().state().problem);
    notice();
    table.isKnown = true;
    notice();
    runDue(loop);
    EXPECT_EQ(problem, drift().state().problem);
}

TEST_F(TheDrift, OfAFightIsPutBackLater) {
    table.mended = found(1, 1);
    ASSERT_TRUE(lookTimes(5));
    EXPECT_THAT(log.take(), testing::Not(Contains(HasSubstr("fights back"))));
    ASSERT_TRUE(lookTimes(1));
    EXPECT_THAT(log.take(), Contains("E nft (process 5) fights back: what comes now is put back in 1 s"));
    EXPECT_EQ(6U, drift().state().repairs);
    EXPECT_FALSE(lookTimes(1));
    EXPECT_EQ(1, drift().state().nextAttemptSeconds);
    runDue(loop);
    EXPECT_EQ(6, looks());
}

TEST_F(TheDrift, OfAFightIsOverWithTheNextConnection) {
    table.mended = found(1, 1);
    ASSERT_TRUE(lookTimes(6));
    notice();
    drift().endConnection(false);
    EXPECT_EQ(7, looks());
    EXPECT_EQ(-1, drift().state().nextAttemptSeconds) << "the look that was put off has taken place";
    EXPECT_TRUE(lookTimes(5)) << "at once again";
}

TEST_F(TheDrift, WithoutAnythingToPutBackIsNoFight) {
    EXPECT_TRUE(lookTimes(10));
    EXPECT_EQ(0U, drift().state().repairs);
}

TEST_F(TheDrift, IsForgotten) {
    table.mended = found(1, 0, "why");
    notice();
    runDue(loop);
    drift().forget();
    EXPECT_THAT(table.calls, Contains("forget"));
    EXPECT_EQ("", drift().state().problem);
    EXPECT_EQ(-1, drift().state().nextAttemptSeconds) << "nothing more is looked for";
}

// A look that takes long leaves the service to its clients for ten times as long.
TEST_F(TheDrift, IsLookedForMoreSeldomWhereThatTakesLong) {
    table.whileMending = [] {
        for (const auto end = Clock::now() + Milliseconds(20); Clock::now() < end;) {
        }
    };
    ASSERT_TRUE(lookTimes(1));
    const auto begin = Clock::now();
    ASSERT_TRUE(lookTimes(1));
    EXPECT_GE(Clock::now() - begin, Milliseconds(190));
}

} // namespace
