#include "rlv/service/wanted-rules.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <variant>

#include "rlv/service/freed-memory.h"

namespace rlv {

namespace {

constexpr std::size_t kManyRules = 1'000;

using Kind = Difference::Kind;

bool isAllowing(const Command &command) { return command.rule.target.kind == Target::Kind::accept; }

// "-A chain rule" without its first words, as far as it has them.
Difference differenceOf(Kind kind, const std::string &options, const std::string &why) {
    const std::size_t chain = std::min(options.find(' '), options.size() - 1) + 1;
    const std::size_t chainEnd = std::min(options.find(' ', chain), options.size());
    const std::string rule = options.substr(std::min(chainEnd + 1, options.size()));
    return {kind, options.substr(chain, chainEnd - chain), rule, why};
}

} // namespace

void WantedRules::refuse(const std::string &options, const std::string &why) {
    rlv::add(comparison_, differenceOf(Kind::missing, options, why));
}

bool WantedRules::add(const std::string &options) {
    if (count_ > kMaxRules)
        return false;
    ++count_;
    const auto parsed = parseCommand(options, context_.chainPrefix);
    if (const auto *refusal = std::get_if<Answer>(&parsed)) {
        refuse(options, refusal->message);
        return true;
    }
    const auto &command = std::get<Command>(parsed);
    if (command.action == Command::Action::makeChain)
        chains_[command.chain];
    else if (command.action == Command::Action::appendRule)
        append(command, options);
    else
        refuse(options, "a command that makes nothing");
    return true;
}

// A rule speaks of one side alone, and so has one name at most.
void WantedRules::append(const Command &command, const std::string &options) {
    const bool isSource = !command.sourceName.empty();
    const std::string &name = isSource ? command.sourceName : command.destinationName;
    std::vector<Rule> &rules = chains_[command.chain];
    if (name.empty()) {
        rules.push_back(command.rule);
        return;
    }
    if (!context_.resolveNames)
        return refuse(options, "this service looks up no names (--no-resolve)");
    const auto addresses = context_.names.applied(name, isAllowing(command));
    if (!addresses)
        return refuse(options, "the name has not been looked up");
    if (addresses->empty())
        rlv::add(comparison_, differenceOf(Kind::unanswered, options, {}));
    for (const auto address : *addresses) {
        Rule rule = command.rule;
        (isSource ? rule.source : rule.destination) = Network{address, 32};
        rules.push_back(std::move(rule));
        ++count_;
    }
}

Comparison WantedRules::compare(bool reading) {
    context_.table.look(reading, [&](const Ruleset &standing) { compareChains(standing, chains_, comparison_); });
    if (count_ >= kManyRules)
        context_.loop.after(std::chrono::milliseconds(0), returnFreedMemory);
    return std::move(comparison_);
}

} // namespace rlv
