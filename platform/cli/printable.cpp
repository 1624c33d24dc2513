#include "cli/printable.h"

#include <array>
#include <cstdio>

namespace cli {

std::string printable(const std::string &text) {
    std::string safe;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        std::array<char, 8> escape{};
        std::snprintf(escape.data(), escape.size(), "\\x%02x", byte);
        safe += byte < 0x20 || byte == 0x7f ? std::string(escape.data()) : std::string(1, c);
    }
    return safe;
}

} // namespace cli
