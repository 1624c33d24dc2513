// Option texts from any client, one a line, on one connection: the grammar, the answers, and what the client knows of
// the answers before it asks.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "fuzz/command-check.h"
#include "fuzz/input.h"
#include "fuzz/require.h"
#include "rlv/command-form.h"
#include "rlv/known-answers.h"
#include "rlv/table/pending-ruleset.h"

namespace {

constexpr std::size_t kMaxRules = 6; // few enough that a table gets full
constexpr std::size_t kMaxCommands = 12;

rlv::Ruleset startingRuleset() {
    rlv::Ruleset ruleset;
    ruleset.chains["INPUT"].isBase = true;
    ruleset.chains["OUTPUT"].isBase = true;
    ruleset.chains["VPK-A"];
    rlv::StandingRule foreign;
    foreign.handle = 7;
    ruleset.chains["VPK-B"].rules.push_back(foreign);
    return ruleset;
}

// A name that was looked up.
void resolve(std::string &name, std::optional<rlv::Network> &network) {
    if (name.empty())
        return;
    network = rlv::Network{0x0a000000U + static_cast<std::uint32_t>(name.size()), 32};
    name.clear();
}

// One connection: what the service makes of the table, and the client's knowledge.
class Dialogue {
public:
    Dialogue() : pending_(kMaxRules) { pending_.load(startingRuleset()); }

    void say(const std::string &options) {
        const bool isKnown = known_.take(options);
        const bool isAccepted = carryOut(options);
        fuzz::require(isAccepted || !isKnown, "what the client knows is what the service answers", options);
        if (!isKnown)
            known_.learn(options, isAccepted, rlv::isAppending(options) ? pending_.room() : 0);
    }

private:
    bool carryOut(const std::string &options) {
        auto command = fuzz::checkedCommand(options);
        if (!command)
            return false;
        resolve(command->sourceName, command->rule.source);
        resolve(command->destinationName, command->rule.destination);
        const auto answer = pending_.apply({*command}, options);
        fuzz::require((answer.code == 0) == answer.message.empty(), "a refusal, and no other answer, says why",
                      options);
        return answer.code == 0;
    }

    rlv::PendingRuleset pending_;
    rlv::KnownAnswers known_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    Dialogue dialogue;
    for (std::size_t i = 0; i < kMaxCommands && !input.atEnd(); ++i)
        dialogue.say(std::string(input.takeUntil('\n')));
    return 0;
}
