// All parts of the policy host but its server, in the test itself, with a plugin and a traffic-control service that do
// what the test says.
#ifndef TESTS_PLATFORM_HOST_HOST_IN_TEST_H
#define TESTS_PLATFORM_HOST_HOST_IN_TEST_H

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake-plugin.h"
#include "fake-service.h"
#include "host/call-watch.h"
#include "host/data-check.h"
#include "host/dispatch.h"
#include "host/history.h"
#include "host/remarks.h"
#include "host/rule-replacement.h"

namespace hosttest {

class AHostInTest : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        host::CallWatch::prepare();
    }

    // The plugin comes up.
    void bringUp() {
        life.bringUpAsStored();
        takeCalls();
    }
    mavo::rmi::Reply invoke(const std::string &name, mavo::rmi::Message request = mavo::rmi::Message()) {
        const auto method = dispatch.find(name);
        EXPECT_NE(method, nullptr) << name;
        return dispatch.invoke(caller, name, *method, request);
    }
    // Of a method that is no plugin's, which does this.
    mavo::rmi::Reply invoke(const std::function<void()> &what) {
        mavo::rmi::MethodContext method;
        method.dispatcher = [&what](mavo::rmi::Message &) {
            what();
            return mavo::rmi::Message();
        };
        mavo::rmi::Message request;
        return dispatch.invoke(caller, "Test::anything", method, request);
    }
    template <typename... Values> static mavo::rmi::Message messageOf(const Values &...values) {
        mavo::rmi::Message message;
        (message.write(values), ...);
        return message;
    }
    template <typename Value> static Value valueOf(const mavo::rmi::Reply &reply) {
        EXPECT_EQ(reply.status, mavo::rmi::Status::ok) << reply.error;
        Value value{};
        mavo::rmi::Message(reply.body).read(value);
        return value;
    }
    static std::vector<std::string> notesOf(const mavo::rmi::Reply &reply) {
        return host::decodeRemarks(reply.remarks).notes;
    }
    static std::vector<std::string> errorLinesOf(const mavo::rmi::Reply &reply) {
        return host::decodeRemarks(reply.remarks).errorLines;
    }

    std::unique_ptr<FakeService> service = std::make_unique<FakeService>();
    support::EventLoop loop;
    std::string rebuildProblem;
    host::Rebuild rebuild{loop, [this] { return rebuildProblem; }};
    host::ServedPlugin served;
    host::PluginLife life{makeFakePlugin, served};
    host::TableBuilder builder{life, 1};
    bool collectorWanted = false;
    host::CollectorKeeper keeper{loop, {[this] { return collectorWanted; }, [](auto) {}}};
    host::History history{loop};
    mavo::rmi::Caller caller{{0, 0, 4711}, true, "a test"};
    host::RuleReplacement replacement{served, life};
    host::Dispatch dispatch{{served, life, builder, rebuild, keeper, history, replacement, "the file is void"}};
};

} // namespace hosttest

#endif
