#include "cli/rule-changes.h"

#include <algorithm>
#include <cstdio>

#include "cli/documents-as-text.h"
#include "cli/json-answer.h"
#include "cli/printable.h"
#include "cli/terminal.h"

namespace cli {
namespace {

constexpr std::size_t kMostMistakes = 20; // that are told

std::size_t sizeOf(const Json &document, const char *member) { return document.value(member, Json::array()).size(); }

std::string linesOf(const Json &document, const char *member, const char *sign) {
    std::string lines;
    for (const auto &rule : document.value(member, Json::array()))
        lines += sign + printable(rule.get<std::string>()) + "\n";
    return lines;
}

// "+4 −1, 9 kept"
std::string summaryOf(const Json &document) {
    return "+" + std::to_string(sizeOf(document, "added")) + " \u2212" + std::to_string(sizeOf(document, "removed")) +
           ", " + std::to_string(document.value("kept", std::int64_t{0})) + " kept";
}

void showChange(const Json &document, const ChangeOptions &options) {
    std::string text;
    if (options.dryRun)
        text = linesOf(document, "removed", "- ") + linesOf(document, "added", "+ ");
    show(stdout, text + summaryOf(document) + (options.dryRun ? " (nothing was done)\n" : "\n"), 2);
}

} // namespace

void addChangeOptions(CLI::App &subcommand, ChangeOptions &options) {
    subcommand.add_flag("--dry-run", options.dryRun, "Show what would be done, and do nothing");
    subcommand.add_flag("--json", options.asJson, "Print a JSON document on one line");
}

void change(Session &session, const char *method, const std::string &list, const ChangeOptions &options) {
    mavo::rmi::Message request;
    request.write(list);
    const auto reply = session.call(method, request);
    Json document = parseDocument(textOf(reply));
    session.exitStatus = statusOf(reply, true);
    if (!options.asJson)
        return showChange(document, options);
    document["dryRun"] = options.dryRun;
    document["exitStatus"] = session.exitStatus;
    std::printf("%s\n", document.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

void refuseMistakes(const std::vector<Finding> &mistakes, const ChangeOptions &options) {
    if (mistakes.empty())
        return;
    const std::size_t told = std::min(mistakes.size(), kMostMistakes);
    for (std::size_t at = 0; at < told; ++at)
        say(describe(mistakes[at].place) + ": " + mistakes[at].message);
    const std::string more =
        mistakes.size() > told ? "and " + std::to_string(mistakes.size() - told) + " more mistakes; " : "";
    Json findings = Json::array();
    for (const auto &mistake : mistakes)
        findings.push_back(findingAsJson(mistake));
    throw Exit(kNotCarriedOut, more + "nothing was done",
               options.asJson ? findings.dump(-1, ' ', true, Json::error_handler_t::replace) : "");
}

void sayNumbers(const std::vector<CheckedRule> &rules) {
    for (const auto &rule : rules) {
        if (rule.numbered)
            say(rule.numbered->name + " is " + rule.numbered->number + ": " + rule.text);
    }
}

Finding mistakeOf(const CheckedRule &rule) {
    const auto &problem = *rule.problem;
    return {FindingKind::refused,
            behind(rule.written.place, problem.offset),
            rule.written.text,
            problem.refused,
            problem.accepted,
            rules::describe(problem),
            {}};
}

} // namespace cli
