#include "rlv/service/command-names.h"

#include <utility>

namespace rlv {
namespace {

constexpr int kBadText = 2;
constexpr int kFailed = 4;

Answer notFound(const std::string &name, const std::string &why = {}) {
    return {kBadText, "host/network `" + name + "' not found" + why};
}

// An absent name stands for the address that the rule has already, which may be none.
std::vector<std::optional<Network>> networksOf(const std::string &name, const std::optional<Network> &given,
                                               const Addresses &addresses) {
    if (name.empty())
        return {given};
    std::vector<std::optional<Network>> networks;
    for (const auto address : addresses)
        networks.push_back(Network{address, 32});
    return networks;
}

bool isAllowing(const Command &command) { return command.rule.target.kind == Target::Kind::accept; }

} // namespace

void CommandNames::open() {
    known_.clear();
    timeLeft_ = kLookUpTime;
}

std::optional<Answer> CommandNames::resolve(std::vector<Command> &commands) {
    const Command &command = commands.front();
    if (command.sourceName.empty() && command.destinationName.empty())
        return std::nullopt;
    for (const auto *name : {&command.sourceName, &command.destinationName}) {
        auto refusal = resolve(*name, command);
        if (refusal || isLookingUp())
            return refusal;
    }
    return expand(commands);
}

// A refusal, or nothing: then the name is known, or a look-up under way.
std::optional<Answer> CommandNames::resolve(const std::string &name, const Command &command) {
    if (name.empty())
        return std::nullopt;
    if (!context_.resolveNames)
        return notFound(name, ": this service looks up no names (--no-resolve)");
    if (known_.count(name) != 0)
        return use(name, command);
    if (const auto standing = context_.names.standing(name)) {
        learn(name, *standing);
        return use(name, command);
    }
    if (timeLeft_.count() <= 0) {
        learn(name, LookUpResult());
        return use(name, command);
    }
    lookUp(name);
    return std::nullopt;
}

// A refusal, or nothing, of a name that is known.
std::optional<Answer> CommandNames::use(const std::string &name, const Command &command) {
    const Addresses &addresses = addressesOf(name, command);
    if (command.action == Command::Action::appendRule)
        context_.names.noteUse(name, isAllowing(command), addresses);
    return addresses.empty() ? std::make_optional(notFound(name, known_.at(name).whyNot)) : std::nullopt;
}

const Addresses &CommandNames::addressesOf(const std::string &name, const Command &command) const {
    static const Addresses none;
    const auto known = known_.find(name);
    if (known == known_.end())
        return none;
    return isAllowing(command) ? known->second.answers.allowing : known->second.answers.denying;
}

void CommandNames::lookUp(const std::string &name) {
    const auto start = support::EventLoop::Clock::now();
    const auto done = [this, name, start](const LookUpResult &result) {
        const auto taken = support::EventLoop::Clock::now() - start;
        timeLeft_ -= std::chrono::ceil<std::chrono::milliseconds>(taken);
        wait_.reset();
        lookedUp_(name, result);
    };
    wait_ = context_.names.lookUp(name, timeLeft_, done);
}

// A name for which the time ran out was not found to be absent: the answer should say which it was.
void CommandNames::learn(const std::string &name, const LookUpResult &result) {
    Known &known = known_[name];
    known.answers = context_.names.answersAfter(name, result);
    if (result.kind == LookUpResult::Kind::tooMany)
        known.whyNot = ": it has more than " + std::to_string(kMaxAddresses) + " addresses";
    else if (result.kind == LookUpResult::Kind::failed && timeLeft_.count() <= 0)
        known.whyNot = ": the look-ups of this connection took more than 2 seconds";
}

std::optional<Answer> CommandNames::expand(std::vector<Command> &commands) const {
    const Command given = std::exchange(commands, {}).front();
    const auto sources = networksOf(given.sourceName, given.rule.source, addressesOf(given.sourceName, given));
    const auto destinations =
        networksOf(given.destinationName, given.rule.destination, addressesOf(given.destinationName, given));
    for (const auto &source : sources) {
        for (const auto &destination : destinations) {
            Command &command = commands.emplace_back(given);
            command.sourceName.clear();
            command.destinationName.clear();
            command.rule.source = source;
            command.rule.destination = destination;
        }
    }
    if (commands.size() <= kMaxAddresses)
        return std::nullopt;
    return Answer{kFailed, "the names stand for " + std::to_string(commands.size()) + " pairs of addresses; at most " +
                               std::to_string(kMaxAddresses) + " are taken"};
}

} // namespace rlv
