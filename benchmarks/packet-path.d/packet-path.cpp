// packet-path [--row NAME]... [--form NAME]... [--rules N] [--many-rules N] [--packets N] [--rounds N] [--tree-from N]
//     [--fan-out N] [--port-fan-out N] [--leaf N] [--costly-leaf N] [--least N] [--short | --by-instructions NS |
//     --curves FILE]
//   What a packet pays that no rule is about, beside N rules (10,000): with the chains empty, with the rules as a plain
//   list, and as rlvd lays them (with --tree-from 64; with options about the tree's form as those say, by
//   iptables-restore). Each lies in a namespace of its own, and the packets come over a veth pair: what is timed is the
//   sending of one packet 64 times, with all that the receiving host does about it on the same processor. Turn by turn,
//   and of each packet's turns the median. Packets are drawn beside stored rules.
//   Rows: forms allowed lists stream loading.
//   --short                 a few packets and forms, in seconds
//   --by-instructions NS    the same for rules by address, on a machine whose clock counts instructions, so many ns
//   each
//   --curves FILE           the price over the number of rules, of all firewalls that are installed; FILE gets the
//   figures
//
// benchmarks/packet-path builds it and what it needs, and makes the plot. Exits with 1 when a bar is missed.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "price-report.h"
#include "settings.h"
#include "support/rule-lists.h"
#include "support/sandbox.h"

namespace {

using packetpath::Report;
using packetpath::Settings;

struct Row {
    const char *name;
    void (*measure)(const Settings &settings, Report &report);
    bool isOfAll; // where no row is named
};
const std::vector<Row> &rows() {
    static const std::vector<Row> all{
        {"forms", packetpath::pricesOfForms, true},
        {"allowed", packetpath::priceOfAllowed, true},
        {"lists", packetpath::pricesOfPlainLists, true},
        {"stream", packetpath::streams, true},
        {"loading", packetpath::loading, true},
        {"gains", packetpath::gains, false},
        {"addresses", packetpath::pricesOfAddresses, false},
        {"curves", packetpath::curves, false},
    };
    return all;
}

// Stays on this processor.
void settleDown() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &set);
    (void)::sched_setaffinity(0, sizeof set, &set);
}

int measure(const Settings &settings) {
    settleDown();
    Report report;
    for (const Row &row : rows()) {
        const auto named = std::find(settings.rows.begin(), settings.rows.end(), row.name);
        if (settings.rows.empty() ? !row.isOfAll : named == settings.rows.end())
            continue;
        row.measure(settings, report);
    }
    return report.isMissed() ? EXIT_FAILURE : EXIT_SUCCESS;
}

struct Option {
    const char *word;
    bool hasValue;
    std::function<void(const char *)> set;
};

std::size_t numberOf(const char *word) {
    char *end = nullptr;
    const unsigned long long number = std::strtoull(word, &end, 10);
    if (end == word || *end != '\0')
        throw std::invalid_argument(std::string("packet-path: not a number: ") + word);
    return static_cast<std::size_t>(number);
}

const char *rowOf(const char *word) {
    const auto known =
        std::find_if(rows().begin(), rows().end(), [&](const Row &row) { return std::strcmp(row.name, word) == 0; });
    if (known == rows().end())
        throw std::invalid_argument(std::string("packet-path: there is no row ") + word);
    return known->name;
}

void shorten(Settings &settings) {
    settings.rows = {"gains"};
    settings.rules = 4'000;
    settings.packets = 100;
    settings.packetsOfLists = 4;
    settings.rounds = 3;
}

void countInstructions(Settings &settings, const char *nsForEach) {
    settings.rows = {"addresses"};
    settings.unitNs = static_cast<double>(numberOf(nsForEach));
    settings.unit = "instructions";
    settings.packets = 50;
    settings.packetsOfLists = 2;
    settings.rounds = 3;
}

std::vector<Option> optionsFor(Settings &settings) {
    const auto number = [](auto &to) {
        return [&to](const char *word) { to = static_cast<std::decay_t<decltype(to)>>(numberOf(word)); };
    };
    const auto tuned = [&](std::size_t &to) {
        return [&](const char *word) {
            to = numberOf(word);
            settings.isTuned = true;
        };
    };
    auto &tuning = settings.limits.tuning;
    return {{"--short", false, [&](const char *) { shorten(settings); }},
            {"--by-instructions", true, [&](const char *word) { countInstructions(settings, word); }},
            {"--curves", true,
             [&](const char *word) {
                 settings.rows = {"curves"};
                 settings.curvesFile = word;
             }},
            {"--row", true, [&](const char *word) { settings.rows.emplace_back(rowOf(word)); }},
            {"--form", true, [&](const char *word) { settings.forms.emplace_back(rulelists::form(word).name); }},
            {"--rules", true, number(settings.rules)},
            {"--many-rules", true, number(settings.manyRules)},
            {"--packets", true, number(settings.packets)},
            {"--rounds", true, number(settings.rounds)},
            {"--tree-from", true, number(settings.limits.treeFrom)},
            {"--fan-out", true, tuned(tuning.networkFanOut)},
            {"--port-fan-out", true, tuned(tuning.portFanOut)},
            {"--leaf", true, tuned(tuning.leafRules)},
            {"--costly-leaf", true, tuned(tuning.costlyLeafRules)},
            {"--least", true, tuned(tuning.leastRules)}};
}

Settings parse(int argc, char **argv) {
    Settings settings;
    const std::vector<Option> options = optionsFor(settings);
    for (int i = 1; i < argc; ++i) {
        const auto known = std::find_if(options.begin(), options.end(),
                                        [&](const Option &option) { return std::strcmp(option.word, argv[i]) == 0; });
        if (known == options.end() || (known->hasValue && i + 1 == argc))
            throw std::invalid_argument(std::string("packet-path: not understood: ") + argv[i]);
        known->set(known->hasValue ? argv[++i] : "");
    }
    return settings;
}

} // namespace

int main(int argc, char **argv) {
    try {
        const Settings settings = parse(argc, argv);
        return sandbox::run([&] {
            try {
                return measure(settings);
            } catch (const std::exception &error) {
                std::fprintf(stderr, "packet-path: %s\n", error.what());
                return 2;
            }
        });
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    }
}
