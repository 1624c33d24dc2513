#include "host/host.h"

#include <exception>
#include <mutex>
#include <optional>
#include <vector>

#include "host/collector.h"
#include "host/data-check.h"
#include "host/documents.h"
#include "host/log.h"
#include "host/paths.h"
#include "host/plugin-config.h"
#include "mavo/rmi-server.h"

namespace host {

struct Host::Instance {
    mavo::rmi::Service service;
    AbstractDPluginProvider *plugin = nullptr;
};

namespace {

constexpr const char *kStartCollector = "EnableStatCollector";

// One line for a person, of whatever is being handled.
std::string textOfException() {
    try {
        throw;
    } catch (const std::exception &error) {
        std::string text = error.what();
        for (char &c : text) {
            if (static_cast<unsigned char>(c) < ' ')
                c = ' ';
        }
        return text;
    } catch (...) {
        return "an exception of unknown type";
    }
}

} // namespace

Host::Host(PluginFactory factory) : factory_(factory) {
    addHostMethods(ownMethods_, *this);
    PolicyStorage::backend = &storage_;
}

Host::~Host() { PolicyStorage::backend = nullptr; }

int Host::storedStatus() {
    const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
    return storage_.readStatus(kPluginName);
}

// What the plugin throws dies here, in the host.
AbstractDPluginProvider *Host::callFactory(mavo::rmi::Service &service) const try {
    removeDeadMarker();
    const MarkerHold hold;
    auto *const plugin = guard_.run([&] { return factory_(service); });
    if (plugin == nullptr)
        throw std::runtime_error("for reasons that are in the log");
    return plugin;
} catch (...) {
    throw std::runtime_error("the plugin did not come up: " + textOfException());
}

// The flag of the plugin's library is one for all plugins, and a factory that fails late has set it.
void Host::restoreAfterFailedFactory(bool disabled) {
    if (current_ == nullptr)
        return;
    if (disabled)
        keepDisabled(*current_->plugin);
    else if (applied_ == 0)
        applyStatus(0);
}

// Every factory call enables the plugin.
void Host::keepDisabled(AbstractDPluginProvider &plugin) {
    int result = -1;
    try {
        const MarkerHold hold;
        result = guard_.run([&plugin] { return plugin.setStatus(0); });
    } catch (...) {
        logError("setStatus(0): " + textOfException());
    }
    if (result != 0)
        throw std::runtime_error("the plugin is stored as disabled and could not be disabled again");
}

void Host::bringUp() {
    const std::string problem = dataProblem();
    if (!problem.empty())
        throw std::runtime_error(problem);
    const bool disabled = storedStatus() == 0;
    // Every factory call stores 1. Whoever has stored 0 keeps it, even should the host be killed in the middle.
    std::optional<StatusStorage::Rehearsal> rehearsal;
    if (disabled)
        rehearsal.emplace(storage_);

    auto instance = std::make_unique<Instance>();
    try {
        instance->plugin = callFactory(instance->service);
        if (disabled)
            keepDisabled(*instance->plugin);
    } catch (const std::runtime_error &) {
        restoreAfterFailedFactory(disabled);
        throw;
    }
    static auto *const kept = new std::vector<std::unique_ptr<Instance>>; // reachable, but destroyed by nobody
    kept->push_back(std::move(instance));
    current_ = kept->back().get();
    applied_ = disabled ? 0 : 1;
    startWantedCollector();
    if (rebuild_ != nullptr)
        rebuild_->settle();
}

std::string Host::bringUpAndJudge() {
    const CallWatch watch;
    bringUp();
    return watch.verdict().interruption;
}

int Host::reload() try {
    bringUp();
    return 0;
} catch (const std::exception &error) {
    logError(std::string("reload: ") + error.what());
    return -1;
}

// The plugin itself was kept from starting it; by command nothing can come back into the middle of another operation.
void Host::startWantedCollector() {
    if (applied_ != 1 || !collectorWanted() || markerStands())
        return;
    try {
        if (!executeCommand(kStartCollector, "").empty())
            logError("the collector could not be started");
    } catch (...) {
        logError("the collector could not be started: " + textOfException());
    }
}

std::string Host::executeCommand(const std::string &command, const std::string &data) {
    if (command == kStartCollector)
        removeDeadMarker();
    return guard_.run([&] { return current_->plugin->executeCommand(command, data); });
}

int Host::setStatus(int status) {
    removeDeadMarker();
    if (status == 0 || status == 1)
        applied_ = status;
    int result = -1;
    {
        const MarkerHold hold;
        result = guard_.run([&] { return current_->plugin->setStatus(status); });
    }
    if (status == 1)
        startWantedCollector();
    return result;
}

void Host::applyStatus(int status) {
    removeDeadMarker();
    if (status == 0 || status == 1)
        applied_ = status;
    {
        const MarkerHold hold;
        guard_.run([&] { current_->plugin->applyStatus(status); });
    }
    if (status == 1)
        startWantedCollector();
}

int Host::getStatus() {
    return guard_.run([this] { return current_->plugin->getStatus(); });
}

std::string Host::statusDocument() const {
    const std::string problem = removeDeadMarker();
    const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
    return host::statusDocument(PolicyStorage::backend->readStatus(kPluginName), applied_, problem,
                                rebuild_ != nullptr ? rebuild_->remark() : std::string());
}

std::string Host::rulesDocument() const { return host::rulesDocument(); }

std::string Host::reportsDocument() const { return host::reportsDocument(); }

std::shared_ptr<const mavo::rmi::MethodContext> Host::find(const std::string &name) const {
    if (auto own = ownMethods_.find(name))
        return own;
    return current_ != nullptr ? current_->service.find(name) : nullptr;
}

mavo::rmi::Reply Host::invoke(const std::string &name, const mavo::rmi::MethodContext &method,
                              mavo::rmi::Message &request) const {
    const CallWatch watch;
    mavo::rmi::MethodContext guarded;
    guarded.dispatcher = [this, &method](mavo::rmi::Message &arguments) {
        return guard_.run([&] { return method.dispatcher(arguments); });
    };
    auto reply = mavo::rmi::invokeMethod(guarded, request);
    if (reply.status == mavo::rmi::Status::exception)
        logInfo(name + " ended with an exception: " + reply.error);
    reply.errorLines = watch.errorLines();
    Verdict verdict = onlyLooks(name) ? Verdict() : watch.verdict();
    reply.notInForce = std::move(verdict.notInForce);
    // What was lost on a connection that came to its end may be lost again: it gets one attempt, which cares for
    // interruptions alone.
    if (verdict.interruption.empty() && verdict.hasLost)
        verdict.interruption = "accepted commands were lost";
    if (!verdict.interruption.empty() && rebuild_ != nullptr) {
        reply.notInForce.push_back(verdict.interruption + "; the tables are built anew from the stored rules");
        rebuild_->want(verdict.interruption);
    }
    return reply;
}

} // namespace host
