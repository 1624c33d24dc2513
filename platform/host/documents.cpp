#include "host/documents.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include <json/json.h>

#include "host/account.h"
#include "host/collector.h"
#include "host/config-file.h"
#include "host/databases.h"
#include "host/firewall-plugin.h"
#include "host/json-document.h"
#include "host/log.h"
#include "host/names-in-use.h"
#include "host/plugin-config.h"
#include "host/status-storage.h"
#include "host/stored-rules.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "nyr-common-client/outbox.h"

namespace host {
namespace {

constexpr int kReadOnly = 1;                                            // SQLite's open flag
constexpr std::size_t kRulesLimitBytes = std::size_t{16} * 1024 * 1024; // about 170,000 rules

Json::Value countsAsJson(const RuleCounts &counts) {
    Json::Value json;
    json["allow"] = static_cast<Json::UInt64>(counts.allow);
    json["deny"] = static_cast<Json::UInt64>(counts.deny);
    return json;
}

Json::Value driftAsJson(const rlv::DriftState &drift) {
    Json::Value written;
    written["repairs"] = Json::UInt64(drift.repairs);
    written["isRepairing"] = drift.isMending;
    written["problem"] = drift.problem;
    written["nextAttemptSeconds"] = Json::Int64(drift.nextAttemptSeconds);
    written["processName"] = drift.processName;
    written["process"] = drift.process;
    written["differences"] = Json::UInt64(drift.differences);
    written["last"] = Json::Value(Json::arrayValue);
    for (const auto &text : drift.texts)
        written["last"].append(text);
    return written;
}

Json::Value findingAsJson(const Finding &finding) {
    Json::Value json;
    json["kind"] = finding.kind;
    json["chain"] = finding.chain;
    json["rule"] = finding.rule;
    json["advice"] = finding.advice;
    return json;
}

void add(const Account &account, Json::Value &document) {
    document["inForce"] = account.isInForce();
    document["summary"] = account.summary();
    document["exitStatus"] = account.exitStatus(false);
    document["strictExitStatus"] = account.exitStatus(true);
    document["serviceProblem"] = account.serviceProblem;
    document["databaseProblem"] = account.databaseProblem;
    document["simulated"] = account.simulated;
    document["others"] = driftAsJson(account.drift);
    document["rules"] = Json::Value(Json::objectValue);
    for (const auto &[name, counts] : {std::pair{"stored", account.stored},
                                       {"expected", account.expected},
                                       {"inForce", account.inForce},
                                       {"longestWalk", account.walks}}) {
        if (counts)
            document["rules"][name] = countsAsJson(*counts);
    }
    document["differences"] = static_cast<Json::UInt64>(account.differences);
    document["shadowed"] = static_cast<Json::UInt64>(account.shadowed);
    document["twice"] = static_cast<Json::UInt64>(account.twice);
    document["unanswered"] = static_cast<Json::UInt64>(account.unanswered);
    document["findings"] = Json::Value(Json::arrayValue);
    for (const auto &finding : account.findings)
        document["findings"].append(findingAsJson(finding));
}

const char *nameOf(rlv::UnansweredName::Problem problem) {
    switch (problem) {
    case rlv::UnansweredName::Problem::absent:
        return "absent";
    case rlv::UnansweredName::Problem::tooMany:
        return "tooMany";
    default:
        return "failed";
    }
}

Json::Value namesAsJson(const rlv::NamesState &state) {
    Json::Value names;
    names["inUse"] = static_cast<Json::UInt64>(state.inUse);
    names["old"] = names["none"] = Json::Value(Json::arrayValue);
    for (const auto &one : state.list) {
        Json::Value name;
        name["name"] = one.name;
        name["problem"] = nameOf(one.problem);
        if (one.addresses > 0) {
            name["since"] =
                one.ageSeconds < 0 ? Json::Int64(-1) : static_cast<Json::Int64>(std::time(nullptr)) - one.ageSeconds;
            name["allows"] = one.allows;
        }
        names[one.addresses > 0 ? "old" : "none"].append(name);
    }
    return names;
}

// The configuration is written back by copies older than the report, and reports leave the outbox: the later of the
// two.
std::string lastReport() {
    const std::string configured = configValue(kLastReportSetting);
    std::int64_t newest = 0;
    try {
        for (const auto &report : nyr::readOutbox()) {
            if (report.type == kReportType && report.subtype == kReportSubtype)
                newest = std::max(newest, report.time);
        }
    } catch (const std::exception &error) {
        logError(error.what());
    }
    return newest > std::strtoll(configured.c_str(), nullptr, 10) ? std::to_string(newest) : configured;
}

} // namespace

std::vector<std::string> storedNames() try {
    std::vector<std::string> names;
    if (::access(kRuleDatabase, F_OK) != 0)
        return names;
    mavo::database::Connection connection(kRuleDatabase, kReadOnly, false);
    const std::string column = kRuleAddressColumn;
    mavo::database::Statement statement(connection, "SELECT DISTINCT " + column + " FROM " + kRuleTable + " WHERE " +
                                                        column + " GLOB '*[A-Za-z]*' LIMIT 4096");
    while (statement.step()) {
        std::string name = statement.getColumn(0).getText();
        if (couldBeName(name))
            names.push_back(std::move(name));
    }
    return names;
} catch (const mavo::Exception &error) {
    throw mavo::Exception(std::string(kRuleDatabase) + ": " + error.what());
}

namespace {

std::string settingsRemark() {
    const std::string configuration = configRemark();
    const std::string status = StatusStorage::remark();
    return configuration + (configuration.empty() || status.empty() ? "" : "; ") + status;
}

} // namespace

std::string statusDocument(const HostState &state, bool reading) {
    Json::Value document;
    if (state.stored)
        document["stored"] = *state.stored;
    document["applied"] = state.applied;
    Account account = takeAccount(reading);
    if (account.databaseProblem.empty())
        account.databaseProblem = state.databaseProblem;
    account.rebuild = state.rebuild;
    account.lacksNames = std::any_of(state.names.list.begin(), state.names.list.end(),
                                     [](const auto &name) { return name.addresses == 0; });
    add(account, document);
    const auto collector = collectorState(collectorWanted());
    // Of a disabled plugin none should run.
    document["collector"] =
        nameOf(collector == CollectorState::dead && state.applied != 1 ? CollectorState::off : collector);
    document["collectorProblem"] = state.collectorProblem;
    document["rebuild"] = state.rebuild;
    document["settingsProblem"] = settingsRemark();
    document["databases"] = Json::Value(Json::arrayValue);
    for (const auto &remark : databaseRemarks())
        document["databases"].append(remark);
    if (!state.historyProblem.empty())
        document["databases"].append(state.historyProblem);
    document["privilegesProblem"] = state.privilegesProblem;
    document["lastReport"] = lastReport();
    document["names"] = namesAsJson(state.names);
    document["families"] = "IPv4 only";
    return writeJson(document);
}

// Any number of rules may be stored: only the text of them all is in memory at once.
std::string rulesDocument() {
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    std::string document = R"({"rules":[)";
    forEachStoredRule([&](const StoredRule &row) {
        const rules::Rule &stored = row.rule;
        Json::Value rule;
        rule["action"] = row.allowed ? "allow" : "deny";
        rule["protocol"] = stored.protocol;
        rule["domain"] = stored.address;
        rule["port"] = stored.port;
        rule["direction"] = stored.direction == kInbound || stored.direction == kOutbound ? stored.direction : 0;
        std::ostringstream text;
        writer->write(rule, &text);
        if (document.back() != '[')
            document += ',';
        document += text.str();
        if (document.size() > kRulesLimitBytes)
            throw std::length_error("the list of all rules has more than " + std::to_string(kRulesLimitBytes) +
                                    " bytes and is too long to be shown");
    });
    document += "]}";
    return document;
}

std::string reportsDocument() {
    Json::Value document;
    document["reports"] = Json::Value(Json::arrayValue);
    document["ignored"] = Json::Value(Json::arrayValue);
    std::vector<std::string> ignored;
    for (const auto &report : nyr::readOutbox(&ignored)) {
        Json::Value entry;
        entry["file"] = report.file;
        entry["type"] = report.type;
        entry["subtype"] = report.subtype;
        entry["time"] = static_cast<Json::Int64>(report.time);
        entry["body"] = report.body;
        document["reports"].append(entry);
    }
    for (const auto &file : ignored)
        document["ignored"].append(file);
    return writeJson(document);
}

} // namespace host
