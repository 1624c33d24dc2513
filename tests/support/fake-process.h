// The calls about processes and time that a test wants to watch or to fail: fork(2), setsid(2), _exit(2), shm_open(3),
// fchmod(2), time(2), sysinfo(2), sleep(3). What is not ordered otherwise goes through to the system.
#ifndef TESTS_SUPPORT_FAKE_PROCESS_H
#define TESTS_SUPPORT_FAKE_PROCESS_H

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fakeprocess {

struct Orders {
    bool failFork = false;
    bool failSetsid = false;
    bool failFchmod = false;
    // The time, the system's when unset.
    std::optional<long long> now;
    // Seconds since boot; the query fails, with nonsense for an answer, when unset.
    std::optional<long> uptime;
    // In the new process, before fork returns there.
    std::function<void()> inChild;
    // In place of sleeping.
    std::function<unsigned int(unsigned int seconds)> sleep;
    // Before the process ends by _exit.
    std::function<void(int status)> exit;
};

struct ShmOpen {
    std::string name;
    int flags = 0;
    mode_t mode = 0;
};

Orders &orders();
// Forked by this process, in order.
const std::vector<pid_t> &children();
const std::vector<ShmOpen> &shmOpens();

} // namespace fakeprocess

#endif
