// The processes that a worker of the harness starts: ended ones are kept in mind, traced ones told to their tracer.
#ifndef TESTS_FAULTS_CHILDREN_H
#define TESTS_FAULTS_CHILDREN_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace children {

using Clock = std::chrono::steady_clock;

struct StartOptions {
    std::vector<std::string> environment; // "NAME=value", on top of the caller's own
    std::string outputFile;               // standard output and error are appended to it
    bool stopsAtExec = false;             // traced by the caller from its first instruction on
};

// Must be called once, before anything is started: from then on SIGCHLD wakes waitForNews() and nothing else.
void prepare();
// Throws std::system_error when it cannot fork. A program that cannot be executed ends with 127.
pid_t start(const std::vector<std::string> &words, const StartOptions &options = StartOptions());
// A copy of this process that runs `body` and ends with its result; no destructor runs.
pid_t fork(const std::function<int()> &body);

// Gives each stop of a traced child; set by the tracer.
void onStop(std::function<void(pid_t, int status)> handler);
// Takes what there is to know by now.
void takeNews();
// Returns early when a child has news.
void waitForNews(std::chrono::milliseconds atMost);
// Serves news until `holds` does or the deadline has passed; what `holds` gave last.
bool waitUntil(const std::function<bool()> &holds, Clock::time_point deadline,
               std::chrono::milliseconds askAgain = std::chrono::milliseconds(1));

// As waitpid(2) gave it, once it has ended.
std::optional<int> statusOf(pid_t child);
inline bool runs(pid_t child) { return child > 0 && !statusOf(child); }
// SIGKILL, and waits. Nothing for one that has ended or is none.
void kill(pid_t child);
// Forgets what has ended.
void forgetEnded();

} // namespace children

#endif
