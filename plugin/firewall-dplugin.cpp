#include "firewall-dplugin.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include <json/json.h>
#include <mavo/exception.h>
#include <nyr/report.h>

#include "config.h"
#include "extract-klogs.h"
#include "log.h"

int gFirewallDPluginEnabled = 0;

namespace {

constexpr int ENABLED = 1;
constexpr int DISABLED = 0;

constexpr const char *PRIVILEGE = "http://vpk/privilege/vpk.firewall";

constexpr int REPORT_TYPE = 10007;
constexpr int KERNEL_LOG_SUBTYPE = 139;

void exposeMethods(mavo::rmi::Service &service, Firewall *firewall) {
    using namespace std::placeholders;
    service.setMethodHandler<int, std::string>(std::string(PRIVILEGE), "Firewall::ApplyAllowRules",
                                               std::bind(&Firewall::ApplyAllowRules, firewall, _1));
    service.setMethodHandler<int, std::string>(std::string(PRIVILEGE), "Firewall::ApplyDenyRules",
                                               std::bind(&Firewall::ApplyDenyRules, firewall, _1));
    service.setMethodHandler<int>(std::string(PRIVILEGE), "Firewall::FlushAllowRules",
                                  std::bind(&Firewall::FlushAllowRules, firewall));
    service.setMethodHandler<int>(std::string(PRIVILEGE), "Firewall::FlushDenyRules",
                                  std::bind(&Firewall::FlushDenyRules, firewall));
}

void writeRules(const Json::Value &rules, std::ostream &stream) {
    for (Json::ArrayIndex i = 0; i < rules.size(); ++i)
        stream << rules[i] << ";";
}

void removeQuotes(std::string &text) { text.erase(std::remove(text.begin(), text.end(), '"'), text.end()); }

const char *characters(const unsigned char *bytes) { return reinterpret_cast<const char *>(bytes); }

const unsigned char *bytes(const std::string &text) { return reinterpret_cast<const unsigned char *>(text.data()); }

} // namespace

extern "C" __attribute__((visibility("default"))) AbstractDPluginProvider *DPluginFactory(mavo::rmi::Service &service) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: DPluginFactory() called;");
    std::unique_ptr<DPlugin> plugin;
    try {
        plugin = std::make_unique<DPlugin>();
        if (plugin->exposeFirewallAPI(service) != 0) {
            NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "### firewall: Failed to exposeFirewallAPI");
            return nullptr;
        }
        if (plugin->setStatus(ENABLED) != 0) {
            NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "### firewall: Failed to setStatus");
            return nullptr;
        }
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: Successfully created");
        return plugin.release();
    } catch (const mavo::Exception &) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "### firewall: Exceprion caused");
        return nullptr;
    }
}

DPluginPolicy::DPluginPolicy(const std::string &pluginName) : name(pluginName) {}

bool DPluginPolicy::apply(const int &) { return true; }

DPluginEnable::DPluginEnable() : DPluginPolicy("nyr-firewall-plugin") {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPluginEnable::DPluginEnable() ###");
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: DPluginEnable::DPluginEnable() ###");
}

bool DPluginEnable::apply(const int &status) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPluginEnable::apply(%d) ###", status);
    bool collectorOn = false;
    {
        // Gone before the collector is switched, because it writes its copy of the configuration back.
        Config config;
        if (status == ENABLED) {
            gFirewallDPluginEnabled = 1;
            collectorOn = config.get("enabled", true) == "1";
        }
    }
    if (status == ENABLED) {
        if (collectorOn)
            statDaemon.enable();
        return true;
    }
    if (status == DISABLED) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: DPluginEnable::apply(DISABLE) ###");
        gFirewallDPluginEnabled = 0;
        statDaemon.disable();
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: DPluginEnable::apply(%d) ###", status);
        return true;
    }
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: another status ###");
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: DPluginEnable::apply(false) ###");
    return false;
}

DPlugin::DPlugin() : statDaemon(), firewall(nullptr), logPrefix("IPTables-Dropped:") {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::DPlugin() ###");
    try {
        firewall = new Firewall();
    } catch (const std::runtime_error &error) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "%s", error.what());
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "### firewall: Exception during firewall initialization ###");
    }
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: DPlugin::DPlugin() ###");
}

DPlugin::~DPlugin() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::~DPlugin deinitialize ###");
    delete firewall;
    firewall = nullptr;
}

int DPlugin::setStatus(int status) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::setStatus(): %d", status);
    try {
        if (enablePolicy.apply(status)) {
            const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
            if (PolicyStorage::backend->storeStatus(enablePolicy.name, status) == 0)
                return 0;
        }
    } catch (const mavo::Exception &error) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "%s", error.what());
    }
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: DPlugin::setStatus(-1)");
    return -1;
}

void DPlugin::applyStatus(int status) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::applyStatus");
    enablePolicy.apply(status);
}

int DPlugin::getStatus() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::getStatus");
    const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
    return PolicyStorage::backend->readStatus(enablePolicy.name);
}

int DPlugin::exposeFirewallAPI(mavo::rmi::Service &service) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::exposeFirewallAPI ###");
    int result = -1;
    try {
        if (firewall != nullptr && firewall->InitTables() != 0) {
            exposeMethods(service, firewall);
            result = 0;
        } else {
            NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "### firewall: Failed initialization firewall tables ###");
        }
    } catch (const std::runtime_error &error) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "%s", error.what());
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "### firewall: Exception during firewall tables initialization ###");
    }
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: DPlugin::exposeFirewallAPI() ###");
    return result;
}

std::string DPlugin::executeCommand(const std::string &command, const std::string &data) {
    unsigned char *output = nullptr;
    int outputLength = 0;
    const int result = executeCommandInternal(bytes(command), static_cast<int>(command.size()), bytes(data),
                                              static_cast<int>(data.size()), &output, &outputLength);
    const std::unique_ptr<unsigned char, decltype(&std::free)> owner(output, &std::free);
    if (result != 0)
        return "fail";
    return output != nullptr ? std::string(characters(output), static_cast<std::size_t>(outputLength)) : "";
}

// What a command does without data: nothing and fail, nothing and succeed, or the same as with data.
enum class WithoutData { fail, succeed, run };

struct DPlugin::Command {
    const char *name;
    WithoutData withoutData;
    const char *before; // logged first, if not null
    bool logsExit;
    int (*action)(DPlugin &plugin, std::string &data);
};

const DPlugin::Command DPlugin::COMMANDS[] = {
    {"ApplyAllowRules", WithoutData::fail, nullptr, true,
     [](DPlugin &plugin, std::string &data) { return plugin.firewall->ApplyAllowRules(data); }},
    {"ApplyDenyRules", WithoutData::fail, nullptr, true,
     [](DPlugin &plugin, std::string &data) { return plugin.firewall->ApplyDenyRules(data); }},
    {"FlushAllowRules", WithoutData::run, nullptr, true,
     [](DPlugin &plugin, std::string &) { return plugin.firewall->FlushAllowRules(); }},
    {"FlushDenyRules", WithoutData::run, nullptr, true,
     [](DPlugin &plugin, std::string &) { return plugin.firewall->FlushDenyRules(); }},
    {"ApplyPolicy", WithoutData::fail, nullptr, true,
     [](DPlugin &plugin, std::string &data) { return plugin.handlePolicy(data); }},
    {"SendReport", WithoutData::run, "### firewall: begin test reporter ###", true,
     [](DPlugin &plugin, std::string &) { return plugin.sendReport(); }},
    {"EnableStatCollector", WithoutData::run, "### firewall: start stat daemon ###", false,
     [](DPlugin &plugin, std::string &) { return plugin.statDaemon.enable(); }},
    {"DisableStatCollector", WithoutData::run, "### firewall: stop stat daemon ###", false,
     [](DPlugin &plugin, std::string &) { return plugin.statDaemon.disable(); }},
    {"StatCollectorPolicy", WithoutData::succeed, "### firewall: new stat collector policy ###", false,
     [](DPlugin &plugin, std::string &data) { return plugin.statDaemon.handleStatCollectorPolicy(data); }},
};

int DPlugin::executeCommandInternal(const unsigned char *command, int commandLength, const unsigned char *data,
                                    int dataLength, unsigned char **, int *outputLength) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::ExecuteCommandInternal ###");
    *outputLength = 0;
    if (gFirewallDPluginEnabled == 0) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: Firewall disabled ###");
        return -1;
    }
    if (commandLength == 0 || command == nullptr) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: Empty command ###");
        return -1;
    }
    const std::string name(characters(command), static_cast<std::size_t>(commandLength));
    std::string text(characters(data), static_cast<std::size_t>(dataLength));
    const Command *const known = find(name);
    if (known == nullptr) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "### firewall: exit: Unknown Plugin command ###");
        return -1;
    }
    if (known->before != nullptr)
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "%s", known->before);
    const int result = run(*known, text);
    if (known->logsExit)
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: %s: %d ###", known->name, result);
    return result;
}

const DPlugin::Command *DPlugin::find(const std::string &name) {
    const auto *const known = std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                                           [&name](const Command &each) { return name == each.name; });
    return known != std::end(COMMANDS) ? known : nullptr;
}

int DPlugin::run(const Command &command, std::string &data) {
    if (data.empty() && command.withoutData != WithoutData::run)
        return command.withoutData == WithoutData::fail ? -1 : 0;
    return command.action(*this, data);
}

int DPlugin::sendReport() {
    KLogExtractor extractor(logPrefix);
    std::string json = extractor.getAsJson();
    return nyr::sendReport(REPORT_TYPE, KERNEL_LOG_SUBTYPE, json);
}

int DPlugin::handlePolicy(std::string &policy) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::handlePolicy ###");
    int result = 0;
    std::string rules;
    std::ostringstream stream;
    Json::Value document;
    try {
        Json::CharReaderBuilder builder;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        // Too late for this reader, which collects comments: they come out in the rule text.
        builder["collectComments"] = false;
        reader->parse(policy.data(), policy.data() + policy.size(), &document, nullptr);
    } catch (const std::exception &error) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "firewall: handlePolicy: input parse failure: %s", error.what());
        result = -1;
    }
    writeRules(document["ALLOW"], stream);
    rules = stream.str();
    removeQuotes(rules);
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: allow string: ");
    result |= firewall->ApplyAllowRules(rules);
    stream.str("");
    writeRules(document["DENY"], stream);
    // The stream's text is deliberately not taken over: the deny call gets the allow rules.
    removeQuotes(rules);
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: deny string: ");
    result |= firewall->ApplyDenyRules(rules);
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: exit: DPlugin::handlePolicy: %d %s", result, " ###");
    return result;
}
