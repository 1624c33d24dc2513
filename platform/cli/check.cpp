// vpkctl check: mistakes in rules and policies, before anything is changed.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>

#include "cli/checked-rules.h"
#include "cli/documents-as-text.h"
#include "cli/findings.h"
#include "cli/input.h"
#include "cli/policy-document.h"
#include "cli/printable.h"
#include "cli/session.h"
#include "cli/terminal.h"

namespace cli {
namespace {

constexpr const char *kHelp =
    R"(FILE is rules, or a policy document for ApplyPolicy, or - for standard input.
A line of rules is "allow RULE", "deny RULE", or in all lines just RULE; "#"
begins a comment. Nothing is changed, and the host need not run.
  vpkctl check rules.txt

A line for each finding: FILE:LINE:COLUMN, what it is, and why.
Mistakes: REFUSED, what is no rule; BOTH, a rule that is to be allowed and
denied; REPLACED, by another one with its protocol, address and port; COMMENT,
in a policy, where it becomes a rule.
Warnings: TWICE; CONTAINED, in a wider rule; COVERED, a deny rule, by an allow
rule; DENIED, what a policy allows, which ends denied; IGNORED, what has no
effect.

Exit status: 0 no mistake, 1 a mistake, or with --strict a warning, 2 FILE
cannot be read.)";

struct Arguments {
    std::string file;
    bool asJson = false;
    bool strict = false;
};

struct Checked {
    std::string source;
    bool isPolicy = false;
    std::size_t rules = 0;
    std::vector<Finding> findings;

    std::size_t count(bool mistakes) const {
        return static_cast<std::size_t>(
            std::count_if(findings.begin(), findings.end(),
                          [mistakes](const Finding &finding) { return isMistake(finding.kind) == mistakes; }));
    }
};

void addThoseDenied(const std::vector<CheckedRule> &rules, std::vector<Finding> &findings) {
    for (const auto &rule : rules) {
        if (!rule.problem)
            findings.push_back(
                {FindingKind::denied,
                 rule.written.place,
                 rule.written.text,
                 {},
                 {},
                 rules::quoted(rule.written.text) +
                     " would end denied: ApplyPolicy applies each entry as an allow rule, then as a deny rule",
                 {}});
    }
}

bool standsBefore(const Finding &one, const Finding &other) {
    return std::make_pair(one.place.line, one.place.column) < std::make_pair(other.place.line, other.place.column);
}

Checked check(const std::string &text, const std::string &source) {
    Checked checked{source, looksLikePolicy(text), 0, {}};
    std::vector<WrittenRule> written;
    if (checked.isPolicy) {
        auto document = readPolicyDocument(text, source);
        written = std::move(document.rules);
        checked.findings = std::move(document.findings);
    } else {
        written = rulesInLines(text, source);
    }
    const auto rules = checkedRules(written, checked.isPolicy ? PortNames::refused : PortNames::replaced);
    checked.rules = rules.size();
    const auto found = findingsOf(rules);
    checked.findings.insert(checked.findings.end(), found.begin(), found.end());
    if (checked.isPolicy)
        addThoseDenied(rules, checked.findings);
    std::stable_sort(checked.findings.begin(), checked.findings.end(), standsBefore);
    return checked;
}

std::string counted(std::size_t count, const std::string &noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string asText(const Checked &checked) {
    std::string text;
    for (const auto &finding : checked.findings)
        text += printable(describe(finding.place) + ": " + std::string(nameOf(finding.kind)) + "  " + finding.message) +
                "\n";
    return text + printable(checked.source) + ": " + counted(checked.rules, "rule") + ", " +
           counted(checked.count(true), "mistake") + ", " + counted(checked.count(false), "warning") + "\n";
}

// See vpkctl(1) for it. Bytes that are no UTF-8 are replaced.
std::string asDocument(const Checked &checked, int exitStatus) {
    Json findings = Json::array();
    for (const auto &finding : checked.findings)
        findings.push_back(findingAsJson(finding));
    const Json document = {{"source", checked.source},
                           {"isPolicy", checked.isPolicy},
                           {"rules", checked.rules},
                           {"mistakes", checked.count(true)},
                           {"warnings", checked.count(false)},
                           {"exitStatus", exitStatus},
                           {"findings", findings}};
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void run(const Arguments &arguments, Session &session) {
    const bool isStandardInput = arguments.file == "-";
    const std::string text = dataFrom(isStandardInput ? "-" : "@" + arguments.file, true, std::cin);
    const Checked checked = check(text, isStandardInput ? "standard input" : arguments.file);
    const std::size_t wrong = checked.count(true) + (arguments.strict ? checked.count(false) : 0);
    session.exitStatus = wrong == 0 ? kDone : kFailed;
    if (arguments.asJson)
        std::printf("%s\n", asDocument(checked, session.exitStatus).c_str());
    else
        show(stdout, asText(checked), 2);
}

} // namespace

void addCheck(CLI::App &app, Session &session) {
    auto *subcommand = app.add_subcommand("check", "Find mistakes in rules or a policy; change nothing");
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    subcommand->add_option("FILE", arguments->file, "Rules or a policy, - for standard input")->required();
    subcommand->add_flag("--json", arguments->asJson, "Print a JSON document on one line");
    subcommand->add_flag("--strict", arguments->strict, "Fail for warnings, too");
    subcommand->footer(kHelp);
    subcommand->callback([arguments, &session] { run(*arguments, session); });
}

} // namespace cli
