#include "host/rule-difference.h"

#include <algorithm>
#include <vector>

namespace host {
namespace {

// A rule, and how often it is there more.
struct Tally {
    std::string_view rule;
    std::int64_t count;
};

// The first line of what is left, without its "\n", taken off.
std::string_view takeLine(std::string_view &text) {
    const auto end = std::min(text.find('\n'), text.size());
    const auto line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

void tallyRules(std::string_view rules, std::int64_t count, std::vector<Tally> &tallies) {
    while (!rules.empty())
        tallies.push_back({takeLine(rules), count});
}

void tallyDifferences(std::string_view differences, std::vector<Tally> &tallies) {
    forEachInDifference(differences, [&](char sign, std::string_view rule) {
        tallies.push_back({rule, sign == '+' ? 1 : -1});
    });
}

// Calls `each` with what remains of every rule.
template <typename Each> void forEachSum(std::vector<Tally> &tallies, Each each) {
    std::sort(tallies.begin(), tallies.end(),
              [](const Tally &one, const Tally &other) { return one.rule < other.rule; });
    for (auto first = tallies.begin(); first != tallies.end();) {
        Tally sum{first->rule, 0};
        for (; first != tallies.end() && first->rule == sum.rule; ++first)
            sum.count += first->count;
        if (sum.count != 0)
            each(sum);
    }
}

void appendLines(const Tally &sum, const char *sign, std::string &lines) {
    for (auto left = std::abs(sum.count); left > 0; --left)
        lines.append(sign).append(sum.rule).append("\n");
}

std::string differenceOf(std::vector<Tally> &tallies) {
    std::string lines;
    forEachSum(tallies, [&](const Tally &sum) { appendLines(sum, sum.count > 0 ? "+" : "-", lines); });
    return lines;
}

// How many bytes of whole lines both begin with.
std::size_t commonLines(std::string_view one, std::string_view other) {
    const auto shorter = static_cast<std::ptrdiff_t>(std::min(one.size(), other.size()));
    const auto differs = std::mismatch(one.begin(), one.begin() + shorter, other.begin()).first;
    const auto end = one.substr(0, static_cast<std::size_t>(differs - one.begin())).rfind('\n');
    return end == std::string_view::npos ? 0 : end + 1;
}

} // namespace

std::string ruleLine(const StoredRule &rule) { return rules::lineOf(rule.rule, rule.allowed) + "\n"; }

// Most of what is compared is one list that has grown at its end: only the rest is sorted.
std::string differenceBetween(std::string_view before, std::string_view after) {
    const auto common = commonLines(before, after);
    std::vector<Tally> tallies;
    tallyRules(before.substr(common), -1, tallies);
    tallyRules(after.substr(common), 1, tallies);
    return differenceOf(tallies);
}

std::string netOf(std::string_view differences) {
    std::vector<Tally> tallies;
    tallyDifferences(differences, tallies);
    return differenceOf(tallies);
}

std::string reversed(std::string difference) {
    for (std::size_t line = 0; line < difference.size(); line = difference.find('\n', line) + 1)
        difference[line] = difference[line] == '+' ? '-' : '+';
    return difference;
}

std::string withDifference(std::string_view rules, std::string_view differences) {
    std::vector<Tally> tallies;
    tallyRules(rules, 1, tallies);
    tallyDifferences(differences, tallies);
    std::string lines;
    forEachSum(tallies, [&](const Tally &sum) {
        if (sum.count > 0)
            appendLines(sum, "", lines);
    });
    return lines;
}

DifferenceCounts countsOf(std::string_view difference) {
    DifferenceCounts counts;
    forEachInDifference(difference,
                        [&](char sign, std::string_view) { ++(sign == '+' ? counts.added : counts.removed); });
    return counts;
}

void forEachInDifference(std::string_view difference,
                         const std::function<void(char sign, std::string_view rule)> &each) {
    while (!difference.empty()) {
        const auto line = takeLine(difference);
        if (!line.empty())
            each(line.front(), line.substr(1));
    }
}

} // namespace host
