#include "cli/execution.h"

#include <algorithm>
#include <cstdio>

#include "cli/terminal.h"
#include "host/method-names.h"

namespace cli {
namespace {

// Counted only: the list may be long, and is read if it is refused.
std::string workOf(const std::string &command, const std::string &data) {
    const auto *const known = findNamed(kPluginCommands, command);
    if (known == nullptr || known->data != CommandData::rules || data.empty())
        return command;
    const auto joints = std::count(data.begin(), data.end() - 1, ';');
    return command + ", rules: " + std::to_string(joints + 1);
}

// Says why the call was refused or ended, and what that means for the rules.
void explain(const Exit &exit, const SentRules &rules, Session &session) {
    say(exit.what());
    if (!rules.list.empty())
        explainRules(session, rules);
    session.exitStatus = exit.status();
}

} // namespace

void execute(Session &session, const std::string &command, const std::string &data,
             const std::function<SentRules()> &rules) {
    mavo::rmi::Message request;
    request.write(command);
    request.write(data);
    session.work = workOf(command, data);
    const auto reply = session.ask(host::kExecuteCommandMethod, request);
    session.work.clear();
    try {
        requireDone(host::kExecuteCommandMethod, reply);
    } catch (const Exit &exit) {
        return explain(exit, rules(), session);
    }
    const std::string text = textOf(reply);
    if (!text.empty())
        std::printf("%s\n", text.c_str());
    const bool failed = text == host::kFail;
    if (failed)
        explainFailure(session, command, data, rules(), reply);
    session.exitStatus = statusOf(reply, !failed);
}

} // namespace cli
