#include "host/dispatch.h"

#include <new>
#include <stdexcept>
#include <utility>

#include "host/account.h"
#include "host/databases.h"
#include "host/door.h"
#include "host/exception-text.h"
#include "host/firewall-plugin.h"
#include "host/history.h"
#include "host/host-methods.h"
#include "host/log.h"
#include "host/plugin-files.h"
#include "host/privileges.h"
#include "host/rule-replacement.h"
#include "rlv/rlv-query.h"
#include "support/find-named.h"

namespace host {

namespace {

// What has been begun so far that is about all rules, or all of a kind: only a look at everything tells what such a
// call has come to.
std::uint64_t changesOfAllRules(const HostParts &parts) { return parts.served.removals() + parts.life.attempts(); }

// For want of memory stored rules may be changed, and nothing sent. After a database's failure it may hold what it said
// to have refused, and the connection may have sent nothing.
std::string interruptionOf(const Verdict &verdict, bool lackedMemory, bool databaseFailed) {
    if (!verdict.interruption.empty())
        return verdict.interruption;
    if (lackedMemory)
        return "there was no memory for the operation";
    return databaseFailed ? rlv::textOf(rlv::Interruption::databaseFailure) : "";
}

// A call for rules of its own that went well has touched nothing else, and the service has said of each of its commands
// what the kernel made of it. For any other only a look at everything tells what it has come to.
void addAccount(const Verdict &verdict, bool mayChangeAllRules, Remarks &remarks) {
    const bool isClean = verdict.notInForce.empty() && verdict.interruption.empty();
    if ((isClean && !mayChangeAllRules) || !verdict.unknown.empty())
        return;
    std::string unknown;
    try {
        const Account account = takeAccount(false);
        if (account.serviceProblem.empty() && !account.isInForce())
            remarks.notes.push_back(account.summary());
        unknown = account.serviceProblem;
    } catch (...) { // what the call has done, it has done
        unknown = textOfException();
    }
    if (!unknown.empty())
        remarks.notes.push_back("whether all is in force is not known: " + unknown);
}

} // namespace

Dispatch::Dispatch(HostParts parts) : parts_(std::move(parts)) { addHostMethods(ownMethods_, parts_); }

std::string Dispatch::whyNotUp() const {
    const std::string pending = parts_.rebuild.remark();
    return ServedPlugin::NotUp().what() + (pending.empty() ? pending : "; " + pending);
}

std::shared_ptr<const mavo::rmi::MethodContext> Dispatch::find(const std::string &name) const {
    if (auto own = ownMethods_.find(name))
        return own;
    if (parts_.served.isUp())
        return parts_.served.method(name);
    const auto refusing = std::make_shared<mavo::rmi::MethodContext>();
    refusing->privilege = kFirewallPrivilege;
    refusing->dispatcher = [](mavo::rmi::Message &) -> mavo::rmi::Message { throw ServedPlugin::NotUp(); };
    return refusing;
}

mavo::rmi::Reply Dispatch::invoke(const mavo::rmi::Caller &caller, const std::string &name,
                                  const mavo::rmi::MethodContext &method, mavo::rmi::Message &request) {
    if (onlyLooks(name))
        return look(name, method, request);
    parts_.history.begin(caller, name, request.body());
    const auto changesBefore = changesOfAllRules(parts_);
    parts_.rebuild.prepare();
    auto reply = change(name, method, request);
    parts_.rebuild.callOff();
    parts_.history.end(reply, changesOfAllRules(parts_) != changesBefore);
    return reply;
}

mavo::rmi::Reply Dispatch::look(const std::string &name, const mavo::rmi::MethodContext &method,
                                mavo::rmi::Message &request) {
    const CallWatch watch;
    auto reply = carryOut(name, method, request).reply;
    reply.remarks = encode(remarksOn({}, watch.errorLines()));
    parts_.rebuild.hasten();
    return reply;
}

mavo::rmi::Reply Dispatch::change(const std::string &name, const mavo::rmi::MethodContext &method,
                                  mavo::rmi::Message &request) {
    const CallWatch watch;
    const auto numberBefore = parts_.served.number();
    const auto changesBefore = changesOfAllRules(parts_);
    Ended ended = carryOut(name, method, request);
    const bool lackedMemory = ended.lackedMemory || watch.lackedMemory();
    const bool databaseFailed = watch.databaseFailed();
    refreshRuleBackup(); // the caller is told of a failure, as of each error in the log
    Verdict verdict = watch.verdict();
    verdict.interruption = interruptionOf(verdict, lackedMemory, databaseFailed);
    parts_.replacement.conclude(verdict, ended.reply);
    Remarks remarks = remarksOn(verdict, watch.errorLines());
    addAccount(verdict, changesOfAllRules(parts_) != changesBefore, remarks);
    orderRebuild(verdict, parts_.served.number() != numberBefore, remarks);
    ended.reply.remarks = encode(remarks);
    return std::move(ended.reply);
}

Dispatch::Ended Dispatch::carryOut(const std::string &name, const mavo::rmi::MethodContext &method,
                                   mavo::rmi::Message &request) {
    Ended ended;
    mavo::rmi::MethodContext guarded;
    guarded.dispatcher = [&](mavo::rmi::Message &arguments) {
        letThrough(name, arguments);
        try {
            return guard_.run([&] { return method.dispatcher(arguments); });
        } catch (const std::bad_alloc &) {
            ended.lackedMemory = true;
            throw;
        } catch (const ServedPlugin::NotUp &) {
            throw std::runtime_error(whyNotUp());
        }
    };
    ended.reply = mavo::rmi::invokeMethod(guarded, request);
    if (ended.reply.status == mavo::rmi::Status::exception)
        logInfo(name + " ended with an exception: " + ended.reply.error);
    return ended;
}

// Throws where the call is not to be carried out.
void Dispatch::letThrough(const std::string &name, const mavo::rmi::Message &request) {
    if (!ownMethods_.find(name)) // those look by themselves
        requirePluginFiles();
    const std::string problem = methodProblem(name, request.body());
    if (!problem.empty())
        throw mavo::rmi::BadArguments(problem);
    if (const auto *const known = support::findNamed(kPluginMethods, name))
        parts_.served.announce(known->command, request.body()); // the length before the text ends with a 0
}

// The caller learns of it in its reply: the rebuild begins when that is on its way.
void Dispatch::orderRebuild(const Verdict &verdict, bool broughtUp, Remarks &remarks) {
    RebuildReasons &reasons = parts_.builder.reasons();
    const std::string reason = broughtUp ? reasons.afterBringUp(verdict) : reasons.afterCall(verdict);
    if (!reason.empty()) {
        remarks.notes.push_back(reason + "; the tables are built anew from the stored rules");
        parts_.rebuild.want(reason);
    } else if (!verdict.acceptedThenLost.empty()) {
        remarks.notes.emplace_back("the tables were built anew for this already, and are not again");
    }
    if (reason.empty() && broughtUp)
        parts_.rebuild.settle();
    parts_.rebuild.hasten();
}

} // namespace host
