// The answers that both kinds of table give, in iptables' words.
#ifndef PLATFORM_RLV_TABLE_ANSWERS_H
#define PLATFORM_RLV_TABLE_ANSWERS_H

#include <cstddef>
#include <string>

#include "rlv/table/command.h"

namespace rlv {

Answer noSuchChain();
Answer chainExists();
Answer noSuchRule();
Answer noSuchTarget(const std::string &chain);
// The service's own bound.
Answer tooManyRules(std::size_t limit);

// What the kernel refuses: "CHAIN_DEL failed (Device or resource busy): chain VPK-DENY". `object` is "chain" or "rule
// in chain", `error` an errno.
Answer kernelRefused(const std::string &operation, int error, const std::string &object, const std::string &chain);

} // namespace rlv

#endif
