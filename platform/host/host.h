// The policy host: one plugin, what it is called with, and what it is called by.
#ifndef PLATFORM_HOST_HOST_H
#define PLATFORM_HOST_HOST_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/call-watch.h"
#include "host/collector-keeper.h"
#include "host/names-in-use.h"
#include "host/plugin-guard.h"
#include "host/plugin-library.h"
#include "host/rebuild-reasons.h"
#include "host/rebuild.h"
#include "host/remarks.h"
#include "host/status-storage.h"
#include "mavo/rmi-protocol.h"
#include "mavo/rmi.h"

namespace host {

// Calls the plugin, one call at a time, on the thread that calls it. The plugin that serves is never deleted, because
// configuration objects write back what they hold when they die; one in whose place another came is deleted with the
// configuration held (see retired-plugin.h).
class Host {
public:
    // Does not call the factory yet. Becomes the one policy storage of the process, and must outlive all calls.
    explicit Host(PluginFactory factory);
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // Told of interrupted operations from now on, and of tables that were brought up anew; null ends it. Must outlive
    // all calls.
    void setRebuild(Rebuild *rebuild) { rebuild_ = rebuild; }
    // The host names of the rules, for whoever has the loop.
    NamesInUse &names() { return names_; }

    // The traffic-control service (ServiceState::serviceId) to which all stored rules were sent last, as far as is
    // known.
    std::uint64_t builtBy() const { return builtBy_; }
    void setBuiltBy(std::uint64_t serviceId) { builtBy_ = serviceId; }

    // Asked for the collector's state from now on; null ends it. Must outlive all calls.
    void setCollectorKeeper(CollectorKeeper *keeper) { keeper_ = keeper; }
    // Whether a collector should run: it is switched on in the configuration, and the plugin is enabled.
    bool wantsCollector() const;
    // Starts one in place of one that has ended. It goes on after the last report: the plugin's own copy of that time
    // may be an old one. After the clock was set, it gets no statistics with times that the clock never had.
    void startCollectorAgain(std::optional<std::chrono::seconds> clockSetBy);
    // What the status says of the file of privileges: one line, empty at first.
    void setPrivilegesProblem(std::string problem) { privilegesProblem_ = std::move(problem); }

    // Brings up a plugin: checks the data, calls the factory, disables the plugin again where a status of 0 is stored
    // and starts a collector that is switched on. Throws std::runtime_error with one line when no plugin comes up; then
    // the one before it, if there is one, goes on serving.
    void bringUp();
    // The same for the first time. Gives back why it has to be done again: nothing, why the tables may not be what was
    // stored, or why no plugin has come up, when that may pass (a database that cannot be used now, a statement of one
    // that failed, a service that is away, an interrupted connection, no memory). Throws the rest.
    std::string start();
    // The same by the host's own decision: the status as last applied stays, too, and while the service does not answer
    // the plugin is not bothered. What would be thrown is given back.
    std::string rebuild();

    // The operations of the plugin. Its exceptions go to the caller, who never lets them past a further bringUp(). What
    // they change in the configuration is on the disk when they return; std::runtime_error when it is not. A command
    // that the host does not let through throws mavo::rmi::BadArguments and has changed nothing. While no plugin has
    // come up, or while something else lies in the place of one of the plugin's files, they throw std::runtime_error,
    // which says so.
    std::string executeCommand(const std::string &command, const std::string &data);
    int setStatus(int status);
    void applyStatus(int status);
    int getStatus();
    // bringUp() as a remote method: 0, or -1 with the reason in the log.
    int reload();

    // The documents that vpkctl shows, as JSON. Throw when they cannot be had.
    // `reading` as in documents.h.
    std::string statusDocument(bool reading);
    std::string rulesDocument() const;
    std::string reportsDocument() const;

    // The remote method of that name, the host's own or the plugin's, or null. While no plugin has come up each name
    // may be one of the plugin's: it gets a method for callers with the privilege /privilege/vpk.firewall that says so.
    std::shared_ptr<const mavo::rmi::MethodContext> find(const std::string &name) const;
    // Carries out a remote call. Throws std::bad_alloc, whatever the plugin throws; a rebuild follows then, as the call
    // may have got anywhere, unless it only looked. When one follows otherwise, the remarks of the reply (see
    // remarks.h) say so and why. One that is waited for already comes sooner.
    mavo::rmi::Reply invoke(const std::string &name, const mavo::rmi::MethodContext &method,
                            mavo::rmi::Message &request);

private:
    struct Instance;

    mavo::rmi::Reply carryOut(const std::string &name, const mavo::rmi::MethodContext &method,
                              mavo::rmi::Message &request);
    AbstractDPluginProvider &plugin() const;
    std::string whatIsWrong() const;
    void bringUpWith(std::optional<int> applied);
    void replaceBy(std::unique_ptr<Instance> instance);
    std::string bringUpAndJudge(std::optional<int> applied);
    void orderRebuild(const Verdict &verdict, bool broughtUp, Remarks &remarks);
    void addAccount(const Verdict &verdict, Remarks &remarks) const;
    int storedStatus();
    void announceNames(std::string_view command, const std::string &rules);
    void keepDisabled(AbstractDPluginProvider &plugin);
    void switchTo(int status);
    AbstractDPluginProvider *callFactory(mavo::rmi::Service &service) const;
    void restoreAfterFailedFactory(bool disabled);
    void startWantedCollector();
    static void requirePluginFiles();

    PluginFactory factory_;
    PluginGuard guard_;
    StatusStorage storage_;
    mavo::rmi::Service ownMethods_;
    const Instance *current_ = nullptr; // kept until another takes its place
    int applied_ = -1;                  // the status last applied, -1 before the first
    std::uint64_t builtBy_ = 0;
    Rebuild *rebuild_ = nullptr;
    CollectorKeeper *keeper_ = nullptr;
    bool mayChangeAllRules_ = false; // the remote call that is under way
    RebuildReasons reasons_;
    std::string privilegesProblem_;
    NamesInUse names_;
};

// Adds the remote methods of the host itself, for callers with the privilege /privilege/vpk.admin.
void addHostMethods(mavo::rmi::Service &service, Host &host);

// True for methods of the host that only look.
bool onlyLooks(const std::string &method);

} // namespace host

#endif
