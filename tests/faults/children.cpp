#include "faults/children.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace children {
namespace {

constexpr int kNotExecuted = 127;

std::map<pid_t, int> ends;
std::function<void(pid_t, int)> stopHandler;

sigset_t childSignal() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGCHLD);
    return set;
}

void unblock() {
    const sigset_t set = childSignal();
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

pid_t require(pid_t child) {
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    return child;
}

[[noreturn]] void execute(const std::vector<std::string> &words, const StartOptions &options) {
    unblock();
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const auto &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    for (const auto &setting : options.environment)
        ::putenv(const_cast<char *>(setting.c_str()));
    const std::string sink = options.outputFile.empty() ? "/dev/null" : options.outputFile;
    const int output = ::open(sink.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    if (options.stopsAtExec)
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::execvp(arguments[0], arguments.data());
    ::_exit(kNotExecuted);
}

} // namespace

void prepare() {
    const sigset_t set = childSignal();
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
}

pid_t start(const std::vector<std::string> &words, const StartOptions &options) {
    const pid_t child = require(::fork());
    if (child == 0)
        execute(words, options);
    return child;
}

pid_t fork(const std::function<int()> &body) {
    const pid_t child = require(::fork());
    if (child == 0)
        ::_exit(body());
    return child;
}

void onStop(std::function<void(pid_t, int)> handler) { stopHandler = std::move(handler); }

void takeNews() {
    int status = 0;
    for (pid_t child = 0; (child = ::waitpid(-1, &status, WNOHANG | __WALL)) > 0;) {
        if (!WIFSTOPPED(status))
            ends[child] = status;
        else if (stopHandler)
            stopHandler(child, status);
    }
}

void waitForNews(std::chrono::milliseconds atMost) {
    const sigset_t set = childSignal();
    timespec time{};
    time.tv_sec = static_cast<time_t>(atMost.count() / 1000);
    time.tv_nsec = static_cast<long>(atMost.count() % 1000) * 1000000;
    ::sigtimedwait(&set, nullptr, &time);
    takeNews();
}

bool waitUntil(const std::function<bool()> &holds, Clock::time_point deadline, std::chrono::milliseconds askAgain) {
    for (;;) {
        takeNews();
        if (holds())
            return true;
        if (Clock::now() >= deadline)
            return false;
        waitForNews(askAgain);
    }
}

std::optional<int> statusOf(pid_t child) {
    const auto found = ends.find(child);
    return found == ends.end() ? std::nullopt : std::make_optional(found->second);
}

void kill(pid_t child) {
    takeNews();
    if (!runs(child))
        return;
    ::kill(child, SIGKILL);
    waitUntil([child] { return !runs(child); }, Clock::time_point::max(), std::chrono::milliseconds(100));
}

void forgetEnded() { ends.clear(); }

} // namespace children
