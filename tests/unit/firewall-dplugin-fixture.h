// What the tests of the plugin's frame have in common: a plugin on the real engine, with fakes below.
#ifndef TESTS_UNIT_FIREWALL_DPLUGIN_FIXTURE_H
#define TESTS_UNIT_FIREWALL_DPLUGIN_FIXTURE_H

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <mavo/rmi.h>

#include "firewall-dplugin.h"
#include "support/collector.h"
#include "support/fake-pil.h"
#include "support/fake-rlv.h"
#include "support/fake-vlog.h"
#include "support/text-file.h"

extern "C" AbstractDPluginProvider *DPluginFactory(mavo::rmi::Service &service);

inline const std::string kConfig = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";
inline const std::string kMarker = "/dev/shm/nyr_firewall_sd";
inline const std::string kRules = "/opt/data/vpk/db/.firewall.db";
inline const std::string kTag = "I NYR_FIREWALL: ";
inline const std::string kError = "E NYR_FIREWALL: ";
inline const std::string kFrame = "I NYR_FIREWALL: ### firewall: ";

// What was logged except by the engine.
inline std::vector<std::string> frameLog() {
    std::vector<std::string> all;
    for (const std::string &message : fakevlog::messages()) {
        if (message.compare(1, 5, " VPK:") != 0)
            all.push_back(message);
    }
    return all;
}

// The functions that the frame's own lines name.
inline std::vector<std::string> frameFunctions() { return fakevlog::functions("firewall-dplugin.cpp"); }

inline bool marked() { return std::filesystem::exists(kMarker); }

class Plugin : public testing::Test {
protected:
    Plugin() {
        std::filesystem::create_directories("/opt/data/vpk/db");
        textfile::write(kConfig, "{}");
        collector::watch();
    }

    void create() {
        plugin.reset(DPluginFactory(service));
        ASSERT_NE(plugin, nullptr);
        forget();
    }

    // Starts the records afresh.
    void forget() {
        fakevlog::clear();
        fakerlv::reset();
        storage.calls.clear();
    }

    std::string execute(const std::string &command, const std::string &data = "") {
        return plugin->executeCommand(command, data);
    }

    int executeInternal(const std::string &command, const std::string &data, unsigned char **output, int *length) {
        const auto bytes = [](const std::string &text) { return reinterpret_cast<const unsigned char *>(text.data()); };
        return dynamic_cast<DPlugin &>(*plugin).executeCommandInternal(bytes(command), static_cast<int>(command.size()),
                                                                       bytes(data), static_cast<int>(data.size()),
                                                                       output, length);
    }

    // The result of a remote method.
    int call(const std::string &method, mavo::rmi::Message request = {}) {
        mavo::rmi::Message reply = service.find(method)->dispatcher(request);
        int result = -99;
        reply.read(result);
        EXPECT_TRUE(request.atEnd() && reply.atEnd());
        return result;
    }

    int callWith(const std::string &method, const std::string &rules) {
        mavo::rmi::Message request;
        request.write(rules);
        return call(method, request);
    }

    fakepil::Storage storage;
    mavo::rmi::Service service;
    std::unique_ptr<AbstractDPluginProvider> plugin;
};

#endif
