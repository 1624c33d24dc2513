// What is to be measured, and how often.
#ifndef BENCHMARKS_PACKET_PATH_SETTINGS_H
#define BENCHMARKS_PACKET_PATH_SETTINGS_H

#include <cstddef>
#include <string>
#include <vector>

#include "firewalls.h"
#include "price-report.h"
#include "rlv/shape/shape.h"

namespace packetpath {

struct Settings {
    std::vector<std::string> rows;  // all where none is named
    std::vector<std::string> forms; // the same
    std::size_t rules = 10'000;
    std::size_t manyRules = 50'000;
    std::size_t packets = 1'000;
    std::size_t packetsOfLists = 16; // these take a hundred times as long
    unsigned rounds = 7;
    double streamSeconds = 1;
    double unitNs = 1; // prices are shown in units of so many nanoseconds
    std::string unit = "ns";
    std::string curvesFile;
    rlv::shape::Limits limits;
    bool isTuned = false; // `limits` are not those of rlvd, so that the tree is not made by it
};

// Our chains as these settings want them.
inline void fillOurs(const Host &host, const Rules &rules, const Settings &settings) {
    if (settings.isTuned)
        host.runThere({"iptables-restore"}, restoreText(lay(rules, settings.limits).chains));
    else
        fillByOurs(host, rules, settings.limits.treeFrom);
}

// Rows of the report. Each throws what the hosts do.

// What a packet pays beside rules of each form: `rules` of them, and `manyRules` where there is a bar for that.
void pricesOfForms(const Settings &settings, Report &report);
// The same for 1,000 and 10,000 rules by address, as a small machine may be asked for.
void pricesOfAddresses(const Settings &settings, Report &report);
// A few of them, and the tree has to be a gain.
void gains(const Settings &settings, Report &report);
// A packet that an allow rule accepts, wherever it stands.
void priceOfAllowed(const Settings &settings, Report &report);
// Against plain lists that iptables and nft have made.
void pricesOfPlainLists(const Settings &settings, Report &report);
// A TCP stream beside rules.
void streams(const Settings &settings, Report &report);
// What iptables-restore takes for list and tree.
void loading(const Settings &settings, Report &report);
// The price over the number of rules, of all firewalls that are installed; into `curvesFile`, too.
void curves(const Settings &settings, Report &report);

} // namespace packetpath

#endif
