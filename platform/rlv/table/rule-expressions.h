// Rules as nf_tables expressions, the same that iptables 1.8.9 writes.
#ifndef PLATFORM_RLV_TABLE_RULE_EXPRESSIONS_H
#define PLATFORM_RLV_TABLE_RULE_EXPRESSIONS_H

#include <memory>
#include <optional>
#include <string>

#include <libnftnl/rule.h>

#include "rlv/table/command.h"

namespace rlv {

struct FreeNftnlRule {
    void operator()(nftnl_rule *rule) const { nftnl_rule_free(rule); }
};
using NftnlRule = std::unique_ptr<nftnl_rule, FreeNftnlRule>;

// A rule of the filter table, ready to be sent. Throws std::bad_alloc.
NftnlRule encode(const Rule &rule, const std::string &chain);

// What iptables would show for a rule of the kernel, its counters aside; none for rules that a Rule cannot hold.
std::optional<Rule> decode(const nftnl_rule *rule);

} // namespace rlv

#endif
