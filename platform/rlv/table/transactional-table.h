// The table that the service serves, over a backend of its own choice.
#ifndef PLATFORM_RLV_TABLE_TRANSACTIONAL_TABLE_H
#define PLATFORM_RLV_TABLE_TRANSACTIONAL_TABLE_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rlv/table/pending-ruleset.h"
#include "rlv/table/restoration.h"
#include "rlv/table/ruleset-backend.h"
#include "rlv/table/table.h"

namespace rlv {

// How much one push may spend on the search for refused messages: the messages in its dry runs, of which each takes 7
// to 20 us, and kDryRunCost for each dry run, which takes 8 to 16 ms by itself. The search is to end before those who
// wait for their connections give up, after 10 s.
constexpr std::size_t kMaxSearchCost = 500'000;
constexpr std::size_t kDryRunCost = 1'000;

class TransactionalTable : public Table {
public:
    TransactionalTable(std::unique_ptr<RulesetBackend> backend, std::string chainPrefix,
                       std::size_t maxRules = kMaxRules, std::size_t maxSearchCost = kMaxSearchCost);

    void open() override;
    Answer apply(const std::vector<Command> &commands, const std::string &options) override;
    std::size_t room() const override { return pending_.room(); }
    PushReport push() override;
    PushReport discard() override;
    void describe(ServiceState &state) override;
    void look(bool reading, const std::function<void(const Ruleset &)> &visit) override;
    void remember() override;
    void forget() override;
    bool remembers() const override { return isKnown_; }
    void setMending(bool isMending) override { isMending_ = isMending; }
    MendReport mend() override;
    std::optional<int> listen() override { return backend_->listen(); }
    Disturbance takeDisturbance() override { return backend_->takeDisturbance(); }
    Answer removeAll() override;

private:
    // What a change comes from, so that a refusal finds its command.
    struct Source {
        const std::string *chain;
        std::size_t appended;
    };
    struct Transaction {
        Changes changes;
        std::vector<Source> sources; // one for each change
    };

    struct Reading {
        Ruleset ruleset;
        bool isWhole = false;
    };
    Reading readRuleset();
    Reading readMended();
    Reading restoreFrom(Reading reading);
    std::string send(const Restoration &restoration, const Reading &reading, bool mayBind);
    void note(const Restoration &restoration, std::string problem);
    bool isCurrent();
    void load();
    void load(Reading reading);
    void adopt(const RulesetPlan &plan, bool isExact, PushReport &report);
    void loseTrack() noexcept;
    void reread(PushReport &report);
    bool fetchHandles(const RulesetPlan &plan);
    Transaction makeTransaction(const RulesetPlan &plan) const;
    enum class Outcome { sent, otherGeneration, outrun, refused };
    struct Limits {
        bool mayBind;
        bool mayBeOutrun;
    };
    std::vector<ChangeFailure> commitKeepingTrack(const Changes &changes, bool bound);
    Outcome attempt(Limits limits, PushReport &report);
    void pushUntilTaken(PushReport &report);
    bool wasFaster(const Transaction &transaction, const std::vector<ChangeFailure> &failures, bool mayBeOutrun);
    void count(const RulesetPlan &plan, PushReport &report) const;
    void blame(const Transaction &transaction, const std::vector<ChangeFailure> &failures, PushReport &report);
    std::optional<std::vector<ChangeFailure>> locate(const Transaction &transaction);
    void describe(const Ruleset &ruleset, ServiceState &state) const;

    std::unique_ptr<RulesetBackend> backend_;
    std::string chainPrefix_;
    std::size_t maxSearchCost_;
    std::size_t searchCost_ = 0; // of the push under way
    PendingRuleset pending_;
    std::vector<LostCommand> unreported_;     // by a push() that threw, or by mend()
    std::optional<std::uint32_t> generation_; // of what `pending_` knows to stand; none: it may be out of date
    bool isRead_ = true;                      // false: it holds what was sent, and was taken, since
    bool isWhole_ = true;                     // false: it may be mixed of several generations
    // What should stand is known: it is what `pending_` knows to stand, or, where that is what others have left and
    // could not be put right, what is in `desired_`.
    bool isKnown_ = false;
    bool isMending_ = true;
    std::optional<DesiredState> desired_;
    MendReport mended_;    // not told of yet
    std::string unmended_; // why what was sent last had to do without some of what should stand; told until open()
    // What describe() read last while a connection had something pending, and at which generation.
    std::optional<std::uint32_t> describedGeneration_;
    ServiceState described_;
};

} // namespace rlv

#endif
