#include "cli/explanations.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <tuple>
#include <vector>

#include "cli/documents-as-text.h"
#include "cli/terminal.h"
#include "host/method-names.h"
#include "host/remarks.h"
#include "rules/rule-list.h"

namespace cli {
namespace {

using rules::ReadRule;

bool isControl(char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; }

std::string ruleNumber(std::size_t index, std::size_t count) {
    return count == 1 ? "the rule is refused: "
                      : "rule " + std::to_string(index + 1) + " of " + std::to_string(count) + " is refused: ";
}

// Says what the first refused rule has; false when all can be read.
bool sayFirstProblem(const std::vector<ReadRule> &rules, const std::string &where) {
    const auto wrong =
        std::find_if(rules.begin(), rules.end(), [](const ReadRule &rule) { return rule.problem.has_value(); });
    if (wrong == rules.end())
        return false;
    say(where + ruleNumber(static_cast<std::size_t>(wrong - rules.begin()), rules.size()) + describe(*wrong->problem));
    return true;
}

// Lines never are a list: one that holds any was meant to have a rule on each.
void explainLines(const SentRules &sent) {
    std::string_view rest = sent.list;
    for (std::size_t number = 1; !rest.empty(); ++number) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        std::string_view line = rest.substr(0, end);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        const std::string where = sent.source + ", line " + std::to_string(number) + ": ";
        if (sayFirstProblem(rules::readRules(line), where))
            break;
        if (std::any_of(line.begin(), line.end(), isControl)) {
            say(where + "a rule holds no control characters");
            break;
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    if (sent.list.find('\n') != std::string::npos)
        say("rules are joined by \";\", not by line breaks: grep . " + (sent.isFile ? sent.source : "FILE") +
            " | paste -sd ';' | " + sent.nextCommand);
}

using Fields = std::tuple<bool, std::string, std::string, std::string, int>; // of a stored rule; true: it allows

std::set<Fields> storedRules(const Json &document) {
    std::set<Fields> stored;
    for (const auto &rule : document.value("rules", Json::array()))
        stored.emplace(rule.value("action", "") == "allow", rule.value("protocol", ""), rule.value("domain", ""),
                       rule.value("port", ""), rule.value("direction", 0));
    return stored;
}

// "1-3, 7", or "none".
std::string numbered(const std::vector<bool> &chosen) {
    std::string text;
    for (std::size_t at = 0; at < chosen.size(); ++at) {
        if (!chosen[at])
            continue;
        const std::size_t first = at;
        while (at + 1 < chosen.size() && chosen[at + 1])
            ++at;
        text +=
            (text.empty() ? "" : ", ") + std::to_string(first + 1) + (at > first ? "-" + std::to_string(at + 1) : "");
    }
    return text.empty() ? "none" : text;
}

std::string storedAs(const std::set<Fields> &stored, const std::vector<ReadRule> &rules, bool allow) {
    std::vector<bool> isStored;
    std::vector<bool> isNot;
    for (const auto &[text, rule, problem] : rules) {
        isStored.push_back(!problem &&
                           stored.count({allow, rule.protocol, rule.address, rule.port, rule.direction}) != 0);
        isNot.push_back(!isStored.back());
    }
    return std::string(allow ? "allow" : "deny") + " rules stored now: " + numbered(isStored) +
           "; not stored: " + numbered(isNot);
}

std::string inForceRemark(const Session &session) {
    const auto status = session.look(host::kStatusMethod);
    if (!status)
        return "whether what is stored is in force cannot be seen";
    return exitStatusOf(parseDocument(*status), false) == 0
               ? "what is stored is in force"
               : "what is stored is not known to be in force: see vpkctl status";
}

void sayWhatIsStored(const Session &session, const SentRules &sent, const std::vector<ReadRule> &rules) {
    const auto document = session.look(host::kRulesMethod);
    if (!document)
        return say("which rules of the list are stored now cannot be seen: see vpkctl rules");
    const auto stored = storedRules(parseDocument(*document));
    for (const bool allow : {true, false}) {
        if (allow ? sent.asAllow : sent.asDeny)
            say("of the " + std::to_string(rules.size()) + " rules of the list, as " + storedAs(stored, rules, allow));
    }
    say(inForceRemark(session));
}

bool isDisabled(const Session &session) {
    const auto status = session.look(host::kStatusMethod);
    return status && parseDocument(*status).value("applied", -1) == 0;
}

void explainSilence(const Session &session, const PluginCommand &command, const std::string &data) {
    const std::string name(command.name);
    if (isDisabled(session))
        say("the plugin is disabled and refuses all commands; vpkctl set-status 1 enables it");
    else if (command.data == CommandData::rules && data.empty())
        say(name +
            " needs data, and got none: rules joined by \";\", such as 'tcp:10.0.0.5:80:out', or @FILE, or - for "
            "standard input");
    else if (command.data == CommandData::policy && data.empty())
        say(name + R"( needs data, and got none: {"ALLOW":[rules],"DENY":[rules]}, or @FILE, or - for standard input)");
    else
        say("the plugin gave no reason; its log may tell more");
}

} // namespace

void explainRules(const Session &session, const SentRules &sent) {
    if (std::any_of(sent.list.begin(), sent.list.end(), isControl))
        return explainLines(sent);
    const auto rules = rules::readRules(sent.list);
    const bool fromElsewhere = sent.source != "the data";
    if (!sayFirstProblem(rules, fromElsewhere ? sent.source + ", " : "")) {
        const auto ipv6 = std::find_if(rules.begin(), rules.end(),
                                       [](const ReadRule &rule) { return rules::looksLikeIpv6(rule.text); });
        if (ipv6 != rules.end())
            say("\"" + std::string(ipv6->text) + "\" may hold an IPv6 address; rules are about IPv4 only");
    }
    if (rules.size() > 1)
        sayWhatIsStored(session, sent, rules);
}

void explainFailure(const Session &session, const std::string &command, const std::string &data, const SentRules &rules,
                    const mavo::rmi::Reply &reply) {
    const PluginCommand other{command, CommandData::none, host::RuleEffect::none, host::RuleKinds::none, false};
    const auto *const known = findNamed(kPluginCommands, command);
    const bool isSilent = host::decodeRemarks(reply.remarks).isEmpty();
    if (isSilent && (known != nullptr || isDisabled(session)))
        return explainSilence(session, known != nullptr ? *known : other, data);
    if (known == nullptr)
        return say(noSuchCommand(command));
    if (known->data == CommandData::rules || known->data == CommandData::policy)
        explainRules(session, rules);
}

} // namespace cli
