// The plugin that serves, and what it is asked to do.
#ifndef PLATFORM_HOST_SERVED_PLUGIN_H
#define PLATFORM_HOST_SERVED_PLUGIN_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/names-in-use.h"
#include "host/plugin-guard.h"
#include "mavo/rmi.h"
#include "vpk-pil/vpk-pil.h"

namespace host {

// A plugin and the table that it has put its remote methods into.
struct PluginInstance {
    mavo::rmi::Service service;
    AbstractDPluginProvider *plugin = nullptr;
};

// Calls the plugin, one call at a time, on the thread that calls it; none serves at first. The one that serves is never
// deleted, because configuration objects write back what they have read when they die; one in whose place another came
// is, see retired-plugin.h.
//
// The plugin's exceptions go to the caller. What an operation changes in the configuration is on the disk when it
// returns; std::runtime_error when it is not. While something else lies in the place of one of the plugin's files,
// operations throw std::runtime_error, which says so.
class ServedPlugin {
public:
    // While no plugin has come up, operations throw this.
    class NotUp : public std::runtime_error {
    public:
        NotUp() : std::runtime_error("the plugin has not come up yet") {}
    };

    bool isUp() const { return current_ != nullptr; }
    AbstractDPluginProvider &plugin() const;
    // How many have come up so far.
    std::uint64_t number() const { return number_; }
    // The remote method of that name that the plugin itself offers, or null.
    std::shared_ptr<const mavo::rmi::MethodContext> method(const std::string &name) const;

    // Serves `instance` from now on, which is enabled or disabled as it stands.
    void replaceBy(std::unique_ptr<PluginInstance> instance, bool isEnabled);
    // A command that the host does not let through throws mavo::rmi::BadArguments and has changed nothing.
    std::string executeCommand(const std::string &command, const std::string &data);
    int setStatus(int status);
    void applyStatus(int status);
    int getStatus() const;
    // applyStatus(), but what it changes in the configuration need not be on the disk.
    void switchTo(int status);
    // The status last applied, -1 before the first.
    int applied() const { return applied_; }

    // To be called before a command of the plugin, or the method that does the same, is carried out: tells the
    // traffic-control service of the host names in the rules.
    void announce(std::string_view command, const std::string &rules);
    // How often all rules of a kind were about to be removed.
    std::uint64_t removals() const { return removals_; }
    NamesInUse &names() { return names_; }

    // Whether a collector should run: it is switched on in the configuration, and the plugin is enabled.
    bool wantsCollector() const;
    // Starts the collector where one should run and none does: the host keeps the plugin from that while it comes up or
    // gets a status. Failures are logged.
    void startWantedCollector();
    // The same in place of one that has ended. It goes on after the last report: the plugin's own copy of that time may
    // be an old one. After the clock was set, it gets no statistics with times that the clock never had.
    void startCollectorAgain(std::optional<std::chrono::seconds> clockSetBy);

private:
    void requireCollectorCanStart() const;
    std::string changeSettings(const std::string &command, const std::string &data);

    PluginGuard guard_;
    const PluginInstance *current_ = nullptr; // kept until another takes its place
    std::uint64_t number_ = 0;
    int applied_ = -1;
    std::uint64_t removals_ = 0;
    NamesInUse names_;
};

} // namespace host

#endif
