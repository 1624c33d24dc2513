#include "rlv/handle-table.h"

#include <fcntl.h>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

using rlv::Interruption;
using rlv::Opening;
using rlv::client::HandleTable;
using support::UniqueFd;

std::uint64_t failures = 0;

UniqueFd descriptor() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

TEST(AHandleTable, FindsWhatItWasGivenUntilThatIsRemoved) {
    HandleTable table;
    const auto first = table.add(descriptor(), 7);
    const auto second = table.add(descriptor(), 8);
    EXPECT_NE(0U, first);
    EXPECT_NE(first, second);
    EXPECT_EQ(7U, table.find(first)->number);
    EXPECT_EQ(8U, table.remove(second)->number);
    EXPECT_FALSE(table.find(second));
    EXPECT_FALSE(table.remove(second));
    EXPECT_TRUE(table.find(first));
}

TEST(AHandleTable, KnowsNoHandleThatItDidNotGive) {
    HandleTable table;
    const auto handle = table.add(descriptor(), 1);
    EXPECT_FALSE(table.find(0));
    EXPECT_FALSE(table.find(handle + 1));
    EXPECT_FALSE(table.remove(handle + 1));
}

TEST(AHandleTable, GivesAHandleOnce) {
    HandleTable table;
    const auto gone = table.add(descriptor(), 1);
    table.remove(gone);
    EXPECT_NE(gone, table.add(descriptor(), 2));
}

TEST(AConnection, LivesOnInACallWhenItsHandleIsClosed) {
    HandleTable table;
    const auto handle = table.add(descriptor(), 1);
    auto inCall = table.find(handle);
    const int fd = inCall->fd.get();
    table.remove(handle);
    EXPECT_TRUE(isOpen(fd));
    inCall.reset();
    EXPECT_FALSE(isOpen(fd));
}

TEST(Openings, AreTakenOnceInTheirOrderWithTheirEnds) {
    HandleTable table;
    for (const std::uint64_t number : {5U, 0U, 6U, 7U})
        table.noteOpening(number);
    table.noteEnd(6, true, Interruption::none);
    table.noteEnd(7, false, Interruption::databaseFailure);
    table.noteEnd(99, true, Interruption::none);
    const auto openings = table.takeOpenings();
    ASSERT_EQ(4U, openings.size());
    const Opening expected[] = {
        {5, false, {}}, {0, false, {}}, {6, true, {}}, {7, false, Interruption::databaseFailure}};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(expected[i].number, openings[i].number) << i;
        EXPECT_EQ(expected[i].allInForce, openings[i].allInForce) << i;
        EXPECT_EQ(expected[i].interruption, openings[i].interruption) << i;
    }
    EXPECT_TRUE(table.takeOpenings().empty());
}

// A service that was started anew counts from 1 again.
TEST(Openings, HaveTheEndOfTheLastOneWithThatNumber) {
    HandleTable table;
    table.noteOpening(1);
    table.noteOpening(1);
    table.noteEnd(1, true, Interruption::none);
    const auto openings = table.takeOpenings();
    EXPECT_FALSE(openings.at(0).allInForce);
    EXPECT_TRUE(openings.at(1).allInForce);
}

TEST(Openings, AreKeptUpToALimit) {
    HandleTable table;
    for (std::uint64_t number = 1; number <= 100'001; ++number)
        table.noteOpening(number);
    const auto openings = table.takeOpenings();
    EXPECT_EQ(100'000U, openings.size());
    EXPECT_EQ(100'000U, openings.back().number);
}

TEST(AConnection, IsInterruptedByADatabaseThatFailedSinceItsOpening) {
    HandleTable table;
    table.setFailureCount([] { return failures; });
    failures = 3;
    const auto connection = table.find(table.add(descriptor(), 1));
    connection->isUsed = true;
    EXPECT_EQ(Interruption::none, table.interruptionOf(*connection)) << "the failures before it do not count";
    ++failures;
    EXPECT_EQ(Interruption::databaseFailure, table.interruptionOf(*connection));
    connection->isUsed = false;
    EXPECT_EQ(Interruption::none, table.interruptionOf(*connection)) << "nothing was meant yet";
}

// Asks while an exception passes.
class AskedOnTheWay {
public:
    AskedOnTheWay(HandleTable &table, const rlv::client::OpenConnection &connection, Interruption &answer)
        : table_(table), connection_(connection), answer_(answer) {}
    AskedOnTheWay(const AskedOnTheWay &) = delete;
    AskedOnTheWay &operator=(const AskedOnTheWay &) = delete;
    ~AskedOnTheWay() { answer_ = table_.interruptionOf(connection_); }

private:
    HandleTable &table_;
    const rlv::client::OpenConnection &connection_;
    Interruption &answer_;
};

TEST(AConnection, IsInterruptedByAnExceptionThatPasses) {
    HandleTable table;
    const auto connection = table.find(table.add(descriptor(), 1));
    connection->isUsed = true;
    auto answer = Interruption::none;
    try {
        const AskedOnTheWay asked(table, *connection, answer);
        throw std::runtime_error("on the way");
    } catch (const std::runtime_error &) {
    }
    EXPECT_EQ(Interruption::exception, answer);
    EXPECT_EQ(Interruption::none, table.interruptionOf(*connection)) << "it is over";
}

TEST(AHandleTable, KnowsWhereTheServiceIs) {
    HandleTable table;
    EXPECT_EQ(rlv::kDefaultSocketPath, table.path());
    table.setPath("/run/elsewhere");
    EXPECT_EQ("/run/elsewhere", table.path());
    EXPECT_EQ(&rlv::client::handleTable(), &rlv::client::handleTable());
}

} // namespace
