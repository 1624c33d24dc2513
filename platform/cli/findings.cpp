#include "cli/findings.h"

#include <algorithm>
#include <array>
#include <map>
#include <tuple>

#include "cli/coverage.h"

namespace cli {
namespace {

struct KindName {
    FindingKind kind;
    std::string_view name;
    bool isMistake;
};
constexpr std::array<KindName, 9> kKinds = {{{FindingKind::refused, "REFUSED", true},
                                             {FindingKind::both, "BOTH", true},
                                             {FindingKind::replaced, "REPLACED", true},
                                             {FindingKind::comment, "COMMENT", true},
                                             {FindingKind::twice, "TWICE", false},
                                             {FindingKind::contained, "CONTAINED", false},
                                             {FindingKind::covered, "COVERED", false},
                                             {FindingKind::denied, "DENIED", false},
                                             {FindingKind::ignored, "IGNORED", false}}};

const KindName &entryOf(FindingKind kind) {
    return *std::find_if(kKinds.begin(), kKinds.end(), [kind](const KindName &entry) { return entry.kind == kind; });
}

using Kind = std::optional<bool>; // of a rule: to be allowed, or denied, or not said

std::string nounOf(Kind allowed) { return !allowed ? "rule" : *allowed ? "allow rule" : "deny rule"; }

// Looks at rules one after the other, then at those that are left together.
class Search {
public:
    explicit Search(const std::vector<CheckedRule> &rules) : rules_(rules), halves_(rules.size()) {
        const auto says = [](const CheckedRule &rule) { return rule.written.allowed.has_value(); };
        someSay_ = std::any_of(rules.begin(), rules.end(), says);
    }

    std::vector<Finding> run() {
        for (std::size_t number = 0; number < rules_.size(); ++number) {
            if (isGood(number) && isNew(number))
                left_.push_back(number);
        }
        compareThoseLeft();
        std::stable_sort(found_.begin(), found_.end(),
                         [](const Numbered &one, const Numbered &other) { return one.number < other.number; });
        std::vector<Finding> findings;
        for (auto &found : found_)
            findings.push_back(std::move(found.finding));
        return findings;
    }

private:
    struct Numbered {
        std::size_t number; // of the rule
        Finding finding;
    };

    const WrittenRule &written(std::size_t number) const { return rules_[number].written; }

    void add(FindingKind kind, std::size_t number, const std::string &message, const std::vector<std::size_t> &others) {
        Finding finding{kind, written(number).place, written(number).text, {}, {}, message, {}};
        for (const std::size_t other : others)
            finding.others.push_back(written(other).place);
        found_.push_back({number, std::move(finding)});
    }

    // "tcp:10.0.0.5:80:out" at rules.txt:3:1
    std::string reference(std::size_t number) const {
        return rules::quoted(written(number).text) + " at " + describe(written(number).place);
    }

    bool isGood(std::size_t number) {
        const CheckedRule &rule = rules_[number];
        std::optional<rules::Problem> problem = rule.problem;
        if (!problem && someSay_ && !written(number).allowed)
            problem = rules::Problem{0, rule.written.text, "the line begins neither with allow nor with deny",
                                     "all lines do, or none"};
        if (problem)
            found_.push_back({number,
                              {FindingKind::refused,
                               behind(written(number).place, problem->offset),
                               rule.written.text,
                               problem->refused,
                               problem->accepted,
                               describe(*problem),
                               {}}});
        return !problem;
    }

    // The database has one rule for each protocol, address and port.
    bool isNew(std::size_t number) {
        const rules::Rule &rule = rules_[number].rule;
        const auto [known, inserted] = known_.emplace(std::tie(rule.protocol, rule.address, rule.port), number);
        if (inserted)
            return true;
        const std::size_t other = known->second;
        const bool sameKind = written(number).allowed == written(other).allowed;
        if (rules_[other].rule.direction != rule.direction)
            add(FindingKind::replaced, number,
                "it has the protocol, address and port of " + reference(other) +
                    ", of which one rule is stored: the last; for both directions give none",
                {other});
        else if (sameKind)
            add(FindingKind::twice, number, "it stands already: " + reference(other), {other});
        else
            add(FindingKind::both, number, "the same rule is to be allowed and denied: " + reference(other), {other});
        return false;
    }

    void compareThoseLeft() {
        std::map<Kind, std::vector<Coverage::Member>> members;
        for (const std::size_t number : left_) {
            halves_[number] = halvesOf(rules_[number].rule);
            for (const Half &half : halves_[number])
                members[written(number).allowed].push_back({half, number});
        }
        std::map<Kind, Coverage> coverages;
        for (const auto &[kind, ofKind] : members)
            coverages.emplace(kind, ofKind);
        const auto allowing = coverages.find(Kind(true));
        for (const std::size_t number : left_) {
            const bool mayBeCovered = written(number).allowed == Kind(false) && allowing != coverages.end();
            if (!mayBeCovered || !isCovered(number, allowing->second))
                findContainers(number, coverages.at(written(number).allowed));
        }
    }

    // By which all halves of a rule are contained; none where one half is not.
    template <typename ContainerOf> std::vector<std::size_t> containersOf(std::size_t number, ContainerOf containerOf) {
        std::vector<std::size_t> containers;
        for (const Half &half : halves_[number]) {
            const std::optional<std::size_t> container = containerOf(half);
            if (!container)
                return {};
            if (containers.empty() || containers.front() != *container)
                containers.push_back(*container);
        }
        return containers;
    }

    std::string references(const std::vector<std::size_t> &numbers) const {
        std::string text;
        for (const std::size_t number : numbers)
            text += (text.empty() ? "" : " and ") + reference(number);
        return text;
    }

    bool isCovered(std::size_t number, const Coverage &allowing) {
        const auto containers = containersOf(number, [&](const Half &half) { return allowing.containerOf(half); });
        if (!containers.empty())
            add(FindingKind::covered, number,
                "it denies nothing: an allow rule decides before it: " + references(containers), containers);
        return !containers.empty();
    }

    void findContainers(std::size_t number, const Coverage &ofKind) {
        const auto containers = containersOf(number, [&](const Half &half) {
            return ofKind.containerOf(Coverage::Member{half, number});
        });
        if (containers.empty())
            return;
        if (containers.size() == 1 && halves_[containers.front()] == halves_[number])
            return add(FindingKind::twice, number, "it means the same as " + reference(containers.front()), containers);
        add(FindingKind::contained, number,
            "a wider " + nounOf(written(number).allowed) + " does the same: " + references(containers), containers);
    }

    const std::vector<CheckedRule> &rules_;
    bool someSay_ = false; // whether to allow or to deny
    std::vector<std::vector<Half>> halves_;
    std::map<std::tuple<std::string, std::string, std::string>, std::size_t> known_;
    std::vector<std::size_t> left_;
    std::vector<Numbered> found_;
};

} // namespace

std::string_view nameOf(FindingKind kind) { return entryOf(kind).name; }

bool isMistake(FindingKind kind) { return entryOf(kind).isMistake; }

Json findingAsJson(const Finding &finding) {
    Json others = Json::array();
    for (const auto &place : finding.others)
        others.push_back({{"line", place.line}, {"column", place.column}});
    return {{"kind", nameOf(finding.kind)},
            {"isMistake", isMistake(finding.kind)},
            {"line", finding.place.line},
            {"column", finding.place.column},
            {"rule", finding.rule},
            {"refused", finding.refused},
            {"accepted", finding.accepted},
            {"message", finding.message},
            {"others", others}};
}

std::vector<Finding> findingsOf(const std::vector<CheckedRule> &rules) { return Search(rules).run(); }

} // namespace cli
