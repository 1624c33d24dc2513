#include "iptables/RlvIptables.h"

#include <cstdlib>
#include <new>

#include "iptables/RlvHandler.h"
#include "log.h"

namespace {

constexpr std::size_t kUsualLength = 128;

int invokeRLVIptablesCommit(const std::string &options) {
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "invokeRLVIptablesCommit options: %s", options.c_str());
    int errorCode = 0;
    char *errorMessage = nullptr;
    int result = rlv_iptables_commit(iptables::RlvHandler::Get(), options.c_str(), &errorCode, &errorMessage);
    if (errorCode != 0) {
        NYR_LOG_ERROR(NYR_LOG_TAG_ENGINE, "invokeRLVIptablesCommit Iptables ERROR: %d : %s", errorCode,
                      errorMessage != nullptr ? errorMessage : "");
        result = errorCode;
    }
    std::free(errorMessage);
    return result;
}

// An option with its value, nothing where the value is empty and so means any.
void appendOption(std::string &options, const char *option, const std::string &value) {
    if (!value.empty())
        options.append(option).append(value);
}

int applyRule(const std::string &chain, const FirewallRule &rule, const char *addressOption, const char *portOption) {
    std::string options;
    options.reserve(kUsualLength);
    options.append("-A ").append(chain);
    appendOption(options, " -p ", rule.protocol);
    appendOption(options, addressOption, rule.domain);
    appendOption(options, portOption, rule.port);
    return invokeRLVIptablesCommit(options.append(" -j ").append(rule.target));
}

} // namespace

namespace iptables {

int RlvIptables::flushChain(const std::string &chain) { return invokeRLVIptablesCommit("-F " + chain); }

int RlvIptables::makeChain(const std::string &chain) { return invokeRLVIptablesCommit("-N " + chain); }

int RlvIptables::removeChain(const std::string &chain) { return invokeRLVIptablesCommit("-X " + chain); }

int RlvIptables::deleteChainTarget(const std::string &chain, const std::string &target) {
    return invokeRLVIptablesCommit("-D " + chain + " -j " + target);
}

int RlvIptables::appendChainTarget(const std::string &chain, const std::string &target) {
    return invokeRLVIptablesCommit("-A " + chain + " -j " + target);
}

int RlvIptables::applyInboundRule(const std::string &chain, const FirewallRule &rule) {
    return applyRule(chain, rule, " -s ", " --sport ");
}

int RlvIptables::applyOutboundRule(const std::string &chain, const FirewallRule &rule) {
    return applyRule(chain, rule, " -d ", " --dport ");
}

std::unique_ptr<Interface> Factory::getImplementation() {
    return std::unique_ptr<Interface>(new (std::nothrow) RlvIptables);
}

} // namespace iptables
