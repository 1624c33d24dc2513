#include <algorithm>
#include <array>
#include <string_view>

#include "host/host.h"
#include "host/privileges.h"

namespace host {
namespace {

// Those that change nothing: an observer may call them, and nothing is rebuilt after them.
constexpr std::array<std::string_view, 5> kLooking = {"Host::getStatus", "Host::status", "Host::verify", "Host::rules",
                                                      "Host::reports"};

int applyStatus(Host &host, int status) {
    host.applyStatus(status);
    return status == 0 || status == 1 ? 0 : -1; // the plugin passes over any other without a word
}

} // namespace

void addHostMethods(mavo::rmi::Service &service, Host &host) {
    service.setMethodHandler<std::string, std::string, std::string>(
        kAdministrator, "Host::executeCommand",
        [&host](const std::string &command, const std::string &data) { return host.executeCommand(command, data); });
    service.setMethodHandler<int, int>(kAdministrator, "Host::setStatus",
                                       [&host](int status) { return host.setStatus(status); });
    service.setMethodHandler<int, int>(kAdministrator, "Host::applyStatus",
                                       [&host](int status) { return applyStatus(host, status); });
    service.setMethodHandler<int>(kObserver, "Host::getStatus", [&host] { return host.getStatus(); });
    service.setMethodHandler<int>(kAdministrator, "Host::reload", [&host] { return host.reload(); });
    service.setMethodHandler<std::string>(kObserver, "Host::status", [&host] { return host.statusDocument(false); });
    service.setMethodHandler<std::string>(kObserver, "Host::verify", [&host] { return host.statusDocument(true); });
    service.setMethodHandler<std::string>(kObserver, "Host::rules", [&host] { return host.rulesDocument(); });
    service.setMethodHandler<std::string>(kObserver, "Host::reports", [&host] { return host.reportsDocument(); });
}

bool onlyLooks(const std::string &method) {
    return std::find(kLooking.begin(), kLooking.end(), method) != kLooking.end();
}

} // namespace host
