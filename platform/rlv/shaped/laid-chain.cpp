#include "rlv/shaped/laid-chain.h"

namespace rlv {

using shape::Id;

std::uint64_t LaidChain::handleOf(Id id) const {
    const auto known = handles.find(id);
    if (known != handles.end())
        return known->second;
    return id < kFirstSentId ? id : 0;
}

void LaidChain::setHandle(Id id, std::uint64_t handle) {
    if (handle == (id < kFirstSentId ? id : 0))
        handles.erase(id);
    else
        handles[id] = handle;
}

void LaidChain::reserveNames() {
    for (const std::set<std::string> *names : {&pinned, &taken}) {
        for (const std::string &name : *names)
            shape.reserve(name);
    }
}

shape::Chains LaidChain::placed() const { return asRead ? *asRead : shape.chains(); }

std::map<std::string, std::vector<Id>> LaidChain::idsIn(const std::set<std::string> &chains) const {
    if (!asRead)
        return shape.idsIn(chains);
    std::map<std::string, std::vector<Id>> ids;
    for (const std::string &name : chains) {
        const auto found = asRead->find(name);
        if (found == asRead->end())
            continue;
        for (const shape::PlacedRule &rule : found->second)
            ids[name].push_back(rule.id);
    }
    return ids;
}

} // namespace rlv
