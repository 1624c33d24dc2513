// The answers of name servers, kept over the service's life.
#ifndef PLATFORM_RLV_SERVICE_NAMES_FILE_H
#define PLATFORM_RLV_SERVICE_NAMES_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rlv/service/resolver.h"

namespace rlv {

constexpr std::size_t kMaxKeptNames = 4096;
// Of all names in the file together; a name that finds no room is left out.
constexpr std::size_t kMaxKeptAddresses = 65'536;

// A name's last answer.
struct KeptName {
    std::string name;           // in lower case
    std::int64_t confirmed = 0; // when it was last given, in seconds since 1970 by the clock of that time; 0: not known
    Addresses addresses;
};

// The file's text: a first line "vpk-names 1", a line "name confirmed address address ..." for each, and a last line
// "sum X", where X is the FNV-1a hash (64 bits, in hexadecimal) of all before it. Those at the front have room first.
std::string encodeNames(const std::vector<KeptName> &names);
// Throws std::runtime_error that says what is wrong with a text that is not exactly such a one.
std::vector<KeptName> decodeNames(std::string_view text);

// Reads the file; an empty list where there is none. It is opened without waiting and without following a link, and has
// to be a regular file of this account. Throws std::runtime_error, which names the file, for one that cannot be used.
std::vector<KeptName> readNames(const std::string &path);
// Puts a new file (mode 0600) in the place of the old one, by way of one beside it, and returns when it is on the disk.
// Throws std::system_error, which names the file; then the old one stands, or the new one as a whole.
void writeNames(const std::string &path, const std::vector<KeptName> &names);
// Renames a file that cannot be used to <path>.refused, in place of the one before. False when that cannot be done.
[[nodiscard]] bool putAside(const std::string &path);

} // namespace rlv

#endif
