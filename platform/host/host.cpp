#include "host/host.h"

#include <cstdint>
#include <exception>
#include <limits>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "host/account.h"
#include "host/collector-process.h"
#include "host/collector-restart.h"
#include "host/collector.h"
#include "host/config-file.h"
#include "host/data-check.h"
#include "host/databases.h"
#include "host/documents.h"
#include "host/door.h"
#include "host/exception-text.h"
#include "host/firewall-plugin.h"
#include "host/log.h"
#include "host/marker.h"
#include "host/plugin-config.h"
#include "host/plugin-files.h"
#include "host/privileges.h"
#include "host/retired-plugin.h"
#include "host/shortage.h"
#include "mavo/database-failures.h"
#include "mavo/database.h"
#include "mavo/rmi-server.h"
#include "rlv/rlv-query.h"
#include "support/find-named.h"

namespace host {

struct Host::Instance {
    mavo::rmi::Service service;
    AbstractDPluginProvider *plugin = nullptr;
};

namespace {

// A query tells of connections above a number; none is above this one.
constexpr std::uint64_t kNoConnections = std::numeric_limits<std::uint64_t>::max();

// How often a change of settings is made again that a collector has overwritten, and how long one may be waited for.
constexpr int kMostOverwritten = 3;
constexpr std::chrono::milliseconds kCollectorsWork{1'000};

// No plugin came up, and that may pass.
class Passing : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Whether the exception that is being handled is of a kind that may pass.
bool mayPass() {
    try {
        throw;
    } catch (const Passing &) {
        return true;
    } catch (const mavo::database::Unavailable &) {
        return true;
    } catch (const std::bad_alloc &) {
        return true;
    } catch (...) {
        return false;
    }
}

// The plugin looks neither at a disk that is full nor at a file that has gone.
bool isStored(const std::string &command, const std::string &data) {
    if (command == kStartCollector)
        return collectorWanted();
    if (command == kChangeSettings)
        return data.empty() || holdsChange(configText(), data);
    return !collectorWanted();
}

// A collector at work writes the configuration whole, as it has read it before the change.
template <typename IsStored, typename Change> void repeatWhileOverwritten(IsStored isStored, Change change) {
    for (int i = 0; i < kMostOverwritten && collectorLives(); ++i) {
        awaitCollectorsRest(kCollectorsWork);
        if (isStored())
            return;
        change();
    }
}

// What has happened meanwhile that keeps a plugin from coming up, and may pass; empty when nothing has.
std::string passingCause(const Verdict &verdict, std::uint64_t failuresBefore) {
    if (!verdict.interruption.empty())
        return verdict.interruption;
    if (verdict.isUnopened)
        return "the traffic-control service could not be used";
    return mavo::database::failedStatements() != failuresBefore ? "a database failed" : "";
}

} // namespace

Host::Host(PluginFactory factory) : factory_(factory) {
    addHostMethods(ownMethods_, *this);
    countShortages();
    rlv::setFailureCount(mavo::database::failedStatements);
    PolicyStorage::backend = &storage_;
}

Host::~Host() { PolicyStorage::backend = nullptr; }

int Host::storedStatus() {
    const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
    const int status = storage_.readStatus(kPluginName);
    const std::string remark = status == -1 ? StatusStorage::remark() : std::string();
    if (!remark.empty())
        logError(remark);
    return status;
}

// What the plugin throws dies here, in the host.
AbstractDPluginProvider *Host::callFactory(mavo::rmi::Service &service) const try {
    removeDeadMarker();
    const MarkerHold hold;
    auto *const plugin = guard_.run([&] { return factory_(service); });
    if (plugin == nullptr)
        throw std::runtime_error("for reasons that are in the log");
    return plugin;
} catch (...) {
    const std::string text = "the plugin did not come up: " + textOfException();
    if (mayPass())
        throw Passing(text);
    throw std::runtime_error(text);
}

// The flag of the plugin's library is one for all plugins, and a factory that fails late has set it.
void Host::restoreAfterFailedFactory(bool disabled) {
    if (current_ == nullptr)
        return;
    if (applied_ != 0)
        return;
    if (disabled)
        keepDisabled(*current_->plugin);
    else
        switchTo(0);
}

// Every factory call enables the plugin.
void Host::keepDisabled(AbstractDPluginProvider &plugin) {
    int result = -1;
    try {
        const MarkerHold hold;
        result = guard_.run([&plugin] { return plugin.setStatus(0); });
    } catch (...) {
        logError("setStatus(0): " + textOfException());
    }
    if (result != 0)
        throw std::runtime_error("the plugin is stored as disabled and could not be disabled again");
}

void Host::bringUp() { bringUpWith(std::nullopt); }

// `applied` is the status to have then, where it is not the stored one.
void Host::bringUpWith(std::optional<int> applied) {
    const std::string problem = dataProblem();
    if (!problem.empty())
        throw std::runtime_error(problem);
    healConfig();
    names_.announceStored();
    const bool disabled = storedStatus() == 0;
    // Every factory call stores 1. Whoever has stored 0 keeps it, even should the host be killed in the middle.
    std::optional<StatusStorage::Rehearsal> rehearsal;
    if (disabled)
        rehearsal.emplace(storage_);

    auto instance = std::make_unique<Instance>();
    try {
        instance->plugin = callFactory(instance->service);
        if (disabled)
            keepDisabled(*instance->plugin);
    } catch (const std::runtime_error &) {
        restoreAfterFailedFactory(disabled);
        throw;
    }
    replaceBy(std::move(instance));
    applied_ = disabled ? 0 : 1;
    if (applied && *applied != applied_)
        switchTo(*applied);
    else
        startWantedCollector();
    try {
        keepConfig();
    } catch (const std::exception &error) {
        logError(error.what()); // the rules are in force all the same
    }
}

// The one before is served no more: its methods are found by name at each call, and this is no call of theirs.
void Host::replaceBy(std::unique_ptr<Instance> instance) {
    static auto *const kept = new std::vector<std::unique_ptr<Instance>>; // reachable, but destroyed by nobody
    kept->push_back(std::move(instance));
    const auto *const before = std::exchange(current_, kept->back().get());
    if (before != nullptr && deleteRetiredPlugin(before->plugin, guard_))
        kept->erase(kept->end() - 2);
}

std::string Host::bringUpAndJudge(std::optional<int> applied) {
    const CallWatch watch;
    const auto failuresBefore = mavo::database::failedStatements();
    try {
        bringUpWith(applied);
    } catch (...) {
        const std::string cause = passingCause(watch.verdict(), failuresBefore);
        if (!cause.empty())
            throw Passing(textOfException() + " (" + cause + ")");
        if (mayPass())
            throw Passing(textOfException());
        throw;
    }
    std::string reason = reasons_.afterBringUp(watch.verdict());
    if (!reasons_.givenUp().empty())
        logError("the tables are not built anew again: " + reasons_.givenUp());
    return reason;
}

std::string Host::start() try { return bringUpAndJudge(std::nullopt); } catch (const Passing &passing) {
    return passing.what();
}

std::string Host::rebuild() try {
    const auto service = rlv::query(kNoConnections, kQueryTimeout); // the plugin would wait longer for one that hangs
    std::string problem = bringUpAndJudge(current_ != nullptr ? std::optional<int>(applied_) : std::nullopt);
    if (problem.empty())
        builtBy_ = service.serviceId;
    refreshRuleBackup(); // the plugin may have copied the rules in the middle of what came to nothing
    return problem;
} catch (...) {
    return textOfException();
}

// The caller learns of it in its reply: the rebuild begins when that is on its way.
void Host::orderRebuild(const Verdict &verdict, bool broughtUp, Remarks &remarks) {
    const std::string reason = broughtUp ? reasons_.afterBringUp(verdict) : reasons_.afterCall(verdict);
    if (rebuild_ == nullptr)
        return;
    if (!reason.empty()) {
        remarks.notes.push_back(reason + "; the tables are built anew from the stored rules");
        rebuild_->want(reason);
    } else if (!verdict.lost.empty()) {
        remarks.notes.emplace_back("the tables were built anew for this already, and are not again");
    }
    if (reason.empty() && broughtUp)
        rebuild_->settle();
    rebuild_->hasten();
}

// The one plugin that serves.
AbstractDPluginProvider &Host::plugin() const {
    if (current_ == nullptr)
        throw std::runtime_error(whatIsWrong());
    return *current_->plugin;
}

std::string Host::whatIsWrong() const {
    const std::string pending = rebuild_ != nullptr ? rebuild_->remark() : std::string();
    return "the plugin has not come up yet" + (pending.empty() ? pending : "; " + pending);
}

int Host::reload() try {
    mayChangeAllRules_ = true;
    distrustRuleBackup();
    bringUp();
    return 0;
} catch (...) {
    logError("reload: " + textOfException());
    return -1;
}

// The plugin itself was kept from starting it; by command nothing can come back into the middle of another operation.
void Host::startWantedCollector() {
    if (!wantsCollector() || collectorLives())
        return;
    try {
        if (!executeCommand(std::string(kStartCollector), "").empty())
            logError("the collector could not be started");
    } catch (...) {
        logError("the collector could not be started: " + textOfException());
    }
}

bool Host::wantsCollector() const { return applied_ == 1 && collectorWanted(); }

void Host::startCollectorAgain(std::optional<std::chrono::seconds> clockSetBy) {
    try {
        if (clockSetBy)
            forgetStatisticsOfOldClock(*clockSetBy);
        const std::string change = lastReportAsPolicy(clockSetBy.value_or(std::chrono::seconds(0)));
        if (!change.empty())
            executeCommand(std::string(kChangeSettings), change);
    } catch (...) {
        logError("the collector is started with what it has: " + textOfException());
    }
    startWantedCollector();
}

void Host::requirePluginFiles() {
    const std::string problem = pluginFilesProblem();
    if (!problem.empty())
        throw std::runtime_error(problem);
}

std::string Host::executeCommand(const std::string &command, const std::string &data) {
    const std::string problem = commandProblem(command, data);
    if (!problem.empty())
        throw mavo::rmi::BadArguments(problem);
    requirePluginFiles();
    if (command == kStartCollector) {
        const std::string misplaced = collectorFilesProblem();
        if (!misplaced.empty())
            throw std::runtime_error(misplaced);
        removeDeadMarker();
    }
    announceNames(command, data);
    const auto carryOut = [&, &plugin = plugin()] { return plugin.executeCommand(command, data); };
    std::string result = guard_.run(carryOut);
    if (changesSettings(command)) {
        if (command != kStartCollector && result.empty())
            repeatWhileOverwritten([&] { return isStored(command, data); }, [&] { result = guard_.run(carryOut); });
        keepConfig();
        if (result.empty() && !isStored(command, data))
            throw std::runtime_error("the settings were not stored; try again");
    }
    return result;
}

int Host::setStatus(int status) {
    AbstractDPluginProvider &plugin = this->plugin();
    requirePluginFiles();
    removeDeadMarker();
    if (status == 0 || status == 1)
        applied_ = status;
    int result = -1;
    {
        const MarkerHold hold;
        const auto change = [&] { result = guard_.run([&] { return plugin.setStatus(status); }); };
        change();
        if (status == 0 && result == 0)
            repeatWhileOverwritten([] { return !collectorWanted(); }, change);
    }
    if (status == 1)
        startWantedCollector();
    keepConfig();
    return result;
}

void Host::applyStatus(int status) {
    switchTo(status);
    keepConfig();
}

void Host::switchTo(int status) {
    AbstractDPluginProvider &plugin = this->plugin();
    requirePluginFiles();
    removeDeadMarker();
    if (status == 0 || status == 1)
        applied_ = status;
    {
        const MarkerHold hold;
        const auto change = [&] { guard_.run([&] { plugin.applyStatus(status); }); };
        change();
        if (status == 0)
            repeatWhileOverwritten([] { return !collectorWanted(); }, change);
    }
    if (status == 1)
        startWantedCollector();
}

int Host::getStatus() {
    return guard_.run([&plugin = plugin()] { return plugin.getStatus(); });
}

std::string Host::statusDocument(bool reading) {
    HostState state;
    state.applied = applied_;
    state.collectorProblem = removeDeadMarker();
    if (keeper_ != nullptr) {
        keeper_->look();
        const std::string remark = keeper_->remark();
        state.collectorProblem += state.collectorProblem.empty() || remark.empty() ? remark : "; " + remark;
    }
    const std::string pending = rebuild_ != nullptr ? rebuild_->remark() : std::string();
    state.rebuild = pending.empty() ? reasons_.givenUp() : pending;
    state.privilegesProblem = privilegesProblem_;
    state.names = names_.state();
    const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
    try {
        state.stored = PolicyStorage::backend->readStatus(kPluginName);
    } catch (const mavo::database::Unavailable &unavailable) {
        state.databaseProblem = unavailable.what();
    }
    return host::statusDocument(state, reading);
}

std::string Host::rulesDocument() const { return host::rulesDocument(); }

std::string Host::reportsDocument() const { return host::reportsDocument(); }

std::shared_ptr<const mavo::rmi::MethodContext> Host::find(const std::string &name) const {
    if (auto own = ownMethods_.find(name))
        return own;
    if (current_ != nullptr)
        return current_->service.find(name);
    const auto refusing = std::make_shared<mavo::rmi::MethodContext>();
    refusing->privilege = kFirewallPrivilege;
    refusing->dispatcher = [this](mavo::rmi::Message &) -> mavo::rmi::Message {
        throw std::runtime_error(whatIsWrong());
    };
    return refusing;
}

void Host::announceNames(std::string_view command, const std::string &rules) {
    const auto *const known = support::findNamed(kPluginCommands, command);
    if (known == nullptr)
        return;
    if (known->effect == RuleEffect::apply)
        names_.announceIn(rules);
    if (known->effect != RuleEffect::removeAll)
        return;
    names_.rulesMayBeGone();
    mayChangeAllRules_ = true;
}

mavo::rmi::Reply Host::invoke(const std::string &name, const mavo::rmi::MethodContext &method,
                              mavo::rmi::Message &request) {
    if (rebuild_ == nullptr || onlyLooks(name))
        return carryOut(name, method, request);
    rebuild_->prepare();
    auto reply = carryOut(name, method, request);
    rebuild_->callOff();
    return reply;
}

mavo::rmi::Reply Host::carryOut(const std::string &name, const mavo::rmi::MethodContext &method,
                                mavo::rmi::Message &request) {
    const CallWatch watch;
    const auto *const before = current_;
    bool lackedMemory = false;
    mavo::rmi::MethodContext guarded;
    guarded.dispatcher = [this, &name, &method, &lackedMemory](mavo::rmi::Message &arguments) {
        const std::string problem = methodProblem(name, arguments.body());
        if (!problem.empty())
            throw mavo::rmi::BadArguments(problem);
        if (const auto *const known =
                support::findNamed(kPluginMethods, name)) // the length before the text ends with a 0
            announceNames(known->command, arguments.body());
        try {
            return guard_.run([&] { return method.dispatcher(arguments); });
        } catch (const std::bad_alloc &) { // stored rules may be changed, and nothing sent
            lackedMemory = true;
            throw;
        }
    };
    if (!ownMethods_.find(name)) // those look by themselves
        guarded.dispatcher = [look = guarded.dispatcher](mavo::rmi::Message &arguments) {
            requirePluginFiles();
            return look(arguments);
        };
    const auto failuresBefore = mavo::database::failedStatements();
    const auto shortagesBefore = shortages();
    mayChangeAllRules_ = false;
    auto reply = mavo::rmi::invokeMethod(guarded, request);
    const bool databaseFailed = mavo::database::failedStatements() != failuresBefore;
    lackedMemory = lackedMemory || shortages() != shortagesBefore;
    if (reply.status == mavo::rmi::Status::exception)
        logInfo(name + " ended with an exception: " + reply.error);
    Verdict verdict;
    if (!onlyLooks(name)) {
        refreshRuleBackup(); // the caller is told of a failure, as of each error in the log
        verdict = watch.verdict();
    }
    if (!onlyLooks(name) && verdict.interruption.empty()) {
        if (lackedMemory)
            verdict.interruption = "there was no memory for the operation";
        else if (databaseFailed) // it may hold what it said to have refused, and the connection may have sent nothing
            verdict.interruption = rlv::textOf(rlv::Interruption::databaseFailure);
    }
    Remarks remarks = remarksOn(verdict, watch.errorLines());
    addAccount(verdict, remarks);
    orderRebuild(verdict, current_ != before, remarks);
    reply.remarks = encode(remarks);
    return reply;
}

// A call for rules of its own that went well has touched nothing else, and the service has said of each of its commands
// what the kernel made of it. For any other only a look at everything tells what it has come to.
void Host::addAccount(const Verdict &verdict, Remarks &remarks) const {
    const bool isClean = verdict.notInForce.empty() && verdict.interruption.empty();
    if ((isClean && !mayChangeAllRules_) || !verdict.unknown.empty())
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

} // namespace host
