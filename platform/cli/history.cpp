// vpkctl history
#include <charconv>
#include <limits>
#include <memory>

#include "cli/documents-as-text.h"
#include "cli/history-as-text.h"
#include "cli/json-answer.h"
#include "cli/session.h"
#include "host/method-names.h"

namespace cli {
namespace {

struct Arguments {
    std::string count = "20";
    bool asJson = false;
};

int countFrom(const std::string &word) {
    int count = 0;
    const char *const end = word.data() + word.size();
    const auto read = std::from_chars(word.data(), end, count);
    if (read.ec == std::errc::result_out_of_range && word.front() != '-')
        return std::numeric_limits<int>::max();
    if (read.ec != std::errc() || read.ptr != end || count < 1)
        throw Exit(kNotCarriedOut, "\"" + word + "\" is no number of entries: 1 and more are accepted");
    return count;
}

void run(const Arguments &arguments, Session &session) {
    mavo::rmi::Message request;
    request.write(countFrom(arguments.count));
    const std::string document = textOf(session.call(host::kHistoryMethod, request));
    showDocument(document, arguments.asJson, historyAsText, kHistoryIndent);
}

} // namespace

void addHistory(CLI::App &app, Session &session) {
    auto *command = app.add_subcommand("history", "Show who changed what, when, and with which result");
    const auto arguments = std::make_shared<Arguments>(); // shared with the callback
    command->add_option("N", arguments->count, "How many entries, the newest ones")->capture_default_str();
    command->add_flag("--json", arguments->asJson, "Print the host's document as it is, on one line");
    command->footer(R"(Each call that may change something is an entry, and each change of the stored
rules that no call has made. "+" are rules that came, "-" rules that went. What
a program calls itself is its own word.)");
    command->callback([arguments, &session] { withJsonError(arguments->asJson, [&] { run(*arguments, session); }); });
}

} // namespace cli
