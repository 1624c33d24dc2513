// How a database was left: a small file beside it, "<database>-digest", so that one that is still so need not be
// checked.
#ifndef PLATFORM_MAVO_DATABASE_DIGEST_H
#define PLATFORM_MAVO_DATABASE_DIGEST_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

struct sqlite3;

namespace mavo {
namespace database {

// What a file holds, as far as a hash of 128 bits (XXH3) tells; a random change goes unseen once in 2^128 cases. It is
// no seal: whoever may write the database may write the digest.
struct Content {
    std::int64_t sizeBytes = 0;
    std::array<std::uint64_t, 2> hash{};

    bool operator==(const Content &other) const { return sizeBytes == other.sizeBytes && hash == other.hash; }
};

// Reads the whole file through the descriptor that SQLite has: to open and close it once more would drop every lock of
// this process on it. The caller holds a read lock. An SQLite result; throws std::bad_alloc.
int readContent(sqlite3 *handle, Content &content);

struct Digest {
    Content content;
    // Written since the machine was started. An older one may have been overtaken by a change whose own digest was not
    // on the disk yet when the power went: digests are not synchronised.
    bool ofThisStart = false;
};

// None where there is no digest, or the database was being changed, or what stands there is not understood.
std::optional<Digest> readDigest(const std::string &database);
// Whether something stands there that nobody here has written: then nobody can tell what the database was like.
bool isDigestGarbled(const std::string &database);

// None of these throws or tells of a failure: where the digest cannot be written it is removed, and a missing one costs
// a check at the next opening.
void writeDigest(const std::string &database, const Content &content) noexcept;
// To be called before a change reaches the file, so that whoever is killed in the middle accuses nobody.
void markBeingChanged(const std::string &database) noexcept;
void removeDigest(const std::string &database) noexcept;

} // namespace database
} // namespace mavo

#endif
