#include "firewall.h"

#include <stdexcept>

#include <mavo/exception.h>

#include "iptables/RlvHandler.h"
#include "log.h"

namespace {

constexpr const char *kAllowChain = "VPK-ALLOW";
constexpr const char *kDenyChain = "VPK-DENY";
constexpr const char *kLogAndDropChain = "VPK-LOGANDDROP";
constexpr const char *kInputChain = "INPUT";
constexpr const char *kOutputChain = "OUTPUT";
constexpr const char *kAccept = "ACCEPT";
constexpr const char *kDrop = "DROP";
constexpr const char *kLoggingRule = "*:*:*";
constexpr const char *kLoggingTarget = "LOG -v --log-prefix=IPTables-Dropped:";
constexpr int kPageSize = 1000;

using Application = int (iptables::Interface::*)(const std::string &, const FirewallRule &);

// The operations that put a rule of this direction into a chain.
const std::vector<Application> &applicationsFor(int direction) {
    static const std::vector<Application> inbound{&iptables::Interface::applyInboundRule};
    static const std::vector<Application> outbound{&iptables::Interface::applyOutboundRule};
    static const std::vector<Application> both{&iptables::Interface::applyInboundRule,
                                               &iptables::Interface::applyOutboundRule};
    switch (direction) {
    case 1:
        return inbound;
    case 2:
        return outbound;
    default:
        return both;
    }
}

} // namespace

Firewall::Firewall() : m_iptables(iptables::Factory::getImplementation()), m_initialized(false) {
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "Firewall Constructor");
    if (!m_iptables)
        throw std::runtime_error("Failed to get implementation!");
}

Firewall::~Firewall() = default;

// Results are passed over: on a first start there is nothing to flush and to delete, on later ones all chains exist.
int Firewall::InitTables() {
    try {
        const iptables::RlvHandler handler;
        m_iptables->flushChain(kAllowChain);
        m_iptables->flushChain(kDenyChain);
        m_iptables->makeChain(kAllowChain);
        m_iptables->makeChain(kDenyChain);

        m_iptables->deleteChainTarget(kInputChain, kAllowChain);
        m_iptables->deleteChainTarget(kInputChain, kDenyChain);
        m_iptables->deleteChainTarget(kOutputChain, kAllowChain);
        m_iptables->deleteChainTarget(kOutputChain, kDenyChain);
        m_iptables->appendChainTarget(kInputChain, kAllowChain);
        m_iptables->appendChainTarget(kOutputChain, kAllowChain);
        m_iptables->appendChainTarget(kInputChain, kDenyChain);
        m_iptables->appendChainTarget(kOutputChain, kDenyChain);

        const FirewallRule loggingRule(kLoggingRule, kLoggingTarget);
        m_iptables->flushChain(kLogAndDropChain);
        m_iptables->makeChain(kLogAndDropChain);
        m_iptables->applyInboundRule(kLogAndDropChain, loggingRule);
        m_iptables->appendChainTarget(kLogAndDropChain, kDrop);

        ReapplyRules();
        NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "Tables successfully initialized");
        m_initialized = true;
        return 1;
    } catch (const std::runtime_error &error) {
        NYR_LOG_ERROR(NYR_LOG_TAG_ENGINE, "Firewall::InitTables failed: %s", error.what());
        m_initialized = false;
        return 0;
    }
}

int Firewall::ApplyAllowRules(std::string &rules) {
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "Firewall::ApplyAllowRules");
    return run(__func__, [&](FirewallStorage &storage) {
        return applyRules(storage, FirewallRuleParser(rules, kAccept).rules, kAllowChain, kAccept);
    });
}

int Firewall::ApplyDenyRules(std::string &rules) {
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "Firewall::ApplyDenyRules: %s", rules.c_str());
    return run(__func__, [&](FirewallStorage &storage) {
        return applyRules(storage, FirewallRuleParser(rules, kLogAndDropChain).rules, kDenyChain, kDrop);
    });
}

int Firewall::FlushAllowRules() {
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "Firewall::FlushAllowRules");
    return run(__func__, [this](FirewallStorage &storage) {
        storage.flushAllowRules();
        return m_iptables->flushChain(kAllowChain);
    });
}

int Firewall::FlushDenyRules() {
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "Firewall::FlushDenyRules");
    return run(__func__, [this](FirewallStorage &storage) {
        storage.flushDenyRules();
        return m_iptables->flushChain(kDenyChain);
    });
}

int Firewall::run(const char *name, const std::function<int(FirewallStorage &)> &operation) {
    if (!m_initialized && InitTables() == 0) {
        NYR_LOG_ERROR_OF(name, NYR_LOG_TAG_ENGINE, "Failed to initialize Firewall");
        return -1;
    }
    try {
        const iptables::RlvHandler handler;
        FirewallStorage storage;
        return operation(storage);
    } catch (const mavo::Exception &exception) {
        NYR_LOG_ERROR_OF(name, NYR_LOG_TAG_ENGINE, "%s", exception.what());
        return -1;
    }
}

int Firewall::applyRules(FirewallStorage &storage, const std::vector<FirewallRule> &rules, const std::string &chain,
                         const std::string &storedTarget) {
    for (const FirewallRule &rule : rules) {
        // The database knows no target but "ACCEPT" and "DROP".
        FirewallRule stored = rule;
        stored.target = storedTarget;
        if (storage.ifOppositeRuleExists(rule)) {
            storage.saveRule(stored);
            ReapplyRules();
            continue;
        }
        const int result = applyRule(chain, rule);
        if (result != 0)
            return result;
        storage.saveRule(stored);
    }
    return 0;
}

int Firewall::applyRule(const std::string &chain, const FirewallRule &rule) {
    for (const Application application : applicationsFor(rule.direction)) {
        const int result = (m_iptables.get()->*application)(chain, rule);
        if (result != 0)
            return result;
    }
    return 0;
}

void Firewall::ReapplyRules() {
    m_iptables->flushChain(kAllowChain);
    m_iptables->flushChain(kDenyChain);
    FirewallStorage storage;
    std::vector<std::shared_ptr<FirewallRule>> page;
    while (storage.getNextRulesByCount(page, kPageSize) != 0) {
        for (const auto &rule : page)
            reapplyRule(*rule);
        page.clear();
    }
}

void Firewall::reapplyRule(FirewallRule &rule) {
    const char *chain = kAllowChain;
    if (rule.target == kDrop) {
        rule.target = kLogAndDropChain;
        chain = kDenyChain;
    } else if (rule.target != kAccept) {
        return;
    }
    for (const Application application : applicationsFor(rule.direction))
        (m_iptables.get()->*application)(chain, rule);
}
