#include "host/end-collector.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>

#include "host/collector-process.h"
#include "host/collector.h"
#include "host/log.h"
#include "host/paths.h"
#include "host/single-instance.h"

namespace host {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void end(const CollectorProcess &collector, milliseconds patience) {
    constexpr milliseconds kStep{5};
    const auto deadline = Clock::now() + patience;
    while (!sleeps(collector) && Clock::now() < deadline) {
        if (hasEnded(collector, kStep))
            return;
    }
    for (const int signal : {SIGTERM, SIGKILL}) {
        if (!signalCollector(collector, signal))
            throw std::runtime_error("the collector, process " + std::to_string(collector.number) +
                                     ", cannot be ended: " + std::strerror(errno));
        if (hasEnded(collector, patience)) {
            logInfo("ended the collector, process " + std::to_string(collector.number));
            return;
        }
    }
}

} // namespace

void endCollector(milliseconds patience) {
    const auto off = holdOffHosts();
    if (!off)
        throw std::runtime_error("the policy host runs, and could start another collector: stop it first");
    for (const auto &collector : findCollectors())
        end(collector, patience);
    if (collectorLives())
        throw std::runtime_error(std::string("a collector still holds ") + kCollectorLock +
                                 ", and cannot be found from here");
    const std::string problem = removeDeadMarker();
    if (!problem.empty())
        throw std::runtime_error(problem);
}

} // namespace host
