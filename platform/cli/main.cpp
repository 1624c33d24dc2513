// vpkctl, the command line of the policy host.
#include <cstdio>
#include <exception>
#include <sstream>

#include "cli/session.h"
#include "cli/terminal.h"
#include "cli/usage-errors.h"
#include "support/command-line.h"

namespace {

constexpr const char *kFooter = R"(Begin with:
  vpkctl status
  vpkctl exec ApplyDenyRules tcp:10.0.0.5:80:out
  vpkctl rules
"vpkctl SUBCOMMAND --help" says more. Exit status: 0 done, 1 failed or not in
force, 2 not carried out (the host does not run or refuses), 3 an exception
ended the call. Results go to standard output, all else to standard error.)";

void addSubcommands(CLI::App &app, cli::Session &session) {
    app.require_subcommand(0, 1); // whether there is one is checked later: a word that is none is then named
    for (const auto add : {cli::addExec, cli::addCall, cli::addStatus, cli::addVerify, cli::addSetStatus,
                           cli::addApplyStatus, cli::addReload, cli::addRules, cli::addReports})
        add(app, session);
    for (auto *subcommand : app.get_subcommands(nullptr))
        subcommand->fallthrough(); // --socket may stand anywhere
}

// The help or the version.
int showWhatWasAsked(const CLI::App &app, const CLI::Success &asked) {
    std::ostringstream text;
    const int status = app.exit(asked, text, text);
    cli::show(stdout, text.str(), 2);
    return status;
}

} // namespace

int main(int argc, char **argv) try {
    CLI::App app("Talks to the policy host of the firewall plugin");
    cli::Session session;
    app.add_option("--socket", session.socket, "Where the policy host is")->capture_default_str();
    app.set_version_flag("--version", "vpkctl " NYR_VERSION);
    app.footer(kFooter);
    addSubcommands(app, session);
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
            throw CLI::RequiredError("A subcommand");
    } catch (const CLI::Success &asked) {
        return showWhatWasAsked(app, asked);
    } catch (const CLI::ParseError &error) {
        cli::say(cli::explainUsage(app, error, {argv + 1, argv + argc}));
        return support::kUsageError;
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw cli::Exit(session.exitStatus == cli::kDone ? cli::kFailed
                                                         : static_cast<cli::ExitStatus>(session.exitStatus),
                        "the result cannot be written to standard output");
    return session.exitStatus;
} catch (const cli::Exit &exit) {
    cli::say(exit.what());
    return exit.status();
} catch (const std::exception &error) {
    cli::say(error.what());
    return cli::kNotCarriedOut;
}
