#include "cli/policy.h"

#include <algorithm>
#include <cstddef>

#include <nlohmann/json.hpp>

#include "cli/suggestion.h"

namespace cli {
namespace {

using Json = nlohmann::json;

constexpr const char *kAllow = "ALLOW";
constexpr const char *kDeny = "DENY";

Json parsed(const std::string &policy, bool commentsAllowed) {
    return Json::parse(policy, nullptr, false, commentsAllowed);
}

// Where the text stops being a document; as its parser says that.
std::string placeOfError(const std::string &policy) {
    try {
        [[maybe_unused]] const Json whole = Json::parse(policy, nullptr, true, true);
    } catch (const Json::parse_error &error) {
        const auto end = policy.begin() + static_cast<std::ptrdiff_t>(std::min(error.byte, policy.size()));
        const auto line = std::count(policy.begin(), end, '\n') + 1;
        return "line " + std::to_string(line) + ", byte " + std::to_string(error.byte) + " of all";
    }
    return "its end";
}

void addWarningsAboutList(const Json &list, std::vector<std::string> &warnings) {
    if (!list.is_array()) {
        warnings.push_back(R"("ALLOW" is no array of rules, such as ["tcp:10.0.0.5:80"])");
        return;
    }
    const auto odd = std::find_if(list.begin(), list.end(), [](const Json &entry) { return !entry.is_string(); });
    if (odd != list.end())
        warnings.push_back("entry " + std::to_string(odd - list.begin() + 1) +
                           R"( of "ALLOW" is no text: a rule is one, such as "tcp:10.0.0.5:80")");
}

} // namespace

std::string ruleTextOf(const Json &entry) {
    std::string text = entry.dump(-1, ' ', true);
    text.erase(std::remove(text.begin(), text.end(), '"'), text.end());
    return text;
}

std::string rulesOfPolicy(const std::string &policy) {
    const Json document = parsed(policy, true);
    std::string rules;
    if (!document.is_object() || !document.contains(kAllow) || !document[kAllow].is_array())
        return rules;
    for (const auto &entry : document[kAllow])
        rules += ruleTextOf(entry) + ";";
    return rules;
}

std::vector<std::string> policyWarnings(const std::string &policy) {
    std::vector<std::string> warnings;
    if (policy.empty())
        return warnings; // the plugin refuses that
    const Json document = parsed(policy, true);
    if (document.is_discarded()) {
        warnings.push_back("the policy is no JSON document from " + placeOfError(policy) +
                           " on; it is applied as far as it can be read");
        return warnings;
    }
    if (parsed(policy, false).is_discarded())
        warnings.emplace_back("the policy has comments; beside a rule they become rules, or parts of that rule");
    if (!document.is_object())
        return warnings; // the plugin throws
    for (const auto &entry : document.items()) {
        if (entry.key() != kAllow && entry.key() != kDeny)
            warnings.push_back("\"" + entry.key() + "\" is no list of a policy and has no effect" +
                               didYouMean(entry.key(), {kAllow, kDeny}));
    }
    if (document.contains(kAllow))
        addWarningsAboutList(document[kAllow], warnings);
    return warnings;
}

} // namespace cli
