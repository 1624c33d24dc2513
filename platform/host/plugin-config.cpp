#include "host/plugin-config.h"

#include <array>
#include <exception>
#include <fstream>
#include <iterator>

#include <json/json.h>

#include "host/paths.h"

namespace host {
namespace {

// What the plugin would hold after reading the file, whether it parses or not.
Json::Value readAsPlugin() {
    std::ifstream file(kConfigFile, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    Json::Value root;
    try {
        std::string errors;
        Json::parseFromStream(builder, *std::make_unique<std::istringstream>(text), &root, &errors);
    } catch (const std::exception &) {
        // Nested too deeply, for instance. The plugin survives that as well.
    }
    return root;
}

struct Member {
    const char *name;
    const char *type;
};

// What the plugin, or its collector, reads as text and gives up on where there can be none.
constexpr std::array<Member, 3> kMembers = {{{"enabled", R"(a string, "1" or "0")"},
                                             {"send_report_interval", "a number of seconds"},
                                             {"last_send_report_ts", "a number of seconds since the epoch"}}};

bool hasText(const Json::Value &value) { return !value.isObject() && !value.isArray(); }

} // namespace

std::string configProblem() {
    const Json::Value root = readAsPlugin();
    if (!root.isObject() && !root.isNull())
        return std::string(kConfigFile) + ": a JSON object must stand there";
    for (const Member &member : kMembers) {
        if (root.isObject() && !hasText(root[member.name]))
            return std::string(kConfigFile) + ": the value of \"" + member.name + "\" must be " + member.type;
    }
    return {};
}

std::string configValue(const std::string &key) {
    const Json::Value root = readAsPlugin();
    if (!root.isObject() || !hasText(root[key]))
        return {};
    return root[key].asString();
}

} // namespace host
