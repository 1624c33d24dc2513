// Policy documents, which ApplyPolicy takes.
#ifndef PLATFORM_CLI_POLICY_H
#define PLATFORM_CLI_POLICY_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace cli {

// The text that the plugin makes of one entry: its JSON, without the quotes.
std::string ruleTextOf(const nlohmann::json &entry);

// The list of rules that the plugin makes of a policy; empty for one that cannot be read.
std::string rulesOfPolicy(const std::string &policy);

// What the plugin would do with it beside what is written there, or instead, a line each.
std::vector<std::string> policyWarnings(const std::string &policy);

} // namespace cli

#endif
