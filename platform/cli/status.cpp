// vpkctl status and vpkctl verify: one account of what is in force, in short and in full.
#include <memory>
#include <string>

#include "cli/documents-as-text.h"
#include "cli/session.h"
#include "host/method-names.h"

namespace cli {
namespace {

struct Wishes {
    bool asJson = false;
    bool strict = false;
};

void run(const char *method, std::string (*asText)(const Json &), const Wishes &wishes, Session &session) {
    const std::string document = textOf(session.call(method, mavo::rmi::Message()));
    const Json parsed = parseDocument(document);
    showDocument(document, wishes.asJson, asText, kStatusIndent);
    session.exitStatus = exitStatusOf(parsed, wishes.strict);
}

CLI::App *addLook(CLI::App &app, const char *name, const char *description, const char *method,
                  std::string (*asText)(const Json &), Session &session) {
    auto *command = app.add_subcommand(name, description);
    const auto wishes = std::make_shared<Wishes>(); // shared with the callback
    command->add_flag("--json", wishes->asJson, "Print the host's document as it is, on one line");
    command->add_flag("--strict", wishes->strict, "Exit status 1 also where rules of others decide before ours");
    command->callback([=, &session] { run(method, asText, *wishes, session); });
    return command;
}

} // namespace

void addStatus(CLI::App &app, Session &session) {
    addLook(app, "status", "Show status, what is in force, and the collector", host::kStatusMethod, statusAsText,
            session)
        ->footer(
            "The stored status is what the plugin has after the next start, the applied one what it has now. "
            "\"Expected\" are\nthe kernel rules that the stored ones make: two each where they have no "
            "direction, one for each address of a host\nname. Collector: running; stopping, which ends when it "
            "wakes up next; dead, though it should run; off.\n\nExit status: 0 all is in force, 1 something is not, "
            "or that is not known, or a rebuild is pending, 2 the host\ndoes not run or refuses.");
}

void addVerify(CLI::App &app, Session &session) {
    addLook(app, "verify", "Compare what is stored with what stands, rule by rule", host::kVerifyMethod,
            verificationAsText, session)
        ->footer("MISSING     stored or needed, not in the kernel\n"
                 "FOREIGN     in a chain of ours, and not ours; or one of our jumps a second time\n"
                 "CHANGED     stands with another target or at another place\n"
                 "DIFFERS     the backup of the rules is not what they are\n"
                 "UNANSWERED  a rule with a host name that has no address\n"
                 "No difference:\n"
                 "TWICE       a rule was applied twice, and stands twice until the next rebuild\n"
                 "SHADOWED    a rule of others that may decide before ours are asked\n\n"
                 "Exit status: as that of status.");
}

} // namespace cli
