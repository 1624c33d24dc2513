#include "cli/documents-as-text.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "cli/session.h"

namespace cli {
namespace {

std::string nameOfStatus(int status) { return status == 1 ? "enabled" : status == 0 ? "disabled" : "none"; }

std::string timeOf(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    std::array<char, 64> text{};
    if (::localtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S %z", &parts) == 0)
        return std::to_string(seconds);
    return text.data();
}

// Chains, jumps and rules.
std::vector<std::string> missingParts(const Json::Value &document) {
    std::vector<std::string> missing;
    for (const auto &part : document["missing"])
        missing.push_back(part.asString());
    const auto &rules = document["rules"];
    for (const char *kind : {"allow", "deny"}) {
        if (rules.isMember("inForce") && rules["inForce"][kind].asInt64() < rules["expected"][kind].asInt64())
            missing.push_back(std::string(kind) + " rules");
    }
    return missing;
}

std::string inForceLine(const Json::Value &document) {
    const std::string problem = document["serviceProblem"].asString();
    if (!problem.empty())
        return "not known: " + problem;
    std::string line;
    for (const auto &part : missingParts(document))
        line += (line.empty() ? "NOT in force, missing: " : ", ") + part;
    return (line.empty() ? "in force" : line) +
           (document["simulated"].asBool() ? " (simulated: the kernel is not touched)" : "");
}

std::string rebuildLine(const std::string &rebuild) { return rebuild.empty() ? "" : "rebuilding   " + rebuild + "\n"; }

std::string countsOf(const Json::Value &counts) {
    return std::to_string(counts["allow"].asInt64()) + " allow, " + std::to_string(counts["deny"].asInt64()) + " deny";
}

std::string rulesLine(const Json::Value &rules) {
    std::string line = countsOf(rules["stored"]) + " stored";
    if (rules.isMember("inForce"))
        line += "; in force " + countsOf(rules["inForce"]) + " (at least " + countsOf(rules["expected"]) + " expected)";
    return line;
}

std::string collectorLine(const Json::Value &document) {
    const std::string problem = document["collectorProblem"].asString();
    return document["collector"].asString() + (problem.empty() ? "" : ": " + problem);
}

std::string lastReportLine(const std::string &seconds) {
    return seconds.empty() ? "none yet" : timeOf(std::strtoll(seconds.c_str(), nullptr, 10));
}

std::string orAny(const std::string &field) { return field.empty() ? "*" : printable(field); }

std::string ruleLine(const Json::Value &rule) {
    constexpr std::array<const char *, 3> kDirections = {"bid", "in", "out"};
    std::string port = rule["port"].asString();
    std::replace(port.begin(), port.end(), ':', '-');
    const auto direction = rule["direction"].asUInt();
    return (rule["action"].asString() == "allow" ? "ApplyAllowRules " : "ApplyDenyRules ") +
           orAny(rule["protocol"].asString()) + ":" + orAny(rule["domain"].asString()) + ":" + orAny(port) + ":" +
           kDirections.at(direction < kDirections.size() ? direction : 0) + "\n";
}

} // namespace

std::string printable(const std::string &text) {
    std::string safe;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        std::array<char, 8> escape{};
        std::snprintf(escape.data(), escape.size(), "\\x%02x", byte);
        safe += byte < 0x20 || byte == 0x7f ? std::string(escape.data()) : std::string(1, c);
    }
    return safe;
}

Json::Value parseDocument(const std::string &text) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value document;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &document, &errors) || !document.isObject())
        throw Exit(kNotCarriedOut, "the host's document is not understood");
    return document;
}

bool wholeInForce(const Json::Value &document) {
    return document["inForce"].asBool() && document["serviceProblem"].asString().empty() &&
           missingParts(document).empty() && document["rebuild"].asString().empty();
}

std::string statusAsText(const Json::Value &document) {
    return "plugin       " + nameOfStatus(document["stored"].asInt()) + " (stored), " +
           nameOfStatus(document["applied"].asInt()) + " (as last applied)\n" +              //
           "firewall     " + inForceLine(document) + "\n" +                                  //
           rebuildLine(document["rebuild"].asString()) +                                     //
           "rules        " + rulesLine(document["rules"]) + "\n" +                           //
           "collector    " + collectorLine(document) + "\n" +                                //
           "last report  " + lastReportLine(document["lastReport"].asString()) + "\n" +      //
           "covers       " + document["families"].asString() + "; IPv6 passes unfiltered\n"; //
}

std::string rulesAsText(const Json::Value &document) {
    std::string text;
    for (const auto &rule : document["rules"])
        text += ruleLine(rule);
    return text;
}

std::string reportsAsText(const Json::Value &document) {
    std::string text;
    for (const auto &report : document["reports"]) {
        text += timeOf(report["time"].asInt64()) + "  type " + report["type"].asString() + "/" +
                report["subtype"].asString() + "  " + printable(report["body"].asString()) + "\n";
    }
    return text;
}

} // namespace cli
