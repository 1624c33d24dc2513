// vpkctl diff
#include <ctime>
#include <memory>

#include "cli/documents-as-text.h"
#include "cli/history-as-text.h"
#include "cli/json-answer.h"
#include "cli/session.h"
#include "cli/since.h"
#include "host/method-names.h"

namespace cli {
namespace {

struct Arguments {
    std::string since;
    bool asJson = false;
};

void run(const Arguments &arguments, Session &session) {
    mavo::rmi::Message request;
    request.write(sinceFrom(arguments.since, static_cast<std::int64_t>(std::time(nullptr))));
    const std::string document = textOf(session.call(host::kDiffMethod, request));
    showDocument(document, arguments.asJson, differenceAsText, 2);
}

} // namespace

void addDiff(CLI::App &app, Session &session) {
    auto *command = app.add_subcommand("diff", "Show what has become of the stored rules since then");
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    command->add_option("SINCE", arguments->since, "An entry's number, a duration, or a time")->required();
    command->add_flag("--json", arguments->asJson, "Print the host's document as it is, on one line");
    command->footer(R"(The rules then are compared with the rules now: after the entry of that number
(see vpkctl history), so long ago, or at that time.
  vpkctl diff 41
  vpkctl diff 2h
  vpkctl diff yesterday
  vpkctl diff '2026-11-22 14:30'
"+" are rules that came, "-" rules that went.)");
    command->callback([arguments, &session] { withJsonError(arguments->asJson, [&] { run(*arguments, session); }); });
}

} // namespace cli
