#include "rlv/table/answers.h"

#include <system_error>

namespace rlv {

Answer noSuchChain() { return {1, "iptables: No chain/target/match by that name."}; }

Answer chainExists() { return {1, "iptables: Chain already exists."}; }

Answer noSuchRule() { return {1, "iptables: Bad rule (does a matching rule exist in that chain?)."}; }

Answer noSuchTarget(const std::string &chain) { return {2, "iptables: Chain '" + chain + "' does not exist"}; }

Answer tooManyRules(std::size_t limit) {
    return {4, "iptables: too many rules: the chains may come to " + std::to_string(limit) + " together"};
}

Answer kernelRefused(const std::string &operation, int error, const std::string &object, const std::string &chain) {
    return {4, "iptables: " + operation + " failed (" + std::generic_category().message(error) + "): " + object + " " +
                   chain};
}

} // namespace rlv
