// What is to become of the stored rules, told by what stays, goes and comes.
#ifndef PLATFORM_HOST_RULE_CHANGE_H
#define PLATFORM_HOST_RULE_CHANGE_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/stored-rules.h"
#include "mavo/database.h"

namespace host {

// A stored rule and its row.
struct RuleRow {
    std::int64_t row = 0;
    StoredRule rule;
};

struct RuleChange {
    std::vector<RuleRow> removed;
    std::vector<StoredRule> added;
    std::vector<StoredRule> staying; // in their order

    std::int64_t kept() const { return static_cast<std::int64_t>(staying.size()); }
    bool isEmpty() const { return removed.empty() && added.empty(); }
};

// All stored rules. Throws as forEachStoredRule() does.
std::vector<RuleRow> storedRows();

// What makes `stored` the rules of the list, a line each (see rule-difference.h), in any order. Throws
// mavo::rmi::BadArguments, which names the line, for what is no rule of a kind, for two rules of which only one can be
// stored, and for too many.
RuleChange changeTo(std::string_view list, const std::vector<RuleRow> &stored);
// What takes the rules of the list out of `stored`. Throws mavo::rmi::BadArguments, which names them, where some are
// not there.
RuleChange removalOf(std::string_view list, const std::vector<RuleRow> &stored);

// The commands by which the kernel would get the change, those that remove first: of many, by emptying both chains and
// appending what stays, too.
void forEachCommandOf(const RuleChange &change, const std::function<void(std::string_view options)> &each);

// Makes the change in a database of the plugin's, an empty one included. Throws mavo::Exception where that fails, and
// where another program has changed the rules since they were read.
void carryOut(const RuleChange &change, mavo::database::Connection &database);

// {"added":[…],"removed":[…],"kept":9}
std::string changeDocument(const RuleChange &change);

} // namespace host

#endif
