// Words in small letters, whatever the locale is.
#ifndef PLATFORM_CLI_LOWER_CASE_H
#define PLATFORM_CLI_LOWER_CASE_H

#include <algorithm>
#include <string>

namespace cli {

inline char lowerCase(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

inline std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char letter) { return lowerCase(letter); });
    return text;
}

} // namespace cli

#endif
