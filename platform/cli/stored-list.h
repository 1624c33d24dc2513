// The rules that the host has stored, and those that somebody may have meant.
#ifndef PLATFORM_CLI_STORED_LIST_H
#define PLATFORM_CLI_STORED_LIST_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "cli/documents-as-text.h"
#include "cli/session.h"
#include "rules/rule.h"

namespace cli {

struct KnownRule {
    rules::Rule rule;
    bool allowed = false;
    std::string line; // "deny tcp:10.0.0.5:80:out", by which the host knows it
};

class StoredRules {
public:
    // From the host's document of the rules.
    explicit StoredRules(const Json &document);
    // Asks the host. Throws Exit where it cannot be had.
    static StoredRules ask(const Session &session);

    const std::vector<KnownRule> &all() const { return rules_; }
    // Those that mean the same as `rule`, however they are written; where `allowed` says nothing, of both kinds. The
    // rule is one that the service takes.
    std::vector<const KnownRule *> like(const rules::Rule &rule, std::optional<bool> allowed) const;
    // The one that is the nearest to a rule that is not stored: of the same protocol, address and port, else one whose
    // text is as near as didYouMean() asks for, else one of the same address; null where there is none.
    const KnownRule *nearest(const rules::Rule &rule, std::optional<bool> allowed) const;

private:
    using Places = std::unordered_map<std::string, std::vector<std::size_t>>;
    const Places &meanings() const;

    std::vector<KnownRule> rules_;
    std::unordered_map<std::string, std::size_t> lines_;
    mutable Places meanings_; // made when it is asked for
};

} // namespace cli

#endif
