#include "host/plugin-config.h"

#include <array>
#include <exception>
#include <optional>
#include <stdexcept>

#include "host/config-file.h"
#include "host/firewall-plugin.h"
#include "host/json-document.h"

namespace host {
namespace {

struct Member {
    const char *name;
    bool isNumber;
    const char *accepted;
};

// What the plugin, or its collector, reads as text and gives up on where there can be none.
constexpr std::array<Member, 3> kMembers = {
    {{kEnabledSetting, false, R"(a string, "1" or "0")"},
     {kIntervalSetting, true, "a number of seconds, of 64 bits at most"},
     {kLastReportSetting, true, "a number of seconds since the epoch, of 64 bits at most"}}};

constexpr std::size_t kShownBytes = 60;

bool hasText(const Json::Value &value) { return !value.isObject() && !value.isArray(); }

// The collector reads numbers so, and does not expect one that is out of range.
bool isOutOfRange(const std::string &text) try {
    static_cast<void>(std::stoll(text));
    return false;
} catch (const std::out_of_range &) {
    return true;
} catch (const std::invalid_argument &) {
    return false; // it takes the default then
}

std::string shown(const Json::Value &value) {
    const std::string text = value.isNull() ? "null" : writeJson(value);
    return text.size() <= kShownBytes ? text : text.substr(0, kShownBytes) + " ...";
}

std::string problemOf(const std::string &name, const Json::Value &value) {
    for (const Member &member : kMembers) {
        if (name == member.name && (!hasText(value) || (member.isNumber && isOutOfRange(value.asString()))))
            return "the value of \"" + name + "\" must be " + member.accepted + ", not " + shown(value);
    }
    return {};
}

std::string firstProblem(const Json::Value &object) {
    for (const Member &member : kMembers) {
        std::string problem = problemOf(member.name, object[member.name]);
        if (!problem.empty())
            return problem;
    }
    return {};
}

// Also of members of members: the plugin brings these to the top level where it holds an object of that name, which may
// come of this very document, merged a second time.
std::string problemAtAnyDepth(const Json::Value &object) {
    for (const auto &name : object.getMemberNames()) {
        std::string problem = problemOf(name, object[name]);
        if (problem.empty() && object[name].isObject())
            problem = problemAtAnyDepth(object[name]);
        if (!problem.empty())
            return problem;
    }
    return {};
}

// As the plugin merges; returns what stops it half-way.
std::string merge(Json::Value &root, const Json::Value &changes) {
    for (const auto &name : changes.getMemberNames()) {
        const Json::Value &change = changes[name];
        if (!root[name].isObject()) {
            root[name] = change;
            continue;
        }
        if (!change.isObject() && !change.isNull())
            return "\"" + name + "\" is an object in the configuration and can be changed by an object only, not by " +
                   shown(change);
        std::string problem = change.isNull() ? std::string() : merge(root, change);
        if (!problem.empty())
            return problem;
    }
    return {};
}

std::string sizeProblem(const std::string &text, const Json::Value &root) {
    if (text.size() > kConfigLimitBytes)
        return "it would have " + std::to_string(text.size()) + " bytes; " + std::to_string(kConfigLimitBytes) +
               " are accepted";
    const std::size_t values = shapeOf(root).values;
    if (values > kConfigLimitValues)
        return "it would hold " + std::to_string(values) + " values; " + std::to_string(kConfigLimitValues) +
               " are accepted";
    return {};
}

std::string resultProblem(const Json::Value &root) {
    const std::string text = writeJson(root) + "\n";
    std::string problem = sizeProblem(text, root);
    if (problem.empty()) {
        const ConfigVerdict verdict = judgeConfig(text); // a number without bounds is written and cannot be read
        problem = verdict.whole ? verdict.problem : "it could not be read again";
    }
    return problem.empty() ? problem : "the configuration would be refused: " + problem;
}

} // namespace

ConfigVerdict judgeConfig(const std::string &text) {
    const JsonDocument document = readJson(text);
    ConfigVerdict verdict;
    verdict.whole = document.error.empty() && document.root.isObject();
    verdict.understood = writeJson(document.root);
    if (document.root.isObject())
        verdict.problem = firstProblem(document.root);
    else if (!document.root.isNull())
        verdict.problem = "it must be a JSON object";
    if (verdict.problem.empty())
        verdict.problem = sizeProblem(text, document.root);
    return verdict;
}

std::string changeProblem(const std::string &current, const std::string &document) {
    const JsonDocument changes = readJson(document);
    if (!changes.error.empty())
        return changes.error;
    if (!changes.root.isObject())
        return R"(must be a JSON object, such as {"send_report_interval":"3600"}, not )" + shown(changes.root);
    std::string problem = problemAtAnyDepth(changes.root);
    if (!problem.empty())
        return problem;
    Json::Value root = readJson(current).root;
    if (!root.isObject())
        root = Json::Value(Json::objectValue);
    problem = merge(root, changes.root);
    return problem.empty() ? resultProblem(root) : problem;
}

bool holdsChange(const std::string &text, const std::string &document) {
    const Json::Value root = readJson(text).root;
    const Json::Value changes = readJson(writeJson(readJson(document).root)).root; // as it looks when it was written
    if (!root.isObject() || !changes.isObject())
        return false;
    for (const auto &name : changes.getMemberNames()) {
        if (!changes[name].isObject() && !changes[name].isNull() && root[name] != changes[name])
            return false;
    }
    return true;
}

std::string configValue(const std::string &key) {
    const Json::Value root = readJson(configText()).root;
    if (!root.isObject() || !hasText(root[key]))
        return {};
    return root[key].asString();
}

} // namespace host
