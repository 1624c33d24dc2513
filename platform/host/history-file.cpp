#include "host/history-file.h"

#include <cstdlib>
#include <utility>

#include "host/paths.h"
#include "host/plugin-files.h"
#include "host/rule-difference.h"
#include "mavo/exception.h"

namespace host {
namespace {

using mavo::database::Connection;
using mavo::database::Statement;

constexpr int kReadWriteCreate = 6;        // SQLite's open flags
constexpr std::int64_t kBytesBeside = 100; // about what an entry takes beside its texts
// So much stays where the bounds were reached: not each entry is to cost the removal of one.
constexpr std::int64_t kStays = 7;
constexpr std::int64_t kOf = 8;

std::int64_t numberIn(const Statement &row, int column) {
    return std::strtoll(row.getColumn(column).getText().c_str(), nullptr, 10);
}

void run(Statement &statement) {
    if (!statement.exec())
        throw mavo::Exception(statement.getErrorMessage());
}

template <typename... Values> void run(Connection &connection, const char *sql, const Values &...values) {
    Statement statement(connection, sql);
    int index = 0;
    (statement.bind(++index, values), ...);
    run(statement);
}

long long bound(std::int64_t number) { return number; }

// SQLite would write through a link, and wait for a fifo.
void requirePlainFiles() {
    const std::string problem = databaseFilesProblem(kHistoryDatabase);
    if (!problem.empty())
        throw std::runtime_error(problem);
}

std::int64_t sizeOf(const HistoryEntry &entry) {
    return kBytesBeside + static_cast<std::int64_t>(entry.details.size() + entry.difference.size());
}

HistoryTime timeIn(const Statement &row, int first) {
    return {numberIn(row, first), row.getColumn(first + 1).getText(), numberIn(row, first + 2)};
}

std::int64_t newestIn(Connection &connection) {
    Statement newest(connection, "SELECT max(number) FROM changes");
    return newest.step() ? numberIn(newest, 0) : 0;
}

// Rolls back unless it was committed.
class Transaction {
public:
    explicit Transaction(Connection &connection) : connection_(connection) { run(connection_, "BEGIN IMMEDIATE"); }
    ~Transaction() {
        if (isCommitted_)
            return;
        try {
            Statement(connection_, "ROLLBACK").exec();
        } catch (...) { // the end of the connection rolls back, too
        }
    }
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;
    void commit() {
        run(connection_, "COMMIT");
        isCommitted_ = true;
    }

private:
    Connection &connection_;
    bool isCommitted_ = false;
};

} // namespace

// After a failure the file is checked anew.
template <typename Use> auto HistoryFile::use(Use what) {
    requirePlainFiles();
    const auto before = std::exchange(contents_, std::nullopt);
    Connection connection(kHistoryDatabase, kReadWriteCreate, !before);
    run(connection, "CREATE TABLE IF NOT EXISTS changes (number INTEGER PRIMARY KEY, time INTEGER NOT NULL, boot TEXT "
                    "NOT NULL, uptime INTEGER NOT NULL, bytes INTEGER NOT NULL, details TEXT NOT NULL, difference "
                    "TEXT NOT NULL, rules TEXT)");
    if (before && newestIn(connection) != before->newest)
        throw mavo::Exception("is not what was written last: another file lies in its place");
    Contents contents = before ? *before : contentsOf(connection);
    auto result = what(connection, contents);
    contents_ = contents;
    return result;
}

HistoryFile::Contents HistoryFile::contentsOf(Connection &connection) {
    Statement statement(connection, "SELECT max(number), count(*), sum(bytes), max(CASE WHEN rules IS NOT NULL THEN "
                                    "number END) FROM changes");
    if (!statement.step())
        return {};
    return {numberIn(statement, 0), numberIn(statement, 1), numberIn(statement, 2), numberIn(statement, 3)};
}

std::optional<std::string> HistoryFile::knownRules() {
    return use([](Connection &connection, const Contents &contents) -> std::optional<std::string> {
        Statement carrier(connection, "SELECT rules FROM changes WHERE number = ?");
        carrier.bind(1, bound(contents.base));
        if (contents.base == 0 || !carrier.step())
            return std::nullopt;
        Statement later(connection, "SELECT difference FROM changes WHERE number > ? ORDER BY number");
        later.bind(1, bound(contents.base));
        std::string differences;
        while (later.step())
            differences += later.getColumn(0).getText();
        return withDifference(carrier.getColumn(0).getText(), differences);
    });
}

void HistoryFile::insert(Connection &connection, const HistoryEntry &entry) {
    run(connection,
        "INSERT INTO changes (number, time, boot, uptime, bytes, details, difference) VALUES (?, ?, ?, ?, ?, ?, ?)",
        bound(entry.number), bound(entry.time.seconds), entry.time.boot, bound(entry.time.uptimeMs),
        bound(sizeOf(entry)), entry.details, entry.difference);
}

void HistoryFile::append(std::vector<HistoryEntry> &entries, const std::string &rules) {
    if (entries.empty())
        return;
    use([&](Connection &connection, Contents &contents) {
        Transaction transaction(connection);
        for (auto &entry : entries) {
            entry.number = ++contents.newest;
            insert(connection, entry);
            ++contents.count;
            contents.bytes += sizeOf(entry);
        }
        trim(connection, contents, rules);
        transaction.commit();
        return true;
    });
}

void HistoryFile::trim(Connection &connection, Contents &contents, const std::string &rules) const {
    std::int64_t removed = 0;
    if (contents.count > bounds_.entries || contents.bytes > bounds_.bytes) {
        Statement oldest(connection, "SELECT number, bytes FROM changes ORDER BY number");
        while ((contents.count > bounds_.entries / kOf * kStays || contents.bytes > bounds_.bytes / kOf * kStays) &&
               oldest.step() && numberIn(oldest, 0) < contents.newest) {
            removed = numberIn(oldest, 0);
            --contents.count;
            contents.bytes -= numberIn(oldest, 1);
        }
    }
    if (removed >= contents.base) {
        run(connection, "UPDATE changes SET rules = ? WHERE number = ?", rules, bound(contents.newest));
        contents.base = contents.newest;
    }
    if (removed > 0)
        run(connection, "DELETE FROM changes WHERE number <= ?", bound(removed));
}

HistoryFile::Kept HistoryFile::newest(std::int64_t count) {
    return use([&](Connection &connection, const Contents &contents) {
        Kept kept;
        kept.newest = contents.newest;
        kept.oldest = contents.newest - contents.count + 1;
        Statement row(connection,
                      "SELECT number, time, boot, uptime, details, difference FROM changes WHERE number > ? "
                      "ORDER BY number");
        row.bind(1, bound(contents.newest - count));
        while (row.step())
            kept.entries.push_back(
                {numberIn(row, 0), timeIn(row, 1), row.getColumn(4).getText(), row.getColumn(5).getText()});
        return kept;
    });
}

void HistoryFile::forEachTime(const std::function<void(std::int64_t number, const HistoryTime &time)> &each) {
    use([&](Connection &connection, const Contents &) {
        Statement row(connection, "SELECT number, time, boot, uptime FROM changes ORDER BY number");
        while (row.step())
            each(numberIn(row, 0), timeIn(row, 1));
        return true;
    });
}

std::string HistoryFile::differencesAfter(std::int64_t number) {
    return use([&](Connection &connection, const Contents &) {
        Statement row(connection, "SELECT difference FROM changes WHERE number > ? ORDER BY number");
        row.bind(1, bound(number));
        std::string differences;
        while (row.step())
            differences += row.getColumn(0).getText();
        return differences;
    });
}

} // namespace host
