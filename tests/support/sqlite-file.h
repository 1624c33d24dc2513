// What stands in a database file, seen past the code under test.
#ifndef TESTS_SUPPORT_SQLITE_FILE_H
#define TESTS_SUPPORT_SQLITE_FILE_H

#include <string>
#include <vector>

namespace sqlitefile {

// Runs statements on the file, which is created when missing. Throws std::runtime_error.
void execute(const std::string &path, const std::string &sql);
// The rows of a query, the values of each joined by "|", NULL as "NULL". Never creates the file. Throws
// std::runtime_error.
std::vector<std::string> query(const std::string &path, const std::string &sql);

// All bytes of a file, empty when there is none.
std::string content(const std::string &path);
void writeFile(const std::string &path, const std::string &content);

} // namespace sqlitefile

#endif
