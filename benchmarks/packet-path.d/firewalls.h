// The ways in which a host gets its rules.
#ifndef BENCHMARKS_PACKET_PATH_FIREWALLS_H
#define BENCHMARKS_PACKET_PATH_FIREWALLS_H

#include <cstddef>
#include <string>
#include <vector>

#include "host.h"
#include "packets.h"
#include "rlv/shape/shape.h"

namespace packetpath {

// These leave the host with exactly these rules in force, which say what happens to a packet that comes in, or throw
// std::runtime_error. What hooks the chains is there for no rules, too.

// By rlvd, which runs for as long as that takes. All rules have the same target; one that accepts goes to VPK-ALLOW.
void fillByOurs(const Host &host, const Rules &rules, std::size_t treeFrom);
// How many chains it has for the rules.
std::size_t chainsIn(const Host &host);
// Our chains, one rule after another, by iptables-restore.
void fillByIptables(const Host &host, const Rules &rules);
// The same by nft, as it would write them itself. Throws std::invalid_argument for rules that are not about sources
// alone.
void fillByNft(const Host &host, const Rules &rules);
// As their packages configure them, but for packets that no rule is about: these are let in. The rules are among those
// that an operator has stored; about sources alone, as above.
void fillByUfw(const Host &host, const Rules &rules);
void fillByFirewalld(const Host &host, const Rules &rules);
bool isUfwInstalled();
bool isFirewalldInstalled();

struct Chains {
    std::string chain; // the one that the rules are in
    rlv::shape::Chains chains;
};
// As rlvd would lay them, or a list for `treeFrom` 0; with what that comes to.
struct Laid {
    Chains chains;
    std::size_t longestWalk = 0;
    std::size_t count = 0;
    double milliseconds = 0;
};
Laid lay(const Rules &rules, const rlv::shape::Limits &limits);
// Both of our chains hooked as the engine does, for iptables-restore.
std::string restoreText(const Chains &chains);

} // namespace packetpath

#endif
