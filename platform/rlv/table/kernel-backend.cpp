// The kernel's ruleset.
#include <algorithm>
#include <array>
#include <cerrno>
#include <endian.h>
#include <functional>
#include <new>
#include <utility>

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "rlv/table/attributes.h"
#include "rlv/table/netlink.h"
#include "rlv/table/rule-expressions.h"
#include "rlv/table/rule-words.h"
#include "rlv/table/ruleset-backend.h"
#include "rlv/table/ruleset-watch.h"

namespace rlv {

namespace {

constexpr const char *kTable = "filter";
// How often a part of the table may be changed while it is read.
constexpr int kMaxPartReadings = 20;
// A notice of our own change costs about as much as leaving the group and joining it again for a hundred.
constexpr std::size_t kMaxHeardChanges = 64;

struct BaseChain {
    const char *name;
    std::uint32_t hook;
};

constexpr std::array kBaseChains{BaseChain{"INPUT", NF_INET_LOCAL_IN}, BaseChain{"OUTPUT", NF_INET_LOCAL_OUT}};

const BaseChain *baseChain(const std::string &name) {
    const auto *const found = std::find_if(kBaseChains.begin(), kBaseChains.end(),
                                           [&](const BaseChain &known) { return name == known.name; });
    return found == kBaseChains.end() ? nullptr : found;
}

struct FreeChain {
    void operator()(nftnl_chain *chain) const { nftnl_chain_free(chain); }
};
using NftnlChain = std::unique_ptr<nftnl_chain, FreeChain>;

NftnlChain newChain() {
    NftnlChain chain(nftnl_chain_alloc());
    if (!chain)
        throw std::bad_alloc();
    return chain;
}

NftnlChain chainNamed(const std::string &name) {
    NftnlChain chain = newChain();
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, kTable);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name.c_str());
    return chain;
}

// The changes as messages, one for each.
class Encoder {
public:
    Batch encode(const Changes &changes) {
        for (const Change &change : changes)
            add(change);
        return std::move(batch_);
    }

private:
    void add(const Change &change) {
        switch (change.kind) {
        case Change::Kind::addTable:
            return addTable(false);
        case Change::Kind::wakeTable:
            return addTable(true);
        case Change::Kind::addBaseChain:
            return addBaseChain(*change.chain);
        case Change::Kind::addChain:
            return addChain(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL, chainNamed(*change.chain));
        case Change::Kind::deleteChain:
            return addChain(NFT_MSG_DELCHAIN, NLM_F_NONREC, chainNamed(*change.chain));
        case Change::Kind::flushChain:
        case Change::Kind::deleteRule:
            return deleteRules(*change.chain, change.handle);
        case Change::Kind::appendRule:
            return addRule(NLM_F_CREATE | NLM_F_APPEND, change);
        case Change::Kind::insertRule:
            return addRule(NLM_F_CREATE, change);
        case Change::Kind::tidyChain:
            break; // its readings never say that a chain lies otherwise than it should
        }
    }

    // Without flags, one that is there keeps its own.
    void addTable(bool isAwake) {
        struct FreeTable {
            void operator()(nftnl_table *table) const { nftnl_table_free(table); }
        };
        const std::unique_ptr<nftnl_table, FreeTable> table(nftnl_table_alloc());
        if (!table)
            throw std::bad_alloc();
        nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, kTable);
        if (isAwake)
            nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, 0);
        batch_.add(NFT_MSG_NEWTABLE, NLM_F_CREATE,
                   [&](nlmsghdr *message) { nftnl_table_nlmsg_build_payload(message, table.get()); });
    }

    // Priority 0 and the policy accept, as iptables makes it.
    void addBaseChain(const std::string &name) {
        const NftnlChain base = chainNamed(name);
        nftnl_chain_set_u32(base.get(), NFTNL_CHAIN_HOOKNUM, baseChain(name)->hook);
        nftnl_chain_set_s32(base.get(), NFTNL_CHAIN_PRIO, 0);
        nftnl_chain_set_u32(base.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
        nftnl_chain_set_str(base.get(), NFTNL_CHAIN_TYPE, "filter");
        addChain(NFT_MSG_NEWCHAIN, NLM_F_CREATE, base);
    }

    void addChain(std::uint16_t type, std::uint16_t flags, const NftnlChain &chain) {
        batch_.add(type, flags, [&](nlmsghdr *message) { nftnl_chain_nlmsg_build_payload(message, chain.get()); });
    }

    void addRule(std::uint16_t flags, const Change &change) {
        batch_.add(NFT_MSG_NEWRULE, flags, [&](nlmsghdr *message) {
            const Counters counters = change.counters == nullptr ? Counters() : *change.counters;
            putRule(message, *change.rule, *change.chain, change.handle, counters);
        });
    }

    // One rule, or all where there is no handle.
    void deleteRules(const std::string &chain, std::uint64_t handle) {
        batch_.add(NFT_MSG_DELRULE, 0, [&](nlmsghdr *message) {
            mnl_attr_put_strz(message, NFTA_RULE_TABLE, kTable);
            mnl_attr_put_strz(message, NFTA_RULE_CHAIN, chain.c_str());
            if (handle != 0)
                mnl_attr_put_u64(message, NFTA_RULE_HANDLE, htobe64(handle));
        });
    }

    Batch batch_;
};

void takeHandle(const nlmsghdr *message, std::vector<std::uint64_t> &handles) {
    if (const auto handle = Attributes::of(message).u64(NFTA_RULE_HANDLE))
        handles.push_back(*handle);
}

class KernelBackend : public RulesetBackend {
public:
    explicit KernelBackend(std::string chainPrefix) : chainPrefix_(std::move(chainPrefix)) {}

    std::uint32_t generation() override { return netlink_.generation(); }
    std::optional<Ruleset> read() override;
    std::optional<Ruleset> readInParts() override;
    std::optional<std::vector<std::uint64_t>> readHandles(const std::string &chain, std::uint32_t generation) override;
    std::optional<std::vector<CountedRule>> readCounters(const std::string &chain, std::uint32_t generation) override;
    std::vector<ChangeFailure> commit(const Changes &changes, std::optional<std::uint32_t> generation) override;
    std::vector<ChangeFailure> dryRun(const Changes &changes) override;
    std::optional<int> listen() override;
    Disturbance takeDisturbance() override;
    bool isUntouched(std::uint32_t since, std::uint32_t now) override;

private:
    std::vector<BatchFailure> commitUnheard(Batch batch, std::optional<std::uint32_t> generation);
    [[nodiscard]] bool readTables(Ruleset &ruleset);
    [[nodiscard]] bool readChains(Ruleset &ruleset);
    [[nodiscard]] bool readRules(Ruleset &ruleset);
    [[nodiscard]] bool readRulesOf(const std::string &chain, Ruleset &ruleset);
    void finish(Ruleset &ruleset);
    std::vector<std::uint64_t> dumpHandles(const std::string &chain, bool &whole);
    [[nodiscard]] bool dumpRules(const std::string &chain, const std::function<void(const nlmsghdr *)> &seen);
    void takeChain(const nlmsghdr *message, Ruleset &ruleset);
    void takeRule(const nlmsghdr *message, Ruleset &ruleset) const;
    bool holdsOurRules(const std::string &name) const {
        return isOwnOrBelow(name, chainPrefix_) || baseChain(name) != nullptr;
    }

    std::string chainPrefix_;
    Netlink netlink_;
    std::optional<RulesetWatch> watch_;         // from listen() on
    std::vector<std::string> oddBuiltInChains_; // not as iptables makes them, met in the reading under way
};

std::vector<ChangeFailure> failuresOf(const std::vector<BatchFailure> &failures) {
    std::vector<ChangeFailure> result;
    result.reserve(failures.size());
    for (const BatchFailure &failure : failures)
        result.push_back({failure.message, failure.error});
    return result;
}

std::vector<ChangeFailure> KernelBackend::commit(const Changes &changes, std::optional<std::uint32_t> generation) {
    Batch batch = Encoder().encode(changes);
    const bool isHeard = !watch_ || changes.size() <= kMaxHeardChanges;
    return failuresOf(isHeard ? netlink_.commitBatch(std::move(batch), generation)
                              : commitUnheard(std::move(batch), generation));
}

// Where nobody listens the kernel writes no notices. What others did meanwhile shows in the generation.
std::vector<BatchFailure> KernelBackend::commitUnheard(Batch batch, std::optional<std::uint32_t> generation) {
    watch_->pause();
    std::vector<BatchFailure> failures;
    try {
        failures = netlink_.commitBatch(std::move(batch), generation);
    } catch (...) {
        watch_->goOn();
        watch_->sieve().lose();
        throw;
    }
    watch_->goOn();
    const std::uint32_t now = netlink_.generation();
    if (generation && now == (failures.empty() ? generationAfter(*generation) : *generation))
        watch_->sieve().skipTo(now);
    else
        watch_->sieve().lose();
    return failures;
}

std::optional<int> KernelBackend::listen() {
    if (!watch_)
        watch_.emplace(chainPrefix_, netlink_.port());
    return watch_->descriptor();
}

Disturbance KernelBackend::takeDisturbance() {
    if (!watch_)
        return {};
    watch_->drain();
    return watch_->sieve().takeDisturbance();
}

bool KernelBackend::isUntouched(std::uint32_t since, std::uint32_t now) {
    if (!watch_)
        return false;
    watch_->drain();
    return watch_->sieve().isUntouched(since, now);
}

std::vector<ChangeFailure> KernelBackend::dryRun(const Changes &changes) {
    return failuresOf(netlink_.dryRun(Encoder().encode(changes)));
}

std::optional<Ruleset> KernelBackend::read() {
    Ruleset ruleset;
    ruleset.generation = netlink_.generation();
    oddBuiltInChains_.clear();
    if (!readTables(ruleset) || !readChains(ruleset) || !readRules(ruleset))
        return std::nullopt;
    finish(ruleset);
    if (netlink_.generation() != ruleset.generation)
        return std::nullopt;
    return ruleset;
}

void KernelBackend::finish(Ruleset &ruleset) {
    // What is neither a rule in the chain nor a rule's jump to it refers to it all the same.
    for (const auto &[name, chain] : ruleset.chains) {
        for (const auto &[target, count] : chain.jumps) {
            if (const auto found = ruleset.chains.find(target); found != ruleset.chains.end())
                found->second.usesElsewhere -= std::min(found->second.usesElsewhere, count);
        }
    }
    for (const std::string &name : oddBuiltInChains_) {
        const auto refused = dryRun({{Change::Kind::addBaseChain, &name, nullptr, 0}});
        ruleset.chains[name].baseChainError = refused.empty() ? 0 : refused.front().error;
    }
}

std::optional<Ruleset> KernelBackend::readInParts() {
    Ruleset ruleset;
    bool whole = false;
    for (int i = 0; i < kMaxPartReadings && !whole; ++i) {
        ruleset = {netlink_.generation(), {}, false};
        oddBuiltInChains_.clear();
        whole = readTables(ruleset) && readChains(ruleset);
    }
    for (const auto &[name, chain] : ruleset.chains)
        whole = whole && readRulesOf(name, ruleset);
    if (!whole)
        return std::nullopt;
    finish(ruleset);
    return ruleset;
}

// The kernel continues a dump by counting, within the chain where one is given: what happens in other chains does not
// disturb it, and what happens in this one shows when its handles are dumped again.
bool KernelBackend::readRulesOf(const std::string &chain, Ruleset &ruleset) {
    for (int i = 0; i < kMaxPartReadings; ++i) {
        Ruleset part;
        part.chains[chain] = ruleset.chains.at(chain);
        std::vector<std::uint64_t> handles;
        [[maybe_unused]] bool whole = dumpRules(chain, [&](const nlmsghdr *message) {
            takeRule(message, part);
            takeHandle(message, handles);
        });
        if (dumpHandles(chain, whole) == handles) {
            ruleset.chains.at(chain) = std::move(part.chains.at(chain));
            return true;
        }
    }
    return false;
}

bool KernelBackend::readTables(Ruleset &ruleset) {
    return netlink_.dump(
        NFT_MSG_GETTABLE, [](nlmsghdr *) {},
        [&](const nlmsghdr *message) {
            const Attributes table = Attributes::of(message);
            if (table.text(NFTA_TABLE_NAME) == kTable)
                ruleset.isDormant = (table.u32(NFTA_TABLE_FLAGS).value_or(0) & NFT_TABLE_F_DORMANT) != 0;
        });
}

bool KernelBackend::readChains(Ruleset &ruleset) {
    return netlink_.dump(
        NFT_MSG_GETCHAIN, [](nlmsghdr *) {}, [&](const nlmsghdr *message) { takeChain(message, ruleset); });
}

void KernelBackend::takeChain(const nlmsghdr *message, Ruleset &ruleset) {
    const Attributes chain = Attributes::of(message);
    const std::string name(chain.text(NFTA_CHAIN_NAME));
    if (name.empty() || chain.text(NFTA_CHAIN_TABLE) != kTable)
        return;
    const Attributes hook = chain.nested(NFTA_CHAIN_HOOK);
    StandingChain &standing = ruleset.chains[name];
    standing.usesElsewhere = chain.u32(NFTA_CHAIN_USE).value_or(0);
    standing.isBase = hook.has(NFTA_HOOK_HOOKNUM);
    const BaseChain *const known = baseChain(name);
    if (known == nullptr)
        return;
    const bool isPlain = chain.text(NFTA_CHAIN_TYPE) == "filter" && hook.u32(NFTA_HOOK_PRIORITY).value_or(0) == 0 &&
                         hook.u32(NFTA_HOOK_HOOKNUM) == known->hook;
    if (!isPlain)
        oddBuiltInChains_.push_back(name);
}

bool KernelBackend::dumpRules(const std::string &chain, const std::function<void(const nlmsghdr *)> &seen) {
    const auto ask = [&](nlmsghdr *request) {
        mnl_attr_put_strz(request, NFTA_RULE_TABLE, kTable);
        if (!chain.empty())
            mnl_attr_put_strz(request, NFTA_RULE_CHAIN, chain.c_str());
    };
    return netlink_.dump(NFT_MSG_GETRULE, ask, seen);
}

bool KernelBackend::readRules(Ruleset &ruleset) {
    return dumpRules("", [&](const nlmsghdr *message) { takeRule(message, ruleset); });
}

void KernelBackend::takeRule(const nlmsghdr *message, Ruleset &ruleset) const {
    const Attributes rule = Attributes::of(message);
    const std::string name(rule.text(NFTA_RULE_CHAIN));
    if (name.empty())
        return;
    StandingChain &chain = ruleset.chains[name];
    chain.usesElsewhere -= std::min<std::size_t>(chain.usesElsewhere, 1);
    for (const std::string &target : jumpsOf(rule))
        ++chain.jumps[target];
    if (!holdsOurRules(name)) {
        chain.mayDecide = chain.mayDecide || effectOf(rule) == OtherRule::Effect::decides;
        return;
    }
    chain.rules.push_back({rule.u64(NFTA_RULE_HANDLE).value_or(0), decode(rule)});
    if (!chain.rules.back().rule)
        chain.others.emplace(chain.rules.back().handle, describeOther(rule));
}

std::vector<std::uint64_t> KernelBackend::dumpHandles(const std::string &chain, bool &whole) {
    std::vector<std::uint64_t> handles;
    whole = dumpRules(chain, [&](const nlmsghdr *message) { takeHandle(message, handles); });
    return handles;
}

std::optional<std::vector<std::uint64_t>> KernelBackend::readHandles(const std::string &chain,
                                                                     std::uint32_t generation) {
    bool whole = false;
    auto handles = dumpHandles(chain, whole);
    if (!whole || netlink_.generation() != generation)
        return std::nullopt;
    return handles;
}

std::optional<std::vector<CountedRule>> KernelBackend::readCounters(const std::string &chain,
                                                                    std::uint32_t generation) {
    std::vector<CountedRule> rules;
    const bool whole = dumpRules(chain, [&](const nlmsghdr *message) {
        const Attributes rule = Attributes::of(message);
        if (const auto handle = rule.u64(NFTA_RULE_HANDLE))
            rules.push_back({*handle, countersOf(rule)});
    });
    if (!whole || netlink_.generation() != generation)
        return std::nullopt;
    return rules;
}

} // namespace

std::unique_ptr<RulesetBackend> openKernelBackend(const std::string &chainPrefix) {
    return std::make_unique<KernelBackend>(chainPrefix);
}

} // namespace rlv
