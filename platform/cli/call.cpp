// vpkctl call: a remote method that returns a number.
#include <cstdio>
#include <memory>
#include <optional>

#include "cli/data-checks.h"
#include "cli/explanations.h"
#include "cli/session.h"
#include "cli/terminal.h"

namespace cli {
namespace {

struct Arguments {
    std::string method;
    std::optional<std::string> argument;
    Consent consent;
};

// Why the arguments do not fit; empty when that cannot be told.
std::string argumentProblem(const Arguments &arguments) {
    const auto *const command = commandOfMethod(arguments.method);
    if (command == nullptr)
        return arguments.argument ? "" : "; it may need an argument, and got none";
    const bool takesRules = command->data == CommandData::rules;
    if (takesRules && !arguments.argument)
        return " takes rules, and got none: vpkctl call " + arguments.method + " 'tcp:10.0.0.5:80:out'";
    return !takesRules && arguments.argument ? " takes no argument, and removes all rules of its kind; nothing was done"
                                             : "";
}

// Throws Exit when the argument is not to be sent.
void checkArgument(const Arguments &arguments) {
    const auto *const command = commandOfMethod(arguments.method);
    if (command == nullptr || !arguments.argument)
        return;
    if (command->data == CommandData::rules)
        checkData(arguments.method, *command, *arguments.argument, arguments.consent);
    else if (!arguments.consent.asIs)
        throw Exit(kNotCarriedOut, arguments.method + argumentProblem(arguments)); // as the host would say it
}

void explain(const Arguments &arguments, const Session &session) {
    const auto *const command = commandOfMethod(arguments.method);
    if (command == nullptr || command->data != CommandData::rules || !arguments.argument)
        return;
    const bool allow = command->kinds == host::RuleKinds::allow;
    explainRules(session, {*arguments.argument, "the data", false, allow, !allow,
                           "xargs -d '\\n' vpkctl call " + arguments.method});
}

void run(const Arguments &arguments, Session &session) {
    checkArgument(arguments);
    mavo::rmi::Message request;
    if (arguments.argument)
        request.write(*arguments.argument);
    const auto reply = session.ask(arguments.method, request);
    const std::string problem = reply.status == mavo::rmi::Status::malformed ? argumentProblem(arguments) : "";
    if (!problem.empty())
        throw Exit(kNotCarriedOut, arguments.method + problem);
    try {
        requireDone(arguments.method, reply);
    } catch (const Exit &exit) {
        say(exit.what());
        session.exitStatus = exit.status();
        return explain(arguments, session);
    }
    const int result = intOf(reply);
    std::printf("%d\n", result);
    if (result != 0)
        explain(arguments, session);
    session.exitStatus = statusOf(reply, result == 0);
}

} // namespace

void addCall(CLI::App &app, Session &session) {
    auto *call = app.add_subcommand("call", "Call a remote method, print the number it returns");
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    call->add_option("METHOD", arguments->method, "The method's name")->required();
    call->add_option("ARG", arguments->argument, "Its argument, a text");
    addConsentOptions(*call, arguments->consent);
    call->footer("Methods, with the privilege /privilege/vpk.firewall:\n" + methodLines() +
                 R"(They work while the plugin is disabled, too. An argument for a method that takes
none is refused. Rules that cut off whoever is logged in over the network are
warned of, as by exec, unless --as-is is given.
  vpkctl call Firewall::ApplyDenyRules 'tcp:10.0.0.5:80:out'

Exit status: 0 the number is 0 and everything is in force, 1 otherwise, 2 not
carried out, 3 an exception.)");
    call->callback([arguments, &session] { run(*arguments, session); });
}

} // namespace cli
