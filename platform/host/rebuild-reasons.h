// Whether what became of a plugin call is a reason to build the tables anew.
#ifndef PLATFORM_HOST_REBUILD_REASONS_H
#define PLATFORM_HOST_REBUILD_REASONS_H

#include <set>
#include <string>
#include <vector>

namespace host {

struct Verdict;

// Two conditions are reasons for as long as they last: an interruption (which the kernel's want of memory counts as),
// and a rebuild in which no plugin comes up (which never gets here: the service is away, a disk is full). Nobody can
// tell when that ends, and until then the kernel may lack rules. A loss is different: the service was there and the
// kernel has had its say, so what is lost in the rebuild too would be lost again for ever. Each lost command is a
// reason once, and once more only after a rebuild in which it was not lost. Refusals reach the caller at once and are
// never a reason.
class RebuildReasons {
public:
    // Why the tables have to be built anew after an operation; empty when they need not be.
    std::string afterCall(const Verdict &verdict);
    // The same after a plugin came up, which sends all stored rules.
    std::string afterBringUp(const Verdict &verdict);

    // What the last plugin that came up has lost, and why nothing is done about it; empty when it has lost nothing.
    const std::string &lostAgain() const { return lostAgain_; }

private:
    bool remember(const std::vector<std::string> &lost);

    std::set<std::string> rebuiltFor_; // lost commands that had, or are about to have, their one rebuild
    std::string lostAgain_;
};

} // namespace host

#endif
