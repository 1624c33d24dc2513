// The table that the service serves, over a backend of its own choice.
#ifndef PLATFORM_RLV_TABLE_TRANSACTIONAL_TABLE_H
#define PLATFORM_RLV_TABLE_TRANSACTIONAL_TABLE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rlv/table/mending.h"
#include "rlv/table/own-chains.h"
#include "rlv/table/push.h"
#include "rlv/table/ruleset-backend.h"
#include "rlv/table/table.h"
#include "rlv/table/tracked-ruleset.h"

namespace rlv {

// A client's transactions: commands are applied to a ruleset that is pending, and a push sends what they come to. Its
// parts: what is known to stand (TrackedRuleset), what should stand (Mending), how it is sent (Push) and what was
// refused of it (Refusals).
class TransactionalTable : public Table {
public:
    TransactionalTable(std::unique_ptr<RulesetBackend> backend, std::string chainPrefix,
                       std::size_t maxRules = kMaxRules, std::size_t maxSearchCost = kMaxSearchCost);
    TransactionalTable(const TransactionalTable &) = delete;
    TransactionalTable &operator=(const TransactionalTable &) = delete;

    void open() override;
    Answer apply(const std::vector<Command> &commands, const std::string &options) override;
    std::size_t room() const override { return tracked_.pending().room(); }
    PushReport push() override;
    PushReport discard() override;
    void describe(ServiceState &state) override;
    void look(bool reading, const std::function<void(const Ruleset &)> &visit) override;
    void remember() override { mending_.remember(); }
    void forget() override { mending_.forget(); }
    bool remembers() const override { return mending_.isKnown(); }
    void setMending(bool isMending) override { mending_.setMending(isMending); }
    MendReport mend() override;
    std::optional<int> listen() override { return backend_->listen(); }
    Disturbance takeDisturbance() override { return backend_->takeDisturbance(); }
    Answer removeAll() override;

private:
    const OwnChains &readOwnChains();
    bool mayTake() const;
    void throwIfPendingIsLost() const;

    std::unique_ptr<RulesetBackend> backend_;
    std::string chainPrefix_;
    std::size_t maxSearchCost_;
    TrackedRuleset tracked_;
    Mending mending_;
    std::vector<LostCommand> unreported_; // by a push() that threw, or by mend()
    // What describe() read last while what is known was out of date, and at which generation.
    std::optional<std::uint32_t> describedGeneration_;
    OwnChains described_;
};

} // namespace rlv

#endif
