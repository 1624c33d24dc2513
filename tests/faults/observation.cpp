#include "faults/observation.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <unistd.h>

#include "support/process.h"
#include "support/sqlite-file.h"
#include "support/whole-system.h"

namespace faults {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr const char *kCopies = "/run/looked-at";

const Lines kHooks{"-j VPK-ALLOW", "-j VPK-DENY"};
const Lines kLogAndDrop{"-j LOG --log-prefix \"IPTables-Dropped:\"", "-j DROP"};

std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> fields;
    std::istringstream stream(text + "|");
    for (std::string field; std::getline(stream, field, '|');)
        fields.push_back(field);
    return fields;
}

// As SQLite reads what is damaged without its knowing.
int numberIn(const std::string &text) { return static_cast<int>(std::strtol(text.c_str(), nullptr, 10)); }

void readInto(const std::string &copy, Stored &stored) {
    // The first reader rolls a journal back, for which it must be allowed to write.
    sqlitefile::execute(copy, "BEGIN IMMEDIATE; ROLLBACK");
    const auto findings = sqlitefile::query(copy, "PRAGMA integrity_check");
    if (findings != Lines{"ok"})
        throw std::runtime_error(findings.empty() ? "no answer" : findings.front());
    for (const auto &line : sqlitefile::query(copy, "SELECT protocol, domain, port, direction, is_allowed"
                                                    " FROM firewall_rules")) {
        const auto fields = split(line);
        if (fields.size() != 5)
            throw std::runtime_error("a row of " + std::to_string(fields.size()) + " fields");
        stored.rows.push_back({fields[0], fields[1], fields[2], numberIn(fields[3]), numberIn(fields[4])});
    }
    stored.rows = sorted(std::move(stored.rows));
}

auto keyOf(const Row &row) { return std::tie(row.protocol, row.domain, row.port, row.direction, row.isAllowed); }

Lines sortedLines(Lines lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

void describe(const char *chain, const Lines &wanted, const Lines &found, std::string &text) {
    for (const auto &rule : wanted) {
        if (std::count(found.begin(), found.end(), rule) < std::count(wanted.begin(), wanted.end(), rule))
            text += std::string(" missing in ") + chain + ": " + rule + ";";
    }
    for (const auto &rule : found) {
        if (std::count(found.begin(), found.end(), rule) > std::count(wanted.begin(), wanted.end(), rule))
            text += std::string(" too much in ") + chain + ": " + rule + ";";
    }
    if (text.empty() && wanted != found)
        text += std::string(" other order in ") + chain + ";";
}

} // namespace

Rows sorted(Rows rows) {
    std::sort(rows.begin(), rows.end(), [](const Row &left, const Row &right) { return keyOf(left) < keyOf(right); });
    return rows;
}

Stored readStored(const std::string &path) try {
    if (!fs::exists(path))
        return {"is missing", {}};
    fs::remove_all(kCopies);
    fs::create_directories(kCopies);
    const std::string copy = std::string(kCopies) + "/copy";
    fs::copy_file(path, copy);
    if (fs::exists(path + "-journal"))
        fs::copy_file(path + "-journal", copy + "-journal");
    Stored stored;
    readInto(copy, stored);
    return stored;
} catch (const std::exception &error) {
    return {error.what(), {}};
}

// The rule, where the line is one of the chain or of its sub-chains, and no branch to one of these.
std::optional<std::string> ruleOf(const std::string &chain, const std::string &line) {
    const std::string start = "-A " + chain;
    const std::size_t space = line.find(' ', start.size());
    const bool isOfChain = line.compare(0, start.size(), start) == 0 && space != std::string::npos &&
                           (space == start.size() || line[start.size()] == '.');
    if (!isOfChain || line.find("-j " + chain + ".") != std::string::npos)
        return std::nullopt;
    return line.substr(space + 1);
}

Kernel readKernel() {
    const auto listing = process::capture({"iptables", "-w", "-S"});
    Kernel kernel;
    if (listing.status != 0) {
        kernel.problem = listing.errors.empty() ? "iptables failed" : listing.errors;
        return kernel;
    }
    const std::pair<std::string, Lines *> chains[] = {{"VPK-ALLOW", &kernel.allow},
                                                      {"VPK-DENY", &kernel.deny},
                                                      {"VPK-LOGANDDROP", &kernel.logAndDrop},
                                                      {"INPUT", &kernel.input},
                                                      {"OUTPUT", &kernel.output}};
    std::istringstream lines(listing.output);
    for (std::string line; std::getline(lines, line);) {
        for (const auto &[chain, rules] : chains) {
            if (auto rule = ruleOf(chain, line))
                rules->push_back(std::move(*rule));
        }
    }
    kernel.allow = sortedLines(std::move(kernel.allow));
    kernel.deny = sortedLines(std::move(kernel.deny));
    return kernel;
}

Observation observe() {
    return {readStored(wholesystem::kRuleDatabase), readStored(wholesystem::kRuleBackup), readKernel()};
}

Kernel kernelOf(const Rows &rows) {
    Kernel kernel;
    for (const auto &row : rows) {
        for (const bool inbound : {true, false}) {
            const bool covered = row.direction != (inbound ? 2 : 1); // any number but these two is both
            const auto rule =
                firewall_oracle::kernelRule(row, inbound, row.isAllowed != 0 ? "ACCEPT" : "VPK-LOGANDDROP");
            if (covered && rule)
                (row.isAllowed != 0 ? kernel.allow : kernel.deny).push_back(*rule);
        }
    }
    kernel.allow = sortedLines(std::move(kernel.allow));
    kernel.deny = sortedLines(std::move(kernel.deny));
    kernel.logAndDrop = kLogAndDrop;
    kernel.input = kHooks;
    kernel.output = kHooks;
    return kernel;
}

bool operator==(const Kernel &left, const Kernel &right) {
    return std::tie(left.problem, left.allow, left.deny, left.logAndDrop, left.input, left.output) ==
           std::tie(right.problem, right.allow, right.deny, right.logAndDrop, right.input, right.output);
}

std::string textOf(const Rows &rows) {
    std::string text = std::to_string(rows.size()) + " rules";
    for (const auto &row : rows)
        text += " " + std::string(row.isAllowed != 0 ? "+" : "-") + row.protocol + ":" + row.domain + ":" + row.port +
                ":" + std::to_string(row.direction);
    return text;
}

std::string textOf(const Stored &stored) { return stored.problem.empty() ? textOf(stored.rows) : stored.problem; }

std::string difference(const Kernel &wanted, const Kernel &found) {
    if (!found.problem.empty())
        return found.problem;
    std::string text;
    describe("VPK-ALLOW", wanted.allow, found.allow, text);
    describe("VPK-DENY", wanted.deny, found.deny, text);
    describe("VPK-LOGANDDROP", wanted.logAndDrop, found.logAndDrop, text);
    describe("INPUT", wanted.input, found.input, text);
    describe("OUTPUT", wanted.output, found.output, text);
    return text;
}

} // namespace faults
