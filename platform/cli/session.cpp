#include "cli/session.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <system_error>

#include "cli/plugin-commands.h"
#include "cli/printable.h"
#include "cli/progress.h"
#include "cli/suggestion.h"
#include "cli/terminal.h"
#include "host/reply-lines.h"
#include "mavo/exception.h"
#include "mavo/rmi-client.h"

namespace cli {
namespace {

using mavo::rmi::Reply;
using mavo::rmi::Status;

Reply askHost(const Session &session, const std::string &method, const mavo::rmi::Message &request) try {
    mavo::rmi::Client client(session.socket);
    Progress progress(session.work.empty() ? method : session.work);
    return client.call(
        method, request, [&progress] { progress.goOn(); }, progress.interval());
} catch (const std::system_error &error) {
    throw Exit(kNotCarriedOut,
               "the policy host cannot be reached at " + session.socket + ": " + error.code().message());
} catch (const mavo::Exception &error) {
    throw Exit(kNotCarriedOut, "the policy host did not answer: " + std::string(error.what()));
}

std::string refusalOf(const std::string &method, const Reply &reply) {
    switch (reply.status) {
    case Status::denied:
        return "the policy host refuses " + method + " to this account" +
               (reply.error.empty() ? "" : ": it " + reply.error + ", which vpkd(8) tells how to give");
    case Status::busy:
        return "the policy host is busy: " + reply.error + "; try again later";
    case Status::unknownMethod:
        return "the policy host has no method " + method + didYouMean(method, namesOf(kMethods));
    default:
        return "the policy host refuses " + method + ": " + reply.error;
    }
}

bool begins(const std::string &line, std::string_view with) { return line.compare(0, with.size(), with) == 0; }

// A command that is not in force, or what else the host says about that.
std::string remark(const std::string &line) {
    if (begins(line, host::kNotKnown))
        return "whether all is in force is not known: " + line.substr(host::kNotKnown.size());
    if (begins(line, host::kRebuild))
        return line.substr(host::kRebuild.size());
    return "not in force: " + line;
}

// How the plugin logs that a command was refused, before its code; the reason stands behind " : ".
constexpr std::string_view kRefusedCommand = "VPK: invokeRLVIptablesCommit Iptables ERROR: ";

// What laying out the chains always or now and then runs into, and goes on from, since it ends with what was wanted.
constexpr std::array<std::string_view, 3> kHarmlessInReload = {
    "iptables: Chain already exists.", "iptables: No chain/target/match by that name.",
    "iptables: Bad rule (does a matching rule exist in that chain?)."};

bool isHarmless(const std::string &method, const std::string &reason) {
    if (reason == kHarmlessInReload.front())
        return true; // what was wanted stands
    return method == kReload &&
           std::find(kHarmlessInReload.begin(), kHarmlessInReload.end(), reason) != kHarmlessInReload.end();
}

// Whether the remarks hold what the line says, with the command that it is about.
bool isRepeated(const Reply &reply, const std::string &reason) {
    const std::string ending = ": " + reason;
    return std::any_of(reply.notInForce.begin(), reply.notInForce.end(), [&ending](const std::string &line) {
        return line.size() > ending.size() && line.compare(line.size() - ending.size(), ending.size(), ending) == 0;
    });
}

// They stay in the log.
bool isWorthShowing(const std::string &method, const Reply &reply, const std::string &line) {
    const std::size_t reason = line.find(" : ");
    if (!begins(line, kRefusedCommand) || reason == std::string::npos)
        return true;
    const std::string text = line.substr(reason + 3);
    return !isHarmless(method, text) && !isRepeated(reply, text);
}

void printRemarks(const std::string &method, const Reply &reply) {
    for (const auto &line : reply.errorLines) {
        if (isWorthShowing(method, reply, line))
            show(stderr, printable(line) + "\n", 2);
    }
    for (const auto &line : reply.notInForce)
        show(stderr, printable(remark(line)) + "\n", 2);
}

} // namespace

Reply Session::ask(const std::string &method, const mavo::rmi::Message &request) const {
    Reply reply = askHost(*this, method, request);
    printRemarks(method, reply);
    return reply;
}

std::optional<std::string> Session::look(const std::string &method) const try {
    const Reply reply = askHost(*this, method, mavo::rmi::Message());
    if (reply.status != Status::ok)
        return std::nullopt;
    return textOf(reply);
} catch (const Exit &) {
    return std::nullopt;
}

void requireDone(const std::string &method, const Reply &reply) {
    if (reply.status == Status::exception)
        throw Exit(kException, method + " ended with an exception: " + reply.error);
    if (reply.status != Status::ok)
        throw Exit(kNotCarriedOut, refusalOf(method, reply));
}

Reply Session::call(const std::string &method, const mavo::rmi::Message &request) const {
    Reply reply = ask(method, request);
    requireDone(method, reply);
    return reply;
}

namespace {

template <typename Value> Value valueOf(const Reply &reply) try {
    mavo::rmi::Message message(reply.body);
    Value value{};
    message.read(value);
    if (!message.atEnd())
        throw Exit(kNotCarriedOut, "the reply holds more than was expected");
    return value;
} catch (const mavo::Exception &error) {
    throw Exit(kNotCarriedOut, "the reply is not what was expected: " + std::string(error.what()));
}

} // namespace

int intOf(const Reply &reply) { return valueOf<int>(reply); }

std::string textOf(const Reply &reply) { return valueOf<std::string>(reply); }

ExitStatus statusOf(const Reply &reply, bool wentWell) {
    return wentWell && reply.notInForce.empty() ? kDone : kFailed;
}

} // namespace cli
