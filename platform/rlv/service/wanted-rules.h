// What a client wants to stand in the kernel, to be compared with what does.
#ifndef PLATFORM_RLV_SERVICE_WANTED_RULES_H
#define PLATFORM_RLV_SERVICE_WANTED_RULES_H

#include <cstddef>
#include <string>

#include "rlv/service/service-context.h"
#include "rlv/table/comparison.h"

namespace rlv {

// Understands commands as they would be understood on a connection, without changing or looking up anything.
class WantedRules {
public:
    explicit WantedRules(ServiceContext &context) : context_(context) {}

    // Takes a command that makes a chain or appends a rule. What would be refused is told as missing. False, and
    // nothing is taken, when there are more rules than a table takes.
    [[nodiscard]] bool add(const std::string &options);

    // With all that was added; `reading` as in Table::look(). Throws what that throws.
    Comparison compare(bool reading);

private:
    void append(const Command &command, const std::string &options);
    void refuse(const std::string &options, const std::string &why);

    ServiceContext &context_;
    WantedChains chains_;
    std::size_t count_ = 0;
    Comparison comparison_;
};

} // namespace rlv

#endif
