// What vpkctl check finds in rules.
#ifndef PLATFORM_CLI_FINDINGS_H
#define PLATFORM_CLI_FINDINGS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/checked-rules.h"
#include "cli/documents-as-text.h"
#include "cli/written-rules.h"

namespace cli {

enum class FindingKind { refused, both, replaced, comment, twice, contained, covered, denied, ignored };

// "REFUSED" and so on, as it is shown.
std::string_view nameOf(FindingKind kind);
// Whether what is written there cannot be had; else it is a warning.
bool isMistake(FindingKind kind);

struct Finding {
    FindingKind kind;
    Place place;
    std::string rule;          // as it is written there; empty where it is about none
    std::string refused;       // the word
    std::string accepted;      // what would be
    std::string message;       // all of it in a line, without place and kind
    std::vector<Place> others; // where the rules stand that it is about, too
};

// See vpkctl(1) for it. Bytes that are no UTF-8 stay as they are.
Json findingAsJson(const Finding &finding);

// Of rules that are to stand together: what is refused, what is there twice, and what does nothing beside the others.
// In the order of the rules.
std::vector<Finding> findingsOf(const std::vector<CheckedRule> &rules);

} // namespace cli

#endif
