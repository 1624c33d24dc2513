// Connections that their client closes though not all was sent that should have been.
#include "rlvd-embedded.h"
#include "rlvd-process.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/failing-allocations.h"

namespace {

using failing_allocations::Shortage;
using rlv::ConnectionEnd;
using rlv::Interruption;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using testing::HasSubstr;
using namespace rlvd;

std::uint64_t failures = 0;

// A connection that is closed with the object, as the plugin has it.
class Handler {
public:
    explicit Handler(int &closed) : closed_(closed) { EXPECT_EQ(0, rlv_initialize(&handle_)); }
    ~Handler() { closed_ = rlv_deinitialize(handle_); }
    Handler(const Handler &) = delete;
    Handler &operator=(const Handler &) = delete;

    void commit(const char *options) const {
        char *message = nullptr;
        rlv_iptables_commit(handle_, options, nullptr, &message);
        std::free(message);
    }

private:
    int &closed_;
    rlv_handle handle_ = 0;
};

// What closing gave, after an operation that an exception leaves.
int closedByException(const std::function<void(const Handler &)> &operation) {
    int closed = -1;
    try {
        const Handler handler(closed);
        operation(handler);
        throw std::runtime_error("in the middle");
    } catch (const std::runtime_error &) {
        return closed;
    }
}

rlv::Opening lastOpening() {
    const auto openings = rlv::takeOpenings();
    return openings.empty() ? rlv::Opening() : openings.back();
}

// A service whose chain VPK-DENY holds two rules.
class AnInterruptedConnection : public testing::Test {
protected:
    void SetUp() override {
        rlv::setFailureCount([] { return failures; });
        Client client;
        for (const char *options :
             {"-N VPK-DENY", "-A VPK-DENY -s 10.0.0.1 -j DROP", "-A VPK-DENY -s 10.0.0.2 -j DROP"})
            EXPECT_EQ("0: ", client.commit(options));
        EXPECT_EQ(0, client.close());
        rlv::takeOpenings();
    }

    SimulatedService service;
};

TEST_F(AnInterruptedConnection, IsDroppedFromItsFirstRemovalOnWhenAnExceptionClosesIt) {
    EXPECT_EQ(ECANCELED, closedByException([](const Handler &handler) {
                  handler.commit("-A VPK-DENY -s 10.0.0.3 -j DROP");
                  handler.commit("-F VPK-DENY");
                  handler.commit("-A VPK-DENY -s 10.0.0.4 -j DROP");
              }));
    EXPECT_EQ(3U, rulesOf("VPK-DENY"));
    const auto outcome = outcomeOf(2);
    EXPECT_EQ(ConnectionEnd::interrupted, outcome.end);
    ASSERT_EQ(2U, outcome.failed.size());
    EXPECT_EQ("-F VPK-DENY", outcome.failed[0].options);
    EXPECT_EQ("iptables: not sent: the operation was left by an exception", outcome.failed[1].message);
    EXPECT_THAT(service.log(), HasSubstr(" is interrupted: the operation was left by an exception\n"));
    const auto opening = lastOpening();
    EXPECT_FALSE(opening.allInForce);
    EXPECT_EQ(Interruption::exception, opening.interruption);
}

TEST_F(AnInterruptedConnection, KeepsWhatItOnlyAdded) {
    EXPECT_EQ(ECANCELED,
              closedByException([](const Handler &handler) { handler.commit("-A VPK-DENY -s 10.0.0.3 -j DROP"); }));
    EXPECT_EQ(3U, rulesOf("VPK-DENY"));
    EXPECT_EQ(ConnectionEnd::interrupted, outcomeOf(2).end);
    EXPECT_EQ(0U, outcomeOf(2).failed.size());
}

TEST_F(AnInterruptedConnection, IsNoneWithoutACommand) {
    EXPECT_EQ(0, closedByException([](const Handler &) {}));
    EXPECT_EQ(ConnectionEnd::closed, outcomeOf(2).end);
    EXPECT_TRUE(lastOpening().allInForce);
}

TEST_F(AnInterruptedConnection, IsNoneWhenTheExceptionPassedAlreadyAtItsOpening) {
    struct AtEnd {
        int &closed;
        ~AtEnd() {
            const Handler handler(closed);
            handler.commit("-F VPK-DENY");
        }
    };
    int closed = -1;
    try {
        [[maybe_unused]] const AtEnd atEnd{closed};
        throw std::runtime_error("before");
    } catch (const std::runtime_error &) {
        EXPECT_EQ(0, closed);
    }
    EXPECT_EQ(0U, rulesOf("VPK-DENY"));
}

TEST_F(AnInterruptedConnection, IsNoneWhenTheExceptionWasCaughtBeforeTheEnd) {
    Client client;
    try {
        client.commit("-F VPK-DENY");
        throw std::runtime_error("caught");
    } catch (const std::runtime_error &) {
        EXPECT_EQ(0, client.close());
    }
    EXPECT_EQ(0U, rulesOf("VPK-DENY"));
}

TEST_F(AnInterruptedConnection, IsOneDuringWhichADatabaseFailed) {
    Client client;
    client.commit("-F VPK-DENY");
    ++failures;
    EXPECT_EQ(ECANCELED, client.close());
    EXPECT_EQ(2U, rulesOf("VPK-DENY"));
    EXPECT_THAT(service.log(), HasSubstr("lost (4, iptables: not sent: a database failed during the operation): "
                                         "-F VPK-DENY\n"));
    EXPECT_EQ(Interruption::databaseFailure, lastOpening().interruption);
}

TEST_F(AnInterruptedConnection, IsNoneWhenADatabaseFailedBefore) {
    ++failures;
    Client client;
    client.commit("-F VPK-DENY");
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(0U, rulesOf("VPK-DENY"));
}

TEST_F(AnInterruptedConnection, IsAlsoOneForReasonsThatTheServiceDoesNotKnow) {
    for (const std::uint64_t reason : {std::uint64_t{77}, std::uint64_t{1} << 63}) {
        RawClient client;
        const auto number = client.open();
        client.send(Request::Kind::commit, 0, "-F VPK-DENY");
        client.receive();
        client.send(Request::Kind::close, reason);
        EXPECT_EQ(ECANCELED, client.receive().value_or(Reply{}).code);
        EXPECT_EQ(ConnectionEnd::interrupted, outcomeOf(number).end);
    }
    EXPECT_EQ(2U, rulesOf("VPK-DENY"));
}

TEST_F(AnInterruptedConnection, DoesNotKeepTheNextFromComingIntoForce) {
    closedByException([](const Handler &handler) { handler.commit("-F VPK-DENY"); });
    Client client;
    client.commit("-D VPK-DENY -s 10.0.0.1 -j DROP");
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(1U, rulesOf("VPK-DENY"));
}

// ---- without memory ----

// A rebuild of three commands, the last of which has memory for so many allocations. How many failed, and what closing
// gave, which has none either.
struct InShortage {
    explicit InShortage(int spared) {
        rlv_handle handle = 0;
        EXPECT_EQ(0, rlv_initialize(&handle));
        EXPECT_EQ(0, rlv_iptables_commit(handle, "-F VPK-DENY", nullptr, nullptr));
        EXPECT_EQ(0, rlv_iptables_commit(handle, "-A VPK-DENY -s 10.0.0.8 -j DROP", nullptr, nullptr));
        const Shortage shortage(spared);
        result = rlv_iptables_commit(handle, "-A VPK-DENY -d 10.0.0.9 -j DROP", &code, nullptr);
        failed = Shortage::failed();
        closed = rlv_deinitialize(handle);
    }
    int result = -1;
    int code = -1;
    int failed = 0;
    int closed = -1;
};

TEST_F(AnInterruptedConnection, IsOneWithACommandForWhichThereWasNoMemory) {
    int shortages = 0;
    for (int spared = 0;; ++spared) {
        ASSERT_LT(spared, 1000);
        const InShortage one(spared);
        if (one.failed == 0) {
            EXPECT_EQ(0, one.closed);
            break;
        }
        ++shortages;
        EXPECT_EQ(ENOMEM, one.result) << spared;
        EXPECT_EQ(4, one.code) << spared;
        EXPECT_EQ(ENOMEM, one.closed) << spared;
        const auto number = lastOpening().number;
        ASSERT_TRUE(process::waitUntil([&] { return outcomeOf(number).end != ConnectionEnd::open; }));
        EXPECT_EQ(ConnectionEnd::vanished, outcomeOf(number).end) << spared;
        EXPECT_EQ(2U, rulesOf("VPK-DENY")) << spared;
    }
    EXPECT_GT(shortages, 0);
    EXPECT_EQ(2U, rulesOf("VPK-DENY")) << "the two of the connection that had enough";
}

// A connection on which the service has no memory for one command, and has it again for the next. What closing it gave.
int closedAfterShortage(const std::vector<const char *> &before, const char *during) {
    rlv_handle handle = 0;
    EXPECT_EQ(0, rlv_initialize(&handle));
    for (const char *options : before)
        EXPECT_EQ(0, rlv_iptables_commit(handle, options, nullptr, nullptr));
    set(Fault::applyLacksMemory);
    int code = 0;
    rlv_iptables_commit(handle, during, nullptr, nullptr);
    rlv_iptables_commit(handle, "-N VPK-ASKED", &code, nullptr); // the one before may have been sent without asking
    EXPECT_EQ(4, code);
    set(Fault::applyLacksMemory, false);
    rlv_iptables_commit(handle, "-A VPK-DENY -s 10.0.0.7 -j DROP", &code, nullptr);
    EXPECT_EQ(4, code);
    const int closed = rlv_deinitialize(handle);
    EXPECT_EQ(ConnectionEnd::vanished, outcomeOf(lastOpening().number).end);
    return closed;
}

TEST(ACommandForWhichTheServiceHasNoMemory, InterruptsItsConnection) {
    const EmbeddedService service;
    {
        Client client;
        for (const char *options : {"-N VPK-DENY", "-A VPK-DENY -s 10.0.0.1 -j DROP", "-A INPUT -j VPK-DENY"})
            EXPECT_EQ("0: ", client.commit(options));
        EXPECT_EQ(0, client.close());
    }
    EXPECT_NE(0, closedAfterShortage({}, "-D INPUT -j VPK-DENY"));
    EXPECT_NE(0, closedAfterShortage({"-F VPK-DENY"}, "-A VPK-DENY -s 10.0.0.2 -j DROP"));
    EXPECT_NE(
        0, closedAfterShortage({"-F VPK-DENY", "-A VPK-DENY -s 10.0.0.2 -j DROP"}, "-A VPK-DENY -s 10.0.0.3 -j DROP"));
    EXPECT_EQ(1U, rulesOf("VPK-DENY"));
    EXPECT_EQ(1U, rlv::query(0).hooks.size());
    EXPECT_THAT(service.log(), HasSubstr("is refused: internal error: std::bad_alloc"));
}

TEST_F(AnInterruptedConnection, NeedsNoMemoryToBeClosed) {
    rlv_handle handle = 0;
    ASSERT_EQ(0, rlv_initialize(&handle));
    ASSERT_EQ(0, rlv_iptables_commit(handle, "-F VPK-DENY", nullptr, nullptr));
    ++failures;
    int closed = -1;
    {
        const Shortage shortage;
        closed = rlv_deinitialize(handle);
        EXPECT_EQ(0, Shortage::failed());
    }
    EXPECT_EQ(ECANCELED, closed);
    EXPECT_EQ(2U, rulesOf("VPK-DENY"));
}

} // namespace
