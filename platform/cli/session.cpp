#include "cli/session.h"

#include <cstdio>
#include <string_view>
#include <system_error>

#include "cli/plugin-commands.h"
#include "cli/printable.h"
#include "cli/suggestion.h"
#include "host/reply-lines.h"
#include "mavo/exception.h"
#include "mavo/rmi-client.h"

namespace cli {
namespace {

using mavo::rmi::Reply;
using mavo::rmi::Status;

void sayWaiting() { std::fputs("vpkctl: the host is at work; waiting for the end of the call ...\n", stderr); }

Reply ask(const std::string &socket, const std::string &method, const mavo::rmi::Message &request) try {
    mavo::rmi::Client client(socket);
    return client.call(method, request, sayWaiting);
} catch (const std::system_error &error) {
    throw Exit(kNotCarriedOut, "the policy host cannot be reached at " + socket + ": " + error.code().message());
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

void printRemarks(const Reply &reply) {
    for (const auto &line : reply.errorLines)
        std::fprintf(stderr, "%s\n", printable(line).c_str());
    for (const auto &line : reply.notInForce)
        std::fprintf(stderr, "%s\n", printable(remark(line)).c_str());
}

} // namespace

Reply Session::call(const std::string &method, const mavo::rmi::Message &request) const {
    Reply reply = ask(socket, method, request);
    printRemarks(reply);
    if (reply.status == Status::exception)
        throw Exit(kException, method + " ended with an exception: " + reply.error);
    if (reply.status != Status::ok)
        throw Exit(kNotCarriedOut, refusalOf(method, reply));
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
