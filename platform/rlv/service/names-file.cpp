#include "rlv/service/names-file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "rlv/number-words.h"
#include "rlv/table/rule-words.h"
#include "support/unique-fd.h"

namespace rlv {
namespace {

constexpr std::string_view kFirstLine = "vpk-names 1\n";
constexpr std::string_view kSum = "sum ";
// Names, times and addresses at their longest, within the limits.
constexpr std::size_t kMaxFileBytes = kMaxKeptNames * (kMaxHostNameLength + 24) + kMaxKeptAddresses * 16 + 64;

std::uint64_t hashOf(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    return hash;
}

std::string sumLine(std::string_view text) {
    std::array<char, 32> line{};
    std::snprintf(line.data(), line.size(), "sum %016llx\n", static_cast<unsigned long long>(hashOf(text)));
    return line.data();
}

std::string dotted(std::uint32_t address) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += std::to_string(address >> shift & 0xff) + (shift > 0 ? "." : "");
    return text;
}

std::string_view takeUntil(std::string_view &rest, char separator) {
    const std::size_t end = std::min(rest.find(separator), rest.size());
    const std::string_view part = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return part;
}

std::int64_t timeOf(std::string_view word) {
    std::int64_t seconds = -1;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), seconds);
    if (error != std::errc() || end != word.data() + word.size() || seconds < 0)
        throw std::runtime_error("no time: " + std::string(word));
    return seconds;
}

std::uint32_t addressOf(std::string_view word) {
    const auto network = parseNetwork(word);
    if (!network || network->prefixLength != 32)
        throw std::runtime_error("no address: " + std::string(word));
    return network->address;
}

KeptName decodeLine(std::string_view line) {
    KeptName kept;
    kept.name = takeUntil(line, ' ');
    if (!isHostName(kept.name))
        throw std::runtime_error("no host name: " + kept.name);
    kept.confirmed = timeOf(takeUntil(line, ' '));
    while (!line.empty())
        kept.addresses.push_back(addressOf(takeUntil(line, ' ')));
    std::sort(kept.addresses.begin(), kept.addresses.end());
    if (kept.addresses.empty() || kept.addresses.size() > kMaxAddresses)
        throw std::runtime_error("no address of " + kept.name + ", or too many");
    return kept;
}

[[noreturn]] void fail(const std::string &path) { throw std::system_error(errno, std::generic_category(), path); }

void writeAll(int fd, std::string_view text, const std::string &path) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR)
            fail(path);
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
}

void syncFolderOf(const std::string &path) {
    const std::size_t slash = path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const support::UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || ::fsync(fd.get()) != 0)
        fail(folder);
}

std::string readAll(int fd, std::size_t bytes, const std::string &path) {
    std::string text(bytes, '\0');
    std::size_t done = 0;
    while (done < bytes) {
        const ssize_t size = ::read(fd, text.data() + done, bytes - done);
        if (size < 0 && errno != EINTR)
            fail(path);
        if (size == 0)
            break;
        done += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    }
    text.resize(done);
    return text;
}

} // namespace

std::string encodeNames(const std::vector<KeptName> &names) {
    std::string text(kFirstLine);
    std::size_t room = kMaxKeptAddresses;
    for (const KeptName &kept : names) {
        if (kept.addresses.size() > room)
            continue;
        room -= kept.addresses.size();
        text += kept.name + ' ' + std::to_string(kept.confirmed);
        for (const auto address : kept.addresses)
            text += ' ' + dotted(address);
        text += '\n';
    }
    return text + sumLine(text);
}

std::vector<KeptName> decodeNames(std::string_view text) {
    if (text.substr(0, kFirstLine.size()) != kFirstLine)
        throw std::runtime_error("the first line is another one");
    const std::size_t sum = text.rfind(kSum);
    if (sum == std::string_view::npos || text.substr(sum) != sumLine(text.substr(0, sum)))
        throw std::runtime_error("damaged: the sum is wrong");
    std::string_view lines = text.substr(kFirstLine.size(), sum - kFirstLine.size());
    std::vector<KeptName> names;
    while (!lines.empty()) {
        names.push_back(decodeLine(takeUntil(lines, '\n')));
        if (names.size() > kMaxKeptNames)
            throw std::runtime_error("more names than are kept");
    }
    return names;
}

std::vector<KeptName> readNames(const std::string &path) try {
    const support::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd && errno == ENOENT)
        return {};
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0)
        throw std::runtime_error(std::strerror(errno));
    if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid())
        throw std::runtime_error("not a regular file of this account");
    if (status.st_size < 0 || static_cast<std::uint64_t>(status.st_size) > kMaxFileBytes)
        throw std::runtime_error("longer than " + std::to_string(kMaxFileBytes) + " bytes");
    return decodeNames(readAll(fd.get(), static_cast<std::size_t>(status.st_size), path));
} catch (const std::runtime_error &error) {
    throw std::runtime_error(path + ": " + error.what());
}

void writeNames(const std::string &path, const std::vector<KeptName> &names) {
    const std::string beside = path + ".new";
    if (::unlink(beside.c_str()) != 0 && errno != ENOENT)
        fail(beside);
    const support::UniqueFd fd(::open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd)
        fail(beside);
    writeAll(fd.get(), encodeNames(names), beside);
    if (::fsync(fd.get()) != 0)
        fail(beside);
    if (::rename(beside.c_str(), path.c_str()) != 0)
        fail(path);
    syncFolderOf(path);
}

bool putAside(const std::string &path) { return ::rename(path.c_str(), (path + ".refused").c_str()) == 0; }

} // namespace rlv
