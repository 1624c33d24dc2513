#include "cli/data-checks.h"

#include <algorithm>

#include "cli/policy.h"
#include "cli/rule-list.h"
#include "cli/settings.h"

namespace cli {
namespace {

// A warning for the first rule that cuts off the caller.
std::vector<std::string> warningsAboutDenied(const std::string &list) {
    const auto rules = readRules(list);
    const auto all = std::find_if(rules.begin(), rules.end(),
                                  [](const ReadRule &read) { return read.problem.empty() && cutsOff(read.rule); });
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

} // namespace

std::string reasonNotToSend(const PluginCommand &command, const std::string &data) {
    if (data.empty() || command.data != CommandData::none)
        return {};
    return std::string(command.name) + whatItDoesInstead(command) + "; nothing was done (--as-is sends it)";
}

std::vector<std::string> warningsAbout(const PluginCommand &command, const std::string &data) {
    if (command.data == CommandData::rules && command.kinds == host::RuleKinds::deny)
        return warningsAboutDenied(data);
    if (command.data == CommandData::settings)
        return settingsWarnings(data);
    if (command.data != CommandData::policy)
        return {};
    auto warnings = policyWarnings(data);
    for (const auto &warning : warningsAboutDenied(rulesOfPolicy(data)))
        warnings.push_back(warning);
    return warnings;
}

} // namespace cli
