// The rules as the plugin has stored them.
#ifndef PLATFORM_HOST_STORED_RULES_H
#define PLATFORM_HOST_STORED_RULES_H

#include <cstdint>
#include <functional>

#include "rules/rule.h"

namespace host {

struct StoredRule {
    rules::Rule rule;
    bool allowed = false;
};

// In the database's order; none where there is no database. To be called between two plugin calls, when nobody writes.
// Throws mavo::Exception, which names the file, when the database cannot be read, mavo::database::Unavailable when that
// may pass, std::runtime_error when something else lies in its place, and what `each` throws.
void forEachStoredRule(const std::function<void(const StoredRule &)> &each);

// The same for those whose rows have that number or a higher one, with the number. Gives back how many there are in
// all.
std::int64_t forEachStoredRuleFrom(std::int64_t row,
                                   const std::function<void(std::int64_t row, const StoredRule &)> &each);

} // namespace host

#endif
