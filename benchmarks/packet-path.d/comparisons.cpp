#include "settings.h"

#include <chrono>
#include <stdexcept>

#include "lane.h"
#include "stream.h"

namespace packetpath {

namespace {

Rules randomAddresses(std::size_t count) { return rulelists::make(rulelists::form("random addresses"), count, 1); }

std::string beside(const Rules &rules) { return std::to_string(rules.size()) + " random addresses"; }

void head(const Report &report) { report.head({"work", "this system", "against", "that takes", "ratio", "bar", ""}); }

// An accepted packet does not come to the next chain.
void noneMayBeLeftFor(const std::string &chain, const Host &host) {
    const std::string hooks = host.runThere({"iptables", "-vS", "INPUT"});
    if (hooks.find("-A INPUT -c 0 0 -j " + chain + "\n") == std::string::npos)
        throw std::runtime_error("packets that were to be accepted came to " + chain + ":\n" + hooks);
}

} // namespace

void priceOfAllowed(const Settings &settings, Report &report) {
    constexpr double kMost = 0.3;
    Rules rules = randomAddresses(settings.rules);
    for (rlv::Rule &rule : rules)
        rule.target = {rlv::Target::Kind::accept, ""};
    const Fill fill = [&](const Host &host) { fillOurs(host, rules, settings); };
    const Packets outside = packetsBeside(rules, settings.packets);
    Lane none(
        "none", [](const Host &host) { fillByIptables(host, {}); }, outside);
    Lane beside("beside", fill, outside);
    Lane within("within", fill, packetsWithin(rules));
    measureInTurns({&none, &beside, &within}, settings.rounds);
    within.measureDearestAgain(settings.rounds);
    none.allMustHavePassed();
    beside.allMustHavePassed();
    within.allMustHavePassed();
    noneMayBeLeftFor("VPK-DENY", within.host());
    const double more = (within.worst() - beside.median()) / none.median();
    head(report);
    const auto price = [&](double ns) { return shown(ns / settings.unitNs, 0) + " " + settings.unit; };
    report.row({"a packet that an allow rule matches, the worst place of " + std::to_string(rules.size()),
                price(within.worst()), "a packet that nothing matches", price(beside.median()),
                shown(more) + " × empty chains more", "≤ " + shown(kMost, 1), report.verdict(more <= kMost)});
    report.row({"the same, the median of all places", price(within.median()), "a packet that nothing matches",
                price(beside.median()), shown((within.median() - beside.median()) / none.median()) + " × more", "-",
                "-"});
}

void pricesOfPlainLists(const Settings &settings, Report &report) {
    constexpr double kMost = 1.0 / 20;
    const Rules rules = randomAddresses(settings.rules);
    const Packets packets = packetsBeside(rules, settings.packets);
    const Packets few = firstOf(packets, settings.packetsOfLists);
    Lane ours(
        "ours", [&](const Host &host) { fillOurs(host, rules, settings); }, packets);
    Lane iptables(
        "iptables", [&](const Host &host) { fillByIptables(host, rules); }, few);
    Lane nft(
        "nft", [&](const Host &host) { fillByNft(host, rules); }, few);
    measureInTurns({&ours, &iptables, &nft}, settings.rounds);
    head(report);
    for (const Lane *other : {&iptables, &nft}) {
        other->allMustHavePassed();
        const double share = ours.median() / other->median();
        const auto price = [&](const Lane &lane) {
            return shown(lane.median() / settings.unitNs, 0) + " " + settings.unit;
        };
        report.row({"a packet beside " + beside(rules), price(ours),
                    std::string("plain list by ") + (other == &nft ? "nft" : "iptables"), price(*other),
                    "1/" + shown(1 / share, 1), "≤ 1/20", report.verdict(share <= kMost)});
    }
    ours.allMustHavePassed();
}

namespace {

struct StreamHost {
    StreamHost(const std::string &name, const Fill &fill) : host(name, Host::Takes::itsOwn) {
        fill(host);
        dropOffloads(host);
    }
    void measure(double seconds) { turns.push_back(gigabitsPerSecond(host, seconds)); }
    double median() const { return medianOf(turns); }

    Host host;
    std::vector<double> turns;
};

} // namespace

void streams(const Settings &settings, Report &report) {
    constexpr double kLeast = 0.9;
    const Rules rules = randomAddresses(settings.rules);
    StreamHost none("none", [](const Host &host) { fillByIptables(host, {}); });
    StreamHost list("list", [&](const Host &host) { fillByIptables(host, rules); });
    StreamHost ours("ours", [&](const Host &host) { fillOurs(host, rules, settings); });
    for (unsigned round = 0; round < settings.rounds; ++round) {
        for (StreamHost *host : {&none, &ours, &list})
            host->measure(settings.streamSeconds);
    }
    head(report);
    const auto speed = [](const StreamHost &host) { return shown(host.median()) + " Gbit/s"; };
    const auto ratio = [&](const StreamHost &host) { return ours.median() / host.median(); };
    const std::string work = "a TCP stream without offloads, " + beside(rules);
    report.row({work, speed(ours), "empty chains", speed(none), shown(ratio(none)) + " ×", "≥ 0.9 ×",
                report.verdict(ratio(none) >= kLeast)});
    report.row({work, speed(ours), "plain list by iptables", speed(list), shown(ratio(list)) + " ×", "-", "-"});
}

// Turn by turn into one empty host.
void loading(const Settings &settings, Report &report) {
    rlv::shape::Limits asList;
    asList.treeFrom = 0;
    const Rules rules = randomAddresses(settings.rules);
    const Laid list = lay(rules, asList);
    const Laid tree = lay(rules, settings.limits);
    const Host host("loading");
    std::vector<double> listMs;
    std::vector<double> treeMs;
    const auto load = [&](const Laid &laid) {
        const std::string text = restoreText(laid.chains);
        const auto begin = std::chrono::steady_clock::now();
        host.runThere({"iptables-restore"}, text);
        const auto spent = std::chrono::steady_clock::now() - begin;
        host.runThere({"iptables-restore"}, "*filter\nCOMMIT\n");
        return std::chrono::duration<double, std::milli>(spent).count();
    };
    for (unsigned round = 0; round < settings.rounds; ++round) {
        listMs.push_back(load(list));
        treeMs.push_back(load(tree));
    }
    head(report);
    report.row({"iptables-restore of the tree of " + std::to_string(tree.count) + " chains, " + beside(rules),
                shown(medianOf(treeMs), 0) + " ms", "iptables-restore of the plain list",
                shown(medianOf(listMs), 0) + " ms", shown(medianOf(treeMs) / medianOf(listMs)) + " ×", "-", "-"});
}

} // namespace packetpath
