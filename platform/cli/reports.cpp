// vpkctl reports
#include <memory>

#include "cli/documents-as-text.h"
#include "cli/session.h"
#include "host/method-names.h"

namespace cli {
namespace {

void run(bool asJson, Session &session) {
    const std::string document = textOf(session.call(host::kReportsMethod, mavo::rmi::Message()));
    showDocument(document, asJson, reportsAsText, 2);
}

} // namespace

void addReports(CLI::App &app, Session &session) {
    auto *command = app.add_subcommand("reports", "List the reports in the outbox, oldest first");
    const auto asJson = std::make_shared<bool>(false); // shared with the callback
    command->add_flag("--json", *asJson, "Print the host's document as it is, on one line");
    command->footer("Each line: when it was handed over, type/subtype, body.");
    command->callback([asJson, &session] { run(*asJson, session); });
}

} // namespace cli
