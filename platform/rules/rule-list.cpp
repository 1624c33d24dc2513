#include "rules/rule-list.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <netdb.h>
#include <netinet/in.h>

namespace rules {
namespace {

constexpr std::string_view kForm = "a rule is protocol:address:port or protocol:address:port:direction";
constexpr std::size_t kShownBytes = 60;

} // namespace

std::string quoted(std::string_view word) {
    return '"' + std::string(word.substr(0, kShownBytes)) + (word.size() > kShownBytes ? "...\"" : "\"");
}

std::string describe(const Problem &problem) { return problem.complaint + "; " + problem.accepted; }

std::vector<std::string_view> fieldsOf(std::string_view text) {
    std::vector<std::string_view> fields;
    for (std::size_t at = 0;;) {
        const std::size_t end = text.find(':', at);
        fields.push_back(text.substr(at, end - at));
        if (end == std::string_view::npos)
            return fields;
        at = end + 1;
    }
}

namespace {

// With the length of a prefix behind it, or in brackets, too.
bool isAddress(int family, std::string_view text) {
    std::string address(text.substr(0, text.find('/')));
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    in6_addr ignored{};
    return ::inet_pton(family, address.c_str(), &ignored) == 1;
}

// Whether some of the fields, with the ":" between them, are an IPv6 address.
bool holdsIpv6(std::string_view text) {
    constexpr std::size_t kEnough = 96; // of protocol, address with prefix, port and direction
    const auto fields = fieldsOf(text.substr(0, kEnough));
    for (std::size_t first = 0; first < fields.size(); ++first) {
        for (std::size_t last = first + 2; last < fields.size(); ++last) {
            const auto *const end = fields[last].data() + fields[last].size();
            const auto part = text.substr(static_cast<std::size_t>(fields[first].data() - text.data()),
                                          static_cast<std::size_t>(end - fields[first].data()));
            if (isAddress(AF_INET6, part))
                return true;
        }
    }
    return false;
}

bool isNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// What somebody may have meant by fewer fields than a rule has.
std::string meantBy(const std::vector<std::string_view> &fields) {
    const auto first = std::string(fields.front());
    if (fields.size() == 1 && isAddress(AF_INET, first))
        return "; did you mean \"*:" + first + ":*\"?";
    if (fields.size() == 2 && isAddress(AF_INET, first) && isNumber(fields[1]))
        return "; did you mean \"tcp:" + first + ":" + std::string(fields[1]) + "\"?";
    if (fields.size() == 2 && isAddress(AF_INET, fields[1]))
        return "; did you mean \"" + first + ":" + std::string(fields[1]) + ":*\"?";
    return "; \"*\" stands for any";
}

Problem formatProblem(std::string_view text, const std::vector<std::string_view> &fields) {
    if (text.empty())
        return {0, "", "it is empty", "one \";\" joins two rules"};
    return {0, std::string(text), quoted(text) + " has " + (fields.size() == 1 ? "one field" : "two fields"),
            std::string(kForm) + meantBy(fields)};
}

Problem directionProblem(std::string_view text, std::string_view word) {
    if (holdsIpv6(text))
        return {0, std::string(text), quoted(text) + " holds an IPv6 address", "rules are about IPv4 only"};
    return {static_cast<std::size_t>(word.data() - text.data()), std::string(word), quoted(word) + " is no direction",
            "in, out and bid (both) are"};
}

Problem portProblem(std::string_view text, std::string_view word) {
    const std::string name(word);
    const auto *const service = ::getservbyname(name.c_str(), nullptr);
    const auto port = service != nullptr ? ntohs(static_cast<std::uint16_t>(service->s_port)) : 0;
    return {static_cast<std::size_t>(word.data() - text.data()), name, quoted(word) + " is no port",
            "a number such as 80, a range such as 8000-8080, and * for any are" +
                (service != nullptr ? " (" + name + " is " + std::to_string(port) + ")" : "")};
}

std::string anyOr(std::string_view field) {
    return field.find('*') == std::string_view::npos ? std::string(field) : std::string();
}

// False for a word that is none.
bool readDirection(std::string_view word, int &direction) {
    std::string lower(word);
    for (char &letter : lower)
        letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    constexpr std::array<std::string_view, 3> kWords = {"bid", "in", "out"};
    const auto *const found = std::find(kWords.begin(), kWords.end(), lower);
    direction = static_cast<int>(found - kWords.begin());
    return found != kWords.end();
}

bool readPort(std::string_view word, std::string &port) {
    for (const char letter : word) {
        if (letter == '*') {
            port.clear(); // whatever follows
            return true;
        }
        if (letter != '-' && (letter < '0' || letter > '9'))
            return false;
        port += letter == '-' ? ':' : letter;
    }
    return true;
}

} // namespace

ReadRule readRule(std::string_view text) {
    ReadRule read{text, {}, {}};
    const auto fields = fieldsOf(text);
    if (fields.size() < 3) {
        read.problem = formatProblem(text, fields);
        return read;
    }
    read.rule.protocol = anyOr(fields[0]);
    read.rule.address = anyOr(fields[1]);
    if (fields.size() > 3) {
        // What follows the third ":" is one word, whatever it holds.
        const auto word = text.substr(static_cast<std::size_t>(fields[3].data() - text.data()));
        if (!readDirection(word, read.rule.direction))
            read.problem = directionProblem(text, word);
    }
    if (!read.problem && !readPort(fields[2], read.rule.port))
        read.problem = portProblem(text, fields[2]);
    return read;
}

std::vector<ReadRule> readRules(std::string_view list) {
    std::vector<ReadRule> rules;
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(';'), list.size());
        rules.push_back(readRule(list.substr(0, end)));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return rules;
}

bool looksLikeIpv6(std::string_view text) {
    const auto fields = fieldsOf(text);
    const auto filled = std::count_if(fields.begin(), fields.end(), [](const auto &field) { return !field.empty(); });
    return filled > 1 && holdsIpv6(text);
}

bool cutsOff(const Rule &rule) {
    const std::size_t slash = rule.address.find('/');
    const bool anyAddress = rule.address.empty() || (slash != std::string::npos && rule.address.substr(slash) == "/0");
    const bool anyPort = rule.port.empty() || rule.port == "0:65535" || rule.port == "1:65535";
    const bool carriesLogins = rule.protocol.empty() || rule.protocol == "tcp" || rule.protocol == "TCP" ||
                               rule.protocol == "6" || rule.protocol == "all";
    return anyAddress && anyPort && carriesLogins;
}

} // namespace rules
