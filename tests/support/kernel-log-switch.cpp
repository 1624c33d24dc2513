#include "support/kernel-log-switch.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kernellog {
namespace {

constexpr timespec kBetweenLooks{0, 2'000'000};

bool isOn(const std::string &file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    std::array<char, 8> text{};
    const bool on = ::read(fd, text.data(), text.size()) > 0 && text[0] == '1';
    ::close(fd);
    return on;
}

bool switchOn(const std::string &file) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    const bool written = ::write(fd, "1\n", 2) == 2;
    ::close(fd);
    return written;
}

// A process that looks at the switch until it is found off, or until it is told to end.
class Watcher {
public:
    explicit Watcher(const std::string &file) : id_(::fork()) {
        if (id_ != 0)
            return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (isOn(file))
            ::nanosleep(&kBetweenLooks, nullptr);
        ::_exit(0);
    }
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;
    ~Watcher() { foundOff(); }

    bool foundOff() {
        if (id_ <= 0)
            return off_;
        ::kill(id_, SIGKILL);
        int status = 0;
        while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
        }
        id_ = -1;
        off_ = WIFEXITED(status);
        return off_;
    }

private:
    pid_t id_;
    bool off_ = false;
};

} // namespace

int runUndisturbed(const std::string &switchFile, const std::function<int()> &test, int attempts) {
    for (int attempt = 1;; ++attempt) {
        if (!isOn(switchFile) && !switchOn(switchFile))
            std::printf("%s is off and cannot be switched on\n", switchFile.c_str());
        std::fflush(nullptr);
        Watcher watcher(switchFile);
        const int status = test();
        const bool disturbed = watcher.foundOff() || !isOn(switchFile);
        if (status == 0 || !disturbed)
            return status;
        std::printf("somebody else changed %s: %s\n", switchFile.c_str(),
                    attempt < attempts ? "the test starts again" : "the test was run often enough");
        if (attempt >= attempts)
            return status;
    }
}

} // namespace kernellog
