#include "host/server-loop.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <boost/algorithm/string/join.hpp>

#include "host/collector.h"
#include "host/databases.h"
#include "host/history.h"
#include "host/log.h"
#include "host/rule-replacement.h"
#include "support/directories.h"
#include "support/readiness.h"
#include "support/signals.h"

namespace host {
namespace {

// So long a start may be kept from others, which come after it, by what may pass.
constexpr std::chrono::seconds kReadyAnyway{30};

support::UniqueFd openSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN); // writing beyond a limit of the file size fails instead, with EFBIG
    return support::receiveSignals({SIGTERM, SIGINT, SIGCHLD});
}

// The only children of the host are collectors.
bool reapCollectors() {
    bool reaped = false;
    while (::waitpid(-1, nullptr, WNOHANG) > 0)
        reaped = true;
    if (reaped)
        removeDeadMarker();
    return reaped;
}

} // namespace

ServerLoop::ServerLoop(support::UniqueFd lock) : lock_(std::move(lock)), signals_(openSignals()) {
    loop_.watch(signals_.get(), EPOLLIN, [this](std::uint32_t) { handleSignal(); });
}

void ServerLoop::handleSignal() {
    while (const int signal = support::takeSignal(signals_)) {
        if (signal != SIGCHLD)
            loop_.stop();
        else if (reapCollectors() && keeper_)
            keeper_->look();
    }
}

void ServerLoop::serve(const Served &served, const std::string &socket, const mavo::rmi::Privileges &privileges,
                       const std::string &interruption) {
    const auto directory = std::filesystem::path(socket).parent_path();
    if (!directory.empty())
        support::makeDirectory(directory, 0755);
    auto listener = mavo::rmi::listenAt(socket, 0666);
    History history(loop_);
    Rebuild rebuild(loop_, [&] {
        history.settle();
        std::string problem = served.builder.buildAgain();
        history.lookAfter("the tables were built anew");
        return problem;
    });
    retryRuleBackupIn(&loop_);
    keepCollector(served.plugin);
    RuleReplacement replacement(served.plugin, served.life);
    Dispatch dispatch({served.plugin, served.life, served.builder, rebuild, *keeper_, history, replacement,
                       boost::algorithm::join(privileges.problems(), "; ")});
    listen(dispatch, std::move(listener), privileges);
    keeper_->look(); // may fork, and so comes after all descriptors are known
    watchService(served.builder, rebuild);
    served.plugin.names().follow(&loop_, [&rebuild](const std::string &reason) { rebuild.follow(reason); });
    logInfo("serving at " + socket);
    becomeReadyAfter(interruption, rebuild);
    loop_.run();
    served.plugin.names().follow(nullptr, {});
    watch_.reset();
    retryRuleBackupIn(nullptr);
    server_.reset();
    keeper_.reset();
    ::unlink(socket.c_str());
    logInfo("stopped");
}

void ServerLoop::listen(Dispatch &dispatch, support::UniqueFd listener, const mavo::rmi::Privileges &privileges) {
    server_ = std::make_unique<mavo::rmi::Server>(
        loop_, std::move(listener), privileges, mavo::rmi::ServerLimits(),
        [&dispatch](const std::string &name) { return dispatch.find(name); },
        [this, &dispatch](const mavo::rmi::Caller &caller, const std::string &name,
                          const mavo::rmi::MethodContext &method, mavo::rmi::Message &request) {
            auto reply = dispatch.invoke(caller, name, method, request);
            if (std::max(request.body().size(), reply.body.size()) > mavo::rmi::kSmallBodyBytes)
                giveBackMemory();
            return reply;
        });
}

void ServerLoop::keepCollector(ServedPlugin &plugin) {
    keeper_ = std::make_unique<CollectorKeeper>(
        loop_, CollectorKeeper::Actions{[&plugin] { return plugin.wantsCollector(); },
                                        [&plugin](auto clockSetBy) { plugin.startCollectorAgain(clockSetBy); }});
}

void ServerLoop::watchService(const TableBuilder &builder, Rebuild &rebuild) {
    watch_ = std::make_unique<ServiceWatch>(
        loop_, [&builder] { return builder.builtBy(); },
        [&rebuild](const std::string &reason) {
            if (rebuild.isWanted())
                rebuild.hasten(); // its pause may be that of a service which was away for long
            else
                rebuild.follow(reason);
        });
}

void ServerLoop::becomeReadyAfter(const std::string &interruption, Rebuild &rebuild) {
    if (interruption.empty())
        return becomeReady();
    rebuild.onSettled([this] { becomeReady(); });
    rebuild.want(interruption);
    ready_ = loop_.after(kReadyAnyway, [this] { becomeReady(); });
}

// Told once.
void ServerLoop::becomeReady() {
    loop_.cancel(std::exchange(ready_, 0));
    if (!std::exchange(isReady_, true) && !support::tellReady())
        logError(std::string("the service manager cannot be told that the host serves: ") + std::strerror(errno));
}

// The allocator keeps what a large call has freed, for another one that may never come.
void ServerLoop::giveBackMemory() {
    loop_.after(std::chrono::milliseconds(0), [] { ::malloc_trim(0); }); // when the request is gone as well
    loop_.cancel(trimLater_);
    // A reply that its client does not read is gone by then.
    const auto later = mavo::rmi::ServerLimits().idleTimeout + std::chrono::seconds(5);
    trimLater_ = loop_.after(later, [this] {
        trimLater_ = 0;
        ::malloc_trim(0);
    });
}

std::vector<int> ServerLoop::signals() { return {SIGTERM, SIGINT, SIGCHLD, SIGPIPE, SIGXFSZ}; }

std::vector<int> ServerLoop::descriptors() const {
    std::vector<int> all = {lock_.get(), loop_.descriptor(), signals_.get()};
    if (server_) {
        const auto ofServer = server_->descriptors();
        all.insert(all.end(), ofServer.begin(), ofServer.end());
    }
    if (watch_ && watch_->descriptor() >= 0)
        all.push_back(watch_->descriptor());
    if (keeper_) {
        const auto ofKeeper = keeper_->descriptors();
        all.insert(all.end(), ofKeeper.begin(), ofKeeper.end());
    }
    return all;
}

} // namespace host
