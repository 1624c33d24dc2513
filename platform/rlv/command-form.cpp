#include "rlv/command-form.h"

#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

std::string_view takeWord(std::string_view &text) {
    const std::size_t blank = text.find(' ');
    const std::string_view word = text.substr(0, blank);
    text.remove_prefix(blank == std::string_view::npos ? text.size() : blank + 1);
    return word;
}

bool isAddressOption(std::string_view word) { return word == "-s" || word == "-d"; }

bool isPortOption(std::string_view word) { return word == "--sport" || word == "--dport"; }

} // namespace

bool isRemoving(std::string_view options) {
    const std::string_view word = takeWord(options);
    return word == "-F" || word == "-D" || word == "-X";
}

bool isAppending(std::string_view options) { return takeWord(options) == "-A"; }

bool formOf(std::string_view options, std::string &form) {
    form.clear();
    if (!isAppending(options))
        return false;
    while (!options.empty()) {
        const std::string_view word = takeWord(options);
        form.append(word).push_back(' ');
        if (!isAddressOption(word) && !isPortOption(word))
            continue;
        const std::string_view value = takeWord(options);
        const bool isTaken = isAddressOption(word) ? parseNetwork(value).has_value() : parsePorts(value).has_value();
        if (!isTaken)
            return false;
    }
    return true;
}

} // namespace rlv
