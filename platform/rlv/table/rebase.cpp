#include "rlv/table/rebase.h"

#include <algorithm>

#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

using Action = Command::Action;

// What others did may have reached the aim of a command already: nothing is left to be made or removed.
bool isAimMissed(Action action, const Answer &answer) {
    constexpr int kRefused = 4;
    return answer.code == kRefused || (answer.code != 0 && action == Action::appendRule);
}

} // namespace

void Rebase::onto(Ruleset ruleset, std::vector<LostCommand> &lost) {
    std::vector<PendingCommand> commands = takeCommands();
    const std::size_t lostBefore = lost.size();
    const BuiltInChains builtInChains = emptyBuiltInChains();
    pending_.load(std::move(ruleset));
    // A deletes rule r, and B has deleted it first: on B's ruleset nothing is left to do. B puts r back before we send,
    // we read again, and now A's command has to delete it. So all commands are kept, not what they came to.
    keep(std::move(commands));
    // The bound is on the outcome: a removal that made room on the way there may be missing, as a later one took its
    // place.
    pending_.isBounded_ = false;
    carryOutKept(lost);
    make(builtInChains);
    pending_.isBounded_ = true;
    if (pending_.count_ > pending_.maxRules_) {
        lost.resize(lostBefore);
        commands = std::move(pending_.kept_);
        pending_.reset();
        keep(std::move(commands));
        carryOutKept(lost);
        make(builtInChains);
    }
    pending_.changed_ = true; // if only to find that nothing is left to be sent
}

std::vector<PendingCommand> Rebase::takeCommands() {
    auto commands = pending_.kept_.empty() ? pending_.difference() : std::move(pending_.kept_);
    const auto isLost = [&](const PendingCommand &one) { return pending_.lostNumbers_.count(one.origin.number) > 0; };
    commands.erase(std::remove_if(commands.begin(), commands.end(), isLost), commands.end());
    return commands;
}

void Rebase::carryOutKept(std::vector<LostCommand> &lost) {
    const auto end = pending_.kept_.cend();
    for (auto next = pending_.kept_.cbegin(); next != end;) {
        std::vector<Command> commands;
        const Origin &origin = next->origin;
        for (; next != end && next->origin.number == origin.number; ++next)
            commands.push_back(next->command);
        const Answer answer = carryOut(commands, origin);
        if (isAimMissed(commands.front().action, answer))
            pending_.lose(origin, answer, lost);
    }
}

// One command's rules, where somebody else may have removed some of them already.
Answer Rebase::carryOut(const std::vector<Command> &commands, const Origin &origin) {
    if (commands.front().action != Action::deleteRule)
        return pending_.carryOut(commands, origin);
    for (const Command &command : commands)
        pending_.deleteRules({command}, origin);
    return {};
}

// INPUT and OUTPUT stay once a rule has made them, also when that rule is gone again: no command tells of them then.
Rebase::BuiltInChains Rebase::emptyBuiltInChains() const {
    BuiltInChains made;
    for (const auto &[name, chain] : pending_.chains_) {
        if (isBuiltInChain(name) && chain.made.number != 0 && chain.appended.empty())
            made.emplace_back(name, chain.made);
    }
    return made;
}

void Rebase::make(const BuiltInChains &chains) {
    for (const auto &[name, origin] : chains) {
        if (pending_.find(name) != nullptr || pending_.room() == 0)
            continue;
        pending_.chains_[name].made = origin;
        ++pending_.count_;
    }
}

} // namespace rlv
