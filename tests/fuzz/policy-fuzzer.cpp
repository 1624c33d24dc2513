// Policy documents from anybody: which rules the plugin takes from them.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "firewall-dplugin.h"
#include "fuzz/require.h"

namespace {

std::vector<std::string> applied; // the lists given to the engine

} // namespace

// The engine, which only notes what it is told.
Firewall::Firewall() : m_initialized(true) {}
Firewall::~Firewall() = default;
int Firewall::InitTables() { return 1; }
int Firewall::FlushAllowRules() { return 0; }
int Firewall::FlushDenyRules() { return 0; }
int Firewall::ApplyAllowRules(std::string &rules) {
    applied.push_back(rules);
    return 0;
}
int Firewall::ApplyDenyRules(std::string &rules) {
    applied.push_back(rules);
    return 0;
}

// No files and no processes.
Config::Config() = default;
Config::~Config() = default;
std::string Config::get(const std::string &, bool) { return {}; }
bool Config::update(const std::string &, const std::string &) { return true; }
int StatDaemon::enable() { return 0; }
int StatDaemon::disable() { return 0; }
bool StatDaemon::isDaemonWorking() { return false; }
int StatDaemon::startStatDaemon() { return 0; }
int StatDaemon::stopStatDaemon() { return 0; }
int StatDaemon::handleStatCollectorPolicy(std::string &) { return 0; }

namespace nyr {
int sendReport(int, int, std::string &) { return 0; }
} // namespace nyr

namespace {

Json::Value documentIn(const std::string &text) {
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value document;
    if (!reader->parse(text.data(), text.data() + text.size(), &document, nullptr))
        return {};
    return document;
}

// The list that a document stands for when all in it is as it should be: an object with an array of texts. Texts with
// quotes, or with what JSON writes otherwise than it stands, are left aside, as are comments.
bool isPlain(const Json::Value &document) {
    if (!document.isObject() || !document["ALLOW"].isArray())
        return false;
    return std::all_of(document["ALLOW"].begin(), document["ALLOW"].end(), [](const Json::Value &rule) {
        if (!rule.isString() || rule.hasComment(Json::commentBefore) || rule.hasComment(Json::commentAfter) ||
            rule.hasComment(Json::commentAfterOnSameLine))
            return false;
        const std::string text = rule.asString();
        return std::all_of(text.begin(), text.end(),
                           [](char c) { return c > ' ' && c <= '~' && c != '"' && c != '\\' && c != '/'; });
    });
}

std::string listOf(const Json::Value &document) {
    std::string list;
    for (const Json::Value &rule : document["ALLOW"])
        list += rule.asString() + ";";
    return list;
}

void checkLists(const std::string &text, int result) {
    fuzz::require(applied.size() == 2 && applied[0] == applied[1], "the allow list is the deny list", text);
    fuzz::require(applied[0].find('"') == std::string::npos, "quotes are taken off", text);
    const Json::Value document = documentIn(text);
    if (isPlain(document))
        fuzz::require(result == 0 && applied[0] == listOf(document), "the list is the document's", text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static DPlugin plugin;
    std::string text(reinterpret_cast<const char *>(data), size);
    applied.clear();
    try {
        const int result = plugin.handlePolicy(text);
        checkLists(text, result);
    } catch (const Json::LogicError &) {
        // No object: the host tells the caller.
    } catch (const Json::RuntimeError &) {
        // Nested too deeply.
    }
    return 0;
}
