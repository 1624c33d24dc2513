// The utility library's exception and database, over SQLite itself and on real files, with a trace of all calls and
// with failures to order, for unit tests.
#ifndef TESTS_SUPPORT_FAKE_MAVO_H
#define TESTS_SUPPORT_FAKE_MAVO_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fakemavo {

// Called when the plugin calls the library; empty ones are passed over. What they throw reaches the plugin.
struct Hooks {
    // Before a file is opened.
    std::function<void(const std::string &path, int flags)> open;
    // Before a file is closed; must not throw.
    std::function<void(const std::string &path)> close;
    // Before a statement is prepared, and before each step of one.
    std::function<void(const std::string &sql)> prepare;
    std::function<void(const std::string &sql)> step;
    // Before a statement is executed: with a text returned, the execution fails and the text is its error message.
    std::function<std::optional<std::string>(const std::string &sql)> exec;
    // The number of columns to report in place of the real one.
    std::function<int(const std::string &sql, int count)> columnCount;
};

Hooks &hooks();
// No hooks, an empty trace.
void reset();

// All calls since clearTrace(), oldest first:
//   "open PATH FLAGS verify" or "open PATH FLAGS", on each attempt; "close PATH"
//   "prepare SQL"; "bind 1 text 'tcp'", "bind 4 int 2", "bind 1 int64 86400"
//   "step row", "step done"; "exec done", "exec failed"; "finalize" when a statement ends
const std::vector<std::string> &trace();
// Those of them that begin with `prefix`.
std::vector<std::string> trace(const std::string &prefix);
void clearTrace();

} // namespace fakemavo

#endif
