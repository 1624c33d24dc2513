// A collector that sleeps for as long as the object lives, in a process of its own.
#ifndef TESTS_PLATFORM_HOST_LIVING_COLLECTOR_H
#define TESTS_PLATFORM_HOST_LIVING_COLLECTOR_H

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include "host/collector-process.h"
#include "host/collector.h"

namespace hosttest {

class LivingCollector {
public:
    LivingCollector() {
        auto lock = host::takeLivenessLock();
        child_ = ::fork();
        if (child_ == 0) {
            ::sleep(86'400); // as a collector does: who awaits its rest looks for this very call
            ::_exit(0);
        }
        lock.reset();
        host::awaitCollectorsRest(std::chrono::seconds(20));
    }
    ~LivingCollector() {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }
    LivingCollector(const LivingCollector &) = delete;
    LivingCollector &operator=(const LivingCollector &) = delete;

private:
    pid_t child_;
};

} // namespace hosttest

#endif
