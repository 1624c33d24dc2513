// vpkctl call: a remote method that returns a number.
#include <cstdio>
#include <memory>
#include <optional>

#include "cli/session.h"

namespace cli {
namespace {

struct Arguments {
    std::string method;
    std::optional<std::string> argument;
};

void run(const Arguments &arguments, Session &session) {
    mavo::rmi::Message request;
    if (arguments.argument)
        request.write(*arguments.argument);
    const auto reply = session.call(arguments.method, request);
    const int result = intOf(reply);
    std::printf("%d\n", result);
    session.exitStatus = statusOf(reply, result == 0);
}

} // namespace

void addCall(CLI::App &app, Session &session) {
    auto *call = app.add_subcommand("call", "Call a remote method and print the number that it returns");
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    call->add_option("METHOD", arguments->method, "The method's name")->required();
    call->add_option("ARG", arguments->argument, "Its argument, a text");
    call->footer(R"(Methods: Firewall::ApplyAllowRules RULES, Firewall::ApplyDenyRules RULES, Firewall::FlushAllowRules,
Firewall::FlushDenyRules (privilege /privilege/vpk.firewall). They work while the plugin is disabled, too.
  vpkctl call Firewall::ApplyDenyRules 'tcp:10.0.0.5:80:out'

Exit status: 0 the number is 0 and everything is in force, 1 otherwise, 2 not carried out, 3 an exception.)");
    call->callback([arguments, &session] { run(*arguments, session); });
}

} // namespace cli
