// Programs that a person runs on a terminal.
#ifndef TESTS_SUPPORT_TERMINAL_H
#define TESTS_SUPPORT_TERMINAL_H

#include <functional>
#include <string>
#include <vector>

namespace process {

struct OnTerminal {
    int status;         // exit status, or -1 when a signal ended it
    std::string output; // what stood on the terminal, with what was typed, and "\r\n" behind each line
};

// Runs `arguments` with a terminal of 80 columns for all its standard streams, where a person types `answer`. Whenever
// something appears there, `watch` gets all that has appeared.
OnTerminal runOnTerminal(const std::vector<std::string> &arguments, const std::string &answer = {},
                         const std::function<void(const std::string &)> &watch = {});

} // namespace process

#endif
