// vpkctl status and vpkctl verify
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::run;
using clitest::ScriptedHost;

// What the host says, with that exit status for a program that shows it, and that one where others' rules count.
std::string documentOf(int status, int strictStatus) {
    return R"({"exitStatus":)" + std::to_string(status) + R"(,"strictExitStatus":)" + std::to_string(strictStatus) +
           R"(,"summary":"a summary","findings":[{"kind":"MISSING","advice":"stored"}],"differences":1})";
}

struct Look {
    clitest::Add add;
    const char *word;
    const char *method;
    const char *begin; // of the text
};

constexpr Look kLooks[] = {
    {cli::addStatus, "status", "Host::status", "plugin       "},
    {cli::addVerify, "verify", "Host::verify", "MISSING     (stored)\nfirewall     a summary\n"}};

TEST(StatusAndVerify, ShowTextOrTheDocument) {
    for (const auto &[add, word, method, begin] : kLooks) {
        const ScriptedHost host(method, replyOf(documentOf(0, 1)));
        EXPECT_THAT(run(add, {word}).output, testing::StartsWith(begin));
        EXPECT_EQ(run(add, {word, "--json"}).output, documentOf(0, 1) + "\n");
        EXPECT_THAT(host.calls(), testing::Each(clitest::Call{method, ""}));
    }
}

TEST(StatusAndVerify, EndWithTheStatusThatTheHostSays) {
    for (const auto &[add, word, method, begin] : kLooks) {
        for (const auto &[status, strictStatus] : {std::pair(0, 1), std::pair(1, 0)}) {
            const ScriptedHost host(method, replyOf(documentOf(status, strictStatus)));
            EXPECT_EQ(run(add, {word}).status, status);
            EXPECT_EQ(run(add, {word, "--json"}).status, status);
            EXPECT_EQ(run(add, {word, "--strict"}).status, strictStatus);
        }
    }
}

TEST(StatusAndVerify, ShowNothingOfWhatIsNoDocument) {
    for (const auto &[add, word, method, begin] : kLooks) {
        const ScriptedHost host(method, replyOf("[]"));
        const auto ran = run(add, {word, "--json"});
        EXPECT_EQ(ran.status, 2);
        EXPECT_EQ(ran.output, "");
        EXPECT_EQ(ran.errors, "vpkctl: the host's document is not understood\n");
    }
}

TEST(Status, GoesOnInItsSecondColumnWhereALineIsBroken) {
    const ScriptedHost host("Host::status", replyOf(R"({"summary":"a )" + std::string(66, 'x') + "\"}"));
    EXPECT_THAT(clitest::runOnTerminal(cli::addStatus, {"status"}, "").output,
                testing::HasSubstr("firewall     a\r\n             " + std::string(66, 'x') + "\r\n"));
}

} // namespace
