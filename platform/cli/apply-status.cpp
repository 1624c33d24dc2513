// vpkctl apply-status
#include <memory>

#include "cli/session.h"
#include "cli/status-argument.h"
#include "host/method-names.h"

namespace cli {
namespace {

void run(const std::string &word, Session &session) {
    const int status = statusFrom(word);
    mavo::rmi::Message request;
    request.write(status);
    const auto reply = session.call(host::kApplyStatusMethod, request);
    const int result = intOf(reply);
    if (result != 0)
        throw Exit(kFailed, refusedStatus(status));
    session.exitStatus = statusOf(reply, true);
}

} // namespace

void addApplyStatus(CLI::App &app, Session &session) {
    auto *command = app.add_subcommand("apply-status", "The same until the plugin is loaded again");
    const auto status = std::make_shared<std::string>(); // shared with the callback
    command->add_option("N", *status, "1 enabled, 0 disabled")->required();
    command->footer("Enables (1) or disables (0) the plugin as set-status does, but stores nothing.");
    command->callback([status, &session] { run(*status, session); });
}

} // namespace cli
