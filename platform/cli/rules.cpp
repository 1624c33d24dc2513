// vpkctl rules
#include <memory>

#include "cli/documents-as-text.h"
#include "cli/session.h"
#include "host/method-names.h"

namespace cli {
namespace {

void run(bool asJson, Session &session) {
    const std::string document = textOf(session.call(host::kRulesMethod, mavo::rmi::Message()));
    showDocument(document, asJson, rulesAsText, 2);
}

} // namespace

void addRules(CLI::App &app, Session &session) {
    auto *command = app.add_subcommand("rules", "List the stored rules");
    const auto asJson = std::make_shared<bool>(false); // shared with the callback
    command->add_flag("--json", *asJson, "Print the host's document as it is, on one line");
    command->footer(R"(A line is what vpkctl exec takes:
  vpkctl rules > saved
  while read -r command rule; do vpkctl exec "$command" "$rule"; done < saved)");
    command->callback([asJson, &session] { run(*asJson, session); });
}

} // namespace cli
