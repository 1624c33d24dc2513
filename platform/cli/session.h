// What the subcommands of vpkctl share: the connection to the policy host, and what becomes of a reply.
#ifndef PLATFORM_CLI_SESSION_H
#define PLATFORM_CLI_SESSION_H

#include <optional>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include "mavo/rmi-protocol.h"
#include "mavo/rmi.h"

namespace cli {

// Exit statuses, as the help explains them.
enum ExitStatus : int { kDone = 0, kFailed = 1, kNotCarriedOut = 2, kException = 3 };

// Ends the program with `status` and one line on standard error. A program that has asked for JSON gets `findings`,
// too, a JSON array, where it is not empty.
class Exit : public std::runtime_error {
public:
    Exit(ExitStatus status, const std::string &line, const std::string &findings = {})
        : std::runtime_error(line), status_(status), findings_(findings) {}
    ExitStatus status() const { return status_; }
    const std::string &findings() const { return findings_; }

private:
    ExitStatus status_;
    std::string findings_;
};

// One run of the program.
struct Session {
    std::string socket = "/run/vpk/host/socket";
    int exitStatus = kDone; // set by the subcommand
    std::string work;       // what a person waits for, where that is more than a method's name

    // Calls a remote method and waits for its end, however long that takes; says on standard error that it waits. What
    // the host has to say beside the result goes to standard error. Throws Exit when the host does not run, refuses the
    // call, or lets an exception end it.
    mavo::rmi::Reply call(const std::string &method, const mavo::rmi::Message &request) const;

    // The same, but the reply may be a refusal or tell of an exception: see requireDone(). Throws Exit when the host
    // does not run.
    mavo::rmi::Reply ask(const std::string &method, const mavo::rmi::Message &request) const;

    // The text that a method without arguments gives, which only looks; nothing, and nothing is said, when it cannot be
    // had.
    std::optional<std::string> look(const std::string &method) const;
};

// Throws Exit, with the reason, when the reply is a refusal or tells of an exception.
void requireDone(const std::string &method, const mavo::rmi::Reply &reply);

// The value that a reply carries. Throws Exit when it carries something else.
int intOf(const mavo::rmi::Reply &reply);
std::string textOf(const mavo::rmi::Reply &reply);

// kDone when the call went well and everything is in force, else kFailed.
ExitStatus statusOf(const mavo::rmi::Reply &reply, bool wentWell);

// One for each subcommand, in a source file of its name.
void addExec(CLI::App &app, Session &session);
void addAllow(CLI::App &app, Session &session);
void addDeny(CLI::App &app, Session &session); // in allow.cpp
void addCall(CLI::App &app, Session &session);
void addCheck(CLI::App &app, Session &session);
void addStatus(CLI::App &app, Session &session);
void addVerify(CLI::App &app, Session &session); // in status.cpp
void addSetStatus(CLI::App &app, Session &session);
void addApplyStatus(CLI::App &app, Session &session);
void addReload(CLI::App &app, Session &session);
void addRules(CLI::App &app, Session &session);
void addReports(CLI::App &app, Session &session);
void addApply(CLI::App &app, Session &session);
void addRemove(CLI::App &app, Session &session);
void addHistory(CLI::App &app, Session &session);
void addDiff(CLI::App &app, Session &session);

} // namespace cli

#endif
