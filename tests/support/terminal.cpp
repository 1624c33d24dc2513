#include "support/terminal.h"

#include <pty.h>
#include <stdexcept>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/emulator.h"

namespace process {

OnTerminal runOnTerminal(const std::vector<std::string> &arguments, const std::string &answer,
                         const std::function<void(const std::string &)> &watch) {
    int terminal = -1;
    winsize size{};
    size.ws_row = 24;
    size.ws_col = 80;
    const pid_t child = ::forkpty(&terminal, nullptr, nullptr, &size);
    if (child == 0) {
        emulator::execute(arguments);
        ::_exit(127);
    }
    if (child < 0 || ::write(terminal, answer.data(), answer.size()) != static_cast<ssize_t>(answer.size()))
        throw std::runtime_error("no terminal to be had");
    std::string output;
    char buffer[512];
    for (ssize_t length = 0; (length = ::read(terminal, buffer, sizeof buffer)) > 0;) {
        output.append(buffer, static_cast<std::size_t>(length));
        if (watch)
            watch(output);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    ::close(terminal);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

} // namespace process
