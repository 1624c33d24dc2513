#include "host/plugin-config.h"

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

bool hasText(const Json::Value &value) { return !value.isObject() && !value.isArray(); }

} // namespace

std::string configProblem() {
    const Json::Value root = readAsPlugin();
    if (!root.isObject() && !root.isNull())
        return std::string(kConfigFile) + ": a JSON object must stand there";
    if (root.isObject() && !hasText(root["enabled"]))
        return std::string(kConfigFile) + R"(: the value of "enabled" must be a string, "1" or "0")";
    return {};
}

std::string configValue(const std::string &key) {
    const Json::Value root = readAsPlugin();
    if (!root.isObject() || !hasText(root[key]))
        return {};
    return root[key].asString();
}

} // namespace host
