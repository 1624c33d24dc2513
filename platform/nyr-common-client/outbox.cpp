#include "nyr-common-client/outbox.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>

#include "nyr-common-client/report-document.h"
#include "support/directories.h"
#include "support/unique-fd.h"
#include "vlog/vlog.h"

namespace nyr {
namespace {

using support::UniqueFd;

// A name is the moment in nanoseconds since the epoch and the process id, both zero-padded. While it is being written a
// file has a dot in front.
constexpr std::size_t kMomentDigits = 20;
constexpr std::size_t kNameLength = sizeof "00000000000000000000-0000000000.json" - 1;

[[noreturn]] void fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), std::string("outbox ") + kOutboxDirectory + ": " + what);
}

std::string makeName(std::uint64_t moment) {
    std::array<char, kNameLength + 1> name{};
    std::snprintf(name.data(), name.size(), "%020llu-%010u.json", static_cast<unsigned long long>(moment),
                  static_cast<unsigned>(::getpid()));
    return name.data();
}

bool isReportName(const std::string &name) {
    static const std::string kPattern = makeName(0);
    return name.size() == kNameLength &&
           std::equal(name.begin(), name.end(), kPattern.begin(), [](char is, char model) {
               return std::isdigit(static_cast<unsigned char>(model)) != 0
                          ? std::isdigit(static_cast<unsigned char>(is)) != 0
                          : is == model;
           });
}

bool isUnderWay(const std::string &name) { return name[0] == '.' && isReportName(name.substr(1)); }

// Empty, with errno set, when it cannot be opened.
UniqueFd openAt(int directory, const std::string &name, int flags, mode_t mode = 0) {
    return support::aboveStandardStreams(
        UniqueFd(::openat(directory, name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode)));
}

bool isOurs(const struct stat &object) { return object.st_uid == ::geteuid() || object.st_uid == 0; }

UniqueFd openOutbox() {
    UniqueFd directory = openAt(AT_FDCWD, kOutboxDirectory, O_RDONLY | O_DIRECTORY);
    struct stat status {};
    if (directory && (::fstat(directory.get(), &status) != 0 || !isOurs(status))) {
        errno = EPERM;
        fail("belongs to account " + std::to_string(status.st_uid));
    }
    return directory;
}

std::vector<std::string> sortedNames(int directory) {
    const auto close = [](DIR *stream) { ::closedir(stream); };
    UniqueFd own = openAt(directory, ".", O_RDONLY | O_DIRECTORY);
    const std::unique_ptr<DIR, decltype(close)> stream(own ? ::fdopendir(own.get()) : nullptr, close);
    if (!stream)
        fail("cannot be read");
    static_cast<void>(own.release()); // the stream's
    std::vector<std::string> names;
    errno = 0;
    while (const dirent *entry = ::readdir(stream.get()))
        names.emplace_back(entry->d_name);
    if (errno != 0)
        fail("cannot be read");
    std::sort(names.begin(), names.end());
    return names;
}

// Lets one process at a time change the outbox. Unlocked, not just closed: a child forked meanwhile holds the same open
// directory.
class Lock {
public:
    explicit Lock(int directory) : directory_(directory) {
        while (::flock(directory_, LOCK_EX) != 0) {
            if (errno != EINTR)
                fail("cannot be locked");
        }
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    ~Lock() { ::flock(directory_, LOCK_UN); }

private:
    int directory_;
};

struct Entry {
    std::string name;
    std::uint64_t bytes;
};

// Reports, oldest first. Removes what a writer that died left: nobody else writes while the lock is held.
std::vector<Entry> takeStock(int directory) {
    std::vector<Entry> entries;
    for (const std::string &name : sortedNames(directory)) {
        struct stat status {};
        if (isUnderWay(name))
            ::unlinkat(directory, name.c_str(), 0);
        else if (isReportName(name) && ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                 S_ISREG(status.st_mode))
            entries.push_back({name, static_cast<std::uint64_t>(status.st_size)});
    }
    return entries;
}

// Later than all that lie there, also when the clock was set back: or the new report would be the first to go.
std::uint64_t nextMoment(const std::vector<Entry> &entries) {
    std::timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    const std::uint64_t now =
        static_cast<std::uint64_t>(time.tv_sec) * 1000000000U + static_cast<std::uint64_t>(time.tv_nsec);
    if (entries.empty())
        return now;
    const std::uint64_t newest = std::strtoull(entries.back().name.substr(0, kMomentDigits).c_str(), nullptr, 10);
    return std::max(now, newest + 1);
}

bool writeAll(int fd, const std::string &text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return false;
        done += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return true;
}

// A file under way; removed unless it was put in its place.
class NewFile {
public:
    NewFile(int directory, std::string name)
        : directory_(directory), name_(std::move(name)), temporary_("." + name_),
          fd_(openAt(directory, temporary_, O_WRONLY | O_CREAT | O_EXCL, 0600)) {
        if (!fd_)
            fail("cannot create " + temporary_);
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile() {
        if (!inPlace_)
            ::unlinkat(directory_, temporary_.c_str(), 0);
    }
    void write(const std::string &text) const {
        if (::fchmod(fd_.get(), 0600) != 0 || !writeAll(fd_.get(), text) || ::fsync(fd_.get()) != 0)
            fail("cannot write " + temporary_);
    }
    void putInPlace() {
        if (::renameat(directory_, temporary_.c_str(), directory_, name_.c_str()) != 0)
            fail("cannot rename " + temporary_);
        inPlace_ = true;
        if (::fsync(directory_) != 0)
            fail("cannot be written");
    }

private:
    const int directory_;
    const std::string name_;
    const std::string temporary_;
    const UniqueFd fd_;
    bool inPlace_ = false;
};

void makeRoom(int directory, const std::vector<Entry> &entries, std::size_t bytes, const OutboxLimits &limits) {
    std::size_t count = entries.size();
    std::uint64_t held = 0;
    for (const Entry &entry : entries)
        held += entry.bytes;
    std::size_t removed = 0;
    for (const Entry &oldest : entries) {
        if (count < limits.reports && held + bytes <= limits.bytes)
            break;
        if (::unlinkat(directory, oldest.name.c_str(), 0) != 0 && errno != ENOENT)
            fail("cannot remove " + oldest.name);
        --count;
        held -= oldest.bytes;
        ++removed;
    }
    if (removed > 0)
        vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "NYR_REPORT",
                   "NYR_REPORT: the outbox is full: removed the oldest reports, %zu of them", removed);
}

// Empty when the file went meanwhile or is no report; `gone` tells which.
std::optional<Report> readReport(int directory, const std::string &name, bool &gone) {
    const UniqueFd fd = openAt(directory, name, O_RDONLY | O_NONBLOCK);
    gone = !fd && errno == ENOENT;
    struct stat status {};
    // A file that is longer than all reports together may be is none.
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || !isOurs(status) ||
        static_cast<std::uint64_t>(status.st_size) > kOutboxByteLimit)
        return std::nullopt;
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    if (::pread(fd.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        return std::nullopt;
    std::optional<Report> report = fromDocument(text);
    if (report)
        report->file = name;
    return report;
}

} // namespace

void putReport(const Report &report, const OutboxLimits &limits) {
    support::makeDataDirectory(kOutboxDirectory);
    const std::string document = toDocument(report);
    if (document.size() > limits.bytes || limits.reports == 0) {
        errno = EFBIG;
        fail("a report of " + std::to_string(document.size()) + " bytes");
    }
    const UniqueFd directory = openOutbox();
    if (!directory)
        fail("cannot be opened");
    const Lock lock(directory.get());
    const std::vector<Entry> entries = takeStock(directory.get());
    NewFile file(directory.get(), makeName(nextMoment(entries)));
    file.write(document);
    makeRoom(directory.get(), entries, document.size(), limits);
    file.putInPlace();
}

std::vector<Report> readOutbox(std::vector<std::string> *ignored) {
    std::vector<Report> reports;
    const UniqueFd directory = openOutbox();
    if (!directory && errno == ENOENT)
        return reports;
    if (!directory)
        fail("cannot be opened");
    for (const std::string &name : sortedNames(directory.get())) {
        if (name == "." || name == ".." || isUnderWay(name))
            continue;
        bool gone = false;
        std::optional<Report> report = isReportName(name) ? readReport(directory.get(), name, gone) : std::nullopt;
        if (report)
            reports.push_back(std::move(*report));
        else if (!gone && ignored != nullptr)
            ignored->push_back(name);
    }
    return reports;
}

} // namespace nyr
