#include "cli/written-rules.h"

#include <algorithm>
#include <array>

#include "cli/input.h"
#include "host/firewall-plugin.h"

namespace cli {
namespace {

constexpr std::string_view kBlanks = " \t\r";

struct KindWord {
    std::string_view word;
    bool allowed;
};
constexpr std::array<KindWord, 4> kKindWords = {
    {{"allow", true}, {"deny", false}, {host::kApplyAllow, true}, {host::kApplyDeny, false}}};

// A part of a line, which knows where in it it begins.
struct Part {
    std::string_view text;
    std::size_t column = 1;
};

Part behindBytes(const Part &part, std::size_t bytes) { return {part.text.substr(bytes), part.column + bytes}; }

Part trimmed(Part part) {
    part = behindBytes(part, std::min(part.text.find_first_not_of(kBlanks), part.text.size()));
    part.text = part.text.substr(0, part.text.find_last_not_of(kBlanks) + 1);
    return part;
}

// Takes the word that says what is to become of the rules off the front.
std::optional<bool> takeKind(Part &part) {
    const std::string_view word = part.text.substr(0, part.text.find_first_of(kBlanks));
    const auto *const known =
        std::find_if(kKindWords.begin(), kKindWords.end(), [word](const KindWord &kind) { return kind.word == word; });
    if (known == kKindWords.end())
        return std::nullopt;
    part = trimmed(behindBytes(part, word.size()));
    return known->allowed;
}

// Of a list; nothing comes of what follows a last ";".
void addRules(Part list, const Place &place, std::optional<bool> allowed, std::vector<WrittenRule> &rules) {
    do {
        const std::size_t end = std::min(list.text.find(';'), list.text.size());
        const Part rule = trimmed({list.text.substr(0, end), list.column});
        rules.push_back({{place.source, place.line, rule.column}, std::string(rule.text), allowed});
        list = trimmed(behindBytes(list, std::min(end + 1, list.text.size())));
    } while (!list.text.empty());
}

void addRulesOfLine(std::string_view line, const Place &place, std::vector<WrittenRule> &rules) {
    Part part = trimmed({line.substr(0, line.find('#')), 1});
    if (part.text.empty())
        return;
    const auto allowed = takeKind(part);
    addRules(part, place, allowed, rules);
}

} // namespace

std::string describe(const Place &place) {
    const std::string column = std::to_string(place.column);
    return place.line == 0 ? place.source + ", column " + column
                           : place.source + ":" + std::to_string(place.line) + ":" + column;
}

Place behind(const Place &place, std::size_t bytes) { return {place.source, place.line, place.column + bytes}; }

std::vector<WrittenRule> rulesInLines(std::string_view text, const std::string &source) {
    std::vector<WrittenRule> rules;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        addRulesOfLine(text.substr(0, end), {source, number, 1}, rules);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return rules;
}

std::vector<WrittenRule> rulesInArguments(const std::vector<std::string> &arguments, std::istream &standardInput) {
    std::vector<WrittenRule> rules;
    std::size_t number = 0;
    for (const auto &argument : arguments) {
        ++number;
        if (argument != "-" && argument.substr(0, 1) != "@") {
            addRules(trimmed({argument, 1}), {"argument " + std::to_string(number), 0, 1}, std::nullopt, rules);
            continue;
        }
        const auto read = rulesInLines(dataFrom(argument, true, standardInput), nameOfSource(argument));
        rules.insert(rules.end(), read.begin(), read.end());
    }
    return rules;
}

} // namespace cli
