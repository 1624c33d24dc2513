#include "support/fake-process.h"

#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace fakeprocess {
namespace {

std::vector<pid_t> forked;
std::vector<ShmOpen> opens;

// The function that this one stands before.
template <typename Function> Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

int failure(int code) {
    errno = code;
    return -1;
}

} // namespace

Orders &orders() {
    static Orders theOrders;
    return theOrders;
}

const std::vector<pid_t> &children() { return forked; }

const std::vector<ShmOpen> &shmOpens() { return opens; }

} // namespace fakeprocess

using fakeprocess::failure;
using fakeprocess::next;
using fakeprocess::orders;

extern "C" {

pid_t fork() {
    if (orders().failFork)
        return failure(EAGAIN);
    const pid_t child = next<pid_t()>("fork")();
    if (child > 0)
        fakeprocess::forked.push_back(child);
    if (child == 0 && orders().inChild)
        orders().inChild();
    return child;
}

pid_t setsid() { return orders().failSetsid ? failure(EPERM) : next<pid_t()>("setsid")(); }

void _exit(int status) {
    if (orders().exit)
        orders().exit(status);
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}

int shm_open(const char *name, int flags, mode_t mode) {
    fakeprocess::opens.push_back({name, flags, mode});
    return next<int(const char *, int, mode_t)>("shm_open")(name, flags, mode);
}

int fchmod(int descriptor, mode_t mode) {
    return orders().failFchmod ? failure(EPERM) : next<int(int, mode_t)>("fchmod")(descriptor, mode);
}

time_t time(time_t *result) {
    // Where long has 32 bits, a time of 64 has a function of its own, and this is the one that is defined here.
    const char *const name = sizeof(time_t) > sizeof(long) ? "__time64" : "time";
    const time_t now = orders().now ? static_cast<time_t>(*orders().now) : next<time_t(time_t *)>(name)(nullptr);
    if (result != nullptr)
        *result = now;
    return now;
}

int sysinfo(struct sysinfo *info) {
    *info = {};
    info->uptime = orders().uptime.value_or(123456789);
    return orders().uptime ? 0 : failure(EFAULT);
}

unsigned int sleep(unsigned int seconds) {
    return orders().sleep ? orders().sleep(seconds) : next<unsigned int(unsigned int)>("sleep")(seconds);
}

} // extern "C"
