// Shapes, and the kernel that carries out what they want.
#ifndef TESTS_PLATFORM_RLV_SHAPE_SHAPES_H
#define TESTS_PLATFORM_RLV_SHAPE_SHAPES_H

#include <algorithm>
#include <map>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "kernel-chains.h"
#include "rlv/shape/chain-names.h"
#include "rlv/shape/shape.h"
#include "rlv/table/command.h"
#include "rlv/table/rule-text.h"
#include "support/rule-lists.h"

// So that an assertion can print them.
namespace rlv {
inline std::ostream &operator<<(std::ostream &stream, const Rule &rule) { return stream << describe(rule); }
} // namespace rlv

namespace shapes {

using kernelchains::Kernel;
using kernelchains::Passage;
using rlv::Rule;
using rlv::shape::Chains;
using rlv::shape::Id;
using rlv::shape::Limits;
using rlv::shape::LogicalRule;
using rlv::shape::Operation;
using rlv::shape::Operations;
using rlv::shape::Shape;

const char *const kChain = "VPK-DENY";
constexpr unsigned kMostJumps = 15;  // that the kernel takes
constexpr unsigned kJumpsAround = 2; // from INPUT, and to VPK-LOGANDDROP

inline Rule ruleFrom(const std::string &words) {
    return std::get<rlv::Command>(rlv::parseCommand("-A VPK-DENY " + words, "VPK-")).rule;
}

// A shape and the kernel that carries out what it wants. Ids are given in order.
class Chain {
public:
    explicit Chain(const Limits &limits = Limits(), const std::string &name = kChain)
        : limits_(limits), name_(name), kernel(name), shape(name, limits) {}

    Operations update(const std::vector<Id> &removed, const std::vector<Rule> &added) {
        std::vector<LogicalRule> rules;
        rules.reserve(added.size());
        for (const Rule &rule : added)
            rules.push_back({next_++, rule});
        result = shape.update(removed, rules, next_);
        kernel.carryOut(result.operations);
        return result.operations;
    }
    Operations add(const std::vector<Rule> &rules) { return update({}, rules); }
    void readAgain() { shape = Shape::read(name_, kernel.chains(), limits_); }
    std::vector<Id> ids() const {
        std::vector<Id> all;
        for (const LogicalRule &rule : shape.rules())
            all.push_back(rule.id);
        return all;
    }
    std::vector<Rule> rules() const {
        std::vector<Rule> all;
        for (const LogicalRule &rule : shape.rules())
            all.push_back(rule.rule);
        return all;
    }
    Id idOf(const Rule &rule) const {
        for (const LogicalRule &known : shape.rules()) {
            if (known.rule == rule)
                return known.id;
        }
        throw std::out_of_range("no such rule");
    }
    // A name of a sub-chain without branches.
    std::string leaf() const {
        for (const auto &[name, rules] : kernel.chains()) {
            const bool hasBranch = std::any_of(rules.begin(), rules.end(), [](const auto &rule) {
                return rule.rule && !rlv::shape::treeOf(rule.rule->target.text).empty();
            });
            if (name != name_ && !hasBranch)
                return name;
        }
        throw std::out_of_range("no leaf");
    }

private:
    Limits limits_;
    std::string name_;
    Id next_ = 1;

public:
    Kernel kernel;
    Shape shape;
    rlv::shape::Update result;
};

inline std::vector<Rule> someRules(std::size_t size, const std::string &form = "random addresses") {
    return rulelists::make(rulelists::form(form), size, 7);
}

inline std::vector<std::string> textsOf(const std::vector<Rule> &rules) {
    std::vector<std::string> texts;
    texts.reserve(rules.size());
    for (const Rule &rule : rules)
        texts.push_back(rlv::describe(rule));
    std::sort(texts.begin(), texts.end());
    return texts;
}

inline std::vector<std::string> textsOf(const Shape &shape) {
    std::vector<Rule> rules;
    for (const LogicalRule &rule : shape.rules())
        rules.push_back(rule.rule);
    return textsOf(rules);
}

inline std::map<std::string, std::vector<std::string>> textsOf(const Chains &chains) {
    std::map<std::string, std::vector<std::string>> texts;
    for (const auto &[name, rules] : chains) {
        for (const auto &rule : rules)
            texts[name].push_back(std::to_string(rule.id) + ": " + (rule.rule ? rlv::describe(*rule.rule) : "foreign"));
    }
    return texts;
}

// ---- lists ----------------------------------------------------------------------------------------------------------

} // namespace shapes

#endif
