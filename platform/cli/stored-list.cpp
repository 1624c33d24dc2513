#include "cli/stored-list.h"

#include <algorithm>

#include "cli/lower-case.h"
#include "cli/rule-meaning.h"
#include "cli/suggestion.h"
#include "host/method-names.h"
#include "rules/rule-list.h"

namespace cli {
namespace {

// Texts that are equal where rules mean the same; nothing for what the service would not take.
std::string meaningOf(const rules::Rule &rule) {
    const std::string text = rules::textOf(rule);
    const auto read = rules::readRule(text);
    if (read.problem || refusalOf(read))
        return {};
    std::string meaning;
    for (const Half &half : halvesOf(rule)) {
        meaning += half.inbound ? "in " : "out ";
        meaning += half.protocol ? std::to_string(*half.protocol) : "any";
        meaning += " " + std::to_string(half.address.address) + "/" + std::to_string(half.address.prefixLength) + " " +
                   half.name + " " + std::to_string(half.ports.first) + "-" + std::to_string(half.ports.last) + ";";
    }
    return meaning;
}

bool isOfKind(const KnownRule &known, std::optional<bool> allowed) {
    return allowed.value_or(known.allowed) == known.allowed;
}

bool areAlike(const std::string &one, const std::string &other) { return lowerCase(one) == lowerCase(other); }

bool differsInKindOrDirection(const rules::Rule &one, const rules::Rule &other) {
    return areAlike(one.protocol, other.protocol) && areAlike(one.address, other.address) && one.port == other.port;
}

} // namespace

StoredRules::StoredRules(const Json &document) {
    for (const auto &entry : document.value("rules", Json::array())) {
        KnownRule known;
        known.rule = {entry.value("protocol", ""), entry.value("domain", ""), entry.value("port", ""),
                      entry.value("direction", 0)};
        known.allowed = entry.value("action", "") == "allow";
        known.line = rules::lineOf(known.rule, known.allowed);
        lines_.emplace(known.line, rules_.size());
        rules_.push_back(std::move(known));
    }
}

StoredRules StoredRules::ask(const Session &session) {
    return StoredRules(parseDocument(textOf(session.call(host::kRulesMethod, mavo::rmi::Message()))));
}

const StoredRules::Places &StoredRules::meanings() const {
    if (meanings_.empty()) {
        for (std::size_t at = 0; at < rules_.size(); ++at)
            meanings_[meaningOf(rules_[at].rule)].push_back(at);
    }
    return meanings_;
}

// To the letter first: most of what is written down comes from here.
std::vector<const KnownRule *> StoredRules::like(const rules::Rule &rule, std::optional<bool> allowed) const {
    if (allowed) {
        const auto exact = lines_.find(rules::lineOf(rule, *allowed));
        if (exact != lines_.end())
            return {&rules_[exact->second]};
    }
    std::vector<const KnownRule *> found;
    const std::string meaning = meaningOf(rule);
    const auto places = meanings().find(meaning);
    if (meaning.empty() || places == meanings().end())
        return found;
    for (const std::size_t place : places->second) {
        if (isOfKind(rules_[place], allowed))
            found.push_back(&rules_[place]);
    }
    return found;
}

const KnownRule *StoredRules::nearest(const rules::Rule &rule, std::optional<bool> allowed) const {
    const auto first = [this](auto isMeant) -> const KnownRule * {
        const auto found = std::find_if(rules_.begin(), rules_.end(), isMeant);
        return found == rules_.end() ? nullptr : &*found;
    };
    const auto *const other = first([&](const KnownRule &known) { return differsInKindOrDirection(rule, known.rule); });
    if (other != nullptr)
        return other;
    Words lines;
    for (const auto &known : rules_)
        lines.emplace_back(known.line);
    std::string_view near;
    for (const bool asAllow : {true, false}) {
        if (near.empty() && allowed.value_or(asAllow) == asAllow)
            near = cli::nearest(rules::lineOf(rule, asAllow), lines);
    }
    if (!near.empty())
        return first([near](const KnownRule &known) { return known.line == near; });
    if (rule.address.empty())
        return nullptr;
    return first([&](const KnownRule &known) { return areAlike(known.rule.address, rule.address); });
}

} // namespace cli
