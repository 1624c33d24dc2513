// A simulated kernel that does what a test tells it to.
#ifndef TESTS_PLATFORM_RLV_TABLE_SCRIPTED_BACKEND_H
#define TESTS_PLATFORM_RLV_TABLE_SCRIPTED_BACKEND_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "rlv/table/ruleset-backend.h"

namespace scripted {

// Over the simulated backend: refuses, fails and is changed by others at the moments that a test asks for. Like the
// kernel's it does not show the rules of chains that are neither INPUT or OUTPUT nor begin with "VPK-".
class Backend : public rlv::RulesetBackend {
public:
    std::uint32_t generation() override;
    std::optional<rlv::Ruleset> read() override;
    std::optional<rlv::Ruleset> readInParts() override;
    std::optional<std::vector<std::uint64_t>> readHandles(const std::string &chain, std::uint32_t generation) override;
    std::optional<std::vector<rlv::CountedRule>> readCounters(const std::string &chain,
                                                              std::uint32_t generation) override;
    std::vector<rlv::ChangeFailure> commit(const rlv::Changes &changes,
                                           std::optional<std::uint32_t> generation) override;
    std::vector<rlv::ChangeFailure> dryRun(const rlv::Changes &changes) override;

    // What a foreign program does; false when the table does not take it.
    bool edit(const rlv::Change &change);
    bool append(const std::string &chain, const rlv::Rule &rule);
    bool make(const std::string &chain);
    // Everything, as it is.
    rlv::Ruleset truth() { return *inner_->read(); }

    // What the service sees of rules that it does not understand.
    std::set<std::uint64_t> opaque;
    std::set<std::string> pinned; // chains that a map of verdicts refers to

    std::function<void()> beforeCommit;             // between the last reading and each commit
    std::function<int(const rlv::Change &)> refuse; // 0 or an errno
    bool tellsIndexes = true;                       // of what is refused
    bool refusesAtTheEndOnly = false;               // so that dry runs find nothing
    bool isNeverWhole = false;                      // whoever reads everything is always interrupted
    int conflictsToCome = 0;                        // that nobody causes
    int answersToLose = 0;                          // EIO from a commit that is taken
    int failuresToCome = 0;                         // EIO from whatever is called next
    std::uint32_t generationShift = 0;              // added to the generations that are shown

    // What was asked for.
    std::vector<rlv::Change::Kind> lastKinds; // of the last commit that was taken
    std::size_t commits = 0;                  // taken
    std::size_t boundRefusals = 0;            // for another generation
    std::size_t unbound = 0;                  // taken or refused, without a generation
    std::size_t dryRuns = 0;
    std::size_t triedMessages = 0; // in these
    std::size_t readings = 0;
    std::optional<rlv::Ruleset> beforeLastCommit; // what the last commit that was taken met

private:
    void failIfTold();
    std::vector<rlv::ChangeFailure> refusals(const rlv::Changes &changes, bool areOwnMet);
    std::uint32_t shown(std::uint32_t generation) const;

    std::unique_ptr<rlv::RulesetBackend> inner_ = rlv::makeSimulatedBackend();
};

} // namespace scripted

#endif
