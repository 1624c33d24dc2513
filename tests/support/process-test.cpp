#include "support/process.h"

#include <csignal>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace {

using process::capture;
using process::Child;
using process::Duration;
using process::Options;

TEST(AStartedProgram, LeavesItsOutputErrorsAndStatus) {
    const auto result = capture({"sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("out\n", result.output);
    EXPECT_EQ("err\n", result.errors);
}

TEST(AStartedProgram, GetsInputEnvironmentAndDirectory) {
    Options options;
    options.input = "text";
    options.environment = {"COLOUR=red"};
    options.directory = "/dev";
    EXPECT_EQ("text red /dev\n", capture({"sh", "-c", "echo $(cat) $COLOUR $(pwd)"}, options).output);
}

TEST(AStartedProgram, RunsAsTheGivenAccount) {
    Options options;
    options.user = 1234;
    EXPECT_EQ("1234 1234\n", capture({"sh", "-c", "echo $(id -u) $(id -G)"}, options).output);
}

TEST(AStartedProgram, AppendsItsErrorsToAGivenFile) {
    Options options;
    options.errorFile = "/run/errors";
    capture({"sh", "-c", "echo one >&2"}, options);
    capture({"sh", "-c", "echo two >&2"}, options);
    std::ifstream file("/run/errors");
    EXPECT_EQ("one\ntwo\n", std::string(std::istreambuf_iterator<char>(file), {}));
}

TEST(AStartedProgram, IsReadyWhenTheTestSaysSo) {
    Child child({"sh", "-c", "echo up; exec sleep 60"});
    EXPECT_TRUE(child.waitReady([&] { return child.output() == "up\n"; }));
    EXPECT_TRUE(child.running());
}

TEST(AStartedProgram, IsNeverReadyOnceItEnded) {
    Child child({"false"});
    EXPECT_FALSE(child.waitReady([] { return false; }));
    EXPECT_EQ(1, child.wait());
}

TEST(AStartedProgram, EndsByTheSignalThatItGets) {
    Child child({"sleep", "60"});
    EXPECT_EQ(128 + SIGTERM, child.terminate());
    EXPECT_FALSE(child.running());
}

TEST(AStartedProgram, DoesNotOutliveItsObject) {
    pid_t id = 0;
    {
        const Child child({"sleep", "60"});
        id = child.id();
    }
    EXPECT_EQ(-1, ::kill(id, 0));
}

TEST(AStartedProgram, IsKilledWhenItRunsTooLong) {
    EXPECT_EQ(128 + SIGKILL, capture({"sleep", "60"}, Options(), Duration(20)).status);
}

TEST(AStartedProgram, ThatDoesNotExistSaysSo) {
    const auto result = capture({"/nowhere"});
    EXPECT_EQ(127, result.status);
    EXPECT_EQ("/nowhere: No such file or directory\n", result.errors);
}

} // namespace
