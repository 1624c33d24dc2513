#include "host/expected-commands.h"

#include <string>

#include "host/firewall-plugin.h"

namespace host {

void forEachLayoutCommand(const rules::EachCommand &each) {
    const auto make = [&each](const std::string &chain) { each("-N " + chain); };
    const auto append = [&each](const std::string &chain, const std::string &target) {
        each("-A " + chain + " -j " + target);
    };
    make(kAllowChain);
    make(kDenyChain);
    for (const char *target : {kAllowChain, kDenyChain}) {
        for (const char *hooked : kHookedChains)
            append(hooked, target);
    }
    make(kLogAndDropChain);
    append(kLogAndDropChain, "LOG -v --log-prefix=" + std::string(kLogPrefix));
    append(kLogAndDropChain, "DROP");
}

} // namespace host
