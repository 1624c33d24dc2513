// The numbers that stand in a rule's text: addresses and ports. Read strictly: a word that could mean two things to two
// readers means nothing here.
#ifndef PLATFORM_RLV_NUMBER_WORDS_H
#define PLATFORM_RLV_NUMBER_WORDS_H

#include <optional>
#include <string_view>

#include "rlv/rule.h"

namespace rlv {

// A decimal without sign or leading zeros that is at most `limit`, which has at most five digits.
std::optional<unsigned> parseDecimal(std::string_view word, unsigned limit);

// "10.0.0.5" or "10.0.0.0/8", with the bits beyond the prefix cleared.
std::optional<Network> parseNetwork(std::string_view word);

// "80", "80:90", ":80", "80:" or ":". A reversed range is none.
std::optional<PortRange> parsePorts(std::string_view word);

} // namespace rlv

#endif
