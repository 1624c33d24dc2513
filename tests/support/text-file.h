// Whole files as strings, for tests.
#ifndef TESTS_SUPPORT_TEXT_FILE_H
#define TESTS_SUPPORT_TEXT_FILE_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace textfile {

// Empty where there is no such file.
inline std::string read(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Creates the folder too.
inline void write(const std::string &path, const std::string &text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

} // namespace textfile

#endif
