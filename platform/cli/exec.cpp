// vpkctl exec: a command of the plugin.
#include <iostream>
#include <memory>

#include "cli/data-checks.h"
#include "cli/execution.h"
#include "cli/input.h"
#include "cli/policy.h"
#include "cli/session.h"

namespace cli {
namespace {

constexpr const char *kHelp =
    R"(
A rule is protocol:address:port or protocol:address:port:direction. "*" or
nothing stands for any; a range of ports is 8000-8080; the direction is in, out
or bid. Address and port are the other side's: an "in" rule matches the source.
  vpkctl exec ApplyDenyRules 'tcp:10.0.0.5:8000-8080:out;udp:*:53'
  vpkctl exec ApplyAllowRules @rules.txt
  echo 'tcp:10.0.0.5:80' | vpkctl exec ApplyDenyRules -

ApplyPolicy applies each ALLOW entry as an allow rule and then as a deny rule,
so that all of them end up denied; DENY entries have no effect.

Data for a command that takes none is refused. Where a command would succeed
and do something else than its data seems to say, vpkctl warns, and on a
terminal asks. --as-is sends anything.

Exit status: 0 done, 1 the plugin said "fail" or something is not in force, 2
not carried out, 3 an exception.)";

struct Arguments {
    std::string command;
    std::string data;
    bool raw = false;
    Consent consent;
};

// The rules that the command applies.
SentRules rulesOf(const Arguments &arguments, const std::string &data) {
    const auto *const command = findNamed(kPluginCommands, arguments.command);
    const bool isFile = arguments.data.size() > 1 && arguments.data.front() == '@';
    SentRules rules{{}, nameOfSource(arguments.data), isFile, false, false, "vpkctl exec " + arguments.command + " -"};
    if (command == nullptr)
        return rules;
    if (command->data == CommandData::rules)
        rules.list = data;
    else if (command->data == CommandData::policy)
        rules.list = rulesOfPolicy(data);
    rules.asAllow = command->kinds != host::RuleKinds::deny;
    rules.asDeny = command->kinds != host::RuleKinds::allow;
    return rules;
}

void run(const Arguments &arguments, Session &session) {
    const std::string data = dataFrom(arguments.data, arguments.raw || arguments.consent.asIs, std::cin);
    if (const auto *const command = findNamed(kPluginCommands, arguments.command))
        checkData(arguments.command, *command, data, arguments.consent);
    execute(session, arguments.command, data, [&] { return rulesOf(arguments, data); });
}

} // namespace

void addExec(CLI::App &app, Session &session) {
    auto *exec = app.add_subcommand("exec", "Have the plugin carry out a command");
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    exec->add_option("COMMAND", arguments->command, "The command's name")->required();
    exec->add_option("DATA", arguments->data, "Its data: text, @FILE, or - for standard input");
    exec->add_flag("--raw", arguments->raw, "Keep the last line break of @FILE or -");
    addConsentOptions(*exec, arguments->consent);
    exec->footer("Commands and their data:\n" + commandLines() + kHelp);
    exec->callback([arguments, &session] { run(*arguments, session); });
}

} // namespace cli
