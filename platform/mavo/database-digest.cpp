#include "mavo/database-digest.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sqlite3.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include "mavo/database-files.h"

namespace mavo {
namespace database {

namespace {

// A digest is one line of this length, so that a new one overwrites the old one in place.
constexpr std::size_t kLineBytes = 128;
using Line = std::array<char, kLineBytes + 1>;
constexpr const char *kBeingChanged = "being changed";
constexpr std::size_t kBootIdBytes = 36;
using BootId = std::array<char, kBootIdBytes + 1>;

struct FreeState {
    void operator()(XXH3_state_t *state) const { XXH3_freeState(state); }
};

std::string digestOf(const std::string &database) { return database + "-digest"; }

// A number of this start of the machine; empty when it is not to be had.
const char *bootId() {
    static const BootId id = [] {
        BootId read{};
        const support::UniqueFd file = openFile("/proc/sys/kernel/random/boot_id", O_RDONLY);
        if (!file || ::read(file.get(), read.data(), kBootIdBytes) != static_cast<ssize_t>(kBootIdBytes))
            read = {};
        return read;
    }();
    return id.data();
}

bool overwrite(int fd, const Line &line) { return ::pwrite(fd, line.data(), kLineBytes, 0) == kLineBytes; }

// The text, filled up with blanks.
Line lineOf(const char *text) {
    Line line{};
    std::fill_n(line.begin(), kLineBytes - 1, ' ');
    std::copy_n(text, std::min(std::strlen(text), kLineBytes - 1), line.begin());
    line[kLineBytes - 1] = '\n';
    return line;
}

// Half of a hash, as 16 hexadecimal digits.
bool readHalf(const char *digits, std::uint64_t &half) {
    constexpr int kDigits = 16;
    constexpr int kBase = 16;
    return std::from_chars(digits, digits + kDigits, half, kBase).ptr == digits + kDigits;
}

std::optional<Digest> parse(const Line &line) {
    constexpr std::size_t kHashDigits = 32;
    std::istringstream words(line.data());
    std::string state;
    std::string hash;
    std::string start;
    Digest digest;
    if (!(words >> state >> digest.content.sizeBytes >> hash >> start) || state != "left" ||
        hash.size() != kHashDigits || !readHalf(hash.data(), digest.content.hash[0]) ||
        !readHalf(hash.data() + kHashDigits / 2, digest.content.hash[1]))
        return std::nullopt;
    digest.ofThisStart = start == bootId();
    return digest;
}

std::optional<Line> readLine(const std::string &database) {
    Line line{};
    const support::UniqueFd file = openFile(digestOf(database), O_RDONLY);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size != kLineBytes ||
        ::pread(file.get(), line.data(), kLineBytes, 0) != kLineBytes)
        return std::nullopt;
    return line;
}

} // namespace

int readContent(sqlite3 *handle, Content &content) {
    constexpr sqlite3_int64 kBlockBytes = 65'536;
    sqlite3_file *file = nullptr;
    if (sqlite3_file_control(handle, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK || file == nullptr ||
        file->pMethods == nullptr)
        return SQLITE_MISUSE;
    const std::unique_ptr<XXH3_state_t, FreeState> state(XXH3_createState());
    if (state == nullptr || XXH3_128bits_reset(state.get()) != XXH_OK)
        throw std::bad_alloc();
    sqlite3_int64 size = 0;
    int result = file->pMethods->xFileSize(file, &size);
    const std::unique_ptr<char[]> block(new char[kBlockBytes]);
    for (sqlite3_int64 at = 0; result == SQLITE_OK && at < size; at += kBlockBytes) {
        const auto count = static_cast<int>(std::min(kBlockBytes, size - at));
        result = file->pMethods->xRead(file, block.get(), count, at);
        if (result == SQLITE_OK)
            XXH3_128bits_update(state.get(), block.get(), static_cast<std::size_t>(count));
    }
    const XXH128_hash_t hash = XXH3_128bits_digest(state.get());
    content = {size, {hash.high64, hash.low64}};
    return result;
}

std::optional<Digest> readDigest(const std::string &database) {
    const auto line = readLine(database);
    return line ? parse(*line) : std::nullopt;
}

bool isDigestGarbled(const std::string &database) {
    struct stat status {};
    if (::lstat(digestOf(database).c_str(), &status) != 0)
        return false;
    const auto line = readLine(database);
    return !line || (*line != lineOf(kBeingChanged) && !parse(*line));
}

void writeDigest(const std::string &database, const Content &content) noexcept try {
    const char *const start = bootId();
    if (*start == '\0') // nobody could tell later whose fault a difference is
        return removeDigest(database);
    Line text{};
    std::snprintf(text.data(), text.size(), "left %" PRId64 " %016" PRIx64 "%016" PRIx64 " %s", content.sizeBytes,
                  content.hash[0], content.hash[1], start);
    const support::UniqueFd file = openFile(digestOf(database), O_WRONLY | O_CREAT);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || status.st_size > static_cast<off_t>(kLineBytes) ||
        !overwrite(file.get(), lineOf(text.data())))
        removeDigest(database);
} catch (...) {
    removeDigest(database);
}

void markBeingChanged(const std::string &database) noexcept try {
    const support::UniqueFd file = openFile(digestOf(database), O_WRONLY);
    if (!file && errno == ENOENT)
        return;
    if (!file || !overwrite(file.get(), lineOf(kBeingChanged)))
        removeDigest(database);
} catch (...) {
    removeDigest(database);
}

void removeDigest(const std::string &database) noexcept try {
    ::unlink(digestOf(database).c_str());
} catch (...) { // no memory for the name
}

} // namespace database
} // namespace mavo
