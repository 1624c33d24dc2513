#include "mavo/database-recovery.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mavo/database-digest.h"
#include "mavo/database-files.h"
#include "mavo/database-restore.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "mavo/open-databases.h"
#include "mavo/replacement.h"

namespace mavo {
namespace database {

namespace {

struct Registered {
    std::string path;
    std::string backup; // empty: may be started anew
    std::string schemaQuery;
};

// Never destroyed: connections in static objects may outlive them.
auto &registered = *new std::vector<Registered>;
auto &theListener = *new std::function<void(const std::string &)>;
// Sound files that are of no use, and why.
auto &condemned = *new std::map<std::string, std::string>;

void tell(const std::string &line) {
    if (theListener)
        theListener(line);
}

const Registered *find(const std::string &path, std::string Registered::*member) {
    const auto found = std::find_if(registered.begin(), registered.end(),
                                    [&](const Registered &candidate) { return candidate.*member == path; });
    return found != registered.end() ? &*found : nullptr;
}

std::string journalOf(const std::string &path) { return path + "-journal"; }

// Of a database that is gone or refused. It would be played into whatever comes into its place.
void putJournalAside(const std::string &path) {
    const std::string journal = journalOf(path);
    if (!isHot(journal))
        return;
    putAside(journal);
    syncFolderOf(path);
    tell(journal + ": a journal without its database was put aside");
}

// Reads at most a block; throws Unavailable on an error, since a disk that does not answer proves nothing.
std::size_t readBlock(int fd, const std::string &path, std::vector<char> &block) {
    ssize_t size = -1;
    do
        size = ::read(fd, block.data(), block.size());
    while (size < 0 && errno == EINTR);
    if (size < 0)
        throwUnavailable(path, errno);
    return static_cast<std::size_t>(size);
}

void copyAll(int source, const std::string &path, Replacement &copy) {
    constexpr std::size_t kBlockBytes = 65'536;
    std::vector<char> block(kBlockBytes);
    for (std::size_t size = readBlock(source, path, block); size > 0; size = readBlock(source, path, block))
        copy.write(block.data(), size);
    copy.synchronise();
}

// A sound copy of the backup beside its database, or none when there is no sound backup.
std::unique_ptr<Replacement> soundCopy(const Registered &files) {
    const std::string &backup = files.backup;
    const support::UniqueFd source = openFile(backup, O_RDONLY);
    if (!source && errno == ENOENT)
        return nullptr;
    struct stat status {};
    if (!source || ::fstat(source.get(), &status) != 0)
        throwUnavailable(backup, errno);
    auto copy = std::make_unique<Replacement>(files.path, status.st_mode & 0777U);
    copyAll(source.get(), backup, *copy);
    Attempt attempt = attemptOpening(copy->path(), SQLITE_OPEN_READWRITE, Check::full);
    if (attempt.failure == Failure::none && !files.schemaQuery.empty())
        requireSchema(attempt, files.schemaQuery);
    attempt.handle.reset();
    ::unlink(journalOf(copy->path()).c_str());
    if (attempt.failure == Failure::damaged || attempt.failure == Failure::foreign)
        return nullptr;
    if (attempt.failure != Failure::none)
        throw Unavailable(copy->path() + ": " + attempt.text);
    return copy;
}

// The damaged file is back in its place when the new one could not take it.
void exchange(const std::string &path, Replacement &copy) {
    putAside(path);
    removeDigest(path);
    try {
        copy.takePlace();
    } catch (const Unavailable &) {
        if (sizeOf(path) < 0 && !putAsideBefore(path).empty())
            std::rename(putAsideBefore(path).front().c_str(), path.c_str());
        throw;
    }
}

void putBothAside(const Registered &files) {
    bool any = false;
    for (const std::string &file : {files.path, files.backup}) {
        if (sizeOf(file) <= 0)
            continue;
        putAside(file);
        any = true;
    }
    if (!any)
        return;
    syncFolderOf(files.path);
    tell(files.path + ": neither the database nor its backup is sound; what there was of them was put aside");
}

bool replaceWithBackup(const Registered &files, Failure failure, const std::string &why) {
    putJournalAside(files.backup);
    const auto copy = soundCopy(files);
    if (copy == nullptr && failure == Failure::foreign)
        return false;
    if (isOpen(files.path)) // by an operation that would go on to write into the file that is put aside
        throw Unavailable(files.path + ": " + why);
    putJournalAside(files.path);
    if (copy == nullptr) {
        putBothAside(files);
        return false;
    }
    exchange(files.path, *copy);
    tell(files.path + (failure == Failure::absent ? ": was not there" : ": was damaged and put aside (" + why + ")") +
         "; its backup has taken its place");
    return true;
}

bool startAnew(const std::string &path, const std::string &why) {
    putJournalAside(path);
    putAside(path);
    syncFolderOf(path);
    tell(path + ": was damaged and put aside (" + why + "); a new one is made");
    return true;
}

} // namespace

void protectWithBackup(const std::string &path, const std::string &backup, const std::string &schemaQuery) {
    registered.push_back({path, backup, schemaQuery});
}

void mayBeStartedAnew(const std::string &path, const std::string &schemaQuery) {
    registered.push_back({path, {}, schemaQuery});
}

void tellRecoveriesTo(std::function<void(const std::string &)> listener) { theListener = std::move(listener); }

std::vector<std::string> filesAside(const std::string &path) {
    std::vector<std::string> found = putAsideBefore(path);
    const auto journals = putAsideBefore(journalOf(path));
    found.insert(found.end(), journals.begin(), journals.end());
    return found;
}

const std::string *backupOf(const std::string &path) {
    const Registered *const files = find(path, &Registered::path);
    return files != nullptr && !files->backup.empty() ? &files->backup : nullptr;
}

bool condemn(const std::string &path, const std::string &why) {
    if (backupOf(path) == nullptr)
        return false;
    condemned[path] = why;
    return true;
}

namespace {

// A journal that belongs to a database that is gone is put aside, and a backup is refused while its original is there.
void prepareOpening(const std::string &path) {
    const Registered *const original = find(path, &Registered::backup);
    if (original != nullptr && sizeOf(original->path) > 0)
        throw Unavailable(path + ": is not opened while there is a database that it is the backup of");
    if (sizeOf(path) <= 0)
        putJournalAside(path);
}

void tellOfChange(const std::string &path, bool mayBeOurs) {
    tell(path + ": is sound, but not as this system left it: another program has changed it" +
         (mayBeOurs ? " or its digest, or the power went just after a change" : "") + "; it is used as it is");
}

bool replaceRefused(const std::string &path, int flags, Failure failure, const std::string &why) {
    if (failure == Failure::none || failure == Failure::unfit || failure == Failure::passing)
        return false;
    const Registered *const files = find(path, &Registered::path);
    if (files != nullptr && !files->backup.empty())
        return replaceWithBackup(*files, failure, why);
    putJournalAside(path);
    return files != nullptr && (flags & SQLITE_OPEN_CREATE) != 0 && startAnew(path, why);
}

// A new database is without tables until its program makes them; beside a backup that has them it is not new.
void judgeSchema(const std::string &path, int flags, Attempt &made) {
    const Registered *const files = find(path, &Registered::path);
    if (files == nullptr || files->schemaQuery.empty() || (flags & SQLITE_OPEN_READWRITE) == 0)
        return;
    requireSchema(made, files->schemaQuery);
    if (made.failure == Failure::foreign && files->backup.empty() && isWithoutTables(made))
        made.failure = Failure::none;
}

Attempt attempt(const std::string &path, int flags, bool verify) {
    const auto found = condemned.find(path);
    if (found == condemned.end())
        return attemptOpening(path, flags, verify && !isBeingChangedByUs(path) ? Check::digest : Check::none);
    Attempt refused;
    refused.failure = Failure::damaged;
    refused.text = found->second;
    return refused;
}

} // namespace

Handle openForUse(const std::string &path, int flags, bool verify) {
    const bool mayWrite = (flags & SQLITE_OPEN_READWRITE) != 0;
    if (mayWrite)
        prepareOpening(path);
    Attempt made = attempt(path, flags, verify);
    if (made.failure == Failure::none)
        judgeSchema(path, flags, made);
    if (mayWrite && replaceRefused(path, flags, made.failure, made.text)) {
        condemned.erase(path);
        made = attempt(path, flags, verify);
    }
    if (made.failure == Failure::foreign) // and nothing better was there
        made.failure = Failure::none;
    if (made.failure == Failure::passing)
        throw Unavailable(path + ": " + made.text);
    if (made.failure != Failure::none)
        throw Exception(made.text);
    if (made.wasChanged && mayWrite)
        tellOfChange(path, made.mayBeOurs);
    return std::move(made.handle);
}

} // namespace database
} // namespace mavo
