#include "cli/documents-as-text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "cli/printable.h"
#include "cli/session.h"
#include "cli/terminal.h"
#include "host/firewall-plugin.h"
#include "rules/rule.h"

namespace cli {

std::string localTime(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    std::array<char, 64> text{};
    if (::localtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S %z", &parts) == 0)
        return std::to_string(seconds);
    return text.data();
}

namespace {

// A member that another version of the host does not have is empty.
std::string text(const Json &document, const char *member) { return document.value(member, std::string()); }

std::int64_t number(const Json &document, const char *member) { return document.value(member, std::int64_t{0}); }

const Json &part(const Json &document, const char *member) {
    static const Json nothing = Json::object();
    return document.contains(member) ? document.at(member) : nothing;
}

std::string nameOfStatus(std::int64_t status) { return status == 1 ? "enabled" : status == 0 ? "disabled" : "none"; }

std::string nameOfStored(const Json &document) {
    return document.contains("stored") ? nameOfStatus(number(document, "stored")) : "not known";
}

std::string databaseLine(const std::string &problem) { return problem.empty() ? "" : "database     " + problem + "\n"; }

std::string rebuildLine(const std::string &rebuild) { return rebuild.empty() ? "" : "rebuilding   " + rebuild + "\n"; }

// What others have done to the tables, and what became of it.
std::string othersLine(const Json &others) {
    const auto repairs = number(others, "repairs");
    const std::string problem = printable(text(others, "problem"));
    const auto seconds = number(others, "nextAttemptSeconds");
    if (repairs <= 0 && problem.empty())
        return "";
    const std::string name = printable(text(others, "processName"));
    std::string line =
        "others       changed the tables, put back " + (repairs == 1 ? "once" : std::to_string(repairs) + " times");
    line += name.empty() ? "" : "; last " + name + " (process " + std::to_string(number(others, "process")) + ")";
    line += problem.empty() ? "" : "; " + problem;
    return line + (seconds > 0 ? "; fights back: given up for " + std::to_string(seconds) + " s" : "") + "\n";
}

std::string databaseLines(const Json &remarks) {
    std::string lines;
    for (const auto &remark : remarks)
        lines += "database     " + printable(remark.get<std::string>()) + "\n";
    return lines;
}

std::string ageOf(const Json &name) {
    const std::int64_t since = number(name, "since");
    return since < 0 ? "of an unknown time" : "of " + localTime(since);
}

std::string reasonOf(const Json &name) {
    const std::string problem = text(name, "problem");
    return problem == "absent"    ? "the name does not exist"
           : problem == "tooMany" ? "it has too many addresses now"
                                  : "no name server answers";
}

// Nothing where no rule has a name.
std::string namesLines(const Json &names) {
    const std::int64_t inUse = number(names, "inUse");
    if (inUse == 0)
        return {};
    std::string lines = "host names   " + std::to_string(inUse) + " in use\n";
    for (const auto &name : part(names, "old"))
        lines += "             " + printable(text(name, "name")) + ": answer " + ageOf(name) + ", as " +
                 reasonOf(name) + (name.value("allows", false) ? "" : "; NOT in force where rules allow") + "\n";
    for (const auto &name : part(names, "none"))
        lines += "             " + printable(text(name, "name")) + ": NOT in force, " + reasonOf(name) + "\n";
    return lines;
}

std::string countsOf(const Json &counts) {
    return std::to_string(number(counts, "allow")) + " allow, " + std::to_string(number(counts, "deny")) + " deny";
}

std::string rulesLine(const Json &rules) {
    const bool isKnown = rules.contains("stored");
    std::string line = isKnown ? countsOf(rules["stored"]) + " stored" : "not known what is stored";
    if (rules.contains("inForce") && !isKnown)
        line += "; in force " + countsOf(rules["inForce"]);
    else if (rules.contains("inForce"))
        line += "; in force " + countsOf(rules["inForce"]) + " (" + countsOf(part(rules, "expected")) + " expected)";
    return line;
}

std::string walksLine(const Json &rules) {
    return rules.contains("longestWalk") ? "longest walk " + countsOf(rules["longestWalk"]) + "\n" : "";
}

std::string collectorLine(const Json &document) {
    const std::string problem = text(document, "collectorProblem");
    return text(document, "collector") + (problem.empty() ? "" : ": " + problem);
}

std::string problemLine(const char *name, const std::string &problem) {
    return problem.empty() ? "" : name + printable(problem) + "\n";
}

std::string lastReportLine(const std::string &seconds) {
    return seconds.empty() ? "none yet" : localTime(std::strtoll(seconds.c_str(), nullptr, 10));
}

std::string ruleLine(const Json &document) {
    const rules::Rule rule{text(document, "protocol"), text(document, "domain"), text(document, "port"),
                           static_cast<int>(number(document, "direction"))};
    return std::string(text(document, "action") == "allow" ? host::kApplyAllow : host::kApplyDeny) + " " +
           printable(rules::textOf(rule)) + "\n";
}

} // namespace

Json parseDocument(const std::string &written) {
    Json document = Json::parse(written, nullptr, false);
    if (!document.is_object())
        throw Exit(kNotCarriedOut, "the host's document is not understood");
    return document;
}

void showDocument(const std::string &document, bool asJson, std::string (*asText)(const Json &), std::size_t indent) {
    if (asJson)
        std::printf("%s\n", document.c_str());
    else
        show(stdout, asText(parseDocument(document)), indent);
}

int exitStatusOf(const Json &document, bool strict) {
    return static_cast<int>(document.value(strict ? "strictExitStatus" : "exitStatus", std::int64_t{1}));
}

std::string statusAsText(const Json &document) {
    return "plugin       " + nameOfStored(document) + " (stored), " + nameOfStatus(number(document, "applied")) +
           " (as last applied)\n" +                                                     //
           "firewall     " + printable(text(document, "summary")) + "\n" +              //
           rebuildLine(text(document, "rebuild")) +                                     //
           othersLine(part(document, "others")) +                                       //
           databaseLines(part(document, "databases")) +                                 //
           databaseLine(text(document, "databaseProblem")) +                            //
           "rules        " + rulesLine(part(document, "rules")) + "\n" +                //
           walksLine(part(document, "rules")) +                                         //
           namesLines(part(document, "names")) +                                        //
           "collector    " + collectorLine(document) + "\n" +                           //
           problemLine("settings     ", text(document, "settingsProblem")) +            //
           problemLine("privileges   ", text(document, "privilegesProblem")) +          //
           "last report  " + lastReportLine(text(document, "lastReport")) + "\n" +      //
           "covers       " + text(document, "families") + "; IPv6 passes unfiltered\n"; //
}

namespace {

std::string findingLine(const Json &finding) {
    constexpr std::size_t kKindWidth = 10;
    constexpr std::size_t kChainWidth = 14;
    const auto padded = [](std::string word, std::size_t width) {
        word.resize(std::max(word.size(), width), ' ');
        return word + "  ";
    };
    const std::string chain = text(finding, "chain");
    const std::string rule = text(finding, "rule");
    return padded(text(finding, "kind"), kKindWidth) + (chain.empty() ? "" : padded(chain, kChainWidth)) +
           (rule.empty() ? "" : rule + "  ") + "(" + text(finding, "advice") + ")";
}

} // namespace

std::string verificationAsText(const Json &document) {
    std::string lines;
    std::int64_t shown = 0;
    for (const auto &finding : part(document, "findings")) {
        lines += printable(findingLine(finding)) + "\n";
        ++shown;
    }
    std::int64_t all = 0;
    for (const char *kind : {"differences", "shadowed", "twice", "unanswered"})
        all += number(document, kind);
    if (all > shown)
        lines += "... and " + std::to_string(all - shown) + " more\n";
    return lines + databaseLine(printable(text(document, "databaseProblem"))) + rebuildLine(text(document, "rebuild")) +
           namesLines(part(document, "names")) + "firewall     " + printable(text(document, "summary")) + "\n";
}

std::string rulesAsText(const Json &document) {
    std::string lines;
    for (const auto &rule : part(document, "rules"))
        lines += ruleLine(rule);
    return lines;
}

std::string reportsAsText(const Json &document) {
    std::string lines;
    for (const auto &report : part(document, "reports")) {
        lines += localTime(number(report, "time")) + "  type " + std::to_string(number(report, "type")) + "/" +
                 std::to_string(number(report, "subtype")) + "  " + printable(text(report, "body")) + "\n";
    }
    return lines;
}

} // namespace cli
