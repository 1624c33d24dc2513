#include "cli/terminal.h"

#include <algorithm>
#include <string_view>
#include <unistd.h>

#include "cli/printable.h"

namespace cli {
namespace {

// How much of `rest` goes on a line of `room` characters.
std::size_t lengthOfLine(std::string_view rest, std::size_t room) {
    if (rest.size() <= room)
        return rest.size();
    const std::size_t space = rest.rfind(' ', room);
    if (space != std::string_view::npos && rest.find_first_not_of(' ') < space)
        return space;
    const std::size_t comma = rest.rfind(',', room - 1);
    return comma != std::string_view::npos ? comma + 1 : std::min(rest.find(' ', room), rest.size());
}

void wrapLine(std::string_view rest, std::size_t indent, std::string &into) {
    std::size_t room = kColumns;
    for (bool first = true; first || !rest.empty(); first = false) {
        const std::size_t length = lengthOfLine(rest, room);
        into.append(first ? 0 : indent, ' ').append(rest.substr(0, length)) += '\n';
        rest.remove_prefix(length);
        rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
        room = kColumns - indent;
    }
}

} // namespace

bool isTerminal(std::FILE *stream) { return ::isatty(::fileno(stream)) == 1; }

std::string wrapped(const std::string &text, std::size_t indent) {
    std::string lines;
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        wrapLine(rest.substr(0, end), indent, lines);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return lines;
}

void show(std::FILE *stream, const std::string &text, std::size_t indent) {
    const std::string &fitting = isTerminal(stream) ? wrapped(text, indent) : text;
    std::fwrite(fitting.data(), 1, fitting.size(), stream);
}

void say(const std::string &line) { show(stderr, "vpkctl: " + printable(line) + "\n", 8); }

} // namespace cli
