// vpkctl status
#include <memory>

#include "cli/documents-as-text.h"
#include "cli/session.h"

namespace cli {
namespace {

void run(bool asJson, Session &session) {
    const std::string document = textOf(session.call("Host::status", mavo::rmi::Message()));
    const Json parsed = parseDocument(document);
    showDocument(document, asJson, statusAsText, kStatusIndent);
    session.exitStatus = wholeInForce(parsed) ? kDone : kFailed;
}

} // namespace

void addStatus(CLI::App &app, Session &session) {
    auto *command = app.add_subcommand("status", "Show status, what is in force, and the collector");
    const auto asJson = std::make_shared<bool>(false); // shared with the callback
    command->add_flag("--json", *asJson, "Print the host's document as it is, on one line");
    command->footer(
        "The stored status is what the plugin has after the next start, the applied one what it has now. "
        "\"Expected\" rules are\nat least what the stored ones make: two each where they have no "
        "direction, one for each address of a host name.\nCollector: running; stopping, which ends when it "
        "wakes up next; dead, though it should run; off.\n\nExit status: 0 all is in force, 1 something is not, or "
        "that is not known, or a rebuild is pending, 2 the host\ndoes not run or refuses.");
    command->callback([asJson, &session] { run(*asJson, session); });
}

} // namespace cli
