#include "host/fork-handler.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "host/collector.h"
#include "host/paths.h"
#include "support/directories.h"
#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

bool isDefault(int signal) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_DFL;
}

bool isBlocked(int signal) {
    sigset_t mask;
    ::sigprocmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
}

class AForkedProcess : public testing::Test {
protected:
    void SetUp() override {
        support::makeDataDirectory(host::kDataDirectory);
        ASSERT_EQ(::pipe2(own_.data(), O_CLOEXEC), 0);
        ASSERT_EQ(::pipe2(other_.data(), O_CLOEXEC), 0);
        host::handleForks({{SIGTERM, SIGPIPE}, [this] { return std::vector<int>(own_.begin(), own_.end()); }});
    }

    // True when `holds` does in the child.
    static bool inChild(const std::function<bool()> &holds) {
        const pid_t child = ::fork();
        if (child == 0)
            ::_exit(holds() ? 0 : 1);
        int status = -1;
        ::waitpid(child, &status, 0);
        return status == 0;
    }

    std::array<int, 2> own_{};
    std::array<int, 2> other_{};
};

TEST_F(AForkedProcess, HasNoneOfTheHostsDescriptorsAndAllOthers) {
    EXPECT_TRUE(inChild([this] { return !isOpen(own_[0]) && !isOpen(own_[1]); }));
    EXPECT_TRUE(
        inChild([this] { return isOpen(other_[0]) && isOpen(other_[1]) && isOpen(0) && isOpen(1) && isOpen(2); }));
    EXPECT_TRUE(isOpen(own_[0]) && isOpen(own_[1]));
}

TEST_F(AForkedProcess, HasDefaultSignalsAndAnEmptyMask) {
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    EXPECT_TRUE(inChild([] { return isDefault(SIGTERM) && isDefault(SIGPIPE) && !isBlocked(SIGTERM); }));
    EXPECT_TRUE(isBlocked(SIGTERM));
    EXPECT_FALSE(isDefault(SIGPIPE));
}

TEST_F(AForkedProcess, HoldsTheCollectorsLockUntilItEnds) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::pause();
        ::_exit(1);
    }
    EXPECT_TRUE(host::collectorLives());
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(host::collectorLives());
}

TEST_F(AForkedProcess, HoldsALockOfItsOwnBesideAnother) {
    std::array<pid_t, 2> children{};
    for (pid_t &child : children) {
        child = ::fork();
        if (child == 0) {
            ::pause();
            ::_exit(1);
        }
    }
    for (const pid_t child : children) {
        EXPECT_TRUE(host::collectorLives());
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    EXPECT_FALSE(host::collectorLives());
}

TEST_F(AForkedProcess, KeepsItsLockWhenItForksItself) {
    EXPECT_TRUE(inChild([] {
        const pid_t grandchild = ::fork();
        if (grandchild == 0)
            ::_exit(0);
        ::waitpid(grandchild, nullptr, 0);
        return host::collectorLives();
    }));
}

TEST_F(AForkedProcess, IsNotObservedByTheHostsLog) {
    int seen = 0;
    vlog::setObserver([&seen](const vlog::Line &) { ++seen; });
    EXPECT_TRUE(inChild([&seen] {
        vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "TAG", "text");
        return seen == 0;
    }));
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "TAG", "text");
    EXPECT_EQ(seen, 1);
}

} // namespace
