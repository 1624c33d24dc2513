// vpkctl allow, vpkctl deny: rules by hand or from files.
#include <iostream>
#include <memory>

#include "cli/checked-rules.h"
#include "cli/data-checks.h"
#include "cli/execution.h"
#include "cli/session.h"
#include "cli/terminal.h"

namespace cli {
namespace {

constexpr std::size_t kMostProblems = 20; // that are told

constexpr const char *kHelp =
    R"(A rule is protocol:address:port or protocol:address:port:direction. "*" or
nothing stands for any; a range of ports is 8000-8080; the direction is in, out
or bid. Address and port are the other side's. The name of a service becomes
its number. RULE may be several, joined by ";", @FILE, or - for standard input,
with a rule a line there; "#" begins a comment.
  vpkctl deny tcp:10.0.0.5:https:out udp:*:53
  vpkctl allow @rules.txt

All rules are looked at first: when one is wrong, nothing is done, and each
mistake is told with its place. Exit status: as of exec.)";

struct Arguments {
    std::vector<std::string> rules;
    Consent consent;
};

const PluginCommand &commandFor(bool allows) {
    return *findNamed(kPluginCommands, allows ? host::kApplyAllow : host::kApplyDeny);
}

std::string nameFor(bool allows) { return allows ? "allow" : "deny"; }

// What is wrong with the rules, a line each.
std::vector<std::string> problemsOf(const std::vector<CheckedRule> &rules, bool allows) {
    std::vector<std::string> problems;
    for (const auto &rule : rules) {
        if (rule.written.allowed.value_or(allows) != allows)
            problems.push_back(describe(rule.written.place) + ": the line says " + nameFor(!allows) + "; " +
                               nameFor(allows) + " takes lines without that word, or with its own");
        else if (rule.problem)
            problems.push_back(describeProblem(rule));
    }
    return problems;
}

// Throws Exit where there are any.
void refuse(const std::vector<std::string> &problems) {
    if (problems.empty())
        return;
    const std::size_t told = std::min(problems.size(), kMostProblems);
    for (std::size_t at = 0; at < told; ++at)
        say(problems[at]);
    const std::string more =
        problems.size() > told ? "and " + std::to_string(problems.size() - told) + " more mistakes; " : "";
    throw Exit(kNotCarriedOut, more + "nothing was done");
}

std::string listOf(const std::vector<CheckedRule> &rules) {
    std::string list;
    for (const auto &rule : rules)
        list.append(list.empty() ? "" : ";").append(rule.text);
    return list;
}

void run(const Arguments &arguments, bool allows, Session &session) {
    const auto rules = checkedRules(rulesInArguments(arguments.rules, std::cin), PortNames::replaced);
    refuse(problemsOf(rules, allows));
    if (rules.empty())
        throw Exit(kNotCarriedOut, "there is no rule in what was read; nothing was done");
    for (const auto &rule : rules) {
        if (rule.numbered)
            say(rule.numbered->name + " is " + rule.numbered->number + ": " + rule.text);
    }
    const std::string list = listOf(rules);
    const auto &command = commandFor(allows);
    checkData(nameFor(allows), command, list, arguments.consent);
    execute(session, std::string(command.name), list,
            [&] { return SentRules{list, "the data", false, allows, !allows, "vpkctl " + nameFor(allows) + " -"}; });
}

void add(CLI::App &app, Session &session, bool allows, const std::string &description) {
    auto *subcommand = app.add_subcommand(nameFor(allows), description);
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    subcommand->add_option("RULE", arguments->rules, "Rules, @FILE, or - for standard input")->required();
    subcommand->add_flag("--yes", arguments->consent.yes, "Do not ask whether to go on");
    subcommand->footer(kHelp);
    subcommand->callback([arguments, allows, &session] { run(*arguments, allows, session); });
}

} // namespace

void addAllow(CLI::App &app, Session &session) { add(app, session, true, "Allow what rules match"); }

void addDeny(CLI::App &app, Session &session) { add(app, session, false, "Log and drop what rules match"); }

} // namespace cli
