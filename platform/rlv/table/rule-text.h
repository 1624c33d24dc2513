// Rules as iptables shows them.
#ifndef PLATFORM_RLV_TABLE_RULE_TEXT_H
#define PLATFORM_RLV_TABLE_RULE_TEXT_H

#include <string>

#include "rlv/rule.h"

namespace rlv {

// What comes before its "-j", with a blank behind it where there is anything.
std::string describeMatch(const Rule &rule);
// The rule as iptables -S shows it, without "-A chain ": "-s 10.0.0.0/8 -p tcp -m tcp --sport 80 -j DROP".
std::string describe(const Rule &rule);

} // namespace rlv

#endif
