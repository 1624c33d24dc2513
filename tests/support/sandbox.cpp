#include "support/sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sandbox {
namespace {

using Body = std::function<int()>;
using Afterwards = std::function<int(int)>;

int skipped(const char *what) {
    // ctest counts a test as skipped by the first words of this line.
    std::printf("[  SKIPPED ] no private namespaces here: %s: %s\n", what, std::strerror(errno));
    return 0;
}

bool writeFile(const char *path, const std::string &text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return written;
}

bool becomeRootOfUserNamespace() {
    const auto uid = std::to_string(::geteuid());
    const auto gid = std::to_string(::getegid());
    return ::unshare(CLONE_NEWUSER) == 0 && writeFile("/proc/self/setgroups", "deny") &&
           writeFile("/proc/self/uid_map", "0 " + uid + " 1") && writeFile("/proc/self/gid_map", "0 " + gid + " 1");
}

bool coverDirectories() {
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    for (const char *directory : {"/opt", "/run", "/dev/shm"}) {
        if (::mount("tmpfs", directory, "tmpfs", 0, "mode=0755") != 0)
            return false;
    }
    return ::chmod("/dev/shm", 01777) == 0 && ::mount("proc", "/proc", "proc", 0, nullptr) == 0;
}

bool raiseLoopback() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool raised = fd >= 0 && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    ::close(fd);
    return raised;
}

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

int waitFor(pid_t wanted) {
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(-1, &status, 0);
        if (ended == wanted)
            return exitStatus(status);
        if (ended < 0 && errno != EINTR)
            return 127;
    }
}

void endAllOthers() {
    ::kill(-1, SIGKILL);
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

// The first process of the new process-id namespace: when it ends, the kernel kills all that is left in there.
int runAsInit(const Body &body, const Afterwards &afterwards) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!coverDirectories())
        return skipped("mount");
    if (!raiseLoopback())
        return skipped("loopback");
    const pid_t child = ::fork();
    if (child == 0)
        std::exit(body());
    if (child < 0)
        return skipped("fork");
    const int status = waitFor(child);
    if (!afterwards)
        return status;
    endAllOthers();
    return afterwards(status);
}

int enterAndRun(const Body &body, const Afterwards &afterwards) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::geteuid() != 0 && !becomeRootOfUserNamespace())
        return skipped("user namespace");
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID) != 0)
        return skipped("unshare");
    const pid_t init = ::fork();
    if (init == 0) {
        const int status = runAsInit(body, afterwards);
        std::fflush(nullptr);
        ::_exit(status);
    }
    return init < 0 ? skipped("fork") : waitFor(init);
}

} // namespace

int run(const Body &body, const Afterwards &afterwards) {
    std::fflush(nullptr);
    // The caller itself stays where it is: after unshare(CLONE_NEWPID) and the end of the first process, a process can
    // start no other any more.
    const pid_t gate = ::fork();
    if (gate == 0) {
        const int status = enterAndRun(body, afterwards);
        std::fflush(nullptr);
        ::_exit(status);
    }
    return gate < 0 ? skipped("fork") : waitFor(gate);
}

} // namespace sandbox
