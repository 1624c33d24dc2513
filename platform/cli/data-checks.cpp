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

} // namespace

std::string reasonNotToSend(const Command &command, const std::string &data) {
    if (data.empty() || command.data != Data::none)
        return {};
    return std::string(command.name) + " " + std::string(command.ignores) + "; nothing was done (--as-is sends it)";
}

std::vector<std::string> warningsAbout(const Command &command, const std::string &data) {
    if (command.name == "ApplyDenyRules")
        return warningsAboutDenied(data);
    if (command.data == Data::settings)
        return settingsWarnings(data);
    if (command.data != Data::policy)
        return {};
    auto warnings = policyWarnings(data);
    for (const auto &warning : warningsAboutDenied(rulesOfPolicy(data)))
        warnings.push_back(warning);
    return warnings;
}

} // namespace cli
