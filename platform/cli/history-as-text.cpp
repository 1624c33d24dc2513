#include "cli/history-as-text.h"

#include <cstdint>

#include "cli/plugin-commands.h"
#include "cli/printable.h"
#include "host/method-names.h"

namespace cli {
namespace {

constexpr std::int64_t kMostRules = 10; // of an entry
const std::string kMargin(4, ' ');

std::string text(const Json &document, const char *member) { return printable(document.value(member, std::string())); }

std::int64_t number(const Json &document, const char *member) { return document.value(member, std::int64_t{0}); }

Json list(const Json &document, const char *member) { return document.value(member, Json::array()); }

std::string whoOf(const Json &entry) {
    const std::string name = text(entry, "accountName");
    const std::string program = text(entry, "programAsGiven");
    return (name.empty() ? "account " + std::to_string(number(entry, "account")) : name) + ", process " +
           std::to_string(number(entry, "process")) + (program.empty() ? "" : ", calls itself " + program);
}

// As it is typed, where it can be.
std::string callOf(const Json &entry) {
    const std::string method = text(entry, "method");
    std::string line = method == host::kExecuteCommandMethod ? "exec"
                       : method == host::kSetStatusMethod    ? "set-status"
                       : method == host::kApplyStatusMethod  ? "apply-status"
                       : method == host::kReloadMethod       ? "reload"
                       : method == host::kReplaceRulesMethod ? "apply"
                       : method == host::kRemoveRulesMethod  ? "remove"
                                                             : "call " + method;
    for (const auto &argument : list(entry, "arguments")) {
        const std::string word = printable(argument.get<std::string>());
        line += word.empty() ? "" : " " + word;
    }
    return line + (entry.value("argumentsCut", false) ? " ..." : "");
}

std::string resultOf(const Json &entry) {
    const std::string result = text(entry, "result");
    const std::string why = text(entry, "error");
    return result + (why.empty() ? "" : ": " + why);
}

std::string whatOf(const Json &entry) {
    const std::string kind = text(entry, "kind");
    if (kind == "call")
        return callOf(entry) + " (" + resultOf(entry) + ")";
    if (kind == "several")
        return std::to_string(number(entry, "entries")) + " entries that could not be written one by one";
    return text(entry, "what");
}

std::string rulesOf(const Json &entry, const char *member, const char *count, const char *sign) {
    std::string lines;
    std::int64_t shown = 0;
    for (const auto &rule : list(entry, member)) {
        if (shown == kMostRules)
            break;
        lines += kMargin + sign + " " + printable(rule.get<std::string>()) + "\n";
        ++shown;
    }
    const std::int64_t more = number(entry, count) - shown;
    return lines + (more > 0 ? kMargin + sign + " and " + std::to_string(more) + " more\n" : "");
}

std::string entryAsText(const Json &entry) {
    const std::int64_t place = number(entry, "number");
    std::string lines = (place > 0 ? std::to_string(place) : "not written yet") + "  " +
                        localTime(number(entry, "time")) + (entry.contains("account") ? "  " + whoOf(entry) : "") +
                        "\n" + kMargin + whatOf(entry) + "\n";
    for (const auto &note : list(entry, "notes"))
        lines += kMargin + "  " + printable(note.get<std::string>()) + "\n";
    const std::string problem = text(entry, "differenceProblem");
    if (!problem.empty())
        lines += kMargin + "what it has changed is not known: " + problem + "\n";
    return lines + rulesOf(entry, "removed", "removedCount", "-") + rulesOf(entry, "added", "addedCount", "+");
}

std::string problemOf(const Json &document) {
    const std::string problem = text(document, "problem");
    return problem.empty() ? "" : problem + "\n";
}

} // namespace

std::string historyAsText(const Json &document) {
    std::string lines;
    for (const auto &entry : list(document, "entries"))
        lines += entryAsText(entry);
    return lines + problemOf(document);
}

std::string differenceAsText(const Json &document) {
    std::string lines;
    for (const auto &rule : list(document, "removed"))
        lines += "- " + printable(rule.get<std::string>()) + "\n";
    for (const auto &rule : list(document, "added"))
        lines += "+ " + printable(rule.get<std::string>()) + "\n";
    return (lines.empty() ? "no difference\n" : lines) + problemOf(document);
}

} // namespace cli
