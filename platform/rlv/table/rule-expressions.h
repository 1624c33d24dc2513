// Rules as nf_tables expressions, the same that iptables 1.8.9 writes.
#ifndef PLATFORM_RLV_TABLE_RULE_EXPRESSIONS_H
#define PLATFORM_RLV_TABLE_RULE_EXPRESSIONS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <libnftnl/rule.h>
#include <linux/netlink.h>

#include "rlv/table/command.h"

namespace rlv {

struct FreeNftnlRule {
    void operator()(nftnl_rule *rule) const { nftnl_rule_free(rule); }
};
using NftnlRule = std::unique_ptr<nftnl_rule, FreeNftnlRule>;

// Puts a rule of the filter table into a request to make it, where it is to come before the rule with the handle
// `before`, if that is not 0. It takes less than 1.5 KiB.
void putRule(nlmsghdr *message, const Rule &rule, const std::string &chain, std::uint64_t before = 0);

// What iptables would show for a rule of the kernel, its counters aside; none for rules that a Rule cannot hold.
std::optional<Rule> decode(const nftnl_rule *rule);

} // namespace rlv

#endif
