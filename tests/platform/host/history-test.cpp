#include "host/history.h"

#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/mount.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/databases.h"
#include "host/firewall-plugin.h"
#include "host/history-document.h"
#include "host/json-document.h"
#include "host/method-names.h"
#include "host/paths.h"
#include "mavo/database-recovery.h"
#include "mavo/database.h"
#include "support/leaping-clock.h"
#include "support/sqlite-file.h"
#include "told-lines.h"

namespace {

using host::History;
using mavo::rmi::Reply;
using mavo::rmi::Status;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

constexpr const char *kTable =
    "CREATE TABLE IF NOT EXISTS firewall_rules (protocol TEXT, domain TEXT, port TEXT, direction INTEGER NOT NULL, "
    "is_allowed INTEGER NOT NULL, PRIMARY KEY (protocol, domain, port) ON CONFLICT REPLACE)";

void store(const std::string &sql) {
    mavo::database::Connection connection(host::kRuleDatabase, 6, false);
    mavo::database::Statement(connection, kTable).exec();
    EXPECT_TRUE(mavo::database::Statement(connection, sql).exec()) << sql;
}

void storeDenied(const std::string &port) {
    store("INSERT INTO firewall_rules VALUES ('tcp', '10.0.0.5', '" + port + "', 2, 0)");
}

Lines listOf(const Json::Value &array) {
    Lines lines;
    for (const auto &one : array)
        lines.push_back(one.asString());
    return lines;
}

class AHistory : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        host::watchOverDatabases();
        storeDenied("1");
        restart();
    }

    void restart() {
        history.reset();
        history = std::make_unique<History>(loop);
        leaping::run(loop, milliseconds(5));
    }
    // A call that does this.
    void call(const std::function<void()> &what, bool mayHaveRemoved = false, const Reply &reply = {}) {
        mavo::rmi::Message request;
        request.write(std::string("ApplyDenyRules"));
        request.write(std::string("tcp:10.0.0.5:80:out"));
        history->begin({{1, 2, 3}, true, "a test"}, host::kExecuteCommandMethod, request.body());
        what();
        history->end(reply, mayHaveRemoved);
    }
    void deny(const std::string &port) {
        call([&] { storeDenied(port); });
    }
    Json::Value document(int count = 100) { return host::readJson(history->document(count)).root; }
    Json::Value newest() {
        const Json::Value all = document();
        return all["entries"][all["entries"].size() - 1];
    }
    Json::Value difference(const std::string &since) { return host::readJson(history->differenceDocument(since)).root; }
    // What stands in the file now, seen past the code under test.
    static Lines written() { return sqlitefile::query(host::kHistoryDatabase, "SELECT difference FROM changes"); }

    support::EventLoop loop;
    std::unique_ptr<History> history;
};

TEST_F(AHistory, BeginsWithTheRulesThatAreThere) {
    const Json::Value first = newest();
    EXPECT_EQ(first["number"], 1);
    EXPECT_EQ(first["kind"], "began");
    EXPECT_EQ(first["addedCount"], 0);
    EXPECT_THAT(host::HistoryFile().knownRules().value_or(""), "deny tcp:10.0.0.5:1:out\n");
}

TEST_F(AHistory, NotesWhoCalledWhatAndWhatItHasChanged) {
    deny("80");
    const Json::Value entry = newest();
    EXPECT_EQ(entry["number"], 2);
    EXPECT_EQ(entry["kind"], "call");
    EXPECT_EQ(entry["account"], 1);
    EXPECT_EQ(entry["process"], 3);
    EXPECT_EQ(entry["programAsGiven"], "a test");
    EXPECT_EQ(entry["method"], "Host::executeCommand");
    EXPECT_THAT(listOf(entry["arguments"]), ElementsAre("ApplyDenyRules", "tcp:10.0.0.5:80:out"));
    EXPECT_EQ(entry["result"], "done");
    EXPECT_THAT(listOf(entry["added"]), ElementsAre("deny tcp:10.0.0.5:80:out"));
    EXPECT_THAT(listOf(entry["removed"]), IsEmpty());
    EXPECT_NEAR(static_cast<double>(entry["time"].asInt64()), static_cast<double>(std::time(nullptr)), 5.0);
    EXPECT_EQ(entry["boot"].asString().size(), 36U);
    EXPECT_GT(entry["uptimeMs"].asInt64(), 0);
}

TEST_F(AHistory, IsWrittenASecondLaterInOneTransaction) {
    const auto before = mavo::database::commitsTo(host::kHistoryDatabase);
    for (const char *port : {"80", "81", "82"}) {
        deny(port);
        leaping::run(loop, milliseconds(100));
    }
    EXPECT_THAT(written(), ElementsAre(""));
    leaping::run(loop, milliseconds(1'000));
    EXPECT_THAT(written(), ElementsAre("", "+deny tcp:10.0.0.5:80:out\n", "+deny tcp:10.0.0.5:81:out\n",
                                       "+deny tcp:10.0.0.5:82:out\n"));
    EXPECT_EQ(mavo::database::commitsTo(host::kHistoryDatabase), before + 1);
    leaping::run(loop, milliseconds(600'000));
    EXPECT_EQ(mavo::database::commitsTo(host::kHistoryDatabase), before + 1) << "nothing was to be written";
}

TEST_F(AHistory, TellsCallsApartThatFollowEachOtherAtOnce) {
    deny("80");
    deny("81");
    call([] { store("DELETE FROM firewall_rules WHERE port <> '81'"); }, true);
    leaping::run(loop, milliseconds(2'000));
    EXPECT_THAT(written(), ElementsAre("", "+deny tcp:10.0.0.5:80:out\n", "+deny tcp:10.0.0.5:81:out\n",
                                       "-deny tcp:10.0.0.5:1:out\n-deny tcp:10.0.0.5:80:out\n"));
}

TEST_F(AHistory, IsWrittenSoonerWhereManyEntriesWait) {
    for (int i = 0; i < 256; ++i)
        call([] {});
    leaping::run(loop, milliseconds(0));
    EXPECT_EQ(written().size(), 1U + 256U);
}

TEST_F(AHistory, IsWrittenAtTheEnd) {
    deny("80");
    history.reset();
    EXPECT_THAT(written(), ElementsAre("", "+deny tcp:10.0.0.5:80:out\n"));
}

TEST_F(AHistory, NotesWhatWasChangedWhileItWasAway) {
    deny("80");
    history.reset();
    store("DELETE FROM firewall_rules WHERE port = '1'");
    restart();
    const Json::Value entry = newest();
    EXPECT_EQ(entry["kind"], "found");
    EXPECT_THAT(listOf(entry["removed"]), ElementsAre("deny tcp:10.0.0.5:1:out"));
    restart();
    EXPECT_EQ(newest()["number"], entry["number"]) << "and only once";
}

TEST_F(AHistory, NotesWhatNoCallHasChanged) {
    sqlitefile::execute(host::kRuleDatabase, "DELETE FROM firewall_rules");
    deny("80");
    const Json::Value all = document();
    ASSERT_EQ(all["entries"].size(), 3U);
    EXPECT_EQ(all["entries"][1]["what"], "the rules were changed without a call");
    EXPECT_THAT(listOf(all["entries"][1]["removed"]), ElementsAre("deny tcp:10.0.0.5:1:out"));
    EXPECT_THAT(listOf(all["entries"][2]["added"]), ElementsAre("deny tcp:10.0.0.5:80:out"));
    store("DELETE FROM firewall_rules");
    history->lookAfter("the tables were built anew");
    EXPECT_EQ(newest()["what"], "the tables were built anew");
    history->lookAfter("nothing");
    EXPECT_EQ(newest()["what"], "the tables were built anew");
}

TEST_F(AHistory, NotesHowACallEnded) {
    mavo::rmi::Message fail;
    fail.write(std::string("fail"));
    for (const auto &[reply, result] : {std::pair<Reply, const char *>{{Status::ok, fail.body(), {}, {}}, "failed"},
                                        {{Status::malformed, {}, "no rule", {}}, "refused"},
                                        {{Status::exception, {}, "no memory", {}}, "exception"}}) {
        call([] {}, false, reply);
        EXPECT_EQ(newest()["result"], result);
        EXPECT_EQ(newest()["error"], reply.error);
    }
}

TEST_F(AHistory, NotesACallThatDidNotComeToItsEnd) {
    history->begin({}, host::kReloadMethod, "");
    storeDenied("80");
    deny("81");
    const Json::Value all = document();
    ASSERT_EQ(all["entries"].size(), 3U);
    EXPECT_EQ(all["entries"][1]["result"], "unfinished");
    EXPECT_THAT(listOf(all["entries"][1]["added"]), ElementsAre("deny tcp:10.0.0.5:80:out"));
    EXPECT_THAT(listOf(all["entries"][2]["added"]), ElementsAre("deny tcp:10.0.0.5:81:out"));
}

TEST_F(AHistory, NotesCallsWhileTheRulesCannotBeReadAndFindsLaterWhatWasChanged) {
    const std::string sound = sqlitefile::content(host::kRuleDatabase);
    call([] { sqlitefile::writeFile(host::kRuleDatabase, std::string(4'096, 'x')); });
    EXPECT_THAT(newest()["differenceProblem"].asString(), HasSubstr("not a database"));
    call([&] {
        std::filesystem::remove(host::kRuleDatabase);
        storeDenied("80");
    });
    const Json::Value entry = newest();
    EXPECT_THAT(listOf(entry["added"]), ElementsAre("deny tcp:10.0.0.5:80:out"));
    EXPECT_THAT(listOf(entry["removed"]), ElementsAre("deny tcp:10.0.0.5:1:out"));
}

TEST_F(AHistory, BeginsAnewWhenItsFileIsLost) {
    deny("80");
    leaping::run(loop, milliseconds(2'000));
    std::filesystem::remove(host::kHistoryDatabase);
    hosttest::ToldLines told;
    deny("81");
    leaping::run(loop, milliseconds(5'000));
    EXPECT_THAT(told.take(), ElementsAre(HasSubstr("error: /opt/data/vpk/db/.history.db: the history cannot be written "
                                                   "or read: is not what was written last"),
                                         HasSubstr("is written again")));
    EXPECT_THAT(written(), ElementsAre("", "+deny tcp:10.0.0.5:81:out\n"));
    EXPECT_EQ(document()["entries"][0]["kind"], "began");
    EXPECT_EQ(history->problem(), "");
    EXPECT_THAT(host::HistoryFile().knownRules().value_or(""), HasSubstr("10.0.0.5:80:"));
}

TEST_F(AHistory, BeginsAnewWhenItsFileIsDamaged) {
    deny("80");
    leaping::run(loop, milliseconds(2'000));
    sqlitefile::writeFile(host::kHistoryDatabase, std::string(20'000, 'x'));
    deny("81");
    leaping::run(loop, milliseconds(5'000));
    EXPECT_THAT(written(), ElementsAre("", "+deny tcp:10.0.0.5:81:out\n"));
    EXPECT_TRUE(std::filesystem::exists(std::string(host::kHistoryDatabase) + ".aside-1"));
}

TEST_F(AHistory, KeepsWhatCannotBeWrittenAndDrawsTogetherWhatIsTooMuch) {
    ASSERT_EQ(::mount(host::kHistoryDatabase, host::kHistoryDatabase, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount("none", host::kHistoryDatabase, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    hosttest::ToldLines told;
    for (int port = 100; port < 400; ++port)
        deny(std::to_string(port));
    leaping::run(loop, milliseconds(60'000));
    EXPECT_THAT(told.take(), testing::SizeIs(1)) << "once";
    EXPECT_THAT(history->problem(), HasSubstr(".history.db"));
    const Json::Value held = document();
    EXPECT_EQ(held["problem"], history->problem());
    EXPECT_EQ(held["entries"][held["entries"].size() - 1]["number"], 0);
    ASSERT_EQ(::umount(host::kHistoryDatabase), 0);
    leaping::run(loop, milliseconds(60'000));
    EXPECT_EQ(history->problem(), "");
    const Json::Value all = document(1'000);
    ASSERT_EQ(all["entries"].size(), 257U);
    EXPECT_EQ(all["entries"][1]["kind"], "several");
    EXPECT_EQ(all["entries"][1]["entries"], 45);
    EXPECT_EQ(all["entries"][1]["addedCount"], 45);
    EXPECT_EQ(difference("1")["added"].size(), 300U);
}

TEST_F(AHistory, DrawsTogetherLongDifferencesThatCannotBeWritten) {
    ASSERT_EQ(::mount(host::kHistoryDatabase, host::kHistoryDatabase, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount("none", host::kHistoryDatabase, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    for (int i = 0; i < 7; ++i) {
        call([i] {
            store("INSERT INTO firewall_rules VALUES ('tcp', '" + std::string(1'000'000, 'x') + "', '" +
                  std::to_string(i) + "', 1, 0)");
        });
        leaping::run(loop, milliseconds(60'000));
    }
    const Json::Value held = document();
    ASSERT_EQ(held["entries"].size(), 5U) << "four of a million bytes, behind all that was before";
    EXPECT_EQ(held["entries"][0]["kind"], "several");
    EXPECT_EQ(held["entries"][4]["kind"], "call");
    EXPECT_EQ(held["entries"][4]["addedCount"], 1);
}

TEST_F(AHistory, TellsTheRulesThenFromTheRulesNow) {
    deny("80");
    deny("81");
    call([] { store("DELETE FROM firewall_rules WHERE port IN ('1', '80')"); }, true);
    EXPECT_THAT(listOf(difference("1")["added"]), ElementsAre("deny tcp:10.0.0.5:81:out"));
    EXPECT_THAT(listOf(difference("1")["removed"]), ElementsAre("deny tcp:10.0.0.5:1:out"));
    EXPECT_THAT(listOf(difference("3")["removed"]), ElementsAre("deny tcp:10.0.0.5:1:out", "deny tcp:10.0.0.5:80:out"));
    EXPECT_THAT(listOf(difference("4")["removed"]), IsEmpty());
    EXPECT_EQ(difference("@" + std::to_string(std::time(nullptr) + 10))["since"], 4);
}

TEST_F(AHistory, KnowsTimesOfThisStartByTheUptime) {
    deny("80");
    leaping::run(loop, milliseconds(2'000));
    // Written while the clock was wrong by years.
    sqlitefile::execute(host::kHistoryDatabase, "UPDATE changes SET time = time - 100000000");
    EXPECT_EQ(difference("@" + std::to_string(std::time(nullptr) + 10))["since"], 2);
    // Of another start there is only the time that was noted.
    sqlitefile::execute(host::kHistoryDatabase, "UPDATE changes SET boot = 'another'");
    EXPECT_EQ(difference("@" + std::to_string(std::time(nullptr) - 50'000'000))["since"], 2);
    sqlitefile::execute(host::kHistoryDatabase, "UPDATE changes SET time = time + 200000000 WHERE number = 2");
    EXPECT_EQ(difference("@" + std::to_string(std::time(nullptr)))["since"], 1);
}

TEST_F(AHistory, RefusesAMomentThatIsNotKept) {
    deny("80");
    for (const auto &[since, why] :
         {std::pair{"3", "there is no entry 3: the history has the entries 1 to 2"},
          {"0", "there is no entry 0: the history has the entries 1 to 2"},
          {"@1000", "that is before the history: the history has the entries 1 to 2"},
          {"", "\"\" is neither the number of an entry nor \"@\" and seconds"},
          {"1x", "\"1x\" is neither the number of an entry nor \"@\" and seconds"},
          {"99999999999999999999",
           "\"99999999999999999999\" is neither the number of an entry nor \"@\" and seconds"}}) {
        try {
            history->differenceDocument(since);
            FAIL() << since;
        } catch (const mavo::rmi::BadArguments &error) {
            EXPECT_STREQ(error.what(), why);
        }
    }
    EXPECT_THROW(history->document(0), mavo::rmi::BadArguments);
}

} // namespace
