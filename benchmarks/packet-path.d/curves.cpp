#include "settings.h"

#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>

#include "lane.h"

namespace packetpath {

namespace {

constexpr std::size_t kSizes[] = {0, 10, 100, 1'000, 10'000, 50'000};

struct Firewall {
    const char *name;
    bool (*isInstalled)();
    void (*fill)(const Host &host, const Rules &rules, const Settings &settings);
};
bool isAlways() { return true; }

const std::vector<Firewall> &firewalls() {
    static const std::vector<Firewall> all{
        {"this system", isAlways, fillOurs},
        {"iptables", isAlways,
         [](const Host &host, const Rules &rules, const Settings &) { fillByIptables(host, rules); }},
        {"nft", isAlways, [](const Host &host, const Rules &rules, const Settings &) { fillByNft(host, rules); }},
        {"ufw", isUfwInstalled, [](const Host &host, const Rules &rules, const Settings &) { fillByUfw(host, rules); }},
        {"firewalld", isFirewalldInstalled,
         [](const Host &host, const Rules &rules, const Settings &) { fillByFirewalld(host, rules); }},
    };
    return all;
}

// Empty, with a word about it, where the firewall cannot be had or does not take the rules.
std::unique_ptr<Lane> laneOf(const Firewall &firewall, const Rules &rules, const Packets &packets,
                             const Settings &settings) {
    if (!firewall.isInstalled())
        return nullptr;
    try {
        return std::make_unique<Lane>(
            "curve", [&](const Host &host) { firewall.fill(host, rules, settings); }, packets);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s, %zu rules: not measured: %s\n", firewall.name, rules.size(), error.what());
        return nullptr;
    }
}

using Points = std::vector<std::optional<double>>; // one for each firewall

Points pricesBeside(std::size_t count, const Settings &settings) {
    const Rules rules = rulelists::make(rulelists::form("random addresses"), count, 1);
    const Packets packets = packetsBeside(rules, settings.packetsOfLists, Protocols::udpAlone);
    std::vector<std::unique_ptr<Lane>> lanes;
    for (const Firewall &firewall : firewalls())
        lanes.push_back(laneOf(firewall, rules, packets, settings));
    for (unsigned round = 0; round < settings.rounds; ++round) {
        for (const auto &lane : lanes) {
            if (lane)
                lane->measure();
        }
    }
    Points points;
    for (const auto &lane : lanes) {
        if (lane)
            lane->allMustHavePassed();
        points.push_back(lane ? std::optional<double>(lane->median()) : std::nullopt);
    }
    return points;
}

void writeLine(std::ofstream &file, std::size_t count, const Points &points) {
    file << count;
    for (const auto &point : points)
        file << '\t' << (point ? shown(*point, 0) : "?");
    file << '\n' << std::flush;
}

} // namespace

void curves(const Settings &settings, Report &report) {
    std::ofstream file(settings.curvesFile);
    std::vector<std::string> columns{"rules"};
    file << "rules";
    for (const Firewall &firewall : firewalls()) {
        columns.emplace_back(firewall.name);
        file << '\t' << firewall.name;
    }
    file << '\n';
    report.head(columns);
    for (const std::size_t count : kSizes) {
        const Points points = pricesBeside(count, settings);
        std::vector<std::string> cells{std::to_string(count)};
        for (const auto &point : points)
            cells.push_back(point ? shown(*point / 1'000) + " µs" : "-");
        report.row(cells);
        writeLine(file, count, points);
    }
    if (!file)
        throw std::runtime_error("cannot write " + settings.curvesFile);
}

} // namespace packetpath
