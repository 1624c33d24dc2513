// Plugins that do what the test says, in the test itself.
#ifndef TESTS_PLATFORM_HOST_FAKE_PLUGIN_H
#define TESTS_PLATFORM_HOST_FAKE_PLUGIN_H

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/config-file.h"
#include "host/firewall-plugin.h"
#include "host/json-document.h"
#include "host/served-plugin.h"
#include "support/text-file.h"

namespace hosttest {

// What plugins do beside what they are there for; nothing where it is empty.
struct PluginOrders {
    std::function<void()> inFactory; // before there is a plugin
    std::function<int(int status)> setStatus;
    std::function<void(int status)> applyStatus;
    std::function<std::string(const std::string &command, const std::string &data)> execute; // in place of the rest
    bool isNull = false;                                                                     // what the factory gives
};

inline PluginOrders orders;
inline std::vector<std::string> calls;

inline std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }

// Keeps its settings as the firewall plugin does.
class FakePlugin : public AbstractDPluginProvider {
public:
    FakePlugin() = default;
    ~FakePlugin() override { calls.emplace_back("deleted"); }
    FakePlugin(const FakePlugin &) = delete;
    FakePlugin &operator=(const FakePlugin &) = delete;

    int setStatus(int status) override {
        calls.push_back("setStatus " + std::to_string(status));
        if (orders.setStatus)
            return orders.setStatus(status);
        const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
        return PolicyStorage::backend == nullptr ? 0 : PolicyStorage::backend->storeStatus(host::kPluginName, status);
    }
    int getStatus() override { return 17; }
    void applyStatus(int status) override {
        calls.push_back("applyStatus " + std::to_string(status));
        if (orders.applyStatus)
            orders.applyStatus(status);
    }
    std::string executeCommand(const std::string &command, const std::string &data) override {
        calls.push_back(data.empty() ? command : command + " " + data);
        if (orders.execute)
            return orders.execute(command, data);
        if (command == host::kStartCollector || command == host::kStopCollector)
            change(command == host::kStartCollector ? R"({"enabled":"1"})" : R"({"enabled":"0"})");
        else if (command == host::kChangeSettings)
            change(data);
        return {};
    }

    static void change(const std::string &settings) {
        Json::Value root = host::readJson(host::configText()).root;
        const Json::Value changes = host::readJson(settings).root;
        for (const auto &name : changes.getMemberNames())
            root[name] = changes[name];
        textfile::write(host::kConfigFile, host::writeJson(root));
    }
};

// With one method of its own.
inline AbstractDPluginProvider *makeFakePlugin(mavo::rmi::Service &service) {
    calls.emplace_back("factory");
    if (orders.inFactory)
        orders.inFactory();
    if (orders.isNull)
        return nullptr;
    service.setMethodHandler<int>("/privilege/vpk.firewall", "Test::number", [] { return 1; });
    auto plugin = std::make_unique<FakePlugin>();
    return plugin->setStatus(1) == 0 ? plugin.release() : nullptr;
}

inline std::unique_ptr<host::PluginInstance> fakeInstance() {
    auto instance = std::make_unique<host::PluginInstance>();
    instance->plugin = new FakePlugin;
    return instance;
}

} // namespace hosttest

#endif
