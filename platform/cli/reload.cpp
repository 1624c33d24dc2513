// vpkctl reload: the host loads the plugin anew, which lays out all chains and applies all stored rules.
#include "cli/session.h"
#include "host/method-names.h"

namespace cli {
namespace {

void run(Session &session) {
    const auto reply = session.call(host::kReloadMethod, mavo::rmi::Message());
    if (intOf(reply) != 0)
        throw Exit(kFailed, "the plugin did not come up; the one before it goes on serving");
    session.exitStatus = statusOf(reply, true);
}

} // namespace

void addReload(CLI::App &app, Session &session) {
    auto *command = app.add_subcommand("reload", "Build all chains anew from the stored rules");
    command->footer("For when somebody else has flushed the firewall. Stored status and rules stay\nas they are.");
    command->callback([&session] { run(session); });
}

} // namespace cli
