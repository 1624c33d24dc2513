#include "firewall-rule-parser.h"

#include <cctype>
#include <map>
#include <sstream>

#include <mavo/exception.h>

namespace {

std::string emptyIfAny(const std::string &field) { return field.find('*') == std::string::npos ? field : ""; }

int parseDirection(std::string word) {
    static const std::map<std::string, int> directions = {{"bid", 0}, {"in", 1}, {"out", 2}};
    for (char &character : word)
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    const auto found = directions.find(word);
    if (found == directions.end())
        throw mavo::Exception("Invalid direction");
    return found->second;
}

// Only the characters are judged; numbers out of range and misplaced bounds are left to the traffic-control service.
std::string parsePort(std::string port) {
    for (char &character : port) {
        if (character == '*')
            return "";
        if (character == '-')
            character = ':';
        else if (std::isdigit(static_cast<unsigned char>(character)) == 0)
            throw mavo::Exception("Invalid port");
    }
    return port;
}

} // namespace

FirewallRule::FirewallRule(const std::string &text, const std::string &ruleTarget) : target(ruleTarget) {
    // Without a first colon the second search starts at 0 again, and finds none either.
    const std::size_t protocolEnd = text.find(':');
    const std::size_t domainEnd = text.find(':', protocolEnd + 1);
    if (domainEnd == std::string::npos)
        throw mavo::Exception("Invalid format");
    protocol = emptyIfAny(text.substr(0, protocolEnd));
    domain = emptyIfAny(text.substr(protocolEnd + 1, domainEnd - protocolEnd - 1));

    const std::size_t portEnd = text.find(':', domainEnd + 1);
    if (portEnd != std::string::npos)
        direction = parseDirection(text.substr(portEnd + 1));
    port = parsePort(text.substr(domainEnd + 1, portEnd - domainEnd - 1));
}

FirewallRuleParser::FirewallRuleParser(const std::string &text, const std::string &target) {
    std::istringstream stream(text);
    for (std::string token; std::getline(stream, token, ';');)
        rules.emplace_back(token, target);
}
