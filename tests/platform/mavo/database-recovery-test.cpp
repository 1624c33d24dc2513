// What becomes of damaged databases whose program has said which file is for what, and of faults in the middle of that.
#include "mavo/database-recovery.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "protected-database.h"
#include "support/file-calls.h"

namespace {

using namespace protecteddatabase; // NOLINT(google-build-using-namespace): made for these tests
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// The damages that are found at an opening.
const std::vector<std::function<void()>> &damages() {
    static const std::vector<std::function<void()>> all{
        [] { fs::remove(kMain); },
        [] { write(kMain, ""); },
        [] { write(kMain, std::string(5'000, 'x')); },
        [] { fs::resize_file(kMain, 4'096); },
        [] { fs::resize_file(kMain, 100); },
        [] { write(kMain, contentOf(kMain).replace(4'096, 100, 100, '\x55')); },
    };
    return all;
}

TEST_F(AProtectedDatabase, MakesNoJournalOfSomebodyElseItsOwn) {
    const std::string journal = kMain + "-journal";
    fs::remove(journal);
    write(journal, "not to be touched");
    if (::chown(journal.c_str(), 4711, 4711) != 0)
        GTEST_SKIP() << "no other account to be had";
    EXPECT_EQ(open(kMain), "unavailable");
    struct stat status {};
    ASSERT_EQ(::stat(journal.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 4711U);
    EXPECT_EQ(contentOf(journal), "not to be touched");
    fs::remove(journal);
}

TEST_F(AProtectedDatabase, IsNotWaitedForWhereAPipeLiesInAPlaceOfItsFiles) {
    for (const char *suffix : {"-journal", "-wal", ""}) {
        const std::string place = kMain + suffix;
        fs::remove(place);
        ASSERT_EQ(::mkfifo(place.c_str(), 0644), 0);
        EXPECT_EQ(open(kMain), "unavailable") << place;
        EXPECT_EQ(open(kMain, 1), "unavailable") << place;
        EXPECT_TRUE(fs::is_fifo(place));
        fs::remove(place);
    }
}

TEST_F(AProtectedDatabase, IsReplacedByItsBackupWhateverIsWrongWithIt) {
    for (const auto &damage : damages()) {
        damage();
        EXPECT_EQ("open", open(kMain));
        EXPECT_EQ("one,two", rows());
        EXPECT_EQ(1U, told.size());
        told.clear();
    }
}

TEST_F(AProtectedDatabase, IsReplacedWhenAnIndexIsDamaged) {
    damageIndexOf(kMain);
    const std::string damaged = contentOf(kMain);
    EXPECT_EQ("one,two", rows());
    EXPECT_EQ(contentOf(kBackup), contentOf(kMain));
    EXPECT_EQ(damaged, contentOf(kMain + ".aside-1"));
    EXPECT_THAT(told, ElementsAre(HasSubstr("was damaged and put aside")));
    EXPECT_THAT(mavo::database::filesAside(kMain), ElementsAre(kMain + ".aside-1"));
}

// Databases without a damage, of which none is ours.
const std::vector<std::string> &foreignSchemas() {
    static const std::vector<std::string> all{
        "CREATE TABLE other (a TEXT PRIMARY KEY)",
        "CREATE TABLE t (b TEXT PRIMARY KEY)",
    };
    return all;
}

void exchangeFor(const std::string &path, const std::string &schema) {
    for (const char *suffix : {"", "-journal", "-digest"})
        fs::remove(path + suffix);
    sqlite3 *other = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &other));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, schema.c_str(), nullptr, nullptr, nullptr));
    sqlite3_close(other);
}

TEST_F(AProtectedDatabase, IsReplacedWhenASoundOneOfSomethingElseLiesThere) {
    for (const std::string &schema : foreignSchemas()) {
        exchangeFor(kMain, schema);
        const std::string foreign = contentOf(kMain);
        EXPECT_EQ("open", open(kMain)) << schema;
        EXPECT_EQ("one,two", rows());
        EXPECT_EQ(foreign, contentOf(kMain + ".aside-1"));
        EXPECT_THAT(told, ElementsAre(HasSubstr("(no such "))) << schema;
        told.clear();
    }
}

TEST_F(AProtectedDatabase, IsReplacedWhenItHasNoTableYetAndItsBackupHas) {
    exchangeFor(kMain, "PRAGMA user_version=1");
    EXPECT_EQ("open", open(kMain));
    EXPECT_EQ("one,two", rows());
}

TEST_F(AProtectedDatabase, StaysWhenItsBackupIsNoBetter) {
    for (const char *schema : {"CREATE TABLE other (a TEXT PRIMARY KEY)", "PRAGMA user_version=1"}) {
        exchangeFor(kMain, schema);
        exchangeFor(kBackup, "CREATE TABLE other (b TEXT)");
        EXPECT_EQ("open", open(kMain)) << schema;
        EXPECT_EQ("", rows());
        EXPECT_THAT(told, IsEmpty());
        EXPECT_THAT(mavo::database::filesAside(kMain), IsEmpty());
    }
}

// Nothing could ever be stored in it.
TEST_F(AProtectedDatabase, IsPutAsideWhereItsTableHasOtherColumnsAndNoBackupIsBetter) {
    exchangeFor(kMain, "CREATE TABLE t (b TEXT PRIMARY KEY)");
    write(kBackup, std::string(5'000, 'x'));
    const std::string found = contentOf(kMain);
    EXPECT_EQ("damaged", open(kMain));
    EXPECT_THAT(told, ElementsAre(HasSubstr("neither the database nor its backup is sound")));
    EXPECT_EQ(found, contentOf(kMain + ".aside-1"));
    EXPECT_EQ("open", open(kMain, kCreate));
    EXPECT_EQ("", rows());
}

void setVersionForWriters(const std::string &path, char version) {
    constexpr std::size_t kOffset = 18;
    std::string content = contentOf(path);
    content[kOffset] = version;
    write(path, content);
}

TEST_F(AProtectedDatabase, IsReplacedWhenItsFormatCanOnlyBeRead) {
    setVersionForWriters(kMain, 3);
    EXPECT_EQ("open", open(kMain));
    store("three");
    EXPECT_EQ("one,three,two", rows());
    EXPECT_THAT(told, ElementsAre(HasSubstr("was damaged and put aside (is in a format for writers of version 3)")));
}

TEST_F(AProtectedDatabase, IsNotReplacedByABackupWhoseFormatCanOnlyBeRead) {
    write(kMain, std::string(5'000, 'x'));
    setVersionForWriters(kBackup, 3);
    EXPECT_EQ("damaged", open(kMain));
    EXPECT_THAT(told, ElementsAre(HasSubstr("neither the database nor its backup is sound")));
}

TEST_F(AProtectedDatabase, StaysWithoutRowsBesideABackupWithThem) {
    {
        Connection connection(kMain, kReadWrite, true);
        run(connection, "DELETE FROM t");
    }
    EXPECT_EQ("", rows());
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(AProtectedDatabase, TakesNoBackupOfSomethingElse) {
    exchangeFor(kBackup, foreignSchemas().front());
    write(kMain, std::string(5'000, 'x'));
    EXPECT_EQ("damaged", open(kMain));
    EXPECT_THAT(told, ElementsAre(HasSubstr("neither the database nor its backup is sound")));
}

TEST_F(AProtectedDatabase, KeepsThreeDamagedFiles) {
    for (const char mark : {'a', 'b', 'c', 'd'}) {
        write(kMain, std::string(1'000, mark));
        EXPECT_EQ("open", open(kMain));
    }
    EXPECT_EQ('d', contentOf(kMain + ".aside-1").front());
    EXPECT_EQ('c', contentOf(kMain + ".aside-2").front());
    EXPECT_EQ('b', contentOf(kMain + ".aside-3").front());
    EXPECT_EQ(0U, names().count("rules.aside-4"));
}

TEST_F(AProtectedDatabase, LosesNothingOfAnInterruptedTransaction) {
    makeHotJournal(kMain);
    EXPECT_EQ("one,two", rows());
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(AProtectedDatabase, PutsAnOrphanJournalAsideBeforeItIsReplaced) {
    makeHotJournal(kMain);
    fs::remove(kMain);
    EXPECT_EQ("one,two", rows());
    EXPECT_EQ(contentOf(kBackup), contentOf(kMain));
    EXPECT_THAT(mavo::database::filesAside(kMain), ElementsAre(kMain + "-journal.aside-1"));
    EXPECT_THAT(told, ElementsAre(kMain + "-journal: a journal without its database was put aside",
                                  kMain + ": was not there; its backup has taken its place"));
}

TEST_F(AProtectedDatabase, KeepsCopiesOfBothWhenBothAreDamaged) {
    damageIndexOf(kMain);
    damageIndexOf(kBackup);
    EXPECT_EQ("damaged", open(kMain));
    EXPECT_FALSE(fs::exists(kMain));
    EXPECT_FALSE(fs::exists(kBackup));
    EXPECT_TRUE(fs::exists(kMain + ".aside-1"));
    EXPECT_TRUE(fs::exists(kBackup + ".aside-1"));
    EXPECT_EQ("damaged", open(kBackup)) << "as the plugin's own restore begins";
    EXPECT_EQ("open", open(kMain, kCreate));
    EXPECT_EQ(1U, told.size());
}

TEST_F(AProtectedDatabase, IsAbsentAtTheFirstStartAndNothingIsSaid) {
    fs::remove_all(kFolder);
    fs::create_directories(kFolder);
    EXPECT_EQ("damaged", open(kMain));
    EXPECT_EQ("damaged", open(kBackup));
    EXPECT_EQ("open", open(kMain, kCreate));
    EXPECT_THAT(told, IsEmpty());
    EXPECT_THAT(mavo::database::filesAside(kMain), IsEmpty());
}

TEST_F(AProtectedDatabase, KeepsItsBackupFromBeingRestoredWhileItIsThere) {
    EXPECT_EQ("unavailable", open(kBackup));
    EXPECT_EQ("open", open(kMain));
}

TEST_F(AProtectedDatabase, IsNotReplacedUnderAnOpenConnection) {
    const Connection first(kMain, kReadWrite, true);
    write(kMain, std::string(5'000, 'x'));
    EXPECT_EQ("unavailable", open(kMain));
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(AProtectedDatabase, IsReplacedWholeAndByNothingElse) {
    {
        Connection connection(kMain, kReadWrite, true);
        run(connection, "INSERT INTO t VALUES (hex(zeroblob(100000)))");
    }
    const std::string large = contentOf(kMain);
    write(kBackup, large);
    ASSERT_EQ(0, ::chmod(kBackup.c_str(), 0640));
    write(kMain, std::string(5'000, 'x'));
    { const Connection connection(kMain, kReadWrite, true); }
    EXPECT_TRUE(contentOf(kMain) == large);
    EXPECT_EQ(fs::status(kMain).permissions(), fs::status(kBackup).permissions());
    for (const char *left : {"rules-new", "rules-new-journal", "rules-new-digest"})
        EXPECT_EQ(0U, names().count(left)) << left;
    EXPECT_EQ(1U, told.size());
}

// How often the folder was made durable in the opening.
std::ptrdiff_t foldersSynchronised(const std::string &path, int flags) {
    calls::synchronised.clear();
    try {
        const Connection connection(path, flags, true);
    } catch (const mavo::Exception &) {
    }
    return std::count(calls::synchronised.begin(), calls::synchronised.end(), kFolder);
}

TEST_F(AProtectedDatabase, HasEveryNewNameMadeDurable) {
    EXPECT_EQ(0, foldersSynchronised(kMain, kReadWrite));
    EXPECT_EQ(1, foldersSynchronised(kFolder + "/new", kCreate));
    write(kFolder + "/empty", "");
    EXPECT_EQ(0, foldersSynchronised(kFolder + "/empty", kCreate));
    damageIndexOf(kMain);
    EXPECT_EQ(1, foldersSynchronised(kMain, kReadWrite)) << "its backup has taken its place";
    damageIndexOf(kMain);
    damageIndexOf(kBackup);
    EXPECT_EQ(1, foldersSynchronised(kMain, kReadWrite)) << "both were put aside";
    write(kStatistics, std::string(5'000, 'x'));
    EXPECT_EQ(2, foldersSynchronised(kStatistics, kCreate)) << "put aside, and made";
    store("one", kStatistics);
    makeHotJournal(kStatistics);
    fs::remove(kStatistics);
    EXPECT_EQ(2, foldersSynchronised(kStatistics, kCreate)) << "its journal put aside, and made";
}

// ---- faults in the middle ----

TEST_F(AProtectedDatabase, IsBackInItsPlaceWhenItsBackupCannotTakeIt) {
    const std::string damaged(5'000, 'x');
    write(kMain, damaged);
    calls::renames = {0, ENOSPC}; // put aside, but not replaced
    EXPECT_EQ("unavailable", open(kMain));
    EXPECT_EQ(damaged, contentOf(kMain));
    EXPECT_THAT(mavo::database::filesAside(kMain), IsEmpty());
    EXPECT_EQ("one,two", rows());
    fs::remove(kMain);
    fs::remove(kMain + ".aside-1");
    calls::renames = {ENOSPC};
    EXPECT_EQ("unavailable", open(kMain));
    EXPECT_FALSE(fs::exists(kMain));
    EXPECT_EQ("one,two", rows());
}

int unavailableWith(int descriptors) {
    { const Unavailable first("a sanitizer opens files when it meets the first object of a type"); }
    const rlimit limit{static_cast<rlim_t>(descriptors), static_cast<rlim_t>(descriptors)};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const std::string result = open(kMain);
    return result == "unavailable" ? 0 : result == "open" ? 1 : 2;
}

TEST_F(AProtectedDatabase, StaysAsItIsWhileDescriptorsAreShort) {
    write(kMain, std::string(5'000, 'x'));
    const auto before = std::pair(contentOf(kMain), contentOf(kBackup));
    int refused = 0;
    for (int descriptors = 0; descriptors < 12; ++descriptors) {
        const int result = inChild([=] { return unavailableWith(descriptors); });
        ASSERT_NE(2, result) << descriptors;
        if (result == 1)
            break;
        ++refused;
        EXPECT_EQ(before, std::pair(contentOf(kMain), contentOf(kBackup))) << descriptors;
        EXPECT_EQ(0U, names().count("rules-new"));
    }
    EXPECT_GT(refused, 3);
    EXPECT_EQ("one,two", rows());
}

TEST_F(AProtectedDatabase, StaysAsItIsWhileTheDiskIsFull) {
    ASSERT_EQ(0, ::mount("small", kFolder.c_str(), "tmpfs", 0, "size=64k"));
    store("one");
    write(kBackup, contentOf(kMain));
    write(kMain, std::string(4'096, 'x'));
    write(kFolder + "/filler", std::string(65'536, 'x'));
    const std::string backup = contentOf(kBackup);
    EXPECT_EQ("unavailable", open(kMain));
    EXPECT_EQ(std::string(4'096, 'x'), contentOf(kMain));
    EXPECT_EQ(backup, contentOf(kBackup));
    fs::remove(kFolder + "/filler");
    EXPECT_EQ("one", rows());
    ::umount(kFolder.c_str());
}

TEST_F(AProtectedDatabase, StaysAsItIsWhileNoFileMayGrow) {
    write(kMain, std::string(5'000, 'x'));
    EXPECT_EQ(0, inChild([] {
                  ::signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{2'000, 2'000};
                  ::setrlimit(RLIMIT_FSIZE, &limit);
                  return open(kMain) == "unavailable" ? 0 : 1;
              }));
    EXPECT_EQ("one,two", rows());
}

// Failing system calls: the `times` ones after the next `skip`.
struct Faults {
    int skip = 0;
    int times = 0;
    int error = 0;

    bool isMet() {
        if (times == 0 || skip-- > 0)
            return false;
        skip = 0;
        --times;
        errno = error;
        return true;
    }
};
Faults reads;
Faults opens;

template <typename Function> Function *next(const char *name) {
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

constexpr int kForGood = 1 << 30;

// The fault comes at each of the calls of an opening, and is over after two of them.
TEST_F(AProtectedDatabase, IsReadAgainAfterErrorsThatPass) {
    reads = {0, kForGood, 0};
    reads.skip = kForGood;
    { const Connection connection(kMain, kReadWrite, true); }
    const int readsOfConstructor = kForGood - reads.skip;
    int skipped = 0;
    for (; skipped < 20; ++skipped) {
        reads = {skipped, 2, EIO};
        const std::string result = open(kMain);
        if (reads.times != 0)
            break;
        EXPECT_EQ(skipped < readsOfConstructor ? "open" : "unavailable", result) << skipped;
        EXPECT_EQ("one,two", rows());
    }
    reads = {};
    EXPECT_GT(skipped, 4);
    EXPECT_LT(skipped, 20);
    EXPECT_THAT(told, IsEmpty());
    EXPECT_THAT(mavo::database::filesAside(kMain), IsEmpty());
}

TEST_F(AProtectedDatabase, IsUnavailableAfterAnErrorOnReadingThatSaysNothingOfTheFile) {
    for (const int error : {ENOMEM, ENOBUFS, EMFILE, ENFILE, EAGAIN, ENOLCK}) {
        for (int at = 0; at < 7; ++at) {
            reads = {at, 1, error};
            EXPECT_EQ("unavailable", open(kMain)) << at << ", " << error;
            EXPECT_EQ(0, reads.times);
            EXPECT_EQ("one,two", rows());
        }
    }
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(AProtectedDatabase, IsNotReplacedWhileTheDiskReadsNothingAtAll) {
    reads = {0, kForGood, EIO};
    EXPECT_EQ("unavailable", open(kMain));
    EXPECT_LT(reads.times, kForGood);
    reads = {};
    EXPECT_EQ("one,two", rows());
    EXPECT_THAT(mavo::database::filesAside(kMain), IsEmpty());
}

TEST_F(AProtectedDatabase, IsUnavailableWhenOneOpenFailsForAPassingReason) {
    for (const int error : {EMFILE, ENFILE, ENOMEM, EACCES, EIO}) {
        opens = {0, 1, error};
        EXPECT_EQ("unavailable", open(kMain)) << error;
        EXPECT_EQ("one,two", rows());
    }
    EXPECT_THAT(told, IsEmpty());
}

TEST(AnUnprotectedDatabase, IsRefusedAfterThreeErrorsOnReading) {
    fs::create_directories(kFolder);
    const std::string path = kFolder + "/unprotected";
    store("one", path);
    fs::remove(path + "-journal"); // which could not be read either
    reads = {0, kForGood, EIO};
    EXPECT_EQ("damaged", open(path));
    reads = {};
    EXPECT_EQ("one", rows(path));
}

// Which would be taken for a damaged one next time.
TEST(ANewDatabase, LeavesNoEmptyFileWhereItsOpeningFails) {
    fs::create_directories(kFolder);
    const std::string path = kFolder + "/new";
    int failed = 0;
    for (reads = {0, 1, ENOMEM}; reads.times == 1; reads = {failed, 1, ENOMEM}) {
        fs::remove(path);
        try {
            const Connection connection(path, kCreate, true);
            break;
        } catch (const Unavailable &) {
            EXPECT_FALSE(fs::exists(path)) << failed;
        }
        ++failed;
    }
    EXPECT_GT(failed, 0);
    write(path, "");
    reads = {0, 1, ENOMEM};
    EXPECT_THROW(Connection(path, kCreate, true), Unavailable);
    EXPECT_TRUE(fs::exists(path)) << "which was there before";
    reads = {};
}

// ---- digests ----

std::string digest() { return contentOf(kMain + "-digest"); }

TEST_F(AProtectedDatabase, IsNotCheckedWhenItIsAsItWasLeft) {
    const std::string left = digest();
    EXPECT_THAT(left, HasSubstr("left "));
    damageIndexOf(kMain);
    { const Connection unchecked(kMain, kReadWrite, false); }
    EXPECT_EQ(left, digest());
    EXPECT_EQ("one,two", rows());
    EXPECT_THAT(told, ElementsAre(HasSubstr("damaged")));
}

TEST_F(AProtectedDatabase, IsUsedAndSpokenOfOnceWhenSomebodyElseChangedIt) {
    sqlite3 *other = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(kMain.c_str(), &other));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "INSERT INTO t VALUES ('their own')", nullptr, nullptr, nullptr));
    sqlite3_close(other);
    EXPECT_EQ("one,their own,two", rows());
    EXPECT_THAT(told, ElementsAre(kMain + ": is sound, but not as this system left it: another program has changed it; "
                                          "it is used as it is"));
    EXPECT_EQ("one,their own,two", rows());
    EXPECT_EQ(1U, told.size());
}

TEST_F(AProtectedDatabase, MayHaveBeenChangedByThePowerWhereItsDigestIsOfAnEarlierStart) {
    std::string earlier = digest();
    earlier.replace(earlier.find_last_not_of(" \n"), 1, "X"); // of the machine's number
    write(kMain + "-digest", earlier);
    EXPECT_EQ("one,two", rows());
    EXPECT_THAT(told, IsEmpty());
    earlier[5] = earlier[5] == '1' ? '2' : '1'; // of the size
    write(kMain + "-digest", earlier);
    EXPECT_EQ("one,two", rows());
    EXPECT_THAT(told,
                ElementsAre(kMain + ": is sound, but not as this system left it: another program has changed it or "
                                    "its digest, or the power went just after a change; it is used as it is"));
}

TEST_F(AProtectedDatabase, AccusesNobodyAfterItsOwnProcessWasKilled) {
    EXPECT_EQ(0, inChild([] {
                  Connection connection(kMain, kReadWrite, true);
                  run(connection, "INSERT INTO t VALUES ('three')");
                  ::_exit(0); // no destructor
                  return 1;
              }));
    EXPECT_THAT(digest(), HasSubstr("being changed"));
    EXPECT_EQ("one,three,two", rows());
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(AProtectedDatabase, HasADigestOfItsLastStateAfterTwoConnections) {
    {
        Connection first(kMain, kReadWrite, true);
        run(first, "INSERT INTO t VALUES ('three')");
        {
            Connection second(kMain, kReadWrite, true);
            run(second, "INSERT INTO t VALUES ('four')");
        }
        EXPECT_THAT(digest(), HasSubstr("being changed"));
        run(first, "INSERT INTO t VALUES ('five')");
    }
    EXPECT_EQ("five,four,one,three,two", rows());
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(AProtectedDatabase, IsCheckedWhenItsDigestIsNotUnderstood) {
    for (const std::string &text : {std::string(), std::string("left"), std::string(128, 'x'), digest() + "more"}) {
        told.clear();
        write(kMain + "-digest", text);
        EXPECT_EQ("one,two", rows());
        EXPECT_THAT(told, ElementsAre(HasSubstr("another program has changed it or its digest"))) << text;
    }
    told.clear();
    fs::remove(kMain + "-digest");
    damageIndexOf(kMain);
    EXPECT_EQ("one,two", rows());
    EXPECT_THAT(told, ElementsAre(HasSubstr("damaged")));
}

// ---- statistics ----

TEST_F(AProtectedDatabase, IsMadeAnewWhereThatMayBe) {
    write(kStatistics, std::string(5'000, 'x'));
    EXPECT_EQ("open", open(kStatistics, kCreate));
    EXPECT_EQ("", rows(kStatistics));
    EXPECT_EQ(std::string(5'000, 'x'), contentOf(kStatistics + ".aside-1"));
    EXPECT_THAT(told, ElementsAre(HasSubstr("a new one is made")));
}

TEST_F(AProtectedDatabase, IsMadeAnewWhereASoundOneOfSomethingElseLies) {
    for (const std::string &schema : foreignSchemas()) {
        exchangeFor(kStatistics, schema);
        EXPECT_EQ("open", open(kStatistics, kCreate));
        EXPECT_EQ("", rows(kStatistics));
        EXPECT_THAT(told, ElementsAre(HasSubstr("a new one is made"))) << schema;
        told.clear();
    }
}

TEST_F(AProtectedDatabase, IsMadeAnewWithoutTheJournalOfWhatWasThere) {
    store("one", kStatistics);
    makeHotJournal(kStatistics);
    write(kStatistics, "");
    EXPECT_EQ("open", open(kStatistics, kCreate));
    EXPECT_EQ("", rows(kStatistics));
    EXPECT_THAT(mavo::database::filesAside(kStatistics), ElementsAre(kStatistics + "-journal.aside-1"));
}

TEST_F(AProtectedDatabase, IsUsedWhereItIsToBeMadeAnewAndHasNoTableYet) {
    exchangeFor(kStatistics, "PRAGMA user_version=1");
    EXPECT_EQ("open", open(kStatistics, kCreate));
    EXPECT_THAT(told, IsEmpty());
}

} // namespace

// In place of the C library's, for SQLite and everybody else in this program.
extern "C" {

__attribute__((visibility("default"))) ssize_t pread64(int fd, void *buffer, std::size_t count, off64_t offset) {
    static auto *const real = next<ssize_t(int, void *, std::size_t, off64_t)>("pread64");
    return reads.isMet() ? -1 : real(fd, buffer, count, offset);
}

__attribute__((visibility("default"))) int open64(const char *path, int flags, ...) {
    static auto *const real = next<int(const char *, int, ...)>("open64");
    std::va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    return opens.isMet() ? -1 : real(path, flags, mode);
}
}
