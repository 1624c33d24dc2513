#include "faults/arguments.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <stdexcept>

namespace faults {
namespace {

constexpr std::size_t kShownOfEach = 8;
constexpr const char *kClasses[] = {"not tried", "held", "VIOLATED", "not reached", "BROKEN HARNESS"};

} // namespace

bool Arguments::has(const std::string &name) const {
    return std::find(words_.begin(), words_.end(), name) != words_.end();
}

std::vector<std::string> Arguments::all(const std::string &name) const {
    std::vector<std::string> values;
    for (auto at = words_.begin(); (at = std::find(at, words_.end(), name)) != words_.end();) {
        if (++at == words_.end())
            throw std::invalid_argument(name + " needs a value");
        values.push_back(*at);
    }
    return values;
}

long Arguments::number(const std::string &name, long usual) const {
    const auto values = all(name);
    return values.empty() ? usual : std::stol(values.back());
}

int report(const char *harness, const std::vector<Result> &results,
           const std::function<std::string(std::size_t)> &nameOfPoint, bool all) {
    if (results.empty())
        return 0;
    std::map<std::string, std::size_t> counts;
    std::size_t wrong = 0;
    std::size_t held = 0;
    for (std::size_t i = 0; i < results.size(); ++i) {
        const Result &result = results[i];
        const std::string kind =
            kClasses[static_cast<int>(result.outcome)] + (result.kind.empty() ? std::string() : ": " + result.kind);
        const std::size_t number = ++counts[kind];
        held += result.outcome == Class::held ? 1 : 0;
        const bool bad = result.outcome == Class::violated || result.outcome == Class::broken;
        wrong += bad ? 1 : 0;
        if (bad && (all || number <= kShownOfEach))
            std::printf("%s  %s  %s\n", kind.c_str(), nameOfPoint(i).c_str(), result.text.c_str());
    }
    for (const auto &[kind, count] : counts)
        std::printf("%s: %7zu %s\n", harness, count, kind.c_str());
    std::printf("%s: %zu tried, %zu wrong\n", harness, held + wrong, wrong);
    return wrong == 0 && held > 0 ? 0 : 1;
}

} // namespace faults
