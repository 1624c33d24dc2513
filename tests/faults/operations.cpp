#include "faults/operations.h"

#include <algorithm>
#include <stdexcept>

namespace faults {
namespace {

constexpr const char *kExecute = "Host::executeCommand";

const Row kAllowed{"tcp", "192.0.2.1", "80", 1, 1};
const Row kAllowedBoth{"udp", "192.0.2.2", "53", 0, 1};
const Row kDenied{"tcp", "192.0.2.3", "22", 2, 0};
const Row kDeniedBoth{"tcp", "192.0.2.4", "443", 0, 0};

Row turned(Row row) {
    row.isAllowed = 1 - row.isAllowed;
    return row;
}

Rows with(Rows rows, const Rows &more) {
    rows.insert(rows.end(), more.begin(), more.end());
    return rows;
}

std::vector<Operation> makeOperations() {
    const Rows &before = rowsBefore();
    const Row first{"tcp", "198.51.100.1", "81", 1, 0};
    const Row second{"udp", "198.51.100.2", "53", 0, 0};
    const Row entry{"udp", "198.51.100.9", "99", 2, 1};
    return {
        {"apply",
         kExecute,
         {"ApplyDenyRules", "tcp:198.51.100.1:81:in;udp:198.51.100.2:53"},
         false,
         false,
         {before, with(before, {first}), with(before, {first, second})}},
        {"opposite",
         kExecute,
         {"ApplyAllowRules", "tcp:192.0.2.3:22:out"},
         false,
         false,
         {before, {kAllowed, kAllowedBoth, turned(kDenied), kDeniedBoth}}},
        {"flush", kExecute, {"FlushDenyRules", ""}, false, false, {before, {kAllowed, kAllowedBoth}}},
        // An entry of the allow list is applied as allow, then as deny.
        {"policy",
         kExecute,
         {"ApplyPolicy", R"({"ALLOW":["udp:198.51.100.9:99:out"],"DENY":[]})"},
         false,
         false,
         {before, with(before, {entry}), with(before, {turned(entry)})}},
        {"reload", "Host::reload", {}, false, false, {before}},
        // Two stay, one goes, one is turned, and two come.
        {"replace",
         "Host::replaceRules",
         {"deny tcp:198.51.100.1:81:in\nallow tcp:192.0.2.3:22:out\ndeny udp:198.51.100.2:53\n"
          "allow tcp:192.0.2.1:80:in\nallow udp:192.0.2.2:53\n"},
         false,
         false,
         {before, {kAllowed, kAllowedBoth, turned(kDenied), first, second}}},
        {"replace-with-none", "Host::replaceRules", {""}, false, false, {before, {}}},
        {"remove",
         "Host::removeRules",
         {"deny tcp:192.0.2.4:443:bid\nallow tcp:192.0.2.1:80:in\n"},
         false,
         false,
         {before, {kAllowedBoth, kDenied}}},
        {"restoring-replace", "Host::replaceRules", {"deny tcp:198.51.100.1:81:in\n"}, true, false, {before, {first}}},
        {"restore",
         kExecute,
         {"ApplyDenyRules", "tcp:198.51.100.1:81:in"},
         true,
         false,
         {before, with(before, {first})}},
        {"report", kExecute, {"SendReport", ""}, false, true, {before}},
        {"start", nullptr, {}, false, false, {before}},
        {"restoring-start", nullptr, {}, true, false, {before}},
    };
}

} // namespace

const char *const kAllowedBefore = "tcp:192.0.2.1:80:in;udp:192.0.2.2:53";
const char *const kDeniedBefore = "tcp:192.0.2.3:22:out;tcp:192.0.2.4:443";

const Rows &rowsBefore() {
    static const Rows rows{kAllowed, kAllowedBoth, kDenied, kDeniedBoth};
    return rows;
}

const std::vector<Operation> &operations() {
    static const std::vector<Operation> all = makeOperations();
    return all;
}

const Operation &operationOf(const std::string &name) {
    const auto found = std::find_if(operations().begin(), operations().end(),
                                    [&name](const Operation &each) { return name == each.name; });
    if (found == operations().end())
        throw std::invalid_argument("no operation " + name);
    return *found;
}

} // namespace faults
