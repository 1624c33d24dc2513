// vpkctl, the command line of the policy host.
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "cli/session.h"
#include "cli/terminal.h"
#include "cli/usage-errors.h"
#include "support/command-line.h"

namespace {

constexpr const char *kFooter = R"(Begin with:
  vpkctl status
  vpkctl deny tcp:10.0.0.5:80:out
  vpkctl rules
"vpkctl SUBCOMMAND --help" says more. Exit status: 0 done, 1 failed or not in
force, 2 not carried out (the host does not run or refuses), 3 an exception
ended the call. Results go to standard output, all else to standard error.)";

struct Subcommand {
    std::string_view name;
    void (*add)(CLI::App &, cli::Session &);
};

constexpr std::array<Subcommand, 16> kSubcommands = {{{"allow", cli::addAllow},
                                                      {"deny", cli::addDeny},
                                                      {"remove", cli::addRemove},
                                                      {"apply", cli::addApply},
                                                      {"exec", cli::addExec},
                                                      {"call", cli::addCall},
                                                      {"check", cli::addCheck},
                                                      {"status", cli::addStatus},
                                                      {"verify", cli::addVerify},
                                                      {"set-status", cli::addSetStatus},
                                                      {"apply-status", cli::addApplyStatus},
                                                      {"reload", cli::addReload},
                                                      {"rules", cli::addRules},
                                                      {"reports", cli::addReports},
                                                      {"history", cli::addHistory},
                                                      {"diff", cli::addDiff}}};

using Words = std::vector<std::string>;

bool isNamed(const Subcommand &subcommand, const Words &words) {
    return std::find(words.begin(), words.end(), subcommand.name) != words.end();
}

// With the subcommands that `isWanted` is true for.
template <typename IsWanted> void describe(CLI::App &app, cli::Session &session, IsWanted isWanted) {
    app.add_option("--socket", session.socket, "Where the policy host is")->capture_default_str();
    app.set_version_flag("--version", "vpkctl " NYR_VERSION);
    app.footer(kFooter);
    app.require_subcommand(0, 1); // whether there is one is checked later: a word that is none is then named
    for (const auto &subcommand : kSubcommands) {
        if (isWanted(subcommand))
            subcommand.add(app, session);
    }
    for (auto *subcommand : app.get_subcommands(nullptr))
        subcommand->fallthrough(); // --socket may stand anywhere
}

// The words make sense, and are carried out, with the one subcommand that they name; false when they do not. To
// describe all of them takes longer than all else that most commands do in this process.
bool carryOutWithOne(int argc, char **argv, const Words &words, cli::Session &session) {
    const auto named = [&words](const Subcommand &subcommand) { return isNamed(subcommand, words); };
    if (std::count_if(kSubcommands.begin(), kSubcommands.end(), named) != 1)
        return false;
    CLI::App app;
    describe(app, session, named);
    try {
        app.parse(argc, argv);
        return !app.get_subcommands().empty();
    } catch (const CLI::ParseError &) { // before anything was carried out
        session = cli::Session();
        return false;
    }
}

// The help or the version.
int showWhatWasAsked(const CLI::App &app, const CLI::Success &asked) {
    std::ostringstream text;
    const int status = app.exit(asked, text, text);
    cli::show(stdout, text.str(), 2);
    return status;
}

// kDone, or with which status the program ends at once.
int carryOut(int argc, char **argv, cli::Session &session) {
    const Words words(argv + 1, argv + argc);
    if (carryOutWithOne(argc, argv, words, session))
        return cli::kDone;
    CLI::App app("Talks to the policy host of the firewall plugin");
    describe(app, session, [](const Subcommand &) { return true; });
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
            throw CLI::RequiredError("A subcommand");
    } catch (const CLI::Success &asked) {
        return showWhatWasAsked(app, asked);
    } catch (const CLI::ParseError &error) {
        cli::say(cli::explainUsage(app, error, words));
        return support::kUsageError;
    }
    return cli::kDone;
}

} // namespace

int main(int argc, char **argv) try {
    cli::Session session;
    const int ended = carryOut(argc, argv, session);
    if (ended != cli::kDone)
        return ended;
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
