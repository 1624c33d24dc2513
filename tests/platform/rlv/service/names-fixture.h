// Names within the test, on clocks that the test sets. To be included once in a program.
#ifndef TESTS_PLATFORM_RLV_SERVICE_NAMES_FIXTURE_H
#define TESTS_PLATFORM_RLV_SERVICE_NAMES_FIXTURE_H

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "rlv/service/names.h"
#include "service-parts.h"
#include "support/name-server.h"

namespace names {

using parts::Milliseconds;
using parts::Texts;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using Kind = rlv::LookUpResult::Kind;

// The clocks stand still until pass(). Not the start of any.
inline std::atomic<std::int64_t> loopMs{1'000'000'000};
inline std::atomic<std::int64_t> sinceBootMs{5'000'000};
inline std::atomic<std::int64_t> wallMs{1'700'000'000'000};

// Of processes for look-ups.
inline std::atomic<std::size_t> forks{0};
inline std::atomic<bool> forksFail{false};

inline void pass(Milliseconds time) {
    loopMs += time.count();
    sinceBootMs += time.count();
    wallMs += time.count();
}

// Runs the loop, of which no timer expires by itself, until that holds. False when the deadline passed.
inline bool runUntil(support::EventLoop &loop, const std::function<bool()> &holds) {
    for (int waitedMs = 0; !holds() && waitedMs < 10'000; ++waitedMs) {
        pollfd waited{loop.descriptor(), POLLIN, 0};
        ::poll(&waited, 1, 1);
        parts::runDue(loop);
    }
    return holds();
}

inline std::int64_t wallSeconds() { return wallMs / 1'000; }

// A wait, and what came of it.
struct Waiting {
    std::unique_ptr<rlv::Names::Wait> wait;
    std::optional<rlv::LookUpResult> result;
    int answers = 0;
};

constexpr std::uint32_t kOne = 0x0a000001; // 10.0.0.1
constexpr std::uint32_t kTwo = 0x0a000002; // 10.0.0.2

inline nameserver::Reply one() { return nameserver::addresses({"10.0.0.1"}); }
inline nameserver::Reply two() { return nameserver::addresses({"10.0.0.2"}); }

class WithNames : public testing::Test {
protected:
    WithNames() {
        forks = 0;
        forksFail = false;
        std::filesystem::remove_all(kFolder);
        std::filesystem::create_directories(kFolder);
        nameserver::useNameServer();
        server.set("one.example", one());
        server.set("two.example", two());
        server.set("failed.example", nameserver::failure());
        server.set("held.example", nameserver::held());
        start();
    }

    void end() {
        waits.clear();
        names.reset();
    }
    void start(const rlv::NameOptions &options = {}) {
        end();
        names = std::make_unique<rlv::Names>(loop, options);
    }
    Waiting &begin(const std::string &name, Milliseconds timeout = rlv::kLookUpTime) {
        Waiting &waiting = waits.emplace_back();
        waiting.wait = names->lookUp(name, timeout, [&waiting](const rlv::LookUpResult &result) {
            waiting.result = result;
            ++waiting.answers;
        });
        return waiting;
    }
    // To its end.
    rlv::LookUpResult lookUp(const std::string &name) {
        Waiting &waiting = begin(name);
        EXPECT_TRUE(runUntil(loop, [&] { return waiting.result.has_value(); })) << name;
        return waiting.result.value_or(rlv::LookUpResult());
    }
    // Until all look-ups are over.
    void settle() {
        EXPECT_TRUE(runUntil(loop, [] { return ::waitpid(-1, nullptr, WNOHANG) < 0; }));
        parts::runDue(loop);
    }
    void announce(const Texts &these) {
        names->announce(these);
        settle();
    }
    // How many look-ups begin when so much time has passed; they go on.
    std::size_t begunAfter(Milliseconds time) {
        const std::size_t before = forks;
        pass(time);
        parts::runDue(loop);
        return forks - before;
    }
    // The same, which come to an end.
    std::size_t overAfter(Milliseconds time) {
        const std::size_t begun = begunAfter(time);
        settle();
        return begun;
    }
    bool waitForQuestions(const std::string &name, std::size_t count = 1) {
        return runUntil(loop, [&] { return server.questions(name) >= count; });
    }
    // What rules that deny would get, and those that allow, when nobody answers.
    rlv::Addresses denying(const std::string &name) const { return names->answersAfter(name, {}).denying; }
    rlv::Addresses allowing(const std::string &name) const { return names->answersAfter(name, {}).allowing; }
    std::uint64_t generation() { return names->state(false).generation; }

    static constexpr const char *kFolder = "/run/names-of-hosts";
    static constexpr const char *kFile = "/run/names-of-hosts/names";

    nameserver::NameServer server;
    parts::Log log;
    support::EventLoop loop;
    std::unique_ptr<rlv::Names> names;
    std::list<Waiting> waits;
};

} // namespace names

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec *time) noexcept {
    static auto *const library = reinterpret_cast<int (*)(clockid_t, timespec *)>(::dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = library(clock, time);
    const auto set = [time](std::int64_t ms) {
        time->tv_sec = static_cast<std::time_t>(ms / 1'000);
        time->tv_nsec = static_cast<long>(ms % 1'000) * 1'000'000;
    };
    if (clock == CLOCK_MONOTONIC)
        set(names::loopMs);
    if (clock == CLOCK_BOOTTIME)
        set(names::sinceBootMs);
    if (clock == CLOCK_REALTIME)
        set(names::wallMs);
    return result;
}

__attribute__((visibility("default"))) pid_t fork() noexcept {
    if (names::forksFail) {
        errno = EAGAIN;
        return -1;
    }
    ++names::forks;
    static auto *const library = reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"));
    return library();
}
}

#endif
