// How far jumps lead.
#ifndef PLATFORM_RLV_TABLE_JUMP_DEPTH_H
#define PLATFORM_RLV_TABLE_JUMP_DEPTH_H

#include <cstddef>
#include <map>
#include <string>

namespace rlv {

struct JumpingChain {
    bool isBase = false; // packets enter the table here
    const std::map<std::string, std::size_t> *jumps = nullptr;
};

// True when the kernel would refuse a table of these chains: packets could be led over more jumps than it follows, or
// round in a circle. Like the kernel, looks only at what can be reached from a base chain: elsewhere even circles may
// stand.
bool jumpTooFar(const std::map<std::string, JumpingChain> &chains);

} // namespace rlv

#endif
