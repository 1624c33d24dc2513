#include "cli/policy.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace cli {
namespace {

using Json = nlohmann::json;

}

std::string rulesOfPolicy(const std::string &policy) {
    constexpr bool kCommentsAllowed = true;
    const Json document = Json::parse(policy, nullptr, false, kCommentsAllowed);
    std::string rules;
    if (!document.is_object() || !document.contains("ALLOW") || !document["ALLOW"].is_array())
        return rules;
    for (const auto &entry : document["ALLOW"])
        rules += (entry.is_string() ? entry.get<std::string>() : entry.dump()) + ";";
    rules.erase(std::remove(rules.begin(), rules.end(), '"'), rules.end());
    return rules;
}

} // namespace cli
