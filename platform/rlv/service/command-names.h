// What the host names in a connection's commands stand for.
#ifndef PLATFORM_RLV_SERVICE_COMMAND_NAMES_H
#define PLATFORM_RLV_SERVICE_COMMAND_NAMES_H

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rlv/service/names.h"
#include "rlv/service/service-context.h"
#include "rlv/table/command.h"

namespace rlv {

// Makes of a command with names those with their addresses. What it has learnt of a name stays the same until the end
// of the connection, so that the rules of one name are alike; all look-ups of a connection share kLookUpTime.
class CommandNames {
public:
    // `lookedUp` is called from within the event loop at the end of each look-up, with what is to be given to learn().
    using LookedUp = std::function<void(const std::string &name, const LookUpResult &)>;

    // The context must outlive the object.
    CommandNames(ServiceContext &context, LookedUp lookedUp) : context_(context), lookedUp_(std::move(lookedUp)) {}
    CommandNames(const CommandNames &) = delete;
    CommandNames &operator=(const CommandNames &) = delete;

    // Begins a connection.
    void open();
    // Gives up the look-up under way, if there is one.
    void stop() { wait_.reset(); }
    bool isLookingUp() const { return wait_ != nullptr; }

    // Puts in the place of the one command in `commands` one for each address of its names. A refusal, or nothing: then
    // that is done, or, where isLookingUp() says so, the command stays as it is until the name is known, and the same
    // has to be called again.
    std::optional<Answer> resolve(std::vector<Command> &commands);
    void learn(const std::string &name, const LookUpResult &result);

private:
    struct Known {
        NameAnswers answers; // none: the name was not found
        std::string whyNot;
    };

    std::optional<Answer> resolve(const std::string &name, const Command &command);
    std::optional<Answer> use(const std::string &name, const Command &command);
    const Addresses &addressesOf(const std::string &name, const Command &command) const;
    void lookUp(const std::string &name);
    std::optional<Answer> expand(std::vector<Command> &commands) const;

    ServiceContext &context_;
    LookedUp lookedUp_;
    std::map<std::string, Known> known_;
    std::chrono::milliseconds timeLeft_ = kLookUpTime;
    std::unique_ptr<Names::Wait> wait_;
};

} // namespace rlv

#endif
