#include "support/signals.h"

#include <cerrno>
#include <csignal>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace support {

UniqueFd receiveSignals(const std::vector<int> &signals) {
    sigset_t set;
    ::sigemptyset(&set);
    for (const int signal : signals)
        ::sigaddset(&set, signal);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    auto fd = aboveStandardStreams(UniqueFd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK)));
    if (!fd)
        throw std::system_error(errno, std::generic_category(), "signalfd");
    return fd;
}

int takeSignal(const UniqueFd &received) {
    signalfd_siginfo signal{};
    const bool isWhole = ::read(received.get(), &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal);
    return isWhole ? static_cast<int>(signal.ssi_signo) : 0;
}

void unblockAllSignals() {
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

} // namespace support
