#include "host/history-document.h"

#include <algorithm>
#include <array>
#include <pwd.h>
#include <stdexcept>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "host/databases.h"
#include "host/firewall-plugin.h"
#include "host/json-document.h"
#include "host/method-names.h"
#include "host/remarks.h"
#include "host/rule-difference.h"
#include "support/little-endian.h"

namespace host {
namespace {

constexpr std::size_t kTextLimitBytes = 1'024;
constexpr unsigned kMostArguments = 4; // no method takes more than two, and bodies come before that is looked at
constexpr std::size_t kMostNotes = 8;
constexpr std::size_t kMostRulesShown = 100;
constexpr std::size_t kDifferenceLimitBytes = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kWordBytes = 4; // a number, and the length of a text

std::string start(std::string_view text) { return std::string(text.substr(0, kTextLimitBytes)); }

void addArgument(std::string_view text, Json::Value &details) {
    details["arguments"].append(start(text));
    if (text.size() > kTextLimitBytes)
        details["argumentsCut"] = true;
}

// The text at the front, taken off; false where none stands there.
bool takeText(std::string_view &body, std::string_view &text) {
    if (body.size() < kWordBytes)
        return false;
    const auto length = support::fromLittleEndian(body.substr(0, kWordBytes));
    if (length > body.size() - kWordBytes)
        return false;
    text = body.substr(kWordBytes, static_cast<std::size_t>(length));
    body.remove_prefix(kWordBytes + static_cast<std::size_t>(length));
    return true;
}

// A body does not say of what its values are: one word alone is a number, all else texts.
void addArguments(std::string_view body, Json::Value &details) {
    details["arguments"] = Json::Value(Json::arrayValue);
    details["argumentsCut"] = false;
    std::string_view text;
    if (body.size() == kWordBytes)
        return addArgument(std::to_string(static_cast<std::int32_t>(support::fromLittleEndian(body))), details);
    while (details["arguments"].size() < kMostArguments && takeText(body, text))
        addArgument(text, details);
    if (details["arguments"].size() == kMostArguments && !body.empty())
        details["argumentsCut"] = true;
}

// What a method gave back: a text or a number, as it does.
std::string answerIn(const std::string &method, std::string_view body) {
    std::string_view text;
    if (method == kExecuteCommandMethod)
        return takeText(body, text) ? start(text) : std::string();
    if (body.size() == kWordBytes)
        return std::to_string(static_cast<std::int32_t>(support::fromLittleEndian(body)));
    return {};
}

// Commands answer with a text, all else with a number, 0 for success.
bool isSuccess(const std::string &method, const std::string &answer) {
    return method == kExecuteCommandMethod ? answer != kFail : answer.empty() || answer == "0";
}

const char *resultOf(const mavo::rmi::Reply &reply, const std::string &method, const std::string &answer) {
    if (reply.status == mavo::rmi::Status::exception)
        return "exception";
    if (reply.status != mavo::rmi::Status::ok)
        return "refused";
    return isSuccess(method, answer) ? "done" : "failed";
}

void addNotes(const std::vector<std::string> &lines, Json::Value &details) {
    Json::Value &notes = details["notes"];
    for (const auto &line : lines) {
        if (notes.size() == kMostNotes)
            return;
        notes.append(start(line));
    }
}

} // namespace

Json::Value detailsOfCall(const mavo::rmi::Caller &caller, const std::string &method, const std::string &body) {
    Json::Value details;
    details["kind"] = "call";
    details["account"] = Json::UInt64(caller.user);
    details["process"] = Json::Int64(caller.process);
    details["programAsGiven"] = start(caller.program);
    details["method"] = method;
    addArguments(body, details);
    details["result"] = "unfinished";
    details["notes"] = Json::Value(Json::arrayValue);
    return details;
}

void addResult(const mavo::rmi::Reply &reply, Json::Value &details) {
    const std::string method = details["method"].asString();
    const std::string answer = answerIn(method, reply.body);
    details["result"] = resultOf(reply, method, answer);
    details["answer"] = answer;
    details["error"] = start(reply.error);
    const Remarks remarks = decodeRemarks(reply.remarks);
    addNotes(remarks.notes, details);
    addNotes(remarks.errorLines, details);
}

Json::Value detailsOfFinding(const char *kind, const std::string &what) {
    Json::Value details;
    details["kind"] = kind;
    details["what"] = what;
    details["notes"] = Json::Value(Json::arrayValue);
    addNotes(databaseRemarks(), details);
    return details;
}

void addAccountName(Json::Value &details) {
    if (!details.isMember("account"))
        return;
    std::array<char, 4096> texts{};
    passwd entry{};
    passwd *found = nullptr;
    const auto account = static_cast<uid_t>(details["account"].asUInt64());
    details["accountName"] = "";
    if (::getpwuid_r(account, &entry, texts.data(), texts.size(), &found) == 0 && found != nullptr)
        details["accountName"] = found->pw_name;
}

Json::Value entryAsJson(const HistoryEntry &entry) {
    Json::Value json = readJson(entry.details).root;
    if (!json.isObject())
        json = Json::Value(Json::objectValue);
    json["number"] = Json::Int64(entry.number);
    json["time"] = Json::Int64(entry.time.seconds);
    json["boot"] = entry.time.boot;
    json["uptimeMs"] = Json::Int64(entry.time.uptimeMs);
    const DifferenceCounts counts = countsOf(entry.difference);
    json["addedCount"] = Json::UInt64(counts.added);
    json["removedCount"] = Json::UInt64(counts.removed);
    json["added"] = json["removed"] = Json::Value(Json::arrayValue);
    forEachInDifference(entry.difference, [&json](char sign, std::string_view rule) {
        Json::Value &list = json[sign == '+' ? "added" : "removed"];
        if (list.size() < kMostRulesShown)
            list.append(std::string(rule));
    });
    return json;
}

// Entries as values take ten times the memory of their text: only one is one at a time.
std::string historyDocument(const HistoryFile::Kept &kept, const std::string &problem) {
    std::string document = R"({"entries":[)";
    for (const auto &entry : kept.entries) {
        if (document.back() != '[')
            document += ',';
        document += writeJson(entryAsJson(entry));
    }
    Json::Value rest;
    rest["oldest"] = Json::Int64(kept.oldest);
    rest["newest"] = Json::Int64(kept.newest);
    rest["problem"] = problem;
    return document + "]," + writeJson(rest).substr(1);
}

std::string differenceDocument(std::int64_t since, const std::string &difference, const std::string &problem) {
    if (difference.size() > kDifferenceLimitBytes)
        throw std::length_error("the difference has more than " + std::to_string(kDifferenceLimitBytes) +
                                " bytes and is too long to be shown");
    Json::Value document;
    document["since"] = Json::Int64(since);
    document["added"] = document["removed"] = Json::Value(Json::arrayValue);
    forEachInDifference(difference, [&document](char sign, std::string_view rule) {
        document[sign == '+' ? "added" : "removed"].append(std::string(rule));
    });
    document["problem"] = problem;
    return writeJson(document);
}

} // namespace host
