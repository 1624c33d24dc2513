// What the log's tests share: lines as they come out, and who takes them.
#ifndef TESTS_PLATFORM_VLOG_LOG_LINES_H
#define TESTS_PLATFORM_VLOG_LOG_LINES_H

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/unique-fd.h"
#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

namespace loglines {

inline const std::string kPath = "/run/log";
inline const std::string kStamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

inline std::vector<std::string> linesOf(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

// What the line says, without time and process id.
inline std::vector<std::string> textsOf(const std::string &path) {
    static const std::regex prefix(kStamp + "[A-Z] [0-9]+ ");
    std::vector<std::string> texts;
    for (const std::string &line : linesOf(path))
        texts.push_back(std::regex_replace(line, prefix, "", std::regex_constants::format_first_only));
    return texts;
}

inline void useFile(std::size_t maxBytes = std::size_t{1024} * 1024, mode_t mode = 0600) {
    vlog::useFile({kPath, maxBytes, mode});
}

#define LOG_INFO_LINE(...) vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TAG", __VA_ARGS__)

// The exit status of a child that runs `body`; its failed expectations count too.
inline int inChild(const std::function<void()> &body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

// Stands for the system's log service.
class LogService {
public:
    explicit LogService(const std::string &path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(0, ::bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address)) << path;
        const timeval patience{10, 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    std::string next() const {
        std::array<char, 65536> room{};
        const ssize_t length = ::recv(socket_.get(), room.data(), room.size(), 0);
        return length < 0 ? "nothing came" : std::string(room.data(), static_cast<std::size_t>(length));
    }

private:
    support::UniqueFd socket_;
};

// The descriptor of this process that /proc shows so; -1 for none.
inline int numberOf(const std::string &shown) {
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
        if (target.compare(0, shown.size(), shown) == 0)
            return std::stoi(entry.path().filename());
    }
    return -1;
}

} // namespace loglines

#endif
