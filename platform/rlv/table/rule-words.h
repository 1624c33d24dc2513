// The words that stand in a rule's text beside its numbers: chains, host names, protocols, log prefixes. Everything is
// read strictly: a word that could mean two things to two readers means nothing here.
#ifndef PLATFORM_RLV_TABLE_RULE_WORDS_H
#define PLATFORM_RLV_TABLE_RULE_WORDS_H

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "rlv/number-words.h"

namespace rlv {

constexpr std::size_t kMaxChainLength = 28;     // XT_EXTENSION_MAXNAMELEN less its terminator
constexpr std::size_t kMaxLogPrefixLength = 29; // xt_log_info::prefix less its terminator
constexpr std::size_t kMaxHostNameLength = 253;

// True when every character may stand in a chain's name and its length is one that iptables takes.
bool isChainName(std::string_view word);

// The chains by which packets enter the table, as far as the service has anything to do with them.
constexpr std::array<std::string_view, 2> kBuiltInChains{"INPUT", "OUTPUT"};
bool isBuiltInChain(std::string_view word);

// True for names that mean something of their own to iptables: built-in chains and targets.
bool isReservedChain(std::string_view word);

// True for a chain that the service may make, fill and remove.
bool isOwnChain(std::string_view word, std::string_view chainPrefix);

// True also for the chains that lie below such a one, and that no command can name: there is a slash in their names.
bool isOwnOrBelow(std::string_view word, std::string_view chainPrefix);

// True for the syntax of a host name that no resolver can take for an address: its last label is neither all digits nor
// begins with 0x.
bool isHostName(std::string_view word);

// A name in either case, or a decimal number; 0 is any protocol.
std::optional<std::uint8_t> parseProtocol(std::string_view word);

bool isLogPrefix(std::string_view word);

} // namespace rlv

#endif
