// What the plugin makes of its configuration, a JSON document, and of changes to it.
#ifndef PLATFORM_HOST_PLUGIN_CONFIG_H
#define PLATFORM_HOST_PLUGIN_CONFIG_H

#include <cstddef>
#include <string>

#include "host/firewall-plugin.h"

namespace host {

// Beyond these a configuration is refused: the plugin holds several copies of it, each of about 130 bytes a value.
constexpr std::size_t kConfigLimitBytes = std::size_t{256} * 1024;
constexpr std::size_t kConfigLimitValues = 8192;

struct ConfigVerdict {
    // Why the plugin, or its collector, would give up on it, from "the value of …" on; empty when neither does.
    std::string problem;
    // The whole text is a JSON object. Of any other text the plugin takes what its parser has left.
    bool whole = false;
    // As one line, what the plugin would hold after reading it; empty when that is nothing.
    std::string understood;
};

ConfigVerdict judgeConfig(const std::string &text);

// Why `document` may not be merged into the configuration `current` as the plugin merges it: the plugin or its
// collector could not live with what comes of that now or when the same is merged again, or the plugin would
// discard a part of it without a word. Names the setting, what was given and what would be accepted; empty when nothing
// is wrong.
std::string changeProblem(const std::string &current, const std::string &document);

// Whether every member of `document`, which was merged, stands in the configuration `text`.
bool holdsChange(const std::string &text, const std::string &document);

// The text of a top-level member of the file, empty where it is missing or has none.
std::string configValue(const std::string &key);

// The collector is switched on by exactly "1".
inline bool collectorWanted() { return configValue(kEnabledSetting) == "1"; }

} // namespace host

#endif
