#include "mavo/open-databases.h"

#include <algorithm>
#include <list>
#include <map>
#include <mutex>
#include <sqlite3.h>

#include "mavo/database-digest.h"
#include "mavo/database-opening.h"
#include "mavo/database-recovery.h"

namespace mavo {
namespace database {

namespace {

struct OpenFile {
    std::string path;
    std::uint64_t *begunCommits;
    int connections = 0;
    bool beingChanged = false;
    bool distrusted = false;
};

struct DatabaseConnection {
    sqlite3 *handle;
    OpenFile *file;
    bool beingOpened = true;
};

std::mutex theMutex;
// One or two of each. Never destroyed: connections in static objects may outlive this one.
auto &files = *new std::list<OpenFile>;
auto &connections = *new std::list<DatabaseConnection>;
auto &begunCommits = *new std::map<std::string, std::uint64_t>; // by path

OpenFile *fileAt(const std::string &path) {
    const auto found =
        std::find_if(files.begin(), files.end(), [&](const OpenFile &file) { return file.path == path; });
    return found != files.end() ? &*found : nullptr;
}

std::list<DatabaseConnection>::iterator find(const sqlite3 *handle) {
    return std::find_if(connections.begin(), connections.end(),
                        [=](const DatabaseConnection &connection) { return connection.handle == handle; });
}

// SQLite's commit hook: a transaction that may have changed something is about to reach the file. Until then the file
// is what it was, or its journal makes it that again.
int beforeCommit(void *argument) {
    auto *const file = static_cast<OpenFile *>(argument);
    const std::lock_guard<std::mutex> lock(theMutex);
    ++*file->begunCommits;
    if (!file->beingChanged)
        markBeingChanged(file->path);
    file->beingChanged = true;
    return 0;
}

// Nothing is waited for: without a digest the next opening checks.
void leaveDigest(sqlite3 *handle, const std::string &path) noexcept try {
    sqlite3_file *file = nullptr;
    sqlite3_file_control(handle, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    if (file == nullptr || sqlite3_txn_state(handle, nullptr) != SQLITE_TXN_NONE)
        return; // something is still under way
    // SQLite's own way to a read lock would look at the journal too.
    if (file->pMethods->xLock(file, SQLITE_LOCK_SHARED) != SQLITE_OK)
        return;
    Content content;
    if (readContent(handle, content) == SQLITE_OK)
        writeDigest(path, content);
    file->pMethods->xUnlock(file, SQLITE_LOCK_NONE);
} catch (...) { // no memory
}

} // namespace

void noteOpened(sqlite3 *handle, const std::string &path) {
    std::list<DatabaseConnection> connection{{handle, nullptr}}; // what needs memory comes first
    const std::lock_guard<std::mutex> lock(theMutex);
    OpenFile *file = fileAt(path);
    if (file == nullptr)
        file = &files.emplace_back(OpenFile{path, &begunCommits[path]});
    connection.front().file = file;
    connections.splice(connections.end(), connection);
    ++file->connections;
    sqlite3_commit_hook(handle, beforeCommit, file);
}

void noteClosing(sqlite3 *handle) noexcept {
    const std::lock_guard<std::mutex> lock(theMutex);
    const auto connection = find(handle);
    if (connection == connections.end())
        return;
    OpenFile *const file = connection->file;
    connections.erase(connection);
    sqlite3_commit_hook(handle, nullptr, nullptr);
    if (--file->connections != 0)
        return;
    if (file->beingChanged && !file->distrusted)
        leaveDigest(handle, file->path);
    files.remove_if([=](const OpenFile &candidate) { return &candidate == file; });
}

std::uint64_t commitsTo(const std::string &path) {
    const std::lock_guard<std::mutex> lock(theMutex);
    const auto found = begunCommits.find(path);
    return found != begunCommits.end() ? found->second : 0;
}

bool isOpen(const std::string &path) {
    const std::lock_guard<std::mutex> lock(theMutex);
    return fileAt(path) != nullptr;
}

bool isBeingChangedByUs(const std::string &path) {
    const std::lock_guard<std::mutex> lock(theMutex);
    const OpenFile *const file = fileAt(path);
    return file != nullptr && file->beingChanged && !file->distrusted;
}

bool isBeingOpened(sqlite3 *handle) {
    const std::lock_guard<std::mutex> lock(theMutex);
    const auto connection = find(handle);
    return connection != connections.end() && connection->beingOpened;
}

void noteReady(sqlite3 *handle) {
    const std::lock_guard<std::mutex> lock(theMutex);
    const auto connection = find(handle);
    if (connection != connections.end())
        connection->beingOpened = false;
}

std::string pathOf(sqlite3 *handle) {
    const std::lock_guard<std::mutex> lock(theMutex);
    const auto connection = find(handle);
    return connection != connections.end() ? connection->file->path : std::string();
}

void distrust(sqlite3 *handle) noexcept {
    const std::lock_guard<std::mutex> lock(theMutex);
    const auto connection = find(handle);
    if (connection == connections.end())
        return;
    connection->file->distrusted = true;
    removeDigest(connection->file->path);
}

} // namespace database
} // namespace mavo
