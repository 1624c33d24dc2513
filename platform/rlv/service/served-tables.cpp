#include "rlv/service/served-tables.h"

#include <sys/stat.h>

namespace rlv {
namespace {

std::string nameOf(const ServedTables &tables) { return (tables.simulated ? "simulated " : "") + tables.chainPrefix; }

} // namespace

ServedTables ServedTables::here(const std::string &chainPrefix, bool simulated) {
    struct stat found {};
    const bool isKnown = ::stat("/proc/self/ns/net", &found) == 0;
    return {chainPrefix, simulated, isKnown ? static_cast<std::uint64_t>(found.st_ino) : 0};
}

protocol::Request removalOf(const ServedTables &tables) {
    return {protocol::Request::Kind::remove, tables.network, nameOf(tables)};
}

bool asksFor(const protocol::Request &removal, const ServedTables &tables) {
    const bool isElsewhere = removal.number != 0 && tables.network != 0 && removal.number != tables.network;
    return removal.text == nameOf(tables) && (tables.simulated || !isElsewhere);
}

} // namespace rlv
