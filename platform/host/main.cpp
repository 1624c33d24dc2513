// vpkd, the policy host: loads the firewall plugin and serves it.
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <thread>

#include <CLI/CLI.hpp>

#include "host/call-watch.h"
#include "host/data-check.h"
#include "host/databases.h"
#include "host/end-collector.h"
#include "host/exception-text.h"
#include "host/fork-handler.h"
#include "host/log.h"
#include "host/paths.h"
#include "host/plugin-library.h"
#include "host/plugin-life.h"
#include "host/privileges.h"
#include "host/served-plugin.h"
#include "host/server-loop.h"
#include "host/single-instance.h"
#include "host/table-builder.h"
#include "mavo/database.h"
#include "rlv/rlv-query.h"
#include "support/command-line.h"
#include "vlog/log-options.h"

namespace {

struct Options {
    std::string socket = "/run/vpk/host/socket";
    std::string rlvSocket = rlv::kDefaultSocketPath;
    std::string plugin = host::defaultPluginPath();
    std::string privileges = "/etc/vpk/privileges.conf";
    vlog::LogOptions log;
    bool endCollector = false;
    int serviceTimeout = 0; // seconds
};

void addOptions(CLI::App &app, Options &options) {
    app.add_option("--socket", options.socket, "Where clients reach the host")->capture_default_str();
    app.add_option("--rlv-socket", options.rlvSocket, "Where the traffic-control service is")->capture_default_str();
    app.add_option("--plugin", options.plugin, "The plugin's library")->capture_default_str();
    app.add_option("--privileges", options.privileges, "Who may call what: lines \"<privilege> <account> ...\"")
        ->capture_default_str();
    app.add_option("--service-timeout", options.serviceTimeout,
                   "How many seconds to wait for a traffic-control service that does not serve yet")
        ->check(CLI::Range(0, 3600))
        ->capture_default_str();
    vlog::addLogOptions(app, options.log);
    app.add_flag("--end-collector", options.endCollector,
                 "End the collector, also one of an earlier host, take its marker away, and exit; no host may run");
    app.footer("Runs until SIGTERM. Rules and collector stay as they are when it ends. Its data is in /opt/data/vpk.");
}

// A service that is there may be stopped, busy, about to end, or short of something. One that serves others alone stays
// so.
bool mayComeUp(const std::error_code &error) { return error.value() != EACCES && error.value() != EPROTO; }

// Gives back which service it is that answers.
std::uint64_t requireTrafficControl(const Options &options) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPause{100};
    rlv::setSocketPath(options.rlvSocket);
    for (const auto deadline = Clock::now() + std::chrono::seconds(options.serviceTimeout);;
         std::this_thread::sleep_for(kPause)) {
        try {
            return rlv::query(0, host::kQueryTimeout).serviceId;
        } catch (const std::system_error &error) {
            if (!mayComeUp(error.code()) || Clock::now() >= deadline)
                throw std::runtime_error("the traffic-control service does not answer at " + options.rlvSocket + ": " +
                                         error.what());
        }
    }
}

// What is wrong, the start says itself.
bool isDataWell() try { return host::dataProblem().empty(); } catch (const mavo::database::Unavailable &) {
    return false;
}

void run(const Options &options) {
    ::umask(077);
    vlog::chooseLog(options.log, "vpkd");
    if (options.endCollector)
        return host::endCollector();
    const auto privileges = host::loadPrivileges(options.privileges);
    for (const auto &problem : privileges.problems())
        host::logError(problem);
    host::makeDataDirectories();
    auto lock = host::takeHostLock();
    if (!lock)
        throw std::runtime_error(std::string("already running: another process holds ") + host::kHostLock);
    const std::uint64_t serviceId = requireTrafficControl(options);

    host::ServerLoop server(std::move(lock));
    host::handleForks({host::ServerLoop::signals(), [&server] { return server.descriptors(); }});
    const auto factory = host::loadPlugin(options.plugin);
    host::CallWatch::prepare();
    host::ServedPlugin plugin;
    host::PluginLife life(factory, plugin);
    host::TableBuilder builder(life, serviceId);
    host::watchOverDatabases();
    if (isDataWell())
        host::refreshRuleBackup();
    const std::string interruption = builder.buildAtStart();
    server.serve({plugin, life, builder}, options.socket, privileges, interruption);
}

} // namespace

int main(int argc, char **argv) try {
    CLI::App app("Policy host of the firewall plugin");
    app.set_version_flag("--version", "vpkd " NYR_VERSION);
    Options options;
    addOptions(app, options);
    if (const auto ended = support::parseCommandLine(app, argc, argv))
        return *ended;
    run(options);
    return EXIT_SUCCESS;
} catch (...) {
    std::fprintf(stderr, "vpkd: %s\n", host::textOfException().c_str());
    return EXIT_FAILURE;
}
