// Rules as a person writes them: in arguments, or in files with a rule a line and "#" comments.
#ifndef PLATFORM_CLI_WRITTEN_RULES_H
#define PLATFORM_CLI_WRITTEN_RULES_H

#include <cstddef>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

// Where something is written.
struct Place {
    std::string source;     // "rules.txt", "standard input", "argument 2"
    std::size_t line = 0;   // from 1; 0 where there are none
    std::size_t column = 1; // in bytes, from 1
};

// "rules.txt:3:11", "argument 2, column 11".
std::string describe(const Place &place);

// The same, further on in its line.
Place behind(const Place &place, std::size_t bytes);

struct WrittenRule {
    Place place;
    std::string text;
    std::optional<bool> allowed; // where a word before it says so
};

// The rules of a text with lines: one on each, or several joined by ";", without the blanks around them. What follows
// "#" is a comment. "allow" or "deny" may stand before them, or the command that vpkctl rules shows there.
std::vector<WrittenRule> rulesInLines(std::string_view text, const std::string &source);

// The rules of arguments: of "@FILE" and "-" those of the file and of standard input, else those of the argument
// itself, joined by ";". Throws Exit when a file cannot be read.
std::vector<WrittenRule> rulesInArguments(const std::vector<std::string> &arguments, std::istream &standardInput);

} // namespace cli

#endif
