#include "cli/data-checks.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <vector>

#include "cli/policy.h"
#include "cli/session.h"
#include "cli/settings.h"
#include "cli/terminal.h"
#include "rules/rule-list.h"

namespace cli {
namespace {

constexpr const char *kPolicyWarning =
    "ApplyPolicy applies every ALLOW entry as an allow rule and then as a deny rule: all of them end up denied. DENY "
    "entries have no effect.";

// A warning for the first rule that cuts off the caller.
std::vector<std::string> warningsAboutDenied(const std::string &list) {
    const auto rules = rules::readRules(list);
    const auto all = std::find_if(rules.begin(), rules.end(), [](const rules::ReadRule &read) {
        return !read.problem && rules::cutsOff(read.rule);
    });
    if (all == rules.end())
        return {};
    return {"\"" + std::string(all->text) +
            "\" denies connections from and to everywhere, and so cuts off whoever is logged in over the network"};
}

// Of a command that looks at no data.
std::string whatItDoesInstead(const PluginCommand &command) {
    if (command.effect != host::RuleEffect::removeAll)
        return " takes no data";
    return std::string(" takes no rules and removes all of them: every ") +
           (command.kinds == host::RuleKinds::allow ? "allow" : "deny") + " rule";
}

// Where the command would succeed and do something else than what is written there, a line each.
std::vector<std::string> warningsAbout(const PluginCommand &command, const std::string &data) {
    if (command.data == CommandData::rules && command.kinds == host::RuleKinds::deny)
        return warningsAboutDenied(data);
    if (command.data == CommandData::settings)
        return settingsWarnings(data);
    if (command.data != CommandData::policy)
        return {};
    auto warnings = policyWarnings(data);
    warnings.insert(warnings.begin(), kPolicyWarning);
    for (const auto &warning : warningsAboutDenied(rulesOfPolicy(data)))
        warnings.push_back(warning);
    return warnings;
}

bool personAgrees() {
    std::fputs("Go on? [y/N] ", stderr);
    std::cin.clear();
    std::string answer;
    return std::getline(std::cin, answer) && !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

} // namespace

void addConsentOptions(CLI::App &subcommand, Consent &consent) {
    subcommand.add_flag("--yes", consent.yes, "Do not ask whether to go on");
    subcommand.add_flag("--as-is", consent.asIs, "Send any data as it is, unchecked");
}

void checkData(const std::string &name, const PluginCommand &command, const std::string &data, const Consent &consent) {
    if (consent.asIs)
        return;
    if (!data.empty() && command.data == CommandData::none)
        throw Exit(kNotCarriedOut, name + whatItDoesInstead(command) + "; nothing was done (--as-is sends it)");
    const auto warnings = warningsAbout(command, data);
    for (const auto &warning : warnings)
        say(warning);
    if (!warnings.empty() && !consent.yes && isTerminal(stdin) && !personAgrees())
        throw Exit(kNotCarriedOut, "nothing was applied");
}

} // namespace cli
