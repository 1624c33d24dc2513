#include "host/rule-change.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <optional>
#include <tuple>
#include <unordered_map>

#include "host/door.h"
#include "host/firewall-plugin.h"
#include "host/json-document.h"
#include "host/rule-difference.h"
#include "mavo/exception.h"
#include "mavo/rmi.h"
#include "rules/rule-commands.h"
#include "rules/rule-list.h"

namespace host {
namespace {

using mavo::database::Connection;
using mavo::database::Statement;
using mavo::rmi::BadArguments;

constexpr std::size_t kMostNamed = 10;
// With more, to say what stays is less work for the service than to look for each that goes.
constexpr std::size_t kFewRemoved = 32;
constexpr std::string_view kAllowWord = "allow ";
constexpr std::string_view kDenyWord = "deny ";

bool isControl(char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; }

bool beginsWith(std::string_view text, std::string_view word) { return text.substr(0, word.size()) == word; }

// Calls `each` with each line, from 1 on, without its "\n". Throws BadArguments for more than there may be.
void forEachLine(std::string_view list, const std::function<void(std::size_t number, std::string_view line)> &each) {
    if (list.size() > kRuleListLimitBytes)
        throw BadArguments("a list of " + std::to_string(list.size()) +
                           " bytes is refused: " + std::to_string(kRuleListLimitBytes) + " bytes are accepted");
    for (std::size_t number = 1; !list.empty(); ++number) {
        if (number > kRuleListLimitRules)
            throw BadArguments("a list of more than " + std::to_string(kRuleListLimitRules) + " rules is refused");
        const std::size_t end = std::min(list.find('\n'), list.size());
        each(number, list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
}

[[noreturn]] void refuse(std::size_t number, const std::string &why) {
    throw BadArguments("line " + std::to_string(number) + " is refused, and the list with it: " + why);
}

StoredRule ruleIn(std::size_t number, std::string_view line) {
    const bool allowed = beginsWith(line, kAllowWord);
    if (!allowed && !beginsWith(line, kDenyWord))
        refuse(number, rules::quoted(line) + R"( begins neither with "allow " nor with "deny ")");
    const auto read = rules::readRule(line.substr(allowed ? kAllowWord.size() : kDenyWord.size()));
    if (std::any_of(line.begin(), line.end(), isControl))
        refuse(number, "it holds a control character, and a rule holds none");
    if (line.find(';') != std::string_view::npos)
        refuse(number, R"(it holds ";", and a line is one rule)");
    if (read.problem)
        refuse(number, rules::describe(*read.problem));
    return {read.rule, allowed};
}

// One rule is stored for each of these.
using Key = std::tuple<std::string, std::string, std::string>;
Key keyOf(const StoredRule &rule) { return {rule.rule.protocol, rule.rule.address, rule.rule.port}; }

// Lines with the places of their rules in a list of rows.
using Places = std::unordered_multimap<std::string, std::size_t>;

std::string lineOf(const StoredRule &rule) {
    std::string line = ruleLine(rule);
    line.pop_back();
    return line;
}

Places placesOf(const std::vector<RuleRow> &rows) {
    Places places;
    places.reserve(rows.size());
    for (std::size_t at = 0; at < rows.size(); ++at)
        places.emplace(lineOf(rows[at].rule), at);
    return places;
}

// Notes those of the line. False where there are none.
bool mark(const Places &places, const std::string &line, std::vector<bool> &marked) {
    const auto [first, end] = places.equal_range(line);
    for (auto one = first; one != end; ++one)
        marked[one->second] = true;
    return first != end;
}

// Rows that are marked are kept or go, the others do the opposite.
RuleChange changeOf(const std::vector<RuleRow> &stored, const std::vector<bool> &marked, bool keepsMarked) {
    RuleChange change;
    for (std::size_t at = 0; at < stored.size(); ++at) {
        if (marked[at] == keepsMarked)
            change.staying.push_back(stored[at].rule);
        else
            change.removed.push_back(stored[at]);
    }
    return change;
}

// The rules of a list. Throws BadArguments for two that cannot be stored side by side.
class Wanted {
public:
    // False where the same rule is there already.
    bool add(std::size_t number, const StoredRule &rule) {
        const auto [place, isNew] = lines_.emplace(keyOf(rule), std::make_pair(number, lineOf(rule)));
        if (!isNew && place->second.second != lineOf(rule))
            refuse(number, rules::quoted(lineOf(rule)) + " cannot be stored beside " +
                               rules::quoted(place->second.second) + " of line " + std::to_string(place->second.first) +
                               ": there is one rule for each protocol, address and port");
        return isNew;
    }

private:
    std::map<Key, std::pair<std::size_t, std::string>> lines_;
};

void run(Connection &database, const std::string &sql) {
    Statement statement(database, sql);
    if (!statement.exec())
        throw mavo::Exception(statement.getErrorMessage());
}

std::int64_t countIn(Connection &database) {
    Statement statement(database, std::string("SELECT count(*) FROM ") + kRuleTable);
    return statement.step() ? std::strtoll(statement.getColumn(0).getText().c_str(), nullptr, 10) : 0;
}

void requireCount(Connection &database, std::int64_t count) {
    if (countIn(database) != count)
        throw mavo::Exception("another program has changed the rules meanwhile; nothing was replaced");
}

void execute(Statement &statement) {
    if (!statement.exec())
        throw mavo::Exception(statement.getErrorMessage());
}

void removeRows(const RuleChange &change, Connection &database) {
    if (change.staying.empty())
        return run(database, std::string("DELETE FROM ") + kRuleTable);
    Statement statement(database, std::string("DELETE FROM ") + kRuleTable + " WHERE rowid = ?");
    for (const auto &row : change.removed) {
        statement.bind(1, static_cast<long long>(row.row));
        execute(statement);
    }
}

void addRows(const RuleChange &change, Connection &database) {
    Statement statement(database,
                        std::string("INSERT INTO ") + kRuleTable + "(" + kRuleColumns + ") VALUES(?, ?, ?, ?, ?)");
    for (const auto &rule : change.added) {
        statement.bind(1, rule.rule.protocol);
        statement.bind(2, rule.rule.address);
        statement.bind(3, rule.rule.port);
        statement.bind(4, rule.rule.direction);
        statement.bind(5, rule.allowed ? 1 : 0);
        execute(statement);
    }
}

} // namespace

std::vector<RuleRow> storedRows() {
    std::vector<RuleRow> rows;
    forEachStoredRuleFrom(std::numeric_limits<std::int64_t>::min(), [&rows](std::int64_t row, const StoredRule &rule) {
        rows.push_back({row, rule});
    });
    return rows;
}

// A rule that another program has stored may be none that can be written, and stays by its line.
RuleChange changeTo(std::string_view list, const std::vector<RuleRow> &stored) {
    const Places places = placesOf(stored);
    std::vector<bool> marked(stored.size());
    std::vector<StoredRule> added;
    Wanted wanted;
    forEachLine(list, [&](std::size_t number, std::string_view line) {
        const auto known = places.find(std::string(line));
        const StoredRule rule = known != places.end() ? stored[known->second].rule : ruleIn(number, line);
        if (wanted.add(number, rule) && !mark(places, lineOf(rule), marked))
            added.push_back(rule);
    });
    RuleChange change = changeOf(stored, marked, true);
    change.added = std::move(added);
    return change;
}

RuleChange removalOf(std::string_view list, const std::vector<RuleRow> &stored) {
    const Places places = placesOf(stored);
    std::vector<bool> marked(stored.size());
    std::string missing;
    std::size_t count = 0;
    forEachLine(list, [&](std::size_t, std::string_view line) {
        if (!mark(places, std::string(line), marked) && ++count <= kMostNamed)
            missing += (missing.empty() ? "" : ", ") + rules::quoted(line);
    });
    if (count > kMostNamed)
        missing += " and " + std::to_string(count - kMostNamed) + " more";
    if (count > 0)
        throw BadArguments("not stored: " + missing + "; nothing was removed");
    return changeOf(stored, marked, false);
}

void forEachCommandOf(const RuleChange &change, const std::function<void(std::string_view options)> &each) {
    const auto append = [&each](const StoredRule &rule) { rules::forEachCommandOf(rule.rule, rule.allowed, each); };
    if (change.removed.size() > kFewRemoved) {
        for (const char *chain : {kAllowChain, kDenyChain})
            each("-F " + std::string(chain));
        std::for_each(change.staying.begin(), change.staying.end(), append);
    } else {
        for (const auto &row : change.removed)
            rules::forEachCommandOf(row.rule.rule, row.rule.allowed,
                                    [&each](std::string_view options) { each("-D" + std::string(options.substr(2))); });
    }
    std::for_each(change.added.begin(), change.added.end(), append);
}

void carryOut(const RuleChange &change, Connection &database) {
    run(database, kMakeRuleTable);
    requireCount(database, change.kept() + static_cast<std::int64_t>(change.removed.size()));
    removeRows(change, database);
    requireCount(database, change.kept());
    addRows(change, database);
    requireCount(database, change.kept() + static_cast<std::int64_t>(change.added.size()));
}

std::string changeDocument(const RuleChange &change) {
    Json::Value document;
    document["added"] = document["removed"] = Json::Value(Json::arrayValue);
    for (const auto &rule : change.added)
        document["added"].append(lineOf(rule));
    for (const auto &row : change.removed)
        document["removed"].append(lineOf(row.rule));
    document["kept"] = Json::Int64(change.kept());
    return writeJson(document);
}

} // namespace host
