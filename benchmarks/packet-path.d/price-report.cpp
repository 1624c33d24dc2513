#include "price-report.h"

#include <array>
#include <cstdio>

namespace packetpath {

void Report::head(const std::vector<std::string> &columns) const {
    std::puts("");
    row(columns);
    row(std::vector<std::string>(columns.size(), "---"));
}

void Report::row(const std::vector<std::string> &cells) const {
    std::string line = "|";
    for (const std::string &cell : cells)
        line += " " + cell + " |";
    std::puts(line.c_str());
    std::fflush(stdout);
}

std::string Report::verdict(bool isKept) {
    missed_ += isKept ? 0 : 1;
    return isKept ? "passed" : "**missed**";
}

std::string shown(double value, int digits) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

} // namespace packetpath
