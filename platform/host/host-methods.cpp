#include "host/host-methods.h"

#include <algorithm>
#include <array>

#include "host/collector.h"
#include "host/databases.h"
#include "host/documents.h"
#include "host/exception-text.h"
#include "host/history.h"
#include "host/log.h"
#include "host/method-names.h"
#include "host/privileges.h"
#include "host/rule-replacement.h"
#include "mavo/database.h"

namespace host {
namespace {

constexpr std::array<std::string_view, 9> kLooking = {kGetStatusMethod, kStatusMethod,        kVerifyMethod,
                                                      kRulesMethod,     kReportsMethod,       kHistoryMethod,
                                                      kDiffMethod,      kRehearseRulesMethod, kRehearseRemovalMethod};

int applyStatus(ServedPlugin &served, int status) {
    served.applyStatus(status);
    return status == 0 || status == 1 ? 0 : -1; // the plugin passes over any other without a word
}

// 0, or -1 with the reason in the log.
int reload(PluginLife &life) try {
    distrustRuleBackup();
    life.bringUpAsStored();
    return 0;
} catch (...) {
    logError("reload: " + textOfException());
    return -1;
}

std::string collectorProblem(CollectorKeeper &keeper) {
    const std::string problem = removeDeadMarker();
    keeper.look();
    const std::string remark = keeper.remark();
    return problem + (problem.empty() || remark.empty() ? "" : "; ") + remark;
}

// `reading` as in documents.h.
std::string status(HostParts &parts, bool reading) {
    HostState state;
    state.applied = parts.served.applied();
    state.collectorProblem = collectorProblem(parts.keeper);
    const std::string pending = parts.rebuild.remark();
    state.rebuild = pending.empty() ? parts.builder.reasons().lostAgain() : pending;
    state.privilegesProblem = parts.privilegesProblem;
    state.historyProblem = parts.history.problem();
    state.names = parts.served.names().state();
    try {
        state.stored = parts.life.storedStatus();
    } catch (const mavo::database::Unavailable &unavailable) {
        state.databaseProblem = unavailable.what();
    }
    return statusDocument(state, reading);
}

using ListMethod = std::string (RuleReplacement::*)(const std::string &);
using LookingListMethod = std::string (RuleReplacement::*)(const std::string &) const;

template <typename Method>
void addListMethod(mavo::rmi::Service &service, HostParts &parts, const char *name, Method method) {
    service.setMethodHandler<std::string, std::string>(
        kAdministrator, name, [&parts, method](const std::string &list) { return (parts.replacement.*method)(list); });
}

void addListMethods(mavo::rmi::Service &service, HostParts &parts) {
    addListMethod<ListMethod>(service, parts, kReplaceRulesMethod, &RuleReplacement::replace);
    addListMethod<ListMethod>(service, parts, kRemoveRulesMethod, &RuleReplacement::remove);
    addListMethod<LookingListMethod>(service, parts, kRehearseRulesMethod, &RuleReplacement::rehearseReplacement);
    addListMethod<LookingListMethod>(service, parts, kRehearseRemovalMethod, &RuleReplacement::rehearseRemoval);
}

} // namespace

void addHostMethods(mavo::rmi::Service &service, HostParts &parts) {
    service.setMethodHandler<std::string, std::string, std::string>(
        kAdministrator, kExecuteCommandMethod, [&parts](const std::string &command, const std::string &data) {
            return parts.served.executeCommand(command, data);
        });
    service.setMethodHandler<int, int>(kAdministrator, kSetStatusMethod,
                                       [&parts](int status) { return parts.served.setStatus(status); });
    service.setMethodHandler<int, int>(kAdministrator, kApplyStatusMethod,
                                       [&parts](int status) { return applyStatus(parts.served, status); });
    service.setMethodHandler<int>(kObserver, kGetStatusMethod, [&parts] { return parts.served.getStatus(); });
    service.setMethodHandler<int>(kAdministrator, kReloadMethod, [&parts] { return reload(parts.life); });
    addListMethods(service, parts);
    service.setMethodHandler<std::string>(kObserver, kStatusMethod, [&parts] { return status(parts, false); });
    service.setMethodHandler<std::string>(kObserver, kVerifyMethod, [&parts] { return status(parts, true); });
    service.setMethodHandler<std::string>(kObserver, kRulesMethod, rulesDocument);
    service.setMethodHandler<std::string>(kObserver, kReportsMethod, reportsDocument);
    service.setMethodHandler<std::string, int>(kObserver, kHistoryMethod,
                                               [&parts](int count) { return parts.history.document(count); });
    service.setMethodHandler<std::string, std::string>(
        kObserver, kDiffMethod, [&parts](const std::string &since) { return parts.history.differenceDocument(since); });
}

bool onlyLooks(std::string_view method) {
    return std::find(kLooking.begin(), kLooking.end(), method) != kLooking.end();
}

} // namespace host
