// The engine's way to iptables: one command text per operation, applied by the traffic-control service.
#ifndef PLUGIN_IPTABLES_RLV_IPTABLES_H
#define PLUGIN_IPTABLES_RLV_IPTABLES_H

#include <memory>
#include <string>

#include "firewall-rule-parser.h"

namespace iptables {

// Each operation applies one command to the filter table and returns 0, or the error code of whoever applied it. None
// throws. The order of the virtual operations is part of the interface.
class Interface {
public:
    virtual ~Interface() = default;
    virtual int flushChain(const std::string &chain) = 0;
    virtual int makeChain(const std::string &chain) = 0;
    virtual int removeChain(const std::string &chain) = 0;
    virtual int deleteChainTarget(const std::string &chain, const std::string &target) = 0;
    virtual int appendChainTarget(const std::string &chain, const std::string &target) = 0;
    // The rule's address and port are those of the packet's source.
    virtual int applyInboundRule(const std::string &chain, const FirewallRule &rule) = 0;
    // The rule's address and port are those of the packet's destination.
    virtual int applyOutboundRule(const std::string &chain, const FirewallRule &rule) = 0;
};

// Uses the connection of the RlvHandler in scope; without one the service sees handle 0. Fields go into the text as
// they are, neither quoted nor escaped. Not thread-safe.
class RlvIptables : public Interface {
public:
    int flushChain(const std::string &chain) override;
    int makeChain(const std::string &chain) override;
    int removeChain(const std::string &chain) override;
    int deleteChainTarget(const std::string &chain, const std::string &target) override;
    int appendChainTarget(const std::string &chain, const std::string &target) override;
    int applyInboundRule(const std::string &chain, const FirewallRule &rule) override;
    int applyOutboundRule(const std::string &chain, const FirewallRule &rule) override;
};

class Factory {
public:
    // Empty when there is no memory.
    static std::unique_ptr<Interface> getImplementation();
};

} // namespace iptables

#endif
