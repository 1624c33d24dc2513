#include "settings.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "lane.h"

namespace packetpath {

namespace {

constexpr double kWorst = 1.3;        // times the median
constexpr double kManyCostMore = 0.3; // times the price with empty chains

struct Bar {
    const char *form;
    double most; // times the price with empty chains
};
const std::vector<Bar> &bars() {
    static const std::vector<Bar> all{
        {"random addresses", 1.5},
        {"random addresses, both directions", 1.5},
        {"addresses in sequence", 1.5},
        {"nested networks", 1.5},
        {"nested networks, both directions", 1.5},
        {"ports of one address", 1.8},
        {"ports without address", 1.8},
        {"all four fields", 2.5},
    };
    return all;
}

std::optional<double> barOf(const char *form) {
    const auto found =
        std::find_if(bars().begin(), bars().end(), [&](const Bar &bar) { return std::strcmp(bar.form, form) == 0; });
    return found == bars().end() ? std::nullopt : std::optional<double>(found->most);
}

bool isWanted(const Settings &settings, const rulelists::Form &form) {
    return settings.forms.empty() ||
           std::find(settings.forms.begin(), settings.forms.end(), form.name) != settings.forms.end();
}

struct Prices {
    const char *form = nullptr;
    std::size_t rules = 0;
    double none = 0;                                   // in units
    double list = 0, median = 0, worst = 0, mixed = 0; // times that
    std::size_t longestWalk = 0;
    std::size_t chains = 0;
};

// Turn by turn: with empty chains, with the rules as a list, and as we lay them.
Prices measure(const Settings &settings, const rulelists::Form &form, std::size_t count) {
    const Rules rules = rulelists::make(form, count, 1);
    const Packets packets = packetsBeside(rules, settings.packets);
    const Packets few = firstOf(packets, settings.packetsOfLists);
    Lane none(
        "none", [&](const Host &host) { fillByIptables(host, {}); }, packets);
    Lane list(
        "list", [&](const Host &host) { fillByIptables(host, rules); }, few);
    Lane ours(
        "ours", [&](const Host &host) { fillOurs(host, rules, settings); }, packets);
    measureInTurns({&none, &ours, &list}, settings.rounds);
    ours.measureDearestAgain(settings.rounds);
    for (const Lane *lane : {&none, &list, &ours})
        lane->allMustHavePassed();
    const double base = none.median();
    const Laid laid = lay(rules, settings.limits);
    return {form.name,
            count,
            base / settings.unitNs,
            list.median() / base,
            ours.median() / base,
            ours.worst() / base,
            ours.mixed() / none.mixed(),
            laid.longestWalk,
            chainsIn(ours.host())};
}

void head(const Report &report) {
    report.head({"beside rules of the form", "rules", "empty chains", "plain list", "this system", "worst",
                 "all packets mixed", "longest walk", "chains", "bar", ""});
}

void tell(const Settings &settings, const Report &report, const Prices &prices, const std::string &bar,
          const std::string &verdict) {
    const auto times = [](double price) { return shown(price) + " ×"; };
    report.row({prices.form, std::to_string(prices.rules), shown(prices.none, 0) + " " + settings.unit,
                times(prices.list), times(prices.median), times(prices.worst), times(prices.mixed),
                std::to_string(prices.longestWalk), std::to_string(prices.chains), bar, verdict});
}

// The worst packet may not be much dearer than the others.
void judge(const Settings &settings, Report &report, const Prices &prices, double most) {
    const bool isKept = prices.median <= most && prices.worst <= kWorst * prices.median;
    tell(settings, report, prices, "≤ " + shown(most) + " ×, worst ≤ " + shown(kWorst, 1) + " × of it",
         report.verdict(isKept));
}

} // namespace

void pricesOfForms(const Settings &settings, Report &report) {
    head(report);
    for (const rulelists::Form &form : rulelists::forms()) {
        if (!isWanted(settings, form))
            continue;
        const Prices prices = measure(settings, form, settings.rules);
        const auto most = barOf(form.name);
        if (!most) {
            tell(settings, report, prices, "a gain", report.verdict(prices.median < prices.list));
            continue;
        }
        judge(settings, report, prices, *most);
        if (settings.manyRules > settings.rules)
            judge(settings, report, measure(settings, form, settings.manyRules), prices.median + kManyCostMore);
    }
}

void pricesOfAddresses(const Settings &settings, Report &report) {
    constexpr double kMostOfSmallMachine = 1.6;
    head(report);
    for (const char *name : {"random addresses", "addresses in sequence", "nested networks, both directions"}) {
        const rulelists::Form &form = rulelists::form(name);
        if (!isWanted(settings, form))
            continue;
        for (const std::size_t count : {1'000, 10'000})
            judge(settings, report, measure(settings, form, count), kMostOfSmallMachine);
    }
}

// Bars that a busy machine keeps, too.
void gains(const Settings &settings, Report &report) {
    head(report);
    for (const char *name : {"random addresses", "ports without address", "all four fields"}) {
        const rulelists::Form &form = rulelists::form(name);
        if (!isWanted(settings, form))
            continue;
        const Prices prices = measure(settings, form, settings.rules);
        tell(settings, report, prices, "≤ 4 ×, a third of the list",
             report.verdict(prices.median <= 4 && prices.median * 3 <= prices.list));
    }
}

} // namespace packetpath
