#include "host/served-plugin.h"

#include <utility>
#include <vector>

#include "host/collector-process.h"
#include "host/collector-restart.h"
#include "host/collector.h"
#include "host/config-file.h"
#include "host/door.h"
#include "host/exception-text.h"
#include "host/firewall-plugin.h"
#include "host/log.h"
#include "host/marker.h"
#include "host/plugin-config.h"
#include "host/plugin-files.h"
#include "host/retired-plugin.h"
#include "support/find-named.h"

namespace host {

namespace {

// How often a change of settings is made again that a collector has overwritten, and how long one may be waited for.
constexpr int kMostOverwritten = 3;
constexpr std::chrono::milliseconds kCollectorsWork{1'000};

// The plugin looks neither at a disk that is full nor at a file that has gone.
bool isStored(const std::string &command, const std::string &data) {
    if (command == kStartCollector)
        return collectorWanted();
    if (command == kChangeSettings)
        return data.empty() || holdsChange(configText(), data);
    return !collectorWanted();
}

// A collector at work writes the configuration whole, as it has read it before the change.
template <typename IsStored, typename Change> void repeatWhileOverwritten(IsStored isStored, Change change) {
    for (int i = 0; i < kMostOverwritten && collectorLives(); ++i) {
        awaitCollectorsRest(kCollectorsWork);
        if (isStored())
            return;
        change();
    }
}

bool isStatus(int status) { return status == 0 || status == 1; }

} // namespace

AbstractDPluginProvider &ServedPlugin::plugin() const {
    if (current_ == nullptr)
        throw NotUp();
    return *current_->plugin;
}

std::shared_ptr<const mavo::rmi::MethodContext> ServedPlugin::method(const std::string &name) const {
    return current_ == nullptr ? nullptr : current_->service.find(name);
}

// The one before is served no more: its methods are found by name at each call, and this is no call of theirs.
void ServedPlugin::replaceBy(std::unique_ptr<PluginInstance> instance, bool isEnabled) {
    static auto *const kept = new std::vector<std::unique_ptr<PluginInstance>>; // reachable, but destroyed by nobody
    kept->push_back(std::move(instance));
    const auto *const before = std::exchange(current_, kept->back().get());
    ++number_;
    if (before != nullptr && deleteRetiredPlugin(before->plugin, guard_))
        kept->erase(kept->end() - 2);
    applied_ = isEnabled ? 1 : 0;
}

void ServedPlugin::announce(std::string_view command, const std::string &rules) {
    const auto *const known = support::findNamed(kPluginCommands, command);
    if (known == nullptr)
        return;
    if (known->effect == RuleEffect::apply)
        names_.announceIn(rules);
    if (known->effect != RuleEffect::removeAll)
        return;
    names_.rulesMayBeGone();
    ++removals_;
}

void ServedPlugin::requireCollectorCanStart() const {
    const std::string misplaced = collectorFilesProblem();
    if (!misplaced.empty())
        throw std::runtime_error(misplaced);
    removeDeadMarker();
}

std::string ServedPlugin::executeCommand(const std::string &command, const std::string &data) {
    const std::string problem = commandProblem(command, data);
    if (!problem.empty())
        throw mavo::rmi::BadArguments(problem);
    requirePluginFiles();
    if (command == kStartCollector)
        requireCollectorCanStart();
    announce(command, data);
    if (changesSettings(command))
        return changeSettings(command, data);
    return guard_.run([&, &plugin = plugin()] { return plugin.executeCommand(command, data); });
}

std::string ServedPlugin::changeSettings(const std::string &command, const std::string &data) {
    const auto change = [&, &plugin = plugin()] {
        return guard_.run([&] { return plugin.executeCommand(command, data); });
    };
    std::string result = change();
    if (command != kStartCollector && result.empty())
        repeatWhileOverwritten([&] { return isStored(command, data); }, [&] { result = change(); });
    keepConfig();
    if (result.empty() && !isStored(command, data))
        throw std::runtime_error("the settings were not stored; try again");
    return result;
}

int ServedPlugin::setStatus(int status) {
    AbstractDPluginProvider &plugin = this->plugin();
    requirePluginFiles();
    removeDeadMarker();
    if (isStatus(status))
        applied_ = status;
    int result = -1;
    {
        const CollectorBlock block;
        const auto change = [&] { result = guard_.run([&] { return plugin.setStatus(status); }); };
        change();
        if (status == 0 && result == 0)
            repeatWhileOverwritten([] { return !collectorWanted(); }, change);
    }
    if (status == 1)
        startWantedCollector();
    keepConfig();
    return result;
}

void ServedPlugin::applyStatus(int status) {
    switchTo(status);
    keepConfig();
}

void ServedPlugin::switchTo(int status) {
    AbstractDPluginProvider &plugin = this->plugin();
    requirePluginFiles();
    removeDeadMarker();
    if (isStatus(status))
        applied_ = status;
    {
        const CollectorBlock block;
        const auto change = [&] { guard_.run([&] { plugin.applyStatus(status); }); };
        change();
        if (status == 0)
            repeatWhileOverwritten([] { return !collectorWanted(); }, change);
    }
    if (status == 1)
        startWantedCollector();
}

int ServedPlugin::getStatus() const {
    return guard_.run([&plugin = plugin()] { return plugin.getStatus(); });
}

bool ServedPlugin::wantsCollector() const { return applied_ == 1 && collectorWanted(); }

// By command nothing can come back into the middle of another operation.
void ServedPlugin::startWantedCollector() {
    if (!wantsCollector() || collectorLives())
        return;
    try {
        if (!executeCommand(std::string(kStartCollector), "").empty())
            logError("the collector could not be started");
    } catch (...) {
        logError("the collector could not be started: " + textOfException());
    }
}

void ServedPlugin::startCollectorAgain(std::optional<std::chrono::seconds> clockSetBy) {
    try {
        if (clockSetBy)
            forgetStatisticsOfOldClock(*clockSetBy);
        const std::string change = lastReportAsPolicy(clockSetBy.value_or(std::chrono::seconds(0)));
        if (!change.empty())
            executeCommand(std::string(kChangeSettings), change);
    } catch (...) {
        logError("the collector is started with what it has: " + textOfException());
    }
    startWantedCollector();
}

} // namespace host
