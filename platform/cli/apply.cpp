// vpkctl apply: a file is what is to be stored.
#include <algorithm>
#include <iostream>
#include <memory>

#include "cli/data-checks.h"
#include "cli/input.h"
#include "cli/json-answer.h"
#include "cli/rule-changes.h"
#include "cli/session.h"
#include "cli/stored-list.h"
#include "cli/terminal.h"
#include "host/method-names.h"

namespace cli {
namespace {

constexpr const char *kHelp =
    R"(A line of FILE is "allow RULE" or "deny RULE"; "#" begins a comment. What
vpkctl rules prints is such a file, too.
  vpkctl rules >rules.txt
  vpkctl apply rules.txt

The rules of the file are stored and in force, and no others, at once or not at
all. Rules that stay keep their place and their counters. Each mistake is told
with FILE:LINE:COLUMN before anything is sent, and what the service refuses
changes nothing. Shown is what came, went and stayed:
  +4 −1, 9 kept
Exit status: 0 done, 1 not all is in force, 2 not carried out, 3 an exception
ended the call.)";

struct Arguments {
    std::string file;
    ChangeOptions options;
    Consent consent;
};

Finding withoutWord(const CheckedRule &rule) {
    return {FindingKind::refused,
            rule.written.place,
            rule.written.text,
            rule.written.text,
            "allow or deny before it",
            rules::quoted(rule.written.text) + " does not say what is to become of it; \"allow " + rule.written.text +
                "\" and \"deny " + rule.written.text + "\" do",
            {}};
}

std::vector<Finding> mistakesIn(const std::vector<CheckedRule> &rules) {
    std::vector<Finding> mistakes;
    std::vector<CheckedRule> saying;
    for (const auto &rule : rules) {
        if (rule.written.allowed)
            saying.push_back(rule);
        else
            mistakes.push_back(withoutWord(rule));
    }
    for (auto &finding : findingsOf(saying)) {
        if (isMistake(finding.kind))
            mistakes.push_back(std::move(finding));
    }
    std::stable_sort(mistakes.begin(), mistakes.end(),
                     [](const Finding &one, const Finding &other) { return one.place.line < other.place.line; });
    return mistakes;
}

// A rule that is stored stays as it is written there.
std::string linesOf(const std::vector<CheckedRule> &rules, const StoredRules &stored) {
    std::string lines;
    for (const auto &rule : rules) {
        const auto found = stored.like(rule.rule, rule.written.allowed);
        if (found.empty())
            lines += rules::lineOf(rule.rule, *rule.written.allowed) + "\n";
        for (const auto *known : found)
            lines += known->line + "\n";
    }
    return lines;
}

// What would cut somebody off, or take everything away.
void ask(const std::vector<CheckedRule> &rules, const StoredRules &stored, const Consent &consent) {
    std::string denied;
    for (const auto &rule : rules) {
        if (!*rule.written.allowed)
            denied.append(denied.empty() ? "" : ";").append(rule.text);
    }
    checkData("apply", *findNamed(kPluginCommands, host::kApplyDeny), denied, consent);
    if (rules.empty() && !stored.all().empty() && !consent.yes)
        throw Exit(kNotCarriedOut, "there is no rule in the file, and all " + std::to_string(stored.all().size()) +
                                       " that are stored would go: --yes does it; nothing was done");
}

void run(const Arguments &arguments, Session &session) {
    const bool isStandardInput = arguments.file == "-";
    const std::string text = dataFrom(isStandardInput ? "-" : "@" + arguments.file, true, std::cin);
    const auto written = rulesInLines(text, isStandardInput ? "standard input" : arguments.file);
    const auto rules = checkedRules(written, PortNames::replaced);
    refuseMistakes(mistakesIn(rules), arguments.options);
    sayNumbers(rules);
    const auto stored = StoredRules::ask(session);
    if (!arguments.options.dryRun)
        ask(rules, stored, arguments.consent);
    session.work = "apply, rules: " + std::to_string(rules.size());
    change(session, arguments.options.dryRun ? host::kRehearseRulesMethod : host::kReplaceRulesMethod,
           linesOf(rules, stored), arguments.options);
}

} // namespace

void addApply(CLI::App &app, Session &session) {
    auto *subcommand = app.add_subcommand("apply", "Replace all rules by those of a file");
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    subcommand->add_option("FILE", arguments->file, "Rules, - for standard input")->required();
    addChangeOptions(*subcommand, arguments->options);
    subcommand->add_flag("--yes", arguments->consent.yes, "Do not ask whether to go on");
    subcommand->footer(kHelp);
    subcommand->callback(
        [arguments, &session] { withJsonError(arguments->options.asJson, [&] { run(*arguments, session); }); });
}

} // namespace cli
