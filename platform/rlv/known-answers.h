// What a client may know of the service's answer to a command before it asks.
#ifndef PLATFORM_RLV_KNOWN_ANSWERS_H
#define PLATFORM_RLV_KNOWN_ANSWERS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

namespace rlv {

// Remembers the forms of the commands that were accepted on a connection. What the answer to another command of such a
// form depends on only a command that is no -A takes away, or a table that is full.
class KnownAnswers {
public:
    // True when the command is sure to be accepted. It counts as sent then.
    [[nodiscard]] bool take(std::string_view options);

    // The service has answered a command: whether it was accepted, and how many more rules the table takes now.
    void learn(std::string_view options, bool wasAccepted, std::uint64_t room);

private:
    std::unordered_set<std::string> forms_;
    std::uint64_t room_ = 0;
    std::string form_; // of the command under way
};

} // namespace rlv

#endif
