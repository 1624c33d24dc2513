// vpkctl remove: single rules go, and the others stay.
#include <algorithm>
#include <iostream>
#include <memory>

#include "cli/json-answer.h"
#include "cli/rule-changes.h"
#include "cli/session.h"
#include "cli/stored-list.h"
#include "cli/terminal.h"
#include "host/method-names.h"

namespace cli {
namespace {

constexpr const char *kHelp =
    R"(RULE is as for allow and deny, in any form that means the same as a stored
rule (see vpkctl rules); "allow" or "deny" may stand before it. RULE may be
several, joined by ";", @FILE, or - for standard input, with a rule a line.
  vpkctl remove tcp:10.0.0.5:https:out
  vpkctl remove 'deny udp:*:53'

All of them are removed at once, or none: when one is not stored, nothing is
done, and each is told, with the rule that may have been meant. The other rules
stay in force meanwhile, with their counters.
Exit status: 0 done, 1 not all is in force, 2 not carried out, 3 an exception
ended the call.)";

struct Arguments {
    std::vector<std::string> rules;
    ChangeOptions options;
};

// In an argument, too, the kind of the rule may stand before it.
WrittenRule withKind(WrittenRule rule) {
    for (const bool allowed : {true, false}) {
        const std::string word = allowed ? "allow " : "deny ";
        if (rule.allowed || rule.text.compare(0, word.size(), word) != 0)
            continue;
        const auto begin = std::min(rule.text.find_first_not_of(' ', word.size()), rule.text.size());
        rule = {behind(rule.place, begin), rule.text.substr(begin), allowed};
    }
    return rule;
}

std::vector<CheckedRule> readRules(const std::vector<std::string> &arguments) {
    std::vector<WrittenRule> written = rulesInArguments(arguments, std::cin);
    std::transform(written.begin(), written.end(), written.begin(), withKind);
    return checkedRules(written, PortNames::replaced);
}

Finding notStored(const CheckedRule &rule, const StoredRules &stored) {
    const auto *const near = stored.nearest(rule.rule, rule.written.allowed);
    const std::string accepted = near == nullptr ? "" : near->line;
    return {FindingKind::refused,
            rule.written.place,
            rule.written.text,
            rule.text,
            accepted,
            rules::quoted(rule.text) + " is not stored" +
                (rule.written.allowed ? *rule.written.allowed ? " as an allow rule" : " as a deny rule" : "") +
                (near == nullptr ? "" : "; did you mean \"" + accepted + "\"?"),
            {}};
}

// The lines by which the host knows them.
std::string linesOf(const std::vector<CheckedRule> &rules, const StoredRules &stored, const ChangeOptions &options) {
    std::string lines;
    std::vector<Finding> missing;
    for (const auto &rule : rules) {
        const auto found = stored.like(rule.rule, rule.written.allowed);
        for (const auto *known : found)
            lines += known->line + "\n";
        if (found.empty())
            missing.push_back(notStored(rule, stored));
    }
    refuseMistakes(missing, options);
    return lines;
}

void run(const Arguments &arguments, Session &session) {
    const auto rules = readRules(arguments.rules);
    std::vector<Finding> mistakes;
    for (const auto &rule : rules) {
        if (rule.problem)
            mistakes.push_back(mistakeOf(rule));
    }
    refuseMistakes(mistakes, arguments.options);
    if (rules.empty())
        throw Exit(kNotCarriedOut, "there is no rule in what was read; nothing was done");
    sayNumbers(rules);
    const std::string lines = linesOf(rules, StoredRules::ask(session), arguments.options);
    change(session, arguments.options.dryRun ? host::kRehearseRemovalMethod : host::kRemoveRulesMethod, lines,
           arguments.options);
}

} // namespace

void addRemove(CLI::App &app, Session &session) {
    auto *subcommand = app.add_subcommand("remove", "Remove single rules, all of them or none");
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    subcommand->add_option("RULE", arguments->rules, "Rules, @FILE, or - for standard input")->required();
    addChangeOptions(*subcommand, arguments->options);
    subcommand->footer(kHelp);
    subcommand->callback(
        [arguments, &session] { withJsonError(arguments->options.asJson, [&] { run(*arguments, session); }); });
}

} // namespace cli
