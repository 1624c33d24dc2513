#include "cli/session.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "cli/plugin-commands.h"
#include "cli/printable.h"
#include "cli/progress.h"
#include "cli/suggestion.h"
#include "cli/terminal.h"
#include "host/remarks.h"
#include "mavo/exception.h"
#include "mavo/rmi-client.h"

namespace cli {
namespace {

using mavo::rmi::Reply;
using mavo::rmi::Status;

Reply askHost(const Session &session, const std::string &method, const mavo::rmi::Message &request) try {
    mavo::rmi::Client client(session.socket, ::program_invocation_short_name);
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
        return "the policy host has no method " + method + didYouMean(method, namesOf(kPluginMethods));
    default:
        return "the policy host refuses " + method + ": " + reply.error;
    }
}

void printRemarks(const Reply &reply) {
    const host::Remarks remarks = host::decodeRemarks(reply.remarks);
    for (const auto *lines : {&remarks.errorLines, &remarks.notes}) {
        for (const auto &line : *lines)
            show(stderr, printable(line) + "\n", 2);
    }
}

} // namespace

Reply Session::ask(const std::string &method, const mavo::rmi::Message &request) const {
    Reply reply = askHost(*this, method, request);
    printRemarks(reply);
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
    return wentWell && host::decodeRemarks(reply.remarks).notes.empty() ? kDone : kFailed;
}

} // namespace cli
