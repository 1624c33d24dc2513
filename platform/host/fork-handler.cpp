#include "host/fork-handler.h"

#include <csignal>
#include <pthread.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "host/call-watch.h"
#include "host/collector.h"
#include "host/log.h"
#include "support/signals.h"
#include "support/unique-fd.h"

namespace host {
namespace {

// Handlers of pthread_atfork(3) have no argument.
struct State {
    HostResources resources;
    support::UniqueFd lock; // only during a fork, and in the child
    bool active = false;
};

State &state() {
    static State *const one = new State; // for as long as the process, whoever forks in its last moments
    return *one;
}

// Nobody calls this, nor inParent() and inChild(). The plugin forks its collector in the middle of a call, somewhere
// below ServedPlugin::executeCommand(); the C library runs this first, still in the host, and then the other two, one
// in each process, before fork() returns there. Who asks afterwards whether a collector lives so finds the lock taken,
// however late the child begins.
void beforeFork() {
    if (!state().active)
        return;
    state().lock = takeLivenessLock();
    if (!state().lock)
        logError("the lock of the collector cannot be taken: should a collector be started now, it passes for dead");
}

void inParent() { state().lock.reset(); }

void restoreSignals(const std::vector<int> &signals) {
    for (const int signal : signals)
        ::signal(signal, SIG_DFL);
    support::unblockAllSignals();
}

void inChild() {
    if (!std::exchange(state().active, false))
        return;
    restoreSignals(state().resources.signals);
    CallWatch::endInChild();
    static_cast<void>(state().lock.release()); // the child holds it until it ends
    for (const int fd : state().resources.descriptors())
        ::close(fd);
}

} // namespace

void handleForks(HostResources resources) {
    state().resources = std::move(resources);
    state().active = true;
    const int error = ::pthread_atfork(beforeFork, inParent, inChild);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "pthread_atfork");
}

} // namespace host
