// Rules as nf_tables expressions, the same that iptables 1.8.9 writes.
#ifndef PLATFORM_RLV_TABLE_RULE_EXPRESSIONS_H
#define PLATFORM_RLV_TABLE_RULE_EXPRESSIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <linux/netlink.h>

#include "rlv/rule.h"
#include "rlv/table/attributes.h"
#include "rlv/table/ruleset.h"

namespace rlv {

// Puts a rule of the filter table into a request to make it, where it is to come before the rule with the handle
// `before`, if that is not 0. It takes less than 1.5 KiB.
void putRule(nlmsghdr *message, const Rule &rule, const std::string &chain, std::uint64_t before = 0,
             const Counters &counters = Counters());

// What a rule of the kernel has counted; 0 where it does not count.
Counters countersOf(const Attributes &rule);

// What iptables would show for a rule of the kernel (NFTA_RULE_...), its counters aside; none for rules that a Rule
// cannot hold.
std::optional<Rule> decode(const Attributes &rule);

// The same rule where decode() gives none.
OtherRule describeOther(const Attributes &rule);
// Its effect alone.
OtherRule::Effect effectOf(const Attributes &rule);

// The chains to which a rule of the kernel jumps or goes, whatever else it does.
std::vector<std::string> jumpsOf(const Attributes &rule);

} // namespace rlv

#endif
