#include "rules/rule.h"

#include <algorithm>

#include "host/firewall-plugin.h"

namespace rules {
namespace {

std::string orAny(const std::string &field) { return field.empty() ? "*" : field; }

const char *wordOf(int direction) {
    return direction == host::kInbound ? "in" : direction == host::kOutbound ? "out" : "bid";
}

} // namespace

std::string textOf(const Rule &rule) {
    std::string port = orAny(rule.port);
    std::replace(port.begin(), port.end(), ':', '-');
    return orAny(rule.protocol) + ":" + orAny(rule.address) + ":" + port + ":" + wordOf(rule.direction);
}

} // namespace rules
