#include "support/fake-vlog.h"

#include <cstdarg>
#include <cstdio>
#include <regex>

#include "vlog/vlog.h"

namespace fakevlog {
namespace {

std::vector<Line> kept;
std::function<void(const Line &line)> lineCallback;

struct Parts {
    std::string place;
    std::string message;
};

Parts split(const Line &line) {
    static const std::regex form("([^ :]+: [^ (]+)\\([0-9]+\\) > \x1b\\[(3[16])m([\\s\\S]*)\x1b\\[0m");
    std::smatch match;
    if (!std::regex_match(line.text, match, form))
        return {};
    const bool error = line.priority == VLOG_PRIORITY_ERROR;
    const std::string message = match[3];
    if (match[2] != (error ? "31" : "36") || message.compare(0, line.tag.size() + 2, line.tag + ": ") != 0)
        return {};
    return {match[1], message};
}

std::string vformat(const char *format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

} // namespace

const std::vector<Line> &lines() { return kept; }

void clear() { kept.clear(); }

void onLine(const std::function<void(const Line &line)> &callback) { lineCallback = callback; }

std::string message(const Line &line) { return split(line).message; }

std::string place(const Line &line) { return split(line).place; }

std::vector<std::string> functions(const std::string &file) {
    const std::string begin = file + ": ";
    std::vector<std::string> result;
    for (const Line &line : kept) {
        const std::string named = place(line);
        if (named.compare(0, begin.size(), begin) == 0)
            result.push_back(named.substr(begin.size()));
    }
    return result;
}

std::vector<std::string> messages() {
    std::vector<std::string> result;
    for (const Line &line : kept) {
        const std::string text = message(line);
        const bool known = line.priority == VLOG_PRIORITY_INFO || line.priority == VLOG_PRIORITY_ERROR;
        if (text.empty() || !known || line.logId != VLOG_ID_MAIN)
            result.push_back("malformed: " + line.text);
        else
            result.push_back((line.priority == VLOG_PRIORITY_INFO ? "I " : "E ") + text);
    }
    return result;
}

} // namespace fakevlog

extern "C" int vlog_print(int logId, int priority, const char *tag, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string text = fakevlog::vformat(format, arguments);
    va_end(arguments);
    const int length = static_cast<int>(text.size());
    fakevlog::kept.push_back({logId, priority, tag, std::move(text)});
    if (fakevlog::lineCallback)
        fakevlog::lineCallback(fakevlog::kept.back());
    return length;
}
