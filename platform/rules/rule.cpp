#include "rules/rule.h"

#include <algorithm>
#include <string_view>

#include "host/firewall-plugin.h"

namespace rules {
namespace {

std::string orAny(const std::string &field) { return field.empty() ? "*" : field; }

const char *wordOf(int direction) {
    return direction == host::kInbound ? "in" : direction == host::kOutbound ? "out" : "bid";
}

std::string safe(const std::string &field) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const char c : field) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f && c != '%')
            text += c;
        else
            text.append({'%', kDigits[byte >> 4U], kDigits[byte & 0xfU]});
    }
    return text;
}

} // namespace

std::string textOf(const Rule &rule) {
    std::string port = orAny(rule.port);
    std::replace(port.begin(), port.end(), ':', '-');
    return orAny(rule.protocol) + ":" + orAny(rule.address) + ":" + port + ":" + wordOf(rule.direction);
}

std::string lineOf(const Rule &rule, bool allowed) {
    Rule shown = rule;
    for (std::string *field : {&shown.protocol, &shown.address, &shown.port})
        *field = safe(*field);
    return (allowed ? "allow " : "deny ") + textOf(shown);
}

} // namespace rules
