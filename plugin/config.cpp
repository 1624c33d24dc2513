#include "config.h"

#include <iterator>
#include <memory>
#include <vector>

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>
#include <boost/filesystem/fstream.hpp>

#include "compact-json.h"
#include "log.h"

namespace {

constexpr const char *CONFIG_PATH = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";

constexpr const char *DEFAULT_CONFIG = "\n"
                                       "    {\n"
                                       "      \"db_max_size\": 25500000,\n"
                                       "      \"send_report_interval\": 86400,\n"
                                       "      \"config_version\": \"0\"\n"
                                       "    }\n"
                                       "    ";

// Parses straight into `root`: after a failure it keeps what the parser left there.
bool parse(const std::string &text, Json::Value &root) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
}

// Where long has 32 bits, a library may have times of 32 bits. It can then tell nothing of a file that was changed
// after January 2038 but that it is there.
bool isTooLate(const boost::system::error_code &error) { return error == boost::system::errc::value_too_large; }

bool exists(const std::string &path) {
    boost::system::error_code error;
    const auto status = boost::filesystem::status(path, error);
    if (isTooLate(error))
        return true;
    if (status.type() == boost::filesystem::status_error)
        throw boost::filesystem::filesystem_error("boost::filesystem::status", path, error);
    return boost::filesystem::exists(status);
}

void makeFolder(const boost::filesystem::path &folder) {
    boost::system::error_code error;
    boost::filesystem::status(folder, error);
    if (!isTooLate(error))
        boost::filesystem::create_directories(folder);
}

void writeFile(const std::string &path, const std::string &text) {
    boost::filesystem::ofstream file(path, std::ios::out | std::ios::trunc);
    file << text;
}

} // namespace

Config::Config() : configPath(CONFIG_PATH), defaultConfig(DEFAULT_CONFIG) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: Enter Config()");
    readConfigFile();
}

Config::~Config() {
    writeConfigFile();
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: ~Config()");
}

bool Config::readConfigFile() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: readConfigFile");
    try {
        if (!exists(configPath))
            return createDefaultConfig();
        boost::filesystem::ifstream file(configPath);
        return parse(std::string(std::istreambuf_iterator<char>(file), {}), root);
    } catch (const std::exception &error) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: readConfigFile: ex: %s", error.what());
        return false;
    }
}

bool Config::createDefaultConfig() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: Config: createDefaultConfig");
    try {
        makeFolder(boost::filesystem::path(configPath).parent_path());
        parse(defaultConfig, root);
        writeFile(configPath, defaultConfig);
        return true;
    } catch (const std::exception &error) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "firewall: can't create config: %s", error.what());
        return false;
    }
}

bool Config::writeConfigFile() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: Config: writeConfigFile");
    try {
        if (!exists(configPath))
            return createDefaultConfig();
        writeFile(configPath, compactJson(root) + "\n");
        return true;
    } catch (const std::exception &error) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: readConfigFile: ex: %s", error.what());
        return false;
    }
}

std::string Config::get(const std::string &key, bool reread) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "Config::get: configPath: %s", key.c_str());
    if (reread)
        readConfigFile();
    return getChild(key).asString();
}

Json::Value Config::getChild(const std::string &key) const {
    std::vector<std::string> names;
    boost::split(names, key, boost::is_any_of("."));
    Json::Value value = root;
    for (const std::string &name : names)
        value = Json::Value(value[name]);
    return value;
}

bool Config::update(Json::Value &changes) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: update common");
    for (const std::string &name : changes.getMemberNames()) {
        if (root[name].isObject())
            update(changes[name]);
        else
            root[name] = changes[name];
    }
    return writeConfigFile();
}

bool Config::update(const std::string &key, const std::string &value) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "firewall: update key/value: %s %s", key.c_str(), value.c_str());
    Json::Value change;
    change[key] = value;
    return update(change);
}
