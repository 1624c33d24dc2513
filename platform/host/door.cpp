#include "host/door.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include "host/config-file.h"
#include "host/firewall-plugin.h"
#include "host/json-document.h"
#include "host/method-names.h"
#include "host/plugin-config.h"
#include "support/find-named.h"
#include "support/little-endian.h"

namespace host {
namespace {

constexpr std::size_t kNumberBytes = 4; // in the body of a request; a text has one, its length, before it

bool isControl(char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; }

std::string sizeProblem(const char *what, std::size_t bytes, std::size_t limit) {
    if (bytes <= limit)
        return {};
    return std::string(what) + " of " + std::to_string(bytes) + " bytes is refused: " + std::to_string(limit) +
           " bytes are accepted";
}

std::string tooManyRules(std::size_t rules) {
    if (rules <= kRuleListLimitRules)
        return {};
    return "a list of " + std::to_string(rules) + " rules is refused: " + std::to_string(kRuleListLimitRules) +
           " rules are accepted";
}

std::size_t countRules(std::string_view list) {
    const auto ends = static_cast<std::size_t>(std::count(list.begin(), list.end(), ';'));
    return list.empty() || list.back() == ';' ? ends : ends + 1;
}

std::string ruleListProblem(std::string_view list) {
    std::string problem = sizeProblem("a rule list", list.size(), kRuleListLimitBytes);
    if (problem.empty())
        problem = tooManyRules(countRules(list));
    if (!problem.empty())
        return problem;
    const auto control = std::find_if(list.begin(), list.end(), isControl);
    if (control == list.end())
        return {};
    const auto place = static_cast<std::size_t>(control - list.begin());
    return "rule " + std::to_string(countRules(list.substr(0, place + 1))) +
           " is refused, and the list with it: byte " + std::to_string(place + 1) +
           " of the list is the control character " + std::to_string(static_cast<unsigned char>(*control)) +
           R"(; a rule is protocol:address:port or protocol:address:port:direction, and ";" alone joins two)";
}

// Too large, too deep, or with a NUL; one that does not parse is not judged here.
std::string documentProblem(const char *what, const std::string &text, Json::Value *root = nullptr) {
    std::string problem = sizeProblem(what, text.size(), kDocumentLimitBytes);
    if (!problem.empty())
        return problem;
    JsonDocument document = readJson(text, kDocumentLimitNesting);
    const JsonShape shape = shapeOf(document.root);
    if (shape.nesting > kDocumentLimitNesting || document.tooDeep)
        return std::string(what) + " that is nested more deeply than " + std::to_string(kDocumentLimitNesting) +
               " objects and arrays is refused";
    if (shape.hasNul || text.find('\0') != std::string::npos)
        return std::string(what) + " with a NUL character is refused: texts without one are accepted";
    if (root != nullptr)
        root->swap(document.root);
    return {};
}

std::string policyProblem(const std::string &text) {
    Json::Value root;
    std::string problem = documentProblem("a policy", text, &root);
    if (!problem.empty() || !root.isObject())
        return problem;
    // Entries are joined by ";", and each may hold some.
    return tooManyRules(root["ALLOW"].size() + static_cast<std::size_t>(std::count(text.begin(), text.end(), ';')));
}

std::string settingsProblem(const std::string &text) {
    std::string problem = documentProblem("a settings document", text);
    if (!problem.empty() || text.empty())
        return problem;
    problem = changeProblem(configText(), text);
    return problem.empty() ? problem : "the settings are refused, and nothing is changed: " + problem;
}

std::string dataProblem(CommandData kind, const std::string &data) {
    switch (kind) {
    case CommandData::rules:
        return ruleListProblem(data);
    case CommandData::policy:
        return policyProblem(data);
    case CommandData::settings:
        return settingsProblem(data);
    case CommandData::none:
        break;
    }
    return sizeProblem("data", data.size(), kRuleListLimitBytes);
}

enum class Arguments { none, rules, number, text, twoTexts };

struct Method {
    std::string_view name;
    Arguments takes;
};

// The host's own.
constexpr std::array<Method, 15> kMethods = {{{kExecuteCommandMethod, Arguments::twoTexts},
                                              {kSetStatusMethod, Arguments::number},
                                              {kApplyStatusMethod, Arguments::number},
                                              {kGetStatusMethod, Arguments::none},
                                              {kReloadMethod, Arguments::none},
                                              {kReplaceRulesMethod, Arguments::text},
                                              {kRemoveRulesMethod, Arguments::text},
                                              {kRehearseRulesMethod, Arguments::text},
                                              {kRehearseRemovalMethod, Arguments::text},
                                              {kStatusMethod, Arguments::none},
                                              {kVerifyMethod, Arguments::none},
                                              {kRulesMethod, Arguments::none},
                                              {kReportsMethod, Arguments::none},
                                              {kHistoryMethod, Arguments::number},
                                              {kDiffMethod, Arguments::text}}};

// Nothing for a method that is not known.
std::optional<Arguments> argumentsOf(const std::string &method) {
    if (const auto *const own = support::findNamed(kMethods, method))
        return own->takes;
    const auto *const ofPlugin = support::findNamed(kPluginMethods, method);
    if (ofPlugin == nullptr)
        return std::nullopt;
    const auto *const command = support::findNamed(kPluginCommands, ofPlugin->command);
    return command != nullptr && command->data == CommandData::rules ? Arguments::rules : Arguments::none;
}

const char *describe(Arguments arguments) {
    switch (arguments) {
    case Arguments::none:
        return "no argument";
    case Arguments::rules:
    case Arguments::text:
        return "one text";
    case Arguments::number:
        return "one number";
    case Arguments::twoTexts:
        return "two texts";
    }
    return "";
}

// These take what is meant off the front of a body, and return false where that ends before. They look at the bytes
// where they lie: a list of rules may be megabytes of them.
bool takeNumber(std::string_view &body) {
    const bool isThere = body.size() >= kNumberBytes;
    body.remove_prefix(isThere ? kNumberBytes : 0);
    return isThere;
}

bool takeText(std::string_view &body) {
    const auto length = support::fromLittleEndian(body.substr(0, kNumberBytes));
    if (!takeNumber(body) || length > body.size())
        return false;
    body.remove_prefix(static_cast<std::size_t>(length));
    return true;
}

bool takeArguments(Arguments arguments, std::string_view &body) {
    switch (arguments) {
    case Arguments::none:
        return true;
    case Arguments::rules:
    case Arguments::text:
        return takeText(body);
    case Arguments::number:
        return takeNumber(body);
    case Arguments::twoTexts:
        return takeText(body) && takeText(body);
    }
    return false;
}

} // namespace

std::string commandProblem(const std::string &command, const std::string &data) {
    const auto *const known = support::findNamed(kPluginCommands, command);
    return dataProblem(known != nullptr ? known->data : CommandData::none, data);
}

bool changesSettings(const std::string &command) {
    const auto *const known = support::findNamed(kPluginCommands, command);
    return known != nullptr && known->changesSettings;
}

std::string methodProblem(const std::string &method, const std::string &body) {
    const auto takes = argumentsOf(method);
    if (!takes)
        return {};
    std::string_view rest = body;
    if (takeArguments(*takes, rest) && !rest.empty())
        return method + " is refused with more than its arguments: it takes " + describe(*takes);
    if (*takes != Arguments::rules || body.size() < kNumberBytes)
        return {};
    return ruleListProblem(std::string_view(body).substr(kNumberBytes));
}

} // namespace host
