// vpkctl set-status
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
    const auto reply = session.call(host::kSetStatusMethod, request);
    const int result = intOf(reply);
    if (result != 0)
        throw Exit(kFailed, refusedStatus(status));
    session.exitStatus = statusOf(reply, true);
}

} // namespace

void addSetStatus(CLI::App &app, Session &session) {
    auto *command = app.add_subcommand("set-status", "Enable (1) or disable (0) the plugin, and store it");
    const auto status = std::make_shared<std::string>(); // shared with the callback
    command->add_option("N", *status, "1 enabled, 0 disabled")->required();
    command->footer("A disabled plugin refuses commands and switches its collector off. Its rules\nstay in force, and "
                    "its remote methods keep working.");
    command->callback([status, &session] { run(*status, session); });
}

} // namespace cli
