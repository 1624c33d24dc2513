#include "cli/settings.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include <nlohmann/json.hpp>

#include "cli/suggestion.h"
#include "host/firewall-plugin.h"

namespace cli {
namespace {

using Json = nlohmann::json;

// As the plugin takes the value of a setting for text.
std::string textOf(const Json &value) {
    return value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
}

std::string aboutEnabled(const Json &value) {
    const std::string text = textOf(value);
    return text == "1" || text == "0" ? "" : " switches the collector off; \"1\" switches it on, \"0\" off";
}

// The collector takes the number that a text begins with.
std::string aboutInterval(const Json &value) {
    const std::string text = textOf(value);
    char *end = nullptr;
    errno = 0;
    const long long seconds = std::strtoll(text.c_str(), &end, 10);
    if (errno == ERANGE)
        return {}; // the host refuses it
    if (end == text.c_str())
        return " has no number and is taken for " + std::to_string(host::kDefaultIntervalSeconds) +
               ", a day; a number of seconds is accepted";
    if (seconds <= 0)
        return " is no time to sleep; a number of seconds from 1 on is accepted";
    if (*end != '\0')
        return " is taken for " + std::to_string(seconds) + (seconds == 1 ? " second" : " seconds") +
               "; a number of seconds alone is accepted, \"3600\" for an hour";
    if (seconds <= host::kLongestIntervalSeconds)
        return {};
    return " is longer than " + std::to_string(host::kLongestIntervalSeconds) +
           " seconds, and its lowest 32 bits alone count";
}

std::string aboutLastReport(const Json &value) {
    const std::string text = textOf(value);
    char *end = nullptr;
    std::strtoll(text.c_str(), &end, 10);
    return end == text.c_str() ? " is no time, and the collector reports as soon as it starts" : "";
}

std::string aboutNothing(const Json & /*value*/) { return " has no effect"; }

struct Setting {
    std::string_view name;
    std::string (*warning)(const Json &value); // from behind name and value on; empty for what does as it says
};

constexpr std::array<Setting, 5> kSettings = {{{host::kEnabledSetting, aboutEnabled},
                                               {host::kIntervalSetting, aboutInterval},
                                               {host::kLastReportSetting, aboutLastReport},
                                               {host::kSettingsWithoutEffect[0], aboutNothing},
                                               {host::kSettingsWithoutEffect[1], aboutNothing}}};

std::string warningAbout(const std::string &name, const Json &value) {
    Words known;
    for (const Setting &setting : kSettings) {
        known.push_back(setting.name);
        if (setting.name != name)
            continue;
        const std::string warning = setting.warning(value);
        return warning.empty() ? warning
                               : std::string("\"").append(name).append("\": ").append(value.dump()).append(warning);
    }
    return "\"" + name + "\" is no setting: it is kept and has no effect" + didYouMean(name, known);
}

} // namespace

std::vector<std::string> settingsWarnings(const std::string &settings) {
    const Json document = Json::parse(settings, nullptr, false, true);
    std::vector<std::string> warnings;
    if (!document.is_object())
        return warnings;
    for (const auto &[name, value] : document.items()) {
        std::string warning = warningAbout(name, value);
        if (!warning.empty())
            warnings.push_back(std::move(warning));
    }
    return warnings;
}

} // namespace cli
