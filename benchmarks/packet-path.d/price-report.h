// Tables of what was measured, and which bars it misses.
#ifndef BENCHMARKS_PACKET_PATH_PRICE_REPORT_H
#define BENCHMARKS_PACKET_PATH_PRICE_REPORT_H

#include <string>
#include <vector>

namespace packetpath {

class Report {
public:
    // Rows are shown as Markdown and at once.
    void head(const std::vector<std::string> &columns) const;
    void row(const std::vector<std::string> &cells) const;

    // The word for a bar that is kept or not; a miss is remembered.
    std::string verdict(bool isKept);
    bool isMissed() const { return missed_ > 0; }

private:
    int missed_ = 0;
};

// With that many digits after the point.
std::string shown(double value, int digits = 2);

} // namespace packetpath

#endif
