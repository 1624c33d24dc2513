#include "support/whole-system.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace wholesystem {
namespace {

namespace fs = std::filesystem;

bool serves(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    for (const int type : {SOCK_STREAM, SOCK_SEQPACKET}) {
        const support::UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
        if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return true;
    }
    return false;
}

// Starts a program into `slot` and waits for its socket.
bool startInto(std::optional<process::Child> &slot, const std::vector<std::string> &command, const std::string &socket,
               const process::Options &how = process::Options()) {
    fs::create_directories(fs::path(socket).parent_path());
    slot.reset();
    slot.emplace(command, how);
    if (slot->waitReady([&socket] { return serves(socket); }))
        return true;
    ADD_FAILURE() << command.front() << " does not serve " << socket << ": " << slot->errors();
    return false;
}

std::optional<int> stopIn(std::optional<process::Child> &slot, const char *name) {
    if (!slot)
        return std::nullopt;
    const auto status = slot->terminate();
    EXPECT_TRUE(status.has_value()) << name << " does not end when asked to";
    slot.reset();
    return status;
}

void print(const char *path) { std::cout << "---- " << path << " ----\n" << contentOf(path); }

class Database {
public:
    explicit Database(const std::string &path) {
        if (sqlite3_open_v2(path.c_str(), &handle_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
            fail();
    }
    ~Database() { sqlite3_close(handle_); }
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    std::vector<Record> query(const std::string &sql) {
        std::vector<Record> records;
        const auto keep = [](void *into, int count, char **values, char **) {
            Record record;
            std::transform(values, values + count, std::back_inserter(record),
                           [](const char *value) { return value == nullptr ? "NULL" : value; });
            static_cast<std::vector<Record> *>(into)->push_back(record);
            return 0;
        };
        if (sqlite3_exec(handle_, sql.c_str(), keep, &records, nullptr) != SQLITE_OK)
            fail();
        return records;
    }

private:
    [[noreturn]] void fail() { throw std::runtime_error(sqlite3_errmsg(handle_)); }

    sqlite3 *handle_ = nullptr;
};

// A folder that goes away with the object.
class Folder {
public:
    Folder() {
        if (::mkdtemp(path_.data()) == nullptr)
            throw std::runtime_error("mkdtemp");
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    fs::path operator/(const char *name) const { return fs::path(path_) / name; }

private:
    std::string path_ = "/run/copy-XXXXXX";
};

} // namespace

System::System(Options options) : options_(std::move(options)) {}

System::~System() {
    host_.reset();
    service_.reset();
    if (!testing::Test::HasFailure())
        return;
    print(kServiceLog);
    print(kHostLog);
}

bool System::startService() {
    std::vector<std::string> command{process::built("rlvd"), "--socket", kServiceSocket, "--log-file", kServiceLog};
    if (!options_.resolve)
        command.emplace_back("--no-resolve");
    if (options_.simulate)
        command.emplace_back("--simulate");
    command.insert(command.end(), options_.serviceArguments.begin(), options_.serviceArguments.end());
    return startInto(service_, command, kServiceSocket);
}

std::vector<std::string> System::hostCommand() const {
    std::vector<std::string> command{process::built("vpkd"), "--socket", kHostSocket, "--rlv-socket", kServiceSocket};
    command.insert(command.end(),
                   {"--plugin", NYR_BINARY_DIR "/lib/libnyr-firewall-plugin.so", "--log-file", kHostLog});
    command.insert(command.end(), options_.hostArguments.begin(), options_.hostArguments.end());
    return command;
}

bool System::startHost() { return startInto(host_, hostCommand(), kHostSocket, options_.host); }

std::optional<int> System::stopHost() { return stopIn(host_, "vpkd"); }
std::optional<int> System::stopService() { return stopIn(service_, "rlvd"); }
void System::killHost() { host_.reset(); }
void System::killService() { service_.reset(); }
bool System::restartHost() { return stopHost() == 0 && startHost(); }

process::Result System::control(const std::vector<std::string> &words, const std::string &input) const {
    std::vector<std::string> command{process::built("vpkctl"), "--socket", kHostSocket};
    command.insert(command.end(), words.begin(), words.end());
    process::Options options;
    options.input = input;
    return process::capture(command, options);
}

process::OnTerminal System::controlOnTerminal(const std::vector<std::string> &words, const std::string &answer) const {
    std::vector<std::string> command{process::built("vpkctl"), "--socket", kHostSocket};
    command.insert(command.end(), words.begin(), words.end());
    return process::runOnTerminal(command, answer);
}

int System::execute(const std::string &command, const std::string &data) const {
    std::vector<std::string> words{"exec", command};
    if (!data.empty())
        words.push_back(data);
    const auto result = control(words);
    EXPECT_LE(result.status, 1) << command << " " << data << ": " << result.errors;
    return result.status;
}

std::string contentOf(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<pid_t> processesOf(const std::string &program) {
    std::vector<pid_t> ids;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        std::error_code gone; // also of one that has ended and waits to be reaped
        const fs::path executable = fs::read_symlink(entry.path() / "exe", gone);
        if (!gone && executable == process::built(program))
            ids.push_back(static_cast<pid_t>(std::stol(entry.path().filename())));
    }
    return ids;
}

std::vector<Record> queryCopy(const std::string &database, const std::string &query) {
    const Folder folder;
    fs::copy_file(database, folder / "copy");
    Database copy(folder / "copy");
    const auto verdict = copy.query("PRAGMA integrity_check");
    if (verdict != std::vector<Record>{{"ok"}})
        throw std::runtime_error(database + " is damaged: " + verdict.at(0).at(0));
    return copy.query(query);
}

} // namespace wholesystem
