// The kernel's filter table. What an answer depends on is read first; the generation number then makes sure that the
// transaction meets the table as it was read.
#include <algorithm>
#include <cerrno>
#include <map>
#include <new>
#include <system_error>

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include "rlv/table/answers.h"
#include "rlv/table/netlink.h"
#include "rlv/table/rule-expressions.h"
#include "rlv/table/rule-words.h"
#include "rlv/table/table.h"
#include "rlv/table/transaction.h"

namespace rlv {

namespace {

// How often others may change the tables between our reading and our writing before we give up.
constexpr int kMaxAttempts = 1000;

struct HookChain {
    const char *name;
    std::uint32_t hook;
};

constexpr HookChain kHookChains[] = {{"INPUT", NF_INET_LOCAL_IN}, {"OUTPUT", NF_INET_LOCAL_OUT}};

struct ChainInfo {
    std::uint32_t uses = 0;            // rules in it and jumps to it
    std::optional<std::uint32_t> hook; // of a base chain as iptables makes it
};

struct FoundRule {
    std::uint64_t handle = 0;
    std::optional<Rule> rule; // none where it is no rule of our kind
};

using Chains = std::map<std::string, ChainInfo>;

class KernelTable : public Table {
public:
    explicit KernelTable(std::string chainPrefix) : chainPrefix_(std::move(chainPrefix)) {}

    Answer apply(const Command &command) override { return applyAll({command}); }
    Answer applyAll(const std::vector<Command> &commands) override;
    void describe(ServiceState &state) override;
    Answer removeAll() override;

private:
    // An answer, or nothing when the tables have changed meanwhile and all must be done again.
    using Attempt = std::optional<Answer>;
    template <typename Step> Answer repeat(Step step);

    Answer flushChain(const std::string &chain);
    Answer makeChain(const std::string &chain);
    Answer removeChain(const std::string &chain);
    Answer appendRules(const std::vector<Command> &commands);
    Attempt appendHooks(const HookChain &hookChain, const std::vector<Command> &commands);
    Attempt deleteRules(const std::vector<Command> &commands);
    Attempt unhookAndFlush();
    Attempt removeUnused();

    Attempt outcome(const Transaction &transaction, std::uint32_t generation);

    // Empty when the table changed during the reading.
    std::optional<Chains> readChains();
    std::optional<std::vector<FoundRule>> readRules(const std::string &chain);
    std::optional<std::uint64_t> countRules(const std::string &chain);
    [[nodiscard]] bool dumpRules(const std::string &chain, const std::function<void(const nlmsghdr *)> &seen);
    bool readState(ServiceState &state);

    bool isHook(const FoundRule &found) const;

    std::string chainPrefix_;
    Netlink netlink_;
    // What describe() read last and at which generation: counting many rules takes its time.
    std::optional<std::uint32_t> describedGeneration_;
    ServiceState described_;
};

std::optional<Chains> KernelTable::readChains() {
    Chains chains;
    const auto seen = [&](const nlmsghdr *message) {
        struct FreeChain {
            void operator()(nftnl_chain *chain) const { nftnl_chain_free(chain); }
        };
        const std::unique_ptr<nftnl_chain, FreeChain> chain(nftnl_chain_alloc());
        if (!chain)
            throw std::bad_alloc();
        if (nftnl_chain_nlmsg_parse(message, chain.get()) < 0 ||
            std::string(nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_TABLE)) != "filter")
            return;
        ChainInfo &info = chains[nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_NAME)];
        info.uses = nftnl_chain_get_u32(chain.get(), NFTNL_CHAIN_USE);
        const char *const type = nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_TYPE);
        if (nftnl_chain_is_set(chain.get(), NFTNL_CHAIN_HOOKNUM) && type != nullptr && std::string(type) == "filter" &&
            nftnl_chain_get_s32(chain.get(), NFTNL_CHAIN_PRIO) == 0)
            info.hook = nftnl_chain_get_u32(chain.get(), NFTNL_CHAIN_HOOKNUM);
    };
    if (!netlink_.dump(
            NFT_MSG_GETCHAIN, [](nlmsghdr *) {}, seen))
        return std::nullopt;
    return chains;
}

bool KernelTable::dumpRules(const std::string &chain, const std::function<void(const nlmsghdr *)> &seen) {
    const auto ask = [&](nlmsghdr *request) {
        mnl_attr_put_strz(request, NFTA_RULE_TABLE, "filter");
        mnl_attr_put_strz(request, NFTA_RULE_CHAIN, chain.c_str());
    };
    return netlink_.dump(NFT_MSG_GETRULE, ask, seen);
}

std::optional<std::vector<FoundRule>> KernelTable::readRules(const std::string &chain) {
    std::vector<FoundRule> rules;
    const bool whole = dumpRules(chain, [&](const nlmsghdr *message) {
        const NftnlRule rule(nftnl_rule_alloc());
        if (!rule)
            throw std::bad_alloc();
        if (nftnl_rule_nlmsg_parse(message, rule.get()) >= 0)
            rules.push_back({nftnl_rule_get_u64(rule.get(), NFTNL_RULE_HANDLE), decode(rule.get())});
    });
    return whole ? std::optional(std::move(rules)) : std::nullopt;
}

std::optional<std::uint64_t> KernelTable::countRules(const std::string &chain) {
    std::uint64_t count = 0;
    const bool whole = dumpRules(chain, [&](const nlmsghdr *) { ++count; });
    return whole ? std::optional(count) : std::nullopt;
}

template <typename Step> Answer KernelTable::repeat(Step step) {
    for (int i = 0; i < kMaxAttempts; ++i) {
        if (Attempt answer = step())
            return std::move(*answer);
    }
    return {4, "iptables: the tables change faster than they can be read"};
}

KernelTable::Attempt KernelTable::outcome(const Transaction &transaction, std::uint32_t generation) {
    const auto failure = transaction.commit(netlink_, generation);
    if (!failure)
        return Answer{};
    return failure->error == ERESTART ? std::nullopt : Attempt(failure->answer());
}

Answer KernelTable::flushChain(const std::string &chain) {
    Transaction transaction;
    transaction.flushChain(chain);
    const auto failure = transaction.commit(netlink_);
    if (!failure)
        return {};
    return failure->error == ENOENT ? noSuchChain() : failure->answer();
}

Answer KernelTable::makeChain(const std::string &chain) {
    Transaction transaction;
    transaction.addTable();
    transaction.addChain(chain);
    const auto failure = transaction.commit(netlink_);
    if (!failure)
        return {};
    return failure->error == EEXIST ? chainExists() : failure->answer();
}

Answer KernelTable::removeChain(const std::string &chain) {
    Transaction transaction;
    transaction.deleteChain(chain);
    const auto failure = transaction.commit(netlink_);
    if (!failure)
        return {};
    return failure->error == ENOENT ? noSuchChain() : failure->answer();
}

// Asks nothing beforehand: rules come in tens of thousands, and nearly all of them go in.
Answer KernelTable::appendRules(const std::vector<Command> &commands) {
    Transaction transaction;
    for (const Command &command : commands)
        transaction.appendRule(command.chain, command.rule);
    const auto failure = transaction.commit(netlink_);
    if (!failure)
        return {};
    if (failure->error != ENOENT)
        return failure->answer();
    // Chain, target, or something within the rule?
    return repeat([&]() -> Attempt {
        const auto chains = readChains();
        if (!chains)
            return std::nullopt;
        const Command &refused = commands[failure->index.value_or(0)];
        if (refused.rule.target.kind == Target::Kind::jump && chains->count(refused.rule.target.text) == 0)
            return noSuchTarget(refused.rule.target.text);
        return chains->count(refused.chain) == 0 ? noSuchChain() : failure->answer();
    });
}

// A missing INPUT or OUTPUT is made. One that iptables would not have made is refused by the kernel, not used.
KernelTable::Attempt KernelTable::appendHooks(const HookChain &hookChain, const std::vector<Command> &commands) {
    const std::uint32_t generation = netlink_.generation();
    const auto chains = readChains();
    if (!chains)
        return std::nullopt;
    const auto base = chains->find(hookChain.name);
    Transaction transaction;
    if (base == chains->end() || base->second.hook != hookChain.hook) {
        transaction.addTable();
        transaction.addBaseChain(hookChain.name, hookChain.hook);
    }
    for (const Command &command : commands) {
        if (chains->count(command.rule.target.text) == 0)
            return noSuchTarget(command.rule.target.text);
        transaction.appendRule(command.chain, command.rule);
    }
    return outcome(transaction, generation);
}

KernelTable::Attempt KernelTable::deleteRules(const std::vector<Command> &commands) {
    const std::uint32_t generation = netlink_.generation();
    auto rules = readRules(commands.front().chain);
    if (!rules)
        return std::nullopt;
    Transaction transaction;
    for (const Command &command : commands) {
        const auto found = std::find_if(rules->begin(), rules->end(),
                                        [&](const FoundRule &rule) { return rule.rule == command.rule; });
        if (found == rules->end()) {
            const auto chains = readChains();
            if (!chains)
                return std::nullopt;
            const Target &target = command.rule.target;
            const bool known = target.kind != Target::Kind::jump || chains->count(target.text) > 0;
            return known ? noSuchRule() : noSuchTarget(target.text);
        }
        transaction.deleteRule(command.chain, found->handle);
        found->rule.reset(); // two commands are two rules
    }
    return outcome(transaction, generation);
}

Answer KernelTable::applyAll(const std::vector<Command> &commands) {
    if (commands.empty())
        return {};
    const std::string &chain = commands.front().chain;
    const auto *const hookChain = std::find_if(std::begin(kHookChains), std::end(kHookChains),
                                               [&](const HookChain &known) { return chain == known.name; });
    switch (commands.front().action) {
    case Command::Action::flushChain:
        return flushChain(chain);
    case Command::Action::makeChain:
        return makeChain(chain);
    case Command::Action::removeChain:
        return removeChain(chain);
    case Command::Action::deleteRule:
        return repeat([&] { return deleteRules(commands); });
    case Command::Action::appendRule:
        break;
    }
    if (hookChain == std::end(kHookChains))
        return appendRules(commands);
    return repeat([&] { return appendHooks(*hookChain, commands); });
}

bool KernelTable::isHook(const FoundRule &found) const {
    if (!found.rule || found.rule->target.kind != Target::Kind::jump)
        return false;
    Rule bare;
    bare.target = found.rule->target;
    return *found.rule == bare && isOwnChain(bare.target.text, chainPrefix_);
}

bool KernelTable::readState(ServiceState &state) {
    state.hooks.clear();
    state.chains.clear();
    for (const HookChain &hookChain : kHookChains) {
        const auto rules = readRules(hookChain.name);
        if (!rules)
            return false;
        for (const FoundRule &found : *rules) {
            if (isHook(found))
                state.hooks.push_back({hookChain.name, found.rule->target.text});
        }
    }
    const auto chains = readChains();
    if (!chains)
        return false;
    for (const auto &chain : *chains) {
        if (!isOwnChain(chain.first, chainPrefix_))
            continue;
        const auto count = countRules(chain.first);
        if (!count)
            return false;
        state.chains.push_back({chain.first, *count});
    }
    return true;
}

void KernelTable::describe(ServiceState &state) {
    for (int i = 0; i < kMaxAttempts && describedGeneration_ != netlink_.generation(); ++i) {
        const std::uint32_t generation = netlink_.generation();
        describedGeneration_ = readState(described_) ? std::optional(generation) : std::nullopt;
    }
    if (!describedGeneration_)
        throw std::system_error(EAGAIN, std::generic_category(), "the tables change faster than they can be read");
    state.hooks = described_.hooks;
    state.chains = described_.chains;
}

// Emptying all chains first takes the jumps among them away.
KernelTable::Attempt KernelTable::unhookAndFlush() {
    const std::uint32_t generation = netlink_.generation();
    Transaction transaction;
    for (const HookChain &hookChain : kHookChains) {
        const auto rules = readRules(hookChain.name);
        if (!rules)
            return std::nullopt;
        for (const FoundRule &found : *rules) {
            if (isHook(found))
                transaction.deleteRule(hookChain.name, found.handle);
        }
    }
    const auto chains = readChains();
    if (!chains)
        return std::nullopt;
    for (const auto &chain : *chains) {
        if (isOwnChain(chain.first, chainPrefix_))
            transaction.flushChain(chain.first);
    }
    return outcome(transaction, generation);
}

KernelTable::Attempt KernelTable::removeUnused() {
    const std::uint32_t generation = netlink_.generation();
    const auto chains = readChains();
    if (!chains)
        return std::nullopt;
    Transaction transaction;
    std::string kept;
    for (const auto &[name, info] : *chains) {
        if (!isOwnChain(name, chainPrefix_))
            continue;
        if (info.uses == 0)
            transaction.deleteChain(name);
        else
            kept += (kept.empty() ? "" : ", ") + name;
    }
    Attempt answer = outcome(transaction, generation);
    if (!answer || answer->code != 0 || kept.empty())
        return answer;
    return Answer{4, "iptables: emptied, but kept because rules of others jump to it: " + kept};
}

Answer KernelTable::removeAll() {
    Answer unhooked = repeat([this] { return unhookAndFlush(); });
    return unhooked.code == 0 ? repeat([this] { return removeUnused(); }) : unhooked;
}

} // namespace

std::unique_ptr<Table> openKernelTable(const std::string &chainPrefix) {
    return std::make_unique<KernelTable>(chainPrefix);
}

} // namespace rlv
