#include "host/plugin-life.h"

#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/collector.h"
#include "host/config-file.h"
#include "host/data-check.h"
#include "host/exception-text.h"
#include "host/firewall-plugin.h"
#include "host/log.h"
#include "host/marker.h"
#include "host/passing-failure.h"
#include "host/retired-plugin.h"

namespace host {

PluginLife::PluginLife(PluginFactory factory, ServedPlugin &served) : factory_(factory), served_(served) {
    PolicyStorage::backend = &storage_;
}

PluginLife::~PluginLife() { PolicyStorage::backend = nullptr; }

int PluginLife::storedStatus() {
    const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
    return storage_.readStatus(kPluginName);
}

bool PluginLife::isStoredAsDisabled() {
    const int status = storedStatus();
    const std::string remark = status == -1 ? StatusStorage::remark() : std::string();
    if (!remark.empty())
        logError(remark);
    return status == 0;
}

// What the plugin throws dies here, in the host.
AbstractDPluginProvider *PluginLife::callFactory(mavo::rmi::Service &service) const try {
    removeDeadMarker();
    const CollectorBlock block;
    auto *const plugin = guard_.run([&] { return factory_(service); });
    if (plugin == nullptr)
        throw std::runtime_error("for reasons that are in the log");
    return plugin;
} catch (...) {
    const std::string text = "the plugin did not come up: " + textOfException();
    if (mayPass())
        throw PassingFailure(text);
    throw std::runtime_error(text);
}

void PluginLife::keepDisabled(AbstractDPluginProvider &plugin) const {
    int result = -1;
    try {
        const CollectorBlock block;
        result = guard_.run([&plugin] { return plugin.setStatus(0); });
    } catch (...) {
        logError("setStatus(0): " + textOfException());
    }
    if (result != 0)
        throw std::runtime_error("the plugin is stored as disabled and could not be disabled again");
}

// Every factory call enables the plugin.
std::unique_ptr<PluginInstance> PluginLife::makeInstance(bool isDisabled) {
    auto instance = std::make_unique<PluginInstance>();
    instance->plugin = callFactory(instance->service);
    try {
        if (isDisabled)
            keepDisabled(*instance->plugin);
    } catch (const std::runtime_error &) {
        static_cast<void>(deleteRetiredPlugin(instance->plugin, guard_)); // it will never serve
        throw;
    }
    return instance;
}

// The flag of the plugin's library is one for all plugins, and a factory that fails late has set it.
void PluginLife::restoreServed(bool isStoredAsDisabled) {
    if (!served_.isUp() || served_.applied() != 0)
        return;
    if (isStoredAsDisabled)
        keepDisabled(served_.plugin());
    else
        served_.switchTo(0);
}

void PluginLife::bringUpAsStored() { bringUp(std::nullopt); }

void PluginLife::bringUpAsApplied() { bringUp(served_.isUp() ? std::optional<int>(served_.applied()) : std::nullopt); }

// `applied` is the status to have then, where it is not the stored one.
void PluginLife::bringUp(std::optional<int> applied) {
    ++attempts_;
    const std::string problem = dataProblem();
    if (!problem.empty())
        throw std::runtime_error(problem);
    healConfig();
    served_.names().announceStored();
    const bool isDisabled = isStoredAsDisabled();
    // Every factory call stores 1. Whoever has stored 0 keeps it, even should the host be killed in the middle.
    std::optional<StatusStorage::Rehearsal> rehearsal;
    if (isDisabled)
        rehearsal.emplace(storage_);
    std::unique_ptr<PluginInstance> instance;
    try {
        instance = makeInstance(isDisabled);
    } catch (const std::runtime_error &) {
        restoreServed(isDisabled);
        throw;
    }
    served_.replaceBy(std::move(instance), !isDisabled);
    if (applied && *applied != served_.applied())
        served_.switchTo(*applied);
    else
        served_.startWantedCollector();
    try {
        keepConfig();
    } catch (const std::exception &error) {
        logError(error.what()); // the rules are in force all the same
    }
}

} // namespace host
