#include "cli/history-as-text.h"

#include <cstdlib>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

namespace {

class TheHistory : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    static std::string shown(const std::string &document) { return cli::historyAsText(cli::parseDocument(document)); }
};

TEST_F(TheHistory, ShowsWhoDidWhatWithWhichResult) {
    EXPECT_EQ(
        shown(R"({"entries":[{"account":0,"accountName":"root","added":["deny tcp:10.0.0.5:80:out"],"addedCount":1,)"
              R"("arguments":["ApplyDenyRules","tcp:10.0.0.5:80:out"],"kind":"call","method":"Host::executeCommand",)"
              R"("notes":["a note"],"number":12,"process":4711,"programAsGiven":"vpkctl",)"
              R"("removed":["deny tcp:10.0.0.5:80:in"],"removedCount":1,"result":"done","time":1795357800}]})"),
        "12  2026-11-22 14:30:00 +0000  root, process 4711, calls itself vpkctl\n"
        "    exec ApplyDenyRules tcp:10.0.0.5:80:out (done)\n"
        "      a note\n"
        "    - deny tcp:10.0.0.5:80:in\n"
        "    + deny tcp:10.0.0.5:80:out\n");
}

TEST_F(TheHistory, ShowsCallsAsTheyAreTyped) {
    const auto callOf = [](const std::string &members) {
        const std::string text = shown(R"({"entries":[{"kind":"call","account":5,"process":7,)" + members + "}]}");
        const auto begin = text.find("\n    ") + 5;
        return text.substr(begin, text.find('\n', begin) - begin);
    };
    EXPECT_EQ(callOf(R"("method":"Host::setStatus","arguments":["0"],"result":"done")"), "set-status 0 (done)");
    EXPECT_EQ(callOf(R"("method":"Host::applyStatus","arguments":["7"],"result":"failed")"), "apply-status 7 (failed)");
    EXPECT_EQ(callOf(R"("method":"Host::reload","arguments":[],"result":"unfinished")"), "reload (unfinished)");
    EXPECT_EQ(callOf(R"("method":"Firewall::FlushDenyRules","arguments":[],"result":"done")"),
              "call Firewall::FlushDenyRules (done)");
    EXPECT_EQ(callOf(R"("method":"Host::executeCommand","arguments":["a\u001b","b"],"argumentsCut":true,)"
                     R"("result":"refused","error":"no\u0007")"),
              "exec a\\x1b b ... (refused: no\\x07)");
}

TEST_F(TheHistory, ShowsWhatNoCallHasDone) {
    EXPECT_EQ(shown(R"({"entries":[{"kind":"found","what":"the rules were not what they were left as","number":3,)"
                    R"("time":1795357800,"notes":["x"]},{"kind":"several","entries":17,"number":0,"time":0},)"
                    R"({"kind":"call","account":9,"process":8,"number":4,"time":0,"differenceProblem":"locked"}],)"
                    R"("problem":"full"})"),
              "3  2026-11-22 14:30:00 +0000\n"
              "    the rules were not what they were left as\n"
              "      x\n"
              "not written yet  1970-01-01 00:00:00 +0000\n"
              "    17 entries that could not be written one by one\n"
              "4  1970-01-01 00:00:00 +0000  account 9, process 8\n"
              "    call  ()\n"
              "    what it has changed is not known: locked\n"
              "full\n");
}

TEST_F(TheHistory, ShowsTenRulesOfAnEntry) {
    std::string rules;
    for (int i = 0; i < 12; ++i)
        rules += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\"";
    const std::string text = shown(R"({"entries":[{"kind":"found","added":[)" + rules + R"(],"addedCount":500}]})");
    EXPECT_NE(text.find("    + 9\n    + and 490 more\n"), std::string::npos) << text;
}

TEST_F(TheHistory, ShowsADifference) {
    const auto difference = [](const char *document) { return cli::differenceAsText(cli::parseDocument(document)); };
    EXPECT_EQ(difference(R"({"added":["deny a"],"removed":["deny b","allow c"],"problem":""})"),
              "- deny b\n- allow c\n+ deny a\n");
    EXPECT_EQ(difference(R"({"added":[],"removed":[]})"), "no difference\n");
    EXPECT_EQ(difference("{}"), "no difference\n");
}

} // namespace
