// A list of rules from anybody, through the plugin's reading of it to the commands that the service would carry out.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <mavo/exception.h>
#include <rlv/rlv.h>

#include "firewall-rule-parser.h"
#include "fuzz/command-check.h"
#include "fuzz/require.h"
#include "iptables/RlvHandler.h"
#include "iptables/RlvIptables.h"
#include "rlv/number-words.h"

namespace {

std::string sent; // the last option text, up to its end as the C interface sees it

} // namespace

int rlv_initialize(rlv_handle *handle) {
    *handle = 1;
    return 0;
}

int rlv_deinitialize(rlv_handle) { return 0; }

int rlv_iptables_commit(rlv_handle, const char *options, int *errorCode, char **) {
    sent = options;
    *errorCode = 0;
    return 0;
}

namespace {

bool areSame(const std::optional<rlv::PortRange> &left, const std::optional<rlv::PortRange> &right) {
    return left && right && left->first == right->first && left->last == right->last;
}

void checkPorts(const FirewallRule &rule, const rlv::Rule &inForce, const std::string &list) {
    if (rule.port.empty())
        return;
    const auto wanted = rlv::parsePorts(rule.port);
    fuzz::require(areSame(wanted, inForce.sourcePorts) || areSame(wanted, inForce.destinationPorts),
                  "the ports are the rule's", list);
}

// Whatever stands in its fields, what is in force in the end does with packets what was asked for. A text with a NUL
// never comes as far as the plugin.
void checkCommand(const FirewallRule &rule, const std::string &list) {
    const auto command = fuzz::checkedCommand(sent);
    if (!command)
        return;
    const bool accepts = command->rule.target.kind == rlv::Target::Kind::accept;
    fuzz::require(command->action == rlv::Command::Action::appendRule && command->chain == "VPK-X",
                  "a rule is appended to its chain", sent);
    fuzz::require(accepts == (rule.target == "ACCEPT"), "the target is the rule's", list);
    checkPorts(rule, command->rule, list);
}

void checkRule(const FirewallRule &rule, const std::string &list) {
    const bool portIsPlain =
        std::all_of(rule.port.begin(), rule.port.end(), [](char c) { return (c >= '0' && c <= '9') || c == ':'; });
    fuzz::require(portIsPlain && rule.direction >= 0 && rule.direction <= 2, "port and direction are plain", list);
    iptables::RlvIptables engine;
    engine.applyInboundRule("VPK-X", rule);
    checkCommand(rule, list);
    engine.applyOutboundRule("VPK-X", rule);
    checkCommand(rule, list);
}

void applyList(const std::string &list, const char *target) {
    try {
        for (const FirewallRule &rule : FirewallRuleParser(list, target).rules)
            checkRule(rule, list);
    } catch (const mavo::Exception &) {
        // Malformed, and said so.
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string list(reinterpret_cast<const char *>(data), size);
    if (list.find('\0') != std::string::npos)
        return 0;
    applyList(list, size % 2 == 0 ? "ACCEPT" : "VPK-LOGANDDROP");
    return 0;
}
