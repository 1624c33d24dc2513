// The policy host at work: a socket, signals and one event loop.
#ifndef PLATFORM_HOST_SERVER_LOOP_H
#define PLATFORM_HOST_SERVER_LOOP_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/collector-keeper.h"
#include "host/dispatch.h"
#include "host/plugin-life.h"
#include "host/rebuild.h"
#include "host/served-plugin.h"
#include "host/service-watch.h"
#include "host/table-builder.h"
#include "mavo/privileges.h"
#include "mavo/rmi-server.h"
#include "support/event-loop.h"
#include "support/unique-fd.h"

namespace host {

// Serves a plugin on the calling thread until SIGTERM or SIGINT. To be made before the plugin comes up, as it blocks
// the signals that it handles.
class ServerLoop {
public:
    // The plugin, and how it is brought up again. They must outlive the call of serve().
    struct Served {
        ServedPlugin &plugin;
        PluginLife &life;
        TableBuilder &builder;
    };

    // `lock` is the lock of the single instance, kept from forked processes like all else. Throws std::system_error.
    explicit ServerLoop(support::UniqueFd lock);

    // Listens at `socket` (0666, as privileges decide; a missing directory is made, 0755) and serves. Removes the
    // socket at the end. Builds the tables anew by itself after operations that were interrupted, with `interruption`
    // for one that already was, or for a plugin that has not come up yet: the service manager is then told that the
    // host is ready when that is mended, after 30 s at the latest. So it does when the traffic-control service is
    // another one than that by which the host has built them, or cannot know what should stand. Keeps a collector that
    // is switched on alive. Throws std::system_error when it cannot listen.
    void serve(const Served &served, const std::string &socket, const mavo::rmi::Privileges &privileges,
               const std::string &interruption);

    // The signals that are handled or ignored, for handleForks().
    static std::vector<int> signals();
    // All of its open descriptors, likewise.
    std::vector<int> descriptors() const;

private:
    void handleSignal();
    void listen(Dispatch &dispatch, support::UniqueFd listener, const mavo::rmi::Privileges &privileges);
    void keepCollector(ServedPlugin &plugin);
    void watchService(const TableBuilder &builder, Rebuild &rebuild);
    void becomeReadyAfter(const std::string &interruption, Rebuild &rebuild);
    void becomeReady();
    void giveBackMemory();

    support::UniqueFd lock_;
    support::EventLoop loop_;
    support::UniqueFd signals_;
    std::unique_ptr<mavo::rmi::Server> server_;
    std::unique_ptr<CollectorKeeper> keeper_; // while it serves
    std::unique_ptr<ServiceWatch> watch_;     // likewise
    support::EventLoop::Timer ready_ = 0;
    bool isReady_ = false;
    support::EventLoop::Timer trimLater_ = 0;
};

} // namespace host

#endif
