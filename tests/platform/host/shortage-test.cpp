// Calls of the policy host for which the memory runs out.
#include <chrono>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/dispatch.h"
#include "host/history.h"
#include "host/rule-replacement.h"
#include "mavo/database.h"
#include "support/failing-allocations.h"

namespace {

using failing_allocations::Shortage;
using testing::Contains;
using testing::IsEmpty;

constexpr const char *kLongText = "stored, but for what follows there was not enough of everything";
constexpr int kEnough = 1'000'000;

class AHostWithoutMemory : public testing::Test {
protected:
    void SetUp() override { host::CallWatch::prepare(); }

    // A call that ends with an exception, since when there is memory for so many allocations alone. False when it has
    // got no reply.
    template <typename Exception> bool isAnswered(const std::string &method, const Exception &thrown, int spared) {
        std::optional<Shortage> shortage;
        mavo::rmi::MethodContext context;
        context.dispatcher = [&](mavo::rmi::Message &) -> mavo::rmi::Message {
            shortage.emplace(spared);
            throw thrown;
        };
        mavo::rmi::Message request;
        try {
            reply = dispatch.invoke(caller, method, context, request);
            failed = Shortage::failed();
            return true;
        } catch (const std::bad_alloc &) {
            return false;
        }
    }
    // How many rebuilds follow in the next turn of the loop.
    int rebuilds() {
        made = 0;
        loop.after(std::chrono::milliseconds(5), [this] { loop.stop(); });
        loop.run();
        return made;
    }

    support::EventLoop loop;
    int made = 0;
    host::Rebuild rebuild{loop, [this] {
                              ++made;
                              return std::string();
                          }};
    host::ServedPlugin plugin;
    host::PluginLife life{[](mavo::rmi::Service &) -> AbstractDPluginProvider * { return nullptr; }, plugin};
    host::TableBuilder builder{life, 0};
    host::CollectorKeeper keeper{loop, {[] { return false; }, [](auto) {}}};
    host::History history{loop};
    mavo::rmi::Caller caller;
    host::RuleReplacement replacement{plugin, life};
    host::Dispatch dispatch{{plugin, life, builder, rebuild, keeper, history, replacement, {}}};
    mavo::rmi::Reply reply;
    int failed = 0;
};

TEST_F(AHostWithoutMemory, BuildsTheTablesAnewWhenNobodyCouldBeToldHowACallEnded) {
    int unanswered = 0;
    for (int spared = 0; failed > 0 || reply.error != kLongText; ++spared) {
        ASSERT_LT(spared, 1000);
        const bool answered = isAnswered("Test::store", std::runtime_error(kLongText), spared);
        EXPECT_EQ(rebuilds(), answered ? 0 : 1) << spared;
        unanswered += answered ? 0 : 1;
    }
    EXPECT_GT(unanswered, 0);
}

TEST_F(AHostWithoutMemory, BuildsTheTablesAnewAfterACallThatLackedItAndSaysSo) {
    ASSERT_TRUE(isAnswered("Test::store", std::bad_alloc(), kEnough));
    EXPECT_THAT(host::decodeRemarks(reply.remarks).notes,
                Contains("there was no memory for the operation; the tables are built "
                         "anew from the stored rules"));
    EXPECT_EQ(rebuilds(), 1);
}

TEST_F(AHostWithoutMemory, BuildsTheTablesAnewWhenAStreamHasKeptItToItself) {
    mavo::rmi::MethodContext context;
    context.dispatcher = [](mavo::rmi::Message &) {
        std::istringstream text(kLongText);
        std::string word;
        const Shortage shortage;
        std::getline(text, word);
        return mavo::rmi::Message();
    };
    mavo::rmi::Message request;
    reply = dispatch.invoke(caller, "Test::store", context, request);
    EXPECT_EQ(reply.status, mavo::rmi::Status::ok);
    EXPECT_THAT(host::decodeRemarks(reply.remarks).notes,
                Contains("there was no memory for the operation; the tables are built "
                         "anew from the stored rules"));
    EXPECT_EQ(rebuilds(), 1);
}

// A commit may fail after it has reached the file: then the rules are stored that were told not to be.
TEST_F(AHostWithoutMemory, BuildsTheTablesAnewAfterACallInWhichADatabaseFailed) {
    mavo::database::Connection connection("/run/failing.db", 6, true);
    mavo::database::Statement(connection, "CREATE TABLE t (a NOT NULL)").exec();
    mavo::rmi::MethodContext context;
    const char *value = "1";
    context.dispatcher = [&](mavo::rmi::Message &) {
        mavo::database::Statement(connection, std::string("INSERT INTO t VALUES (") + value + ")").exec();
        return mavo::rmi::Message();
    };
    mavo::rmi::Message request;
    EXPECT_THAT(host::decodeRemarks(dispatch.invoke(caller, "Test::store", context, request).remarks).notes, IsEmpty());
    EXPECT_EQ(rebuilds(), 0);
    value = "NULL";
    EXPECT_THAT(host::decodeRemarks(dispatch.invoke(caller, "Test::store", context, request).remarks).notes,
                Contains("a database failed during the operation; the tables are built anew from the "
                         "stored rules"));
    EXPECT_EQ(rebuilds(), 1);
}

TEST_F(AHostWithoutMemory, LeavesTheTablesAloneWhenACallOnlyLooked) {
    EXPECT_FALSE(isAnswered("Host::rules", std::runtime_error(kLongText), 0));
    EXPECT_TRUE(isAnswered("Host::rules", std::bad_alloc(), kEnough));
    EXPECT_EQ(rebuilds(), 0);
}

} // namespace
