// stored-rule FOLDER [OPERATIONS]: what storing one deny rule costs, from the opening of the database to the copied
// backup and the closed connection, beside 0 and 10,000 rules; as libmavo does it, and as it did before in the same
// run: journal mode "delete", everything but the indexes checked at each opening (quick_check). Both take turns, one
// operation each, on files of their own; medians. FOLDER must be on the disk that is to be judged.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "mavo/database.h"

namespace {

constexpr int kReadWrite = 2;
constexpr int kReadWriteCreate = 6;
constexpr const char *kCreate = "CREATE TABLE IF NOT EXISTS firewall_rules (protocol TEXT, domain TEXT, port TEXT, "
                                "direction INTEGER NOT NULL, is_allowed INTEGER NOT NULL, "
                                "PRIMARY KEY (protocol, domain, port) ON CONFLICT REPLACE)";
constexpr const char *kSelect =
    "SELECT direction, is_allowed FROM firewall_rules WHERE protocol = ? AND domain = ? AND port = ?";
constexpr const char *kInsert =
    "INSERT INTO firewall_rules(protocol, domain, port, direction, is_allowed) VALUES(?, ?, ?, ?, ?)";

std::string address(int number) {
    return "10." + std::to_string(number >> 16 & 255) + "." + std::to_string(number >> 8 & 255) + "." +
           std::to_string(number & 255);
}

// SQLite alone.
class Before {
public:
    explicit Before(const std::string &path, int flags = kReadWrite) {
        check(sqlite3_open_v2(path.c_str(), &handle_, flags, nullptr));
        sqlite3_busy_timeout(handle_, 5'000);
        run("PRAGMA journal_mode=DELETE");
        run("PRAGMA synchronous=FULL");
        run("PRAGMA quick_check(1)");
        run(kCreate);
    }
    ~Before() { sqlite3_close(handle_); }
    Before(const Before &) = delete;
    Before &operator=(const Before &) = delete;

    void store(const std::string &domain) {
        execute(kSelect, domain, false);
        execute(kInsert, domain, true);
    }
    void run(const char *sql) { check(sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr)); }

private:
    void execute(const char *sql, const std::string &domain, bool all) {
        sqlite3_stmt *statement = nullptr;
        check(sqlite3_prepare_v2(handle_, sql, -1, &statement, nullptr));
        sqlite3_bind_text(statement, 1, "tcp", -1, SQLITE_STATIC);
        sqlite3_bind_text(statement, 2, domain.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(statement, 3, "80", -1, SQLITE_STATIC);
        if (all) {
            sqlite3_bind_int(statement, 4, 1);
            sqlite3_bind_int(statement, 5, 0);
        }
        sqlite3_step(statement);
        check(sqlite3_finalize(statement));
    }
    void check(int result) {
        if (result != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(handle_));
    }

    sqlite3 *handle_ = nullptr;
};

// The same through libmavo.
class Now {
public:
    explicit Now(const std::string &path, int flags = kReadWrite) : connection_(path, flags, true) { run(kCreate); }

    void store(const std::string &domain) {
        mavo::database::Statement select(connection_, kSelect);
        bind(select, domain);
        select.step();
        mavo::database::Statement insert(connection_, kInsert);
        bind(insert, domain);
        insert.bind(4, 1);
        insert.bind(5, 0);
        if (!insert.exec())
            throw std::runtime_error(insert.getErrorMessage());
    }
    void run(const char *sql) {
        mavo::database::Statement statement(connection_, sql);
        if (!statement.exec())
            throw std::runtime_error(statement.getErrorMessage());
    }

private:
    static void bind(mavo::database::Statement &statement, const std::string &domain) {
        statement.bind(1, std::string("tcp"));
        statement.bind(2, domain);
        statement.bind(3, std::string("80"));
    }

    mavo::database::Connection connection_;
};

template <typename Way> void fill(const std::string &path, int rules) {
    Way way(path, kReadWriteCreate);
    way.run("BEGIN");
    for (int i = 0; i < rules; ++i)
        way.store(address(i));
    way.run("COMMIT");
}

// One operation, in milliseconds.
template <typename Way> double storeOne(const std::string &path, const std::string &domain) {
    const auto begin = std::chrono::steady_clock::now();
    {
        Way way(path);
        way.store(domain);
        std::ifstream source(path, std::ios::binary);
        std::ofstream(path + "-backup", std::ios::binary) << source.rdbuf();
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

bool measure(const std::string &folder, int rules, int operations) {
    const std::string before = folder + "/before-" + std::to_string(rules);
    const std::string now = folder + "/now-" + std::to_string(rules);
    fill<Before>(before, rules);
    fill<Now>(now, rules);
    std::vector<double> times[2];
    for (int i = 0; i < operations; ++i) {
        times[0].push_back(storeOne<Before>(before, address((1 << 20) + i)));
        times[1].push_back(storeOne<Now>(now, address((1 << 20) + i)));
    }
    const double ratio = median(times[1]) / median(times[0]);
    std::printf("beside %5d rules: before %.3f ms, now %.3f ms, ratio %.3f\n", rules, median(times[0]),
                median(times[1]), ratio);
    return ratio <= 1.0;
}

} // namespace

int main(int argc, char **argv) try {
    if (argc < 2)
        throw std::runtime_error("usage: stored-rule FOLDER [OPERATIONS]");
    const std::string folder = std::string(argv[1]) + "/stored-rule";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const int operations = argc > 2 ? std::stoi(argv[2]) : 300;
    bool within = measure(folder, 0, operations);
    within = measure(folder, 10'000, operations) && within;
    std::filesystem::remove_all(folder);
    return within ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception &error) {
    std::fprintf(stderr, "stored-rule: %s\n", error.what());
    return EXIT_FAILURE;
}
