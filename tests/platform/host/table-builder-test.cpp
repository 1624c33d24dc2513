#include "host/table-builder.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake-plugin.h"
#include "fake-service.h"
#include "host/call-watch.h"
#include "host/data-check.h"
#include "mavo/database.h"
#include "rlv/rlv.h"
#include "support/sqlite-file.h"

namespace {

using hosttest::Answers;
using hosttest::orders;
using testing::StartsWith;

constexpr std::uint64_t kFirst = 3;

// The plugin comes up with one connection, on which it sends one command.
void send() {
    rlv_handle handle = 0;
    if (rlv_initialize(&handle) != 0)
        return;
    rlv_iptables_commit(handle, "-N VPK-DENY", nullptr, nullptr);
    rlv_deinitialize(handle);
}

class ATableBuilder : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        host::CallWatch::prepare();
        orders.inFactory = send;
    }

    // What becomes of every connection from now on.
    void judge(rlv::ConnectionEnd end, const std::vector<rlv::FailedCommand> &failed) {
        service->change([&](Answers &answers) {
            answers.failedOnClosing = 1;
            answers.state.connections.clear();
            for (std::uint64_t number = 1; number < 20; ++number)
                answers.state.connections.push_back({number, end, failed, 0});
        });
    }
    std::string thrownAtStart() try {
        return "gave back: " + builder.buildAtStart();
    } catch (const std::runtime_error &error) {
        return error.what();
    }

    std::unique_ptr<hosttest::FakeService> service = std::make_unique<hosttest::FakeService>();
    host::ServedPlugin served;
    host::PluginLife life{hosttest::makeFakePlugin, served};
    host::TableBuilder builder{life, kFirst};
};

TEST_F(ATableBuilder, BuildsThemWithAPluginThatComesUp) {
    EXPECT_EQ(builder.builtBy(), kFirst);
    EXPECT_EQ(builder.buildAtStart(), "");
    EXPECT_EQ(served.number(), 1U);
    EXPECT_EQ(builder.builtBy(), kFirst);
    service->change([](Answers &answers) { answers.state.serviceId = 8; });
    EXPECT_EQ(builder.buildAgain(), "");
    EXPECT_EQ(served.number(), 2U);
    EXPECT_EQ(builder.builtBy(), 8U);
}

TEST_F(ATableBuilder, KeepsTheStatusThatWasAppliedWhenItBuildsThemAgain) {
    EXPECT_EQ(builder.buildAtStart(), "");
    served.applyStatus(0);
    EXPECT_EQ(builder.buildAgain(), "");
    EXPECT_EQ(served.applied(), 0);
    host::StatusStorage().storeStatus(host::kPluginName, 0);
    served.applyStatus(1);
    EXPECT_EQ(builder.buildAtStart(), "");
    EXPECT_EQ(served.applied(), 0);
}

TEST_F(ATableBuilder, SaysWhyItHasToBeDoneAgain) {
    judge(rlv::ConnectionEnd::vanished, {});
    EXPECT_EQ(builder.buildAtStart(), "a connection to the traffic-control service broke");
    EXPECT_EQ(builder.buildAgain(), "a connection to the traffic-control service broke");
    EXPECT_EQ(builder.builtBy(), kFirst) << "not by this one";
}

TEST_F(ATableBuilder, GivesUpWhatIsLostAgain) {
    hosttest::orders.inFactory = send;
    judge(rlv::ConnectionEnd::closed, {{"-A VPK-DENY -j DROP", 4, "lost", false}});
    EXPECT_EQ(builder.buildAtStart(), "accepted commands were lost: -A VPK-DENY -j DROP");
    EXPECT_EQ(builder.reasons().lostAgain(), "");
    EXPECT_EQ(builder.buildAgain(), "");
    EXPECT_EQ(builder.reasons().lostAgain(), "given up: accepted commands were lost: -A VPK-DENY -j DROP");
}

TEST_F(ATableBuilder, DoesNotBotherThePluginWhileTheServiceIsAway) {
    service.reset();
    hosttest::takeCalls();
    EXPECT_THAT(builder.buildAgain(), StartsWith("traffic-control service: "));
    EXPECT_THAT(hosttest::takeCalls(), testing::IsEmpty());
}

TEST_F(ATableBuilder, TellsWhatMayPassFromWhatStays) {
    const auto thrown = [](const std::function<void()> &before) {
        return [before] {
            before();
            throw std::runtime_error("thrown");
        };
    };
    orders.inFactory = thrown([] {});
    EXPECT_EQ(thrownAtStart(), "the plugin did not come up: thrown");
    EXPECT_EQ(builder.buildAgain(), "the plugin did not come up: thrown");
    orders.inFactory = [] { throw mavo::database::Unavailable("held"); };
    EXPECT_EQ(thrownAtStart(), "gave back: the plugin did not come up: held");
    orders.inFactory = thrown([] {
        sqlitefile::execute("/run/t.db", "CREATE TABLE IF NOT EXISTS t (a NOT NULL)");
        mavo::database::Connection connection("/run/t.db", 6, false);
        mavo::database::Statement(connection, "INSERT INTO t VALUES (NULL)").exec();
    });
    EXPECT_EQ(thrownAtStart(), "gave back: the plugin did not come up: thrown (a database failed)");
    judge(rlv::ConnectionEnd::vanished, {});
    orders.inFactory = thrown(send);
    EXPECT_EQ(thrownAtStart(), "gave back: the plugin did not come up: thrown (a connection to the traffic-control "
                               "service broke)");
    service.reset();
    EXPECT_EQ(thrownAtStart(), "gave back: the plugin did not come up: thrown (the traffic-control service could not "
                               "be used)");
    EXPECT_FALSE(served.isUp());
}

} // namespace
