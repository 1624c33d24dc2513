// Subcommands in the test's own process, and a host that answers as the test says.
#ifndef TESTS_PLATFORM_CLI_IN_PROCESS_H
#define TESTS_PLATFORM_CLI_IN_PROCESS_H

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cli/session.h"
#include "mavo/rmi-protocol.h"
#include "support/unique-fd.h"

namespace clitest {

constexpr const char *kSocket = "/run/scripted-host";

// Replies with such a result, and such notes beside it.
mavo::rmi::Reply replyOf(int value, const std::vector<std::string> &notes = {});
mavo::rmi::Reply replyOf(const std::string &value, const std::vector<std::string> &notes = {});
mavo::rmi::Reply refusal(mavo::rmi::Status status, const std::string &error);

// A body with these values.
std::string bodyOf(int value);
std::string bodyOf(const std::vector<std::string> &values);

struct Call {
    std::string method;
    std::string body;
};
bool operator==(const Call &one, const Call &other);
std::ostream &operator<<(std::ostream &stream, const Call &call);

// Serves at kSocket, on a thread of its own, until it goes away.
class ScriptedHost {
public:
    // Other methods than these are unknown to it. An answer may take its time.
    using Answers = std::map<std::string, std::function<mavo::rmi::Reply()>>;
    explicit ScriptedHost(Answers answers);
    // One answer, to one method.
    ScriptedHost(const std::string &method, const mavo::rmi::Reply &reply);
    ~ScriptedHost();
    ScriptedHost(const ScriptedHost &) = delete;
    ScriptedHost &operator=(const ScriptedHost &) = delete;

    std::vector<Call> calls() const;

private:
    void serve();
    void answerOne(const support::UniqueFd &client);

    Answers answers_;
    support::UniqueFd listener_;
    mutable std::mutex mutex_; // of what follows
    std::vector<Call> calls_;
    std::thread thread_;
};

// What was written meanwhile to standard output and standard error, which are files. Standard input is at its end.
struct Written {
    std::string output;
    std::string errors;
};
Written captured(const std::function<void()> &action);

// What stood meanwhile on a terminal that was all three standard streams, with "\r\n" behind each line; somebody has
// typed `answer` there, which does not show.
std::string capturedOnTerminal(const std::function<void()> &action, const std::string &answer = {});
// For another thread meanwhile: waits until something stands there. False when nothing came for too long.
bool waitForOutputOnTerminal();

// One run of a subcommand, as the program ends after it.
struct Ran {
    int status = 0;
    std::string output; // on a terminal, all that stood there
    std::string errors;
};
using Add = void (*)(CLI::App &, cli::Session &);
using Words = std::vector<std::string>;
// `input` is what standard input gives.
Ran run(Add add, const Words &words, const std::string &input = {});
Ran runOnTerminal(Add add, const Words &words, const std::string &answer);

// The status that it would end the program with, and the line, of an action that throws cli::Exit.
struct Ended {
    int status = -1;
    std::string line = "it has not ended";
};
Ended ended(const std::function<void()> &action);
bool operator==(const Ended &one, const Ended &other);
std::ostream &operator<<(std::ostream &stream, const Ended &end);

} // namespace clitest

#endif
