#include "host/history-document.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/json-document.h"
#include "host/remarks.h"

namespace {

using host::detailsOfCall;
using host::writeJson;
using mavo::rmi::Message;
using mavo::rmi::Status;

TEST(AnEntry, HasTheseMembers) {
    Message request;
    request.write(std::string("ApplyDenyRules"));
    request.write(std::string("tcp:10.0.0.5:80:out"));
    Json::Value details = detailsOfCall({{0, 0, 4711}, true, "vpkctl"}, "Host::executeCommand", request.body());
    Message reply;
    reply.write(std::string());
    host::addResult({Status::ok, reply.body(), {}, host::encode({{"an error"}, {"a note"}})}, details);
    host::addAccountName(details);
    const host::HistoryEntry entry{
        12, {1795362000, "5f0c", 61000}, writeJson(details), "+deny tcp:10.0.0.5:80:out\n-deny tcp:10.0.0.5:80:in\n"};
    EXPECT_EQ(host::historyDocument({{entry}, 1, 12}, ""),
              R"({"entries":[{"account":0,"accountName":"root","added":["deny tcp:10.0.0.5:80:out"],"addedCount":1,)"
              R"("answer":"","arguments":["ApplyDenyRules","tcp:10.0.0.5:80:out"],"argumentsCut":false,"boot":"5f0c",)"
              R"("error":"","kind":"call","method":"Host::executeCommand","notes":["a note","an error"],"number":12,)"
              R"("process":4711,"programAsGiven":"vpkctl","removed":["deny tcp:10.0.0.5:80:in"],"removedCount":1,)"
              R"("result":"done","time":1795362000,"uptimeMs":61000}],"newest":12,"oldest":1,"problem":""})");
}

TEST(AnEntry, ShowsTheFirstHundredRulesOfEachKind) {
    std::string difference;
    for (int i = 0; i < 150; ++i)
        difference += "+" + std::to_string(i) + "\n-" + std::to_string(i) + "x\n-y\n";
    const Json::Value json = host::entryAsJson({1, {}, "{}", difference});
    EXPECT_EQ(json["added"].size(), 100U);
    EXPECT_EQ(json["removed"].size(), 100U);
    EXPECT_EQ(json["addedCount"].asInt(), 150);
    EXPECT_EQ(json["removedCount"].asInt(), 300);
}

TEST(AnEntry, KeepsTheStartOfLongArgumentsAndNotes) {
    Message request;
    request.write(std::string(5'000, 'r'));
    Json::Value details = detailsOfCall({}, "Firewall::ApplyDenyRules", request.body());
    EXPECT_EQ(details["arguments"][0].asString(), std::string(1'024, 'r'));
    EXPECT_EQ(details["argumentsCut"], true);
    const std::vector<std::string> notes(20, std::string(5'000, 'n'));
    host::addResult({Status::exception, {}, std::string(5'000, 'e'), host::encode({notes, notes})}, details);
    EXPECT_LT(writeJson(details).size(), 12'000U);
    EXPECT_EQ(details["notes"].size(), 8U);
}

// It is noted before anybody looks at what the body holds.
TEST(AnEntry, HasNoMoreArgumentsThanAnyMethodTakes) {
    const Json::Value details = detailsOfCall({}, "Firewall::ApplyDenyRules", std::string(4'000'000, '\0'));
    EXPECT_EQ(details["arguments"].size(), 4U);
    EXPECT_EQ(details["argumentsCut"], true);
}

TEST(AnEntry, TakesABodyForWhatItIs) {
    Message number;
    number.write(-7);
    EXPECT_EQ(detailsOfCall({}, "Host::setStatus", number.body())["arguments"][0], "-7");
    EXPECT_EQ(detailsOfCall({}, "Host::reload", "")["arguments"].size(), 0U);
    for (const std::string &torn : {std::string("abc"), std::string("\xff\xff\xff\x7fxyz", 7)})
        EXPECT_EQ(detailsOfCall({}, "Firewall::ApplyDenyRules", torn)["arguments"].size(), 0U);
}

TEST(AnEntry, SaysWhatTheMethodSays) {
    const auto resultOf = [](const char *method, const std::string &body) {
        Json::Value details = detailsOfCall({}, method, "");
        host::addResult({Status::ok, body, {}, {}}, details);
        return details["result"].asString() + " " + details["answer"].asString();
    };
    Message zero;
    zero.write(0);
    Message minus;
    minus.write(-1);
    Message text;
    text.write(std::string("-1"));
    EXPECT_EQ(resultOf("Host::setStatus", zero.body()), "done 0");
    EXPECT_EQ(resultOf("Host::setStatus", minus.body()), "failed -1");
    EXPECT_EQ(resultOf("Host::executeCommand", text.body()), "done -1");
}

TEST(AnEntry, HasAnAccountsNameWhereThereIsOne) {
    Json::Value details = detailsOfCall({{4'000'000'000U, 0, 1}, true, {}}, "Host::reload", "");
    host::addAccountName(details);
    EXPECT_EQ(details["accountName"], "");
    EXPECT_EQ(details["account"].asUInt64(), 4'000'000'000U);
    Json::Value found = host::detailsOfFinding("found", "what");
    host::addAccountName(found);
    EXPECT_EQ(writeJson(found), R"({"kind":"found","notes":[],"what":"what"})");
}

TEST(TheDifference, HasTheseMembers) {
    EXPECT_EQ(
        host::differenceDocument(41, "-deny tcp:10.0.0.5:80:in\n+deny tcp:10.0.0.5:80:out\n", ""),
        R"({"added":["deny tcp:10.0.0.5:80:out"],"problem":"","removed":["deny tcp:10.0.0.5:80:in"],"since":41})");
    std::string tooLong;
    tooLong.resize(17'000'000, 'x');
    EXPECT_THROW(host::differenceDocument(1, tooLong, ""), std::length_error);
}

} // namespace
