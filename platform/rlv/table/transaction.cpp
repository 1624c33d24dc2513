#include "rlv/table/transaction.h"

#include <memory>
#include <new>

#include <libnftnl/chain.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include "rlv/table/answers.h"
#include "rlv/table/rule-expressions.h"

namespace rlv {

namespace {

constexpr const char *kTable = "filter";

struct FreeChain {
    void operator()(nftnl_chain *chain) const { nftnl_chain_free(chain); }
};
using NftnlChain = std::unique_ptr<nftnl_chain, FreeChain>;

NftnlChain chainNamed(const std::string &name) {
    NftnlChain chain(nftnl_chain_alloc());
    if (!chain)
        throw std::bad_alloc();
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, kTable);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name.c_str());
    return chain;
}

NftnlRule anyRuleOf(const std::string &chain) {
    NftnlRule rule(nftnl_rule_alloc());
    if (!rule)
        throw std::bad_alloc();
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, kTable);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain.c_str());
    return rule;
}

void addMessage(Batch &batch, std::uint16_t type, std::uint16_t flags, const NftnlChain &chain) {
    batch.add(type, flags, [&](nlmsghdr *message) { nftnl_chain_nlmsg_build_payload(message, chain.get()); });
}

void addMessage(Batch &batch, std::uint16_t type, std::uint16_t flags, const NftnlRule &rule) {
    batch.add(type, flags, [&](nlmsghdr *message) { nftnl_rule_nlmsg_build_payload(message, rule.get()); });
}

} // namespace

Answer Transaction::Failure::answer() const {
    return kernelRefused(change.operation, error, change.object, change.name);
}

void Transaction::addTable() {
    struct FreeTable {
        void operator()(nftnl_table *table) const { nftnl_table_free(table); }
    };
    const std::unique_ptr<nftnl_table, FreeTable> table(nftnl_table_alloc());
    if (!table)
        throw std::bad_alloc();
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, kTable);
    batch_.add(NFT_MSG_NEWTABLE, NLM_F_CREATE,
               [&](nlmsghdr *message) { nftnl_table_nlmsg_build_payload(message, table.get()); });
    changes_.push_back({"TABLE_ADD", "table", kTable});
}

void Transaction::addBaseChain(const std::string &chain, std::uint32_t hook) {
    const NftnlChain base = chainNamed(chain);
    nftnl_chain_set_u32(base.get(), NFTNL_CHAIN_HOOKNUM, hook);
    nftnl_chain_set_s32(base.get(), NFTNL_CHAIN_PRIO, 0);
    nftnl_chain_set_u32(base.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    nftnl_chain_set_str(base.get(), NFTNL_CHAIN_TYPE, "filter");
    addMessage(batch_, NFT_MSG_NEWCHAIN, NLM_F_CREATE, base);
    changes_.push_back({"CHAIN_ADD", "chain", chain});
}

void Transaction::addChain(const std::string &chain) {
    addMessage(batch_, NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL, chainNamed(chain));
    changes_.push_back({"CHAIN_USER_ADD", "chain", chain});
}

void Transaction::deleteChain(const std::string &chain) {
    addMessage(batch_, NFT_MSG_DELCHAIN, NLM_F_NONREC, chainNamed(chain));
    changes_.push_back({"CHAIN_DEL", "chain", chain});
}

void Transaction::flushChain(const std::string &chain) {
    addMessage(batch_, NFT_MSG_DELRULE, 0, anyRuleOf(chain));
    changes_.push_back({"RULE_FLUSH", "rule in chain", chain});
}

void Transaction::appendRule(const std::string &chain, const Rule &rule) {
    addMessage(batch_, NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, encode(rule, chain));
    changes_.push_back({"RULE_APPEND", "rule in chain", chain});
}

void Transaction::deleteRule(const std::string &chain, std::uint64_t handle) {
    const NftnlRule rule = anyRuleOf(chain);
    nftnl_rule_set_u64(rule.get(), NFTNL_RULE_HANDLE, handle);
    addMessage(batch_, NFT_MSG_DELRULE, 0, rule);
    changes_.push_back({"RULE_DELETE", "rule in chain", chain});
}

std::optional<Transaction::Failure> Transaction::commit(Netlink &netlink,
                                                        std::optional<std::uint32_t> generation) const {
    const auto failure = netlink.commit(batch_, generation);
    if (!failure)
        return std::nullopt;
    // iptables, too, lays what the kernel says of the whole at the door of the last change.
    return Failure{failure->message, failure->message ? changes_[*failure->message] : changes_.back(), failure->error};
}

} // namespace rlv
