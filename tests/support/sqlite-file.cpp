#include "support/sqlite-file.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include <sqlite3.h>

namespace sqlitefile {
namespace {

using Handle = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

Handle open(const std::string &path, int flags) {
    sqlite3 *handle = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
    Handle owner(handle, &sqlite3_close);
    if (result != SQLITE_OK)
        throw std::runtime_error(path + ": " + sqlite3_errmsg(handle));
    return owner;
}

void run(sqlite3 *handle, const std::string &sql, std::vector<std::string> *rows) {
    const auto keep = [](void *target, int count, char **values, char **) {
        std::string row;
        for (int i = 0; i < count; ++i)
            row += std::string(i > 0 ? "|" : "") + (values[i] != nullptr ? values[i] : "NULL");
        if (target != nullptr)
            static_cast<std::vector<std::string> *>(target)->push_back(row);
        return 0;
    };
    if (sqlite3_exec(handle, sql.c_str(), keep, rows, nullptr) != SQLITE_OK)
        throw std::runtime_error(sql + ": " + sqlite3_errmsg(handle));
}

} // namespace

void execute(const std::string &path, const std::string &sql) {
    run(open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE).get(), sql, nullptr);
}

std::vector<std::string> query(const std::string &path, const std::string &sql) {
    std::vector<std::string> rows;
    run(open(path, SQLITE_OPEN_READONLY).get(), sql, &rows);
    return rows;
}

std::string content(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

} // namespace sqlitefile
