#include "host/config-file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <ftw.h>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "host/firewall-plugin.h"
#include "host/log.h"
#include "host/paths.h"
#include "host/plugin-config.h"
#include "support/directories.h"
#include "support/unique-fd.h"

namespace host {
namespace {

using support::UniqueFd;

const std::string kFile = kConfigFile;
const std::string kFolder = kFile.substr(0, kFile.rfind('/'));
const std::string kGood = kFile + ".good";
const std::string kNew = kFile + ".new"; // what is about to take the file's place
const std::string kRefused = kFile + ".refused";
constexpr int kRefusedKept = 10;

// One byte more than is accepted: enough to tell that it is too much.
constexpr std::size_t kReadLimitBytes = kConfigLimitBytes + 1;
constexpr std::size_t kBlockBytes = 1'024;

struct Found {
    bool there = false;
    bool readable = false; // `text` is its content
    std::string text;
    std::string problem; // why it can never be read as it stands
    std::string failure; // why it could not be read now
};

std::string textOfError(int error) { return std::strerror(error); }

std::string read(const UniqueFd &file) {
    std::array<char, kBlockBytes> block{}; // files are hardly ever longer
    std::string text;
    while (text.size() < kReadLimitBytes) {
        const ssize_t got = ::read(file.get(), block.data(), std::min(block.size(), kReadLimitBytes - text.size()));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw std::system_error(errno, std::generic_category());
        if (got == 0)
            break;
        text.append(block.data(), static_cast<std::size_t>(got));
    }
    return text;
}

// Nothing that others have made is opened: the account of such a file decides what stands there.
std::string strangeness(const struct stat &status) {
    if (!S_ISREG(status.st_mode))
        return "it is no regular file";
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return "it belongs to account " + std::to_string(status.st_uid);
    if (static_cast<unsigned long long>(status.st_size) > kConfigLimitBytes)
        return "it has " + std::to_string(status.st_size) + " bytes; " + std::to_string(kConfigLimitBytes) +
               " are accepted";
    return {};
}

UniqueFd openToRead(const std::string &path) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd file = support::aboveStandardStreams(UniqueFd(::open(path.c_str(), kFlags)));
    // Its owner may read it again.
    if (!file && errno == EACCES && ::chmod(path.c_str(), 0600) == 0)
        file = support::aboveStandardStreams(UniqueFd(::open(path.c_str(), kFlags)));
    return file;
}

Found look(const std::string &path) {
    Found found;
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            found.failure = textOfError(errno);
        return found;
    }
    found.there = true;
    found.problem = strangeness(status);
    if (!found.problem.empty())
        return found;
    const UniqueFd file = openToRead(path);
    if (!file) {
        (errno == EACCES || errno == ELOOP ? found.problem : found.failure) = textOfError(errno);
        return found;
    }
    try {
        found.text = read(file);
        found.readable = true;
    } catch (const std::system_error &error) {
        found.failure = textOfError(error.code().value());
    }
    return found;
}

// Why it has to be replaced; empty where it need not be, or nobody can tell now.
std::string problemOf(const Found &found) {
    if (!found.readable)
        return found.problem;
    const ConfigVerdict verdict = judgeConfig(found.text);
    if (!verdict.problem.empty() || verdict.whole)
        return verdict.problem;
    return found.text.empty() ? "it is empty" : "it is no complete JSON document";
}

// The collector rewrites the file whenever it likes, and it is cut for a moment then: what is wrong with it counts when
// it stays so.
Found lookAgainWhileWrong() {
    constexpr int kLooks = 5;
    constexpr std::chrono::milliseconds kPause{10};
    Found found = look(kFile);
    for (int i = 1; i < kLooks && found.readable && !problemOf(found).empty(); ++i) {
        std::this_thread::sleep_for(kPause);
        found = look(kFile);
    }
    return found;
}

[[noreturn]] void fail(const std::string &path) { throw std::system_error(errno, std::generic_category(), path); }

void syncFolder() {
    const UniqueFd folder(::open(kFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || ::fsync(folder.get()) != 0)
        fail(kFolder);
}

void moveTo(const std::string &from, const std::string &to) {
    if (::rename(from.c_str(), to.c_str()) != 0)
        fail(from);
}

int removeOne(const char *path, const struct stat * /*status*/, int /*kind*/, struct FTW * /*place*/) {
    return ::remove(path);
}

// Also a folder with all that is in it; links are not followed.
void removeAll(const std::string &path) {
    constexpr int kDescriptors = 8;
    if (::nftw(path.c_str(), removeOne, kDescriptors, FTW_DEPTH | FTW_PHYS) != 0 && errno != ENOENT)
        fail(path);
}

void writeNew(const std::string &path, const std::string &text) {
    removeAll(path);
    const UniqueFd file = support::aboveStandardStreams(
        UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)));
    if (!file)
        fail(path);
    for (std::size_t written = 0; written < text.size();) {
        const ssize_t size = ::write(file.get(), text.data() + written, text.size() - written);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            fail(path);
        written += static_cast<std::size_t>(size);
    }
    if (::fsync(file.get()) != 0)
        fail(path);
}

std::string refusedName(int number) { return number == 0 ? kRefused : kRefused + "." + std::to_string(number); }

void putAside() {
    removeAll(refusedName(kRefusedKept - 1));
    for (int number = kRefusedKept - 1; number > 0; --number) {
        if (::rename(refusedName(number - 1).c_str(), refusedName(number).c_str()) != 0 && errno != ENOENT)
            fail(refusedName(number - 1));
    }
    moveTo(kFile, kRefused);
}

bool isGood(const Found &found) { return found.readable && problemOf(found).empty(); }

// What stands in for a refused file, and how it is called; none where there is nothing.
struct Substitute {
    std::string text;
    const char *name;
};

std::optional<Substitute> substituteFor(const Found &refused) {
    const Found good = look(kGood);
    if (isGood(good))
        return Substitute{good.text, "the last good one"};
    if (!refused.readable)
        return std::nullopt;
    const ConfigVerdict verdict = judgeConfig(refused.text);
    if (verdict.problem.empty() && !verdict.understood.empty() && judgeConfig(verdict.understood).whole)
        return Substitute{verdict.understood + "\n", "what could be understood of it"};
    return std::nullopt;
}

// The substitute is on the disk before the file goes: should the host be killed between the two, it is found there. On
// a full disk the last good copy itself takes the place.
void replaceBy(const std::optional<Substitute> &substitute) {
    bool ready = false;
    if (substitute) {
        try {
            writeNew(kNew, substitute->text);
            ready = true;
        } catch (const std::system_error &error) {
            logError(std::string(error.what()) + ": cannot be written");
        }
    }
    putAside();
    if (ready)
        moveTo(kNew, kFile);
    else if (substitute && isGood(look(kGood)))
        moveTo(kGood, kFile);
    syncFolder();
}

// After a kill: a whole copy was on the disk, and had not taken its place.
void finishReplacing() {
    if (!isGood(look(kNew)))
        return;
    const Found found = look(kFile);
    if (found.there && !problemOf(found).empty())
        putAside();
    moveTo(kNew, kFile);
    syncFolder();
}

// The plugin writes the file, and can do so only in one of its own.
void adoptFromRoot(const std::string &text) {
    struct stat status {};
    if (::lstat(kConfigFile, &status) != 0 || status.st_uid == ::geteuid())
        return;
    writeNew(kNew, text);
    moveTo(kNew, kFile);
    syncFolder();
}

// What stands where the folder, or one above it, belongs goes out of the way; a folder of ours is opened to us again.
void clearWay() {
    const std::string top = kDataDirectory;
    for (std::size_t end = kFolder.find('/', top.size() + 1); end != std::string::npos;) {
        const std::string folder = kFolder.substr(0, end);
        struct stat status {};
        if (::lstat(folder.c_str(), &status) == 0) {
            if (!S_ISDIR(status.st_mode)) {
                const std::string refused = folder + ".refused";
                removeAll(refused);
                moveTo(folder, refused);
                logError(std::string(folder).append(": is no folder: renamed to ").append(refused));
            } else if (status.st_uid == ::geteuid() && (status.st_mode & S_IRWXU) != S_IRWXU) {
                static_cast<void>(::chmod(folder.c_str(), 0700));
            }
        }
        end = end == kFolder.size() ? std::string::npos : std::min(kFolder.find('/', end + 1), kFolder.size());
    }
    support::makeDataDirectory(kFolder);
}

void heal() {
    clearWay();
    finishReplacing();
    const Found found = lookAgainWhileWrong();
    if (!found.failure.empty())
        return logError(kFile + ": cannot be read now: " + found.failure);
    if (!found.there)
        return;
    const std::string problem = problemOf(found);
    if (problem.empty())
        return adoptFromRoot(found.text);
    const auto substitute = substituteFor(found);
    replaceBy(substitute);
    logError(kFile + ": " + problem + ": put aside as " + kRefused + ", and replaced by " +
             (substitute ? substitute->name : "the defaults"));
}

void syncFile() {
    const UniqueFd file = openToRead(kFile);
    if (!file || ::fsync(file.get()) != 0)
        fail(kFile);
}

// Whether it was renewed does not decide what the caller is told: the file itself is on the disk.
void renewGoodCopy(const std::string &text) try {
    const Found good = look(kGood);
    if (good.readable && good.text == text)
        return;
    const std::string fresh = kGood + ".new";
    writeNew(fresh, text);
    if (!good.problem.empty())
        removeAll(kGood);
    moveTo(fresh, kGood);
    syncFolder();
} catch (const std::system_error &error) {
    logError(std::string(error.what()) + ": the copy of the last good configuration cannot be renewed");
}

} // namespace

std::string configText() { return look(kFile).text; }

void healConfig() try { heal(); } catch (const std::exception &error) {
    logError("the configuration cannot be put right: " + std::string(error.what()));
}

void keepConfig() try {
    const Found found = lookAgainWhileWrong();
    if (!found.there && found.failure.empty())
        return;
    const std::string problem = found.failure.empty() ? problemOf(found) : found.failure;
    if (!problem.empty())
        throw std::runtime_error(kFile + ": " + problem);
    syncFile();
    // What a replacement that failed has left is older, and the next start would let it take the place.
    if (::unlink(kNew.c_str()) != 0 && errno != ENOENT)
        fail(kNew);
    syncFolder();
    renewGoodCopy(found.text);
} catch (const std::runtime_error &error) {
    throw std::runtime_error("the settings are not safe on the disk: " + std::string(error.what()) +
                             "; the next start takes the last good ones");
}

ConfigRestorer::ConfigRestorer() try {
    const Found found = lookAgainWhileWrong();
    if (found.there) {
        if (!isGood(found))
            return;
        writeNew(kNew, found.text);
        syncFolder();
        copied_ = true;
    }
    isReady_ = found.there || found.failure.empty();
} catch (const std::exception &error) {
    logError("a copy of the configuration cannot be made: " + std::string(error.what()));
}

ConfigRestorer::~ConfigRestorer() {
    try {
        if (copied_) {
            moveTo(kNew, kFile);
            syncFolder();
        }
    } catch (const std::exception &error) {
        logError("the configuration may be an older one: " + std::string(error.what()));
    }
}

std::string configRemark() {
    const Found found = look(kFile);
    std::string remark = found.failure.empty() ? problemOf(found) : found.failure;
    if (!remark.empty())
        remark = kFile + ": " + remark;
    else if (::access(kFolder.c_str(), W_OK | X_OK) != 0)
        remark = kFolder + ": settings cannot be stored: " + textOfError(errno);
    const Found refused = look(kRefused);
    if (!refused.there)
        return remark;
    const std::string why = problemOf(refused);
    return (remark.empty() ? "" : remark + "; ") + kRefused + " was put aside" + (why.empty() ? "" : ": " + why) +
           "; the last good configuration took its place, or the defaults where there was none; remove it to end this "
           "message";
}

} // namespace host
