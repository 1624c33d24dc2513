#include "cli/checked-rules.h"

#include "cli/rule-meaning.h"

namespace cli {
namespace {

CheckedRule checkedRule(const WrittenRule &written, PortNames names) {
    CheckedRule checked{written, written.text, {}, {}, {}};
    auto read = rules::readRule(checked.text);
    if (names == PortNames::replaced)
        checked.numbered = numbered(read);
    if (checked.numbered) {
        checked.text = checked.numbered->text;
        read = rules::readRule(checked.text);
    }
    checked.rule = read.rule;
    checked.problem = read.problem ? read.problem : refusalOf(read);
    return checked;
}

} // namespace

std::vector<CheckedRule> checkedRules(const std::vector<WrittenRule> &written, PortNames names) {
    std::vector<CheckedRule> rules;
    rules.reserve(written.size());
    for (const auto &rule : written)
        rules.push_back(checkedRule(rule, names));
    return rules;
}

std::string describeProblem(const CheckedRule &rule) {
    return describe(behind(rule.written.place, rule.problem->offset)) + ": " + describe(*rule.problem);
}

} // namespace cli
