// Who has the table, and who comes next.
#include "rlv/service/table-turns.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service-parts.h"

namespace {

using parts::runDue;
using testing::ElementsAre;
using testing::IsEmpty;

struct TheTable : testing::Test {
    struct Member : rlv::TableTurns::Member {
        Member(TheTable &owner, std::string called) : of(owner), name(std::move(called)) {}
        void haveTurn() override {
            of.had.push_back(name);
            if (leavesAtOnce)
                of.turns.leave(*this);
        }
        TheTable &of;
        std::string name;
        bool leavesAtOnce = false;
    };

    support::EventLoop loop;
    rlv::TableTurns turns{loop};
    parts::Texts had;
    Member first{*this, "first"};
    Member second{*this, "second"};
    Member third{*this, "third"};
};

TEST_F(TheTable, IsGivenFromTheLoopAlone) {
    turns.enter(first);
    EXPECT_THAT(had, IsEmpty());
    EXPECT_TRUE(turns.isWaitedFor());
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("first"));
    EXPECT_FALSE(turns.isWaitedFor());
}

TEST_F(TheTable, IsOneMembersUntilItLeaves) {
    turns.enter(first);
    turns.enter(second);
    turns.enter(third);
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("first"));
    EXPECT_TRUE(turns.isWaitedFor());
    turns.leave(first);
    EXPECT_THAT(had, ElementsAre("first"));
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("first", "second"));
    turns.leave(second);
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("first", "second", "third"));
}

TEST_F(TheTable, GoesOnWhereAMemberLeavesInItsTurn) {
    first.leavesAtOnce = true;
    turns.enter(first);
    turns.enter(second);
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("first", "second"));
}

TEST_F(TheTable, IsNotGivenToOneWhoWaitsNoMore) {
    turns.enter(first);
    turns.enter(second);
    turns.enter(third);
    runDue(loop);
    turns.leave(second);
    turns.leave(second);
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("first")) << "who leaves the queue does not end the turn of another";
    turns.leave(first);
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("first", "third"));
}

TEST_F(TheTable, IsNobodysWhenAllHaveLeftBeforeTheirTurn) {
    turns.enter(first);
    turns.leave(first);
    runDue(loop);
    EXPECT_THAT(had, IsEmpty());
    turns.enter(second);
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("second"));
}

// A turn is arranged already, and its member has it when another one is still to be arranged.
TEST_F(TheTable, IsArrangedOnceForAllThatEnter) {
    turns.enter(first);
    turns.enter(second);
    turns.leave(first);
    turns.enter(third);
    runDue(loop);
    EXPECT_THAT(had, ElementsAre("second"));
}

TEST_F(TheTable, IsGivenToNobodyAfterItsEnd) {
    {
        rlv::TableTurns others(loop);
        others.enter(first);
    }
    runDue(loop);
    EXPECT_THAT(had, IsEmpty());
}

} // namespace
