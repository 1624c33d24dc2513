#include "host/documents.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

#include <json/json.h>

#include "host/call-watch.h"
#include "host/collector.h"
#include "host/config-file.h"
#include "host/databases.h"
#include "host/json-document.h"
#include "host/log.h"
#include "host/names-in-use.h"
#include "host/paths.h"
#include "host/plugin-config.h"
#include "host/status-storage.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "nyr-common-client/outbox.h"
#include "support/safe-open.h"

namespace host {
namespace {

constexpr int kReadOnly = 1; // SQLite's open flag
constexpr const char *kAllowChain = "VPK-ALLOW";
constexpr const char *kDenyChain = "VPK-DENY";
constexpr const char *kLogAndDropChain = "VPK-LOGANDDROP";
constexpr std::uint64_t kLogAndDropRules = 2;
constexpr std::size_t kRulesLimitBytes = std::size_t{16} * 1024 * 1024; // about 170,000 rules

struct StoredRule {
    std::string protocol;
    std::string domain;
    std::string port;
    int direction = 0;
    bool allowed = false;
};

// Called between two plugin calls, when nobody writes.
void forEachStoredRule(const std::function<void(const StoredRule &)> &each) try {
    const std::string misplaced = support::plainFileProblem(kRuleDatabase);
    if (!misplaced.empty())
        throw std::runtime_error(misplaced);
    if (::access(kRuleDatabase, F_OK) != 0)
        return;
    mavo::database::Connection connection(kRuleDatabase, kReadOnly, false);
    mavo::database::Statement statement(connection,
                                        "SELECT protocol, domain, port, direction, is_allowed FROM firewall_rules");
    while (statement.step()) {
        each({statement.getColumn(0).getText(), statement.getColumn(1).getText(), statement.getColumn(2).getText(),
              statement.getColumn(3).getInt(), statement.getColumn(4).getInt() != 0});
    }
} catch (const mavo::Exception &error) {
    throw mavo::Exception(std::string(kRuleDatabase) + ": " + error.what());
}

const rlv::ChainState *chainOf(const rlv::ServiceState &state, const char *name) {
    const auto found = std::find_if(state.chains.begin(), state.chains.end(),
                                    [name](const rlv::ChainState &chain) { return chain.name == name; });
    return found != state.chains.end() ? &*found : nullptr;
}

Json::UInt64 rulesIn(const rlv::ServiceState &state, const char *name) {
    const auto *chain = chainOf(state, name);
    return chain != nullptr ? chain->rules : 0;
}

Json::Value storedAndExpected() {
    Json::Value counts;
    for (const char *kind : {"allow", "deny"}) {
        counts["stored"][kind] = 0;
        counts["expected"][kind] = 0;
    }
    forEachStoredRule([&counts](const StoredRule &rule) {
        const char *kind = rule.allowed ? "allow" : "deny";
        counts["stored"][kind] = counts["stored"][kind].asInt() + 1;
        // Both directions are a rule each.
        counts["expected"][kind] =
            counts["expected"][kind].asInt() + (rule.direction == 1 || rule.direction == 2 ? 1 : 2);
    });
    return counts;
}

void addServiceState(Json::Value &document) {
    document["missing"] = Json::Value(Json::arrayValue);
    try {
        const auto state = rlv::query(0, kQueryTimeout);
        for (const auto &part : missingParts(state))
            document["missing"].append(part);
        document["inForce"] = document["missing"].empty();
        document["simulated"] = state.simulated;
        document["rules"]["inForce"]["allow"] = rulesIn(state, kAllowChain);
        document["rules"]["inForce"]["deny"] = rulesIn(state, kDenyChain);
        document["serviceProblem"] = "";
    } catch (const std::exception &error) {
        document["inForce"] = false;
        document["serviceProblem"] = error.what();
    }
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

constexpr int kStatisticsType = 10007;
constexpr int kStatisticsSubtype = 1;

// The configuration is written back by copies older than the report, and reports leave the outbox: the later of the
// two.
std::string lastReport() {
    const std::string configured = configValue("last_send_report_ts");
    std::int64_t newest = 0;
    try {
        for (const auto &report : nyr::readOutbox()) {
            if (report.type == kStatisticsType && report.subtype == kStatisticsSubtype)
                newest = std::max(newest, report.time);
        }
    } catch (const std::exception &error) {
        logError(error.what());
    }
    return newest > std::strtoll(configured.c_str(), nullptr, 10) ? std::to_string(newest) : configured;
}

} // namespace

std::vector<std::string> missingParts(const rlv::ServiceState &state) {
    std::vector<std::string> missing;
    for (const char *name : {kAllowChain, kDenyChain, kLogAndDropChain}) {
        if (chainOf(state, name) == nullptr)
            missing.push_back(std::string("chain ") + name);
    }
    if (chainOf(state, kLogAndDropChain) != nullptr && rulesIn(state, kLogAndDropChain) < kLogAndDropRules)
        missing.push_back(std::string("rules of chain ") + kLogAndDropChain);
    for (const char *builtIn : {"INPUT", "OUTPUT"}) {
        auto from = state.hooks.begin(); // allow comes before deny
        for (const char *target : {kAllowChain, kDenyChain}) {
            const auto hook = std::find_if(from, state.hooks.end(), [&](const rlv::HookState &candidate) {
                return candidate.chain == builtIn && candidate.target == target;
            });
            if (hook == state.hooks.end())
                missing.push_back(std::string("jump from ") + builtIn + " to " + target);
            else
                from = hook;
        }
    }
    return missing;
}

std::vector<std::string> storedNames() try {
    std::vector<std::string> names;
    if (::access(kRuleDatabase, F_OK) != 0)
        return names;
    mavo::database::Connection connection(kRuleDatabase, kReadOnly, false);
    mavo::database::Statement statement(
        connection, "SELECT DISTINCT domain FROM firewall_rules WHERE domain GLOB '*[A-Za-z]*' LIMIT 4096");
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

std::string statusDocument(const HostState &state) {
    Json::Value document;
    if (state.stored)
        document["stored"] = *state.stored;
    document["applied"] = state.applied;
    document["databaseProblem"] = state.databaseProblem;
    try {
        document["rules"] = storedAndExpected();
    } catch (const mavo::database::Unavailable &unavailable) {
        document["databaseProblem"] = unavailable.what();
    }
    addServiceState(document);
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
    forEachStoredRule([&](const StoredRule &stored) {
        Json::Value rule;
        rule["action"] = stored.allowed ? "allow" : "deny";
        rule["protocol"] = stored.protocol;
        rule["domain"] = stored.domain;
        rule["port"] = stored.port;
        rule["direction"] = stored.direction == 1 || stored.direction == 2 ? stored.direction : 0;
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
