// Programs that a test starts and that end with it.
#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/unique-fd.h"

namespace process {

using Duration = std::chrono::milliseconds;
constexpr Duration kDeadline{20'000}; // generous: a test that waits this long has failed

struct Options {
    std::vector<std::string> environment; // "NAME=value", on top of the test's own
    std::string input;                    // what standard input gives, then its end
    // Files that standard output and error are appended to; where empty, they are kept in memory (see output()).
    std::string outputFile;
    std::string errorFile;
    std::string directory;     // the working directory, if not the test's
    std::optional<uid_t> user; // the account, with a group of the same number and no others
};

// What a program that has ended left.
struct Result {
    int status = 0; // exit status, or 128 + n when signal n ended it, or 127 when it could not be executed
    std::string output;
    std::string errors;
};

// One started program. When the object goes away the program is killed, if it still runs, and reaped.
class Child {
public:
    // Starts `arguments[0]`, looked up in PATH when it has no slash. Throws std::system_error when it cannot fork.
    explicit Child(const std::vector<std::string> &arguments, const Options &options = Options());
    ~Child();
    Child(Child &&other) noexcept;
    Child &operator=(Child &&) = delete;
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t id() const { return id_; }
    bool running();

    // Waits until `ready` holds; asks it often. False when the program ended or the deadline passed before.
    bool waitReady(const std::function<bool()> &ready, Duration deadline = kDeadline);

    // Sends a signal; does nothing when the program has ended.
    void signal(int number);
    // Waits for the end. Empty when the deadline passed.
    std::optional<int> wait(Duration deadline = kDeadline);
    // SIGTERM, then wait(), then SIGKILL if that did not do: then the result is empty.
    std::optional<int> terminate(Duration deadline = kDeadline);
    // SIGKILL and reap.
    void kill();

    // What it has written so far to streams without a file of their own.
    std::string output() const;
    std::string errors() const;

private:
    void keepStatus(int status);

    pid_t id_ = -1;
    std::optional<int> status_; // once reaped
    support::UniqueFd ended_;   // readable when the program has ended
    support::UniqueFd output_;
    support::UniqueFd errors_;
};

// Starts a program and waits for its end; one that runs longer than `deadline` is killed (status 137).
Result capture(const std::vector<std::string> &arguments, const Options &options = Options(),
               Duration deadline = kDeadline);

// Waits until `holds` does; asks it every few milliseconds. False when the deadline passed.
bool waitUntil(const std::function<bool()> &holds, Duration deadline = kDeadline);

// Copies a program and all libraries from a build folder to /run, readable by everyone, and gives the program's path.
std::string copyForEveryone(const std::string &buildFolder, const std::string &program);

// The path of one of our own programs in the build folder: `built("rlvd")`. Needs a test made by nyr_add_test.
#ifdef NYR_BINARY_DIR
inline std::string built(const std::string &program) { return std::string(NYR_BINARY_DIR "/bin/") + program; }

// The same for every account: the build folder may lie where only its owner may go, so this is a copy of the program
// and of our libraries below /run, which is the test's own.
inline std::string builtForEveryone(const std::string &program) { return copyForEveryone(NYR_BINARY_DIR, program); }
#endif

} // namespace process

#endif
