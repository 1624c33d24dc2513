// Chains as a kernel would keep them: it carries out operations, refusing what a kernel would refuse, and sends packets
// through.
#ifndef TESTS_PLATFORM_RLV_SHAPE_KERNEL_CHAINS_H
#define TESTS_PLATFORM_RLV_SHAPE_KERNEL_CHAINS_H

#include <map>
#include <string>
#include <vector>

#include "rlv/shape/shape.h"
#include "support/rule-lists.h"

namespace kernelchains {

// What became of a packet.
struct Passage {
    bool isMatched = false; // by a rule that is no branch
    std::size_t looked = 0; // rules looked at, that one included
    unsigned jumps = 0;     // the most that it was away from the chain at once
};

class Kernel {
public:
    explicit Kernel(std::string chain) : chain_(std::move(chain)) { chains_[chain_]; }

    // One transaction. Throws std::logic_error with what a kernel would refuse: a chain that is there or is not, a
    // rule that is not, a jump to nowhere, a chain that is in use or not empty, a name that is too long.
    void carryOut(const rlv::shape::Operations &operations);

    const rlv::shape::Chains &chains() const { return chains_; }
    rlv::shape::Chains &chains() { return chains_; } // for foreign hands
    Passage pass(const rulelists::Packet &packet) const;
    // The rules with which nothing leads to another chain of this tree, from each chain, as text and sorted.
    std::vector<std::string> rules() const;
    unsigned mostJumps() const;

private:
    void carryOut(const rlv::shape::Operation &operation);
    std::vector<rlv::shape::PlacedRule> &chain(const std::string &name);
    void deleteRule(const rlv::shape::Operation &operation);
    void deleteChain(const std::string &name);
    bool isSubChain(const std::string &name) const { return name.rfind(chain_ + ".", 0) == 0; }
    void pass(const std::string &name, const rulelists::Packet &packet, unsigned jumps, Passage &passage) const;
    unsigned jumpsBelow(const std::string &name) const;

    std::string chain_;
    rlv::shape::Chains chains_;
};

} // namespace kernelchains

#endif
