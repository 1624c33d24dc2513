#include "firewall-storage.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <future>
#include <ostream>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "mavo/exception.h"
#include "support/fake-mavo.h"
#include "support/fake-vlog.h"
#include "support/sqlite-file.h"

namespace {

std::function<void(const std::string &path)> onRemove;

} // namespace

// In place of the C library's.
extern "C" int remove(const char *path) noexcept {
    if (onRemove)
        onRemove(path);
    return ::unlink(path) == 0 ? 0 : ::rmdir(path);
}

namespace {

using sqlitefile::content;
using sqlitefile::execute;
using sqlitefile::query;
using sqlitefile::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kFolder = "/opt/data/vpk/db";
const std::string kMain = kFolder + "/.firewall.db";
const std::string kBackup = kFolder + "/.firewall.db-backup";

const std::string kCreate =
    "CREATE TABLE IF NOT EXISTS firewall_rules (                               protocol    TEXT,                       "
    "        domain      TEXT,                               port        TEXT,                               direction "
    "  INTEGER NOT NULL,                               is_allowed  INTEGER NOT NULL,                               "
    "PRIMARY KEY (protocol, domain, port) ON CONFLICT REPLACE)";
const std::string kInsert = "INSERT INTO firewall_rules(protocol, domain, port, direction, is_allowed)                 "
                            "   VALUES(?, ?, ?, ?, ?)";
const std::string kDelete = "DELETE FROM firewall_rules WHERE                    is_allowed = ?";
const std::string kSelectOpposite = "SELECT direction, is_allowed FROM firewall_rules WHERE                    "
                                    "protocol = ? AND domain = ? AND port = ?";

const std::string kCantOpen = "E VPK: can't open and prepare db: unable to open database file";
const std::string kTryRestore = "I VPK: try to restore db";
const std::string kCantRestore = "E VPK: can't restore backup db: unable to open database file";
const std::string kCreateNew = "I VPK: create new db";
const std::string kBackedUp = "I VPK: db backup was created";

// An exception of the standard's kind without a text.
struct Speechless : std::exception {
    const char *what() const noexcept override { return nullptr; }
};

FirewallRule rule(const std::string &text, const std::string &target) { return {text, target}; }

std::vector<std::string> stored(const std::string &path = kMain) {
    return query(path, "SELECT * FROM firewall_rules ORDER BY rowid");
}

void insert(const std::string &values) { execute(kMain, "INSERT INTO firewall_rules VALUES " + values); }

std::string shown(const FirewallRule &one) {
    return one.protocol + "|" + one.domain + "|" + one.port + "|" + std::to_string(one.direction) + "|" + one.target;
}

using Rules = std::vector<std::shared_ptr<FirewallRule>>;

std::vector<std::string> shown(const Rules &rules) {
    std::vector<std::string> texts;
    texts.reserve(rules.size());
    for (const auto &one : rules)
        texts.push_back(shown(*one));
    return texts;
}

std::vector<std::string> files() {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(kFolder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

class AStorage : public testing::Test {
protected:
    AStorage() {
        std::filesystem::remove_all("/opt/data");
        std::filesystem::create_directories(kFolder);
        fakemavo::reset();
        fakevlog::clear();
    }

    // From here on only what the test itself does is on record.
    static void forget() {
        fakemavo::clearTrace();
        fakevlog::clear();
    }

    static void makeMain() { execute(kMain, kCreate); }

    // Lets opening `path` fail with what `failure` throws, the first `times` times.
    template <typename Failure>
    static void failOpening(const std::string &path, const Failure &failure, int times = 1) {
        fakemavo::hooks().open = [=](const std::string &opened, int) mutable {
            if (opened == path && times-- > 0)
                throw failure;
        };
    }
};

// Opening.

static_assert(!std::is_copy_constructible<FirewallStorage>::value, "one connection has one owner");

TEST_F(AStorage, OpensTheMainFileWithoutCreatingIt) {
    makeMain();
    { const FirewallStorage storage; }
    EXPECT_THAT(fakemavo::trace(), ElementsAre("open " + kMain + " 2 verify", "prepare " + kCreate, "exec done",
                                               "finalize", "close " + kMain));
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
}

TEST_F(AStorage, MakesTheTableInAFileWithoutOne) {
    execute(kMain, "CREATE TABLE other (x)");
    const FirewallStorage storage;
    EXPECT_THAT(query(kMain, "SELECT sql FROM sqlite_master WHERE name = 'firewall_rules'"),
                ElementsAre("CREATE TABLE firewall_rules" + kCreate.substr(kCreate.find(" ("))));
}

TEST_F(AStorage, CreatesAnEmptyDatabaseAtTheFirstStart) {
    const FirewallStorage storage;
    EXPECT_THAT(fakemavo::trace(),
                ElementsAre("open " + kMain + " 2 verify", "open " + kBackup + " 2 verify",
                            "open " + kMain + " 6 verify", "prepare " + kCreate, "exec done", "finalize"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kCantOpen, kTryRestore, kCantRestore, kCreateNew));
    EXPECT_THAT(stored(), IsEmpty());
    EXPECT_THAT(files(), ElementsAre(".firewall.db"));
}

TEST_F(AStorage, RestoresAMissingMainFileFromTheBackup) {
    makeMain();
    insert("('tcp', 'a', '80', 1, 0)");
    std::filesystem::rename(kMain, kBackup);
    const std::string backup = content(kBackup);
    { const FirewallStorage storage; }
    EXPECT_THAT(fakemavo::trace(),
                ElementsAre("open " + kMain + " 2 verify", "open " + kBackup + " 2 verify", "prepare " + kCreate,
                            "exec done", "finalize", "open " + kMain + " 2 verify", "close " + kBackup,
                            "prepare " + kCreate, "exec done", "finalize", "close " + kMain));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kCantOpen, kTryRestore));
    EXPECT_EQ(content(kMain), backup);
    EXPECT_EQ(content(kBackup), backup);
}

TEST_F(AStorage, ReplacesACorruptMainFileByTheBackup) {
    makeMain();
    insert("('tcp', 'a', '80', 1, 0)");
    std::filesystem::rename(kMain, kBackup);
    // Longer than the backup: what is left over must go.
    writeFile(kMain, std::string(content(kBackup).size() + 5000, 'x'));
    const FirewallStorage storage;
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("E VPK: can't open and prepare db: file is not a database", kTryRestore));
    EXPECT_EQ(content(kMain), content(kBackup));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|80|1|0"));
}

TEST_F(AStorage, GivesTheBackupAnEmptyTableWhenItHasNone) {
    execute(kBackup, "CREATE TABLE other (x)");
    const FirewallStorage storage;
    EXPECT_THAT(stored(kBackup), IsEmpty());
    EXPECT_EQ(content(kMain), content(kBackup));
    EXPECT_THAT(query(kMain, "SELECT name FROM sqlite_master WHERE type = 'table'"),
                ElementsAre("other", "firewall_rules"));
}

TEST_F(AStorage, CopiesTheBackupWhileItIsOpen) {
    execute(kBackup, kCreate);
    std::vector<std::string> before;
    fakemavo::hooks().open = [&](const std::string &path, int) {
        if (path == kMain && std::filesystem::exists(kMain))
            before = fakemavo::trace("close");
    };
    const FirewallStorage storage;
    EXPECT_THAT(before, IsEmpty());
    EXPECT_THAT(fakemavo::trace("close"), ElementsAre("close " + kBackup));
}

TEST_F(AStorage, DeletesBothFilesWhenBothAreCorrupt) {
    writeFile(kMain, std::string(4096, 'm'));
    writeFile(kBackup, std::string(4096, 'b'));
    const FirewallStorage storage;
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("E VPK: can't open and prepare db: file is not a database", kTryRestore,
                            "E VPK: can't restore backup db: file is not a database", kCreateNew));
    EXPECT_THAT(files(), ElementsAre(".firewall.db"));
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(AStorage, StartsAnewWhenTheBackupCannotBeCopied) {
    execute(kBackup, kCreate);
    std::filesystem::create_directory(kMain); // opens neither as a database nor for writing, but can be removed
    const FirewallStorage storage;
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kCantOpen, kTryRestore, "E VPK: can't restore backup db: can't open dst file: " + kMain,
                            kCreateNew));
    EXPECT_THAT(fakemavo::trace(),
                ElementsAre("open " + kMain + " 2 verify", "open " + kBackup + " 2 verify", "prepare " + kCreate,
                            "exec done", "finalize", "open " + kMain + " 6 verify", "close " + kBackup,
                            "prepare " + kCreate, "exec done", "finalize"));
    EXPECT_THAT(files(), ElementsAre(".firewall.db"));
}

TEST_F(AStorage, StartsAnewWhenTheRestoredFileDoesNotOpen) {
    execute(kBackup, kCreate);
    failOpening(kMain, mavo::Exception("broken"), 2);
    const FirewallStorage storage;
    EXPECT_THAT(fakevlog::messages(), ElementsAre("E VPK: can't open and prepare db: broken", kTryRestore,
                                                  "E VPK: can't restore backup db: broken", kCreateNew));
    EXPECT_THAT(files(), ElementsAre(".firewall.db"));
}

TEST_F(AStorage, StartsAnewWhenTheBackupIsGoneBeforeItIsCopied) {
    execute(kBackup, kCreate);
    fakemavo::hooks().exec = [](const std::string &) {
        std::filesystem::remove(kBackup);
        return std::nullopt;
    };
    const FirewallStorage storage;
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kCantOpen, kTryRestore, "E VPK: can't restore backup db: can't open src file: " + kBackup,
                            kCreateNew));
}

TEST_F(AStorage, DeletesTheMainFileThenTheBackupBeforeItSaysThatItCreatesOne) {
    std::vector<std::string> events;
    onRemove = [&](const std::string &path) {
        events.push_back("remove " + path + " after " + fakevlog::messages().back());
    };
    fakemavo::hooks().open = [&](const std::string &path, int flags) {
        events.push_back("open " + path + " " + std::to_string(flags));
    };
    const FirewallStorage storage;
    onRemove = nullptr;
    EXPECT_THAT(events, ElementsAre("open " + kMain + " 2", "open " + kBackup + " 2",
                                    "remove " + kMain + " after " + kCantRestore,
                                    "remove " + kBackup + " after " + kCantRestore, "open " + kMain + " 6"));
}

TEST_F(AStorage, TreatsATableThatCannotBeMadeAsAFailedOpening) {
    makeMain();
    int times = 1;
    fakemavo::hooks().exec = [&](const std::string &) {
        return times-- > 0 ? std::optional<std::string>("disk is full") : std::nullopt;
    };
    const FirewallStorage storage;
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("E VPK: can't open and prepare db: disk is full", kTryRestore, kCantRestore, kCreateNew));
    EXPECT_THAT(fakemavo::trace("exec"), ElementsAre("exec failed", "exec done"));
}

TEST_F(AStorage, KeepsTheConnectionItHasWhileAnotherFileDoesNotOpen) {
    makeMain();
    int times = 1;
    fakemavo::hooks().exec = [&](const std::string &) {
        return times-- > 0 ? std::optional<std::string>("disk is full") : std::nullopt;
    };
    const FirewallStorage storage;
    EXPECT_THAT(fakemavo::trace(),
                ElementsAre("open " + kMain + " 2 verify", "prepare " + kCreate, "exec failed", "finalize",
                            "open " + kBackup + " 2 verify", "open " + kMain + " 6 verify", "close " + kMain,
                            "prepare " + kCreate, "exec done", "finalize"));
}

TEST_F(AStorage, ThrowsWhenNoDatabaseCanBeCreated) {
    std::filesystem::remove(kFolder);
    try {
        const FirewallStorage storage;
        FAIL() << "no exception";
    } catch (const mavo::Exception &exception) {
        EXPECT_STREQ(exception.what(), "unable to open database file");
    }
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kCantOpen, kTryRestore, kCantRestore, kCreateNew));
    EXPECT_FALSE(std::filesystem::exists(kFolder));
}

TEST_F(AStorage, ThrowsTheTextOfATableThatCannotBeCreated) {
    fakemavo::hooks().exec = [](const std::string &) { return std::optional<std::string>("disk is full"); };
    try {
        const FirewallStorage storage;
        FAIL() << "no exception";
    } catch (const mavo::Exception &exception) {
        EXPECT_STREQ(exception.what(), "disk is full");
    }
    EXPECT_THAT(fakemavo::trace("close"), ElementsAre("close " + kMain));
}

TEST_F(AStorage, SaysUnknownErrorForAnExceptionWithoutText) {
    fakemavo::hooks().open = [](const std::string &, int flags) {
        if (flags == 2)
            throw Speechless();
    };
    const FirewallStorage storage;
    EXPECT_THAT(fakevlog::messages(), ElementsAre("E VPK: can't open and prepare db: unknown error", kTryRestore,
                                                  "E VPK: can't restore backup db: unknown error", kCreateNew));
}

TEST_F(AStorage, LetsAnythingButAStandardExceptionThroughOnOpening) {
    makeMain();
    failOpening(kMain, 7);
    EXPECT_THROW(FirewallStorage(), int);
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
    EXPECT_THAT(fakemavo::trace(), ElementsAre("open " + kMain + " 2 verify"));
    EXPECT_THAT(files(), ElementsAre(".firewall.db"));
}

TEST_F(AStorage, LetsAnythingButAStandardExceptionThroughOnRestoring) {
    execute(kBackup, kCreate);
    failOpening(kBackup, 7);
    EXPECT_THROW(FirewallStorage(), int);
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kCantOpen, kTryRestore));
    EXPECT_THAT(files(), ElementsAre(".firewall.db-backup"));
}

TEST_F(AStorage, LogsUnderTheNamesOfItsFunctions) {
    FirewallStorage storage;
    storage.flushDenyRules();
    std::filesystem::remove(kMain);
    storage.flushDenyRules();
    EXPECT_THAT(fakevlog::functions("firewall-storage.cpp"),
                ElementsAre("FirewallStorage", "FirewallStorage", "FirewallStorage", "FirewallStorage", "syncBackupDb",
                            "syncBackupDb"));
}

// Saving.

class AnOpenStorage : public AStorage {
protected:
    AnOpenStorage() {
        makeMain();
        storage = std::make_unique<FirewallStorage>();
        forget();
    }

    std::unique_ptr<FirewallStorage> storage;
};

TEST_F(AnOpenStorage, SavesARule) {
    storage->saveRule(rule("tcp:10.0.0.5:80-90:in", "ACCEPT"));
    EXPECT_THAT(fakemavo::trace(),
                ElementsAre("prepare " + kInsert, "bind 1 text 'tcp'", "bind 2 text '10.0.0.5'", "bind 3 text '80:90'",
                            "bind 4 int 1", "bind 5 int 1", "exec done", "finalize"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kBackedUp));
    EXPECT_THAT(stored(), ElementsAre("tcp|10.0.0.5|80:90|1|1"));
}

TEST_F(AnOpenStorage, SavesEveryDirectionAndBothActions) {
    storage->saveRule(rule("tcp:a:1:bid", "ACCEPT"));
    storage->saveRule(rule("tcp:a:2:in", "DROP"));
    storage->saveRule(rule("tcp:a:3:out", "DROP"));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|1", "tcp|a|2|1|0", "tcp|a|3|2|0"));
}

TEST_F(AnOpenStorage, CopiesTheMainFileToTheBackupAfterSaving) {
    writeFile(kBackup, std::string(100000, 'x'));
    storage->saveRule(rule("tcp:a:1", "ACCEPT"));
    EXPECT_EQ(content(kBackup), content(kMain));
    EXPECT_THAT(stored(kBackup), ElementsAre("tcp|a|1|0|1"));
}

// How many bytes come out of `pipe` until its end.
std::uintmax_t drain(const std::string &pipe) {
    const int descriptor = ::open(pipe.c_str(), O_RDONLY | O_CLOEXEC);
    std::vector<char> room(65536);
    std::uintmax_t total = 0;
    for (ssize_t count = 0; (count = ::read(descriptor, room.data(), room.size())) > 0;)
        total += static_cast<std::uintmax_t>(count);
    ::close(descriptor);
    return total;
}

TEST_F(AnOpenStorage, CopiesAMainFileOfMoreThanTwoGigabytesWhole) {
    constexpr std::uintmax_t kSize = 0x80001000;
    std::filesystem::resize_file(kMain, kSize); // sparse
    ASSERT_EQ(0, ::mkfifo(kBackup.c_str(), 0600));
    auto copied = std::async(std::launch::async, [] { return drain(kBackup); });
    storage->saveRule(rule("tcp:a:1", "ACCEPT"));
    EXPECT_EQ(kSize, copied.get());
    EXPECT_EQ(kSize, std::filesystem::file_size(kMain));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kBackedUp));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|1"));
}

TEST_F(AnOpenStorage, ReplacesARuleWithTheSameProtocolDomainAndPort) {
    storage->saveRule(rule("tcp:a:1:in", "ACCEPT"));
    storage->saveRule(rule("tcp:a:1:out", "DROP"));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|2|0"));
}

TEST_F(AnOpenStorage, KeepsEmptyFieldsAsEmptyText) {
    storage->saveRule(rule("*:*:*", "DROP"));
    EXPECT_THAT(query(kMain, "SELECT typeof(protocol), typeof(domain), typeof(port) FROM firewall_rules"),
                ElementsAre("text|text|text"));
}

struct Refusal {
    int direction;
    std::string target;
    std::string column;
    std::vector<std::string> bound;
};

void PrintTo(const Refusal &refusal, std::ostream *stream) { *stream << refusal.direction << " " << refusal.target; }

class ARuleThatCannotBeStored : public AnOpenStorage, public testing::WithParamInterface<Refusal> {};

TEST_P(ARuleThatCannotBeStored, IsRefusedByTheTable) {
    storage->saveRule(rule("tcp:old:1", "ACCEPT"));
    const std::string backup = content(kBackup);
    forget();
    FirewallRule refused = rule("tcp:a:1", GetParam().target);
    refused.direction = GetParam().direction;
    try {
        storage->saveRule(refused);
        FAIL() << "no exception";
    } catch (const mavo::Exception &exception) {
        EXPECT_STREQ(exception.what(), "insert failure");
    }
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("E VPK: NOT NULL constraint failed: firewall_rules." + GetParam().column));
    std::vector<std::string> bound = fakemavo::trace("bind");
    bound.erase(bound.begin(), bound.begin() + 3);
    EXPECT_EQ(bound, GetParam().bound);
    EXPECT_THAT(stored(), ElementsAre("tcp|old|1|0|1"));
    EXPECT_EQ(content(kBackup), backup);
}

INSTANTIATE_TEST_SUITE_P(Fields, ARuleThatCannotBeStored,
                         testing::Values(Refusal{3, "ACCEPT", "direction", {"bind 5 int 1"}},
                                         Refusal{-1, "DROP", "direction", {"bind 5 int 0"}},
                                         Refusal{2, "VPK-LOGANDDROP", "is_allowed", {"bind 4 int 2"}},
                                         Refusal{0, "", "is_allowed", {"bind 4 int 0"}},
                                         Refusal{1, "accept", "is_allowed", {"bind 4 int 1"}}));

TEST_F(AnOpenStorage, LogsTheTextOfAFailedInsertAsItStands) {
    fakemavo::hooks().exec = [](const std::string &) { return std::optional<std::string>("100%s full"); };
    EXPECT_THROW(storage->saveRule(rule("tcp:a:1", "ACCEPT")), mavo::Exception);
    EXPECT_THAT(fakevlog::messages(), ElementsAre("E VPK: 100%s full"));
    EXPECT_EQ(fakevlog::place(fakevlog::lines()[0]), "firewall-storage.cpp: saveRule");
    EXPECT_THAT(files(), ElementsAre(".firewall.db"));
}

TEST_F(AnOpenStorage, SavesTheRuleEvenWhenTheBackupCannotBeWritten) {
    std::filesystem::create_directory(kBackup);
    storage->saveRule(rule("tcp:a:1", "ACCEPT"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre("E VPK: can't do backup: can't open dst file: " + kBackup));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|1"));
}

TEST_F(AnOpenStorage, SaysSoWhenTheMainFileIsGone) {
    std::filesystem::remove(kMain);
    storage->flushDenyRules();
    EXPECT_THAT(fakevlog::messages(), ElementsAre("E VPK: can't do backup: can't open src file: " + kMain));
    EXPECT_THAT(files(), IsEmpty());
}

// Deleting.

class AStorageWithRules : public AnOpenStorage {
protected:
    AStorageWithRules() { insert("('tcp', 'a', '1', 0, 1), ('tcp', 'b', '2', 1, 0), ('udp', 'c', '3', 2, 1)"); }
};

TEST_F(AStorageWithRules, DeletesTheDenyRules) {
    storage->flushDenyRules();
    EXPECT_THAT(fakemavo::trace(), ElementsAre("prepare " + kDelete, "bind 1 int 0", "exec done", "finalize"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kBackedUp));
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|1", "udp|c|3|2|1"));
    EXPECT_EQ(content(kBackup), content(kMain));
}

TEST_F(AStorageWithRules, DeletesTheAllowRules) {
    storage->flushAllowRules();
    EXPECT_THAT(fakemavo::trace(), ElementsAre("prepare " + kDelete, "bind 1 int 1", "exec done", "finalize"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kBackedUp));
    EXPECT_THAT(stored(), ElementsAre("tcp|b|2|1|0"));
    EXPECT_EQ(content(kBackup), content(kMain));
}

TEST_F(AnOpenStorage, RefreshesTheBackupEvenWhenThereIsNothingToDelete) {
    insert("('tcp', 'a', '1', 0, 1)");
    storage->flushDenyRules();
    EXPECT_THAT(stored(), ElementsAre("tcp|a|1|0|1"));
    EXPECT_EQ(content(kBackup), content(kMain));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kBackedUp));
}

TEST_F(AStorageWithRules, PassesOverADeletionThatFails) {
    fakemavo::hooks().exec = [](const std::string &) { return std::optional<std::string>("busy"); };
    storage->flushAllowRules();
    storage->flushDenyRules();
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kBackedUp, kBackedUp));
    EXPECT_EQ(stored().size(), 3U);
}

// Reading.

TEST_F(AStorageWithRules, HandsOutRulesPageByPage) {
    Rules rules;
    EXPECT_EQ(storage->getNextRulesByCount(rules, 2), 2);
    EXPECT_EQ(storage->getNextRulesByCount(rules, 2), 1);
    EXPECT_EQ(storage->getNextRulesByCount(rules, 2), 0);
    EXPECT_THAT(shown(rules), ElementsAre("tcp|a|1|0|ACCEPT", "tcp|b|2|1|DROP", "udp|c|3|2|ACCEPT"));
    const std::string select = "prepare SELECT * FROM firewall_rules LIMIT ? OFFSET ?";
    EXPECT_THAT(fakemavo::trace(),
                ElementsAre(select, "bind 1 int 2", "bind 2 int 0", "step row", "step row", "step done", "finalize", //
                            select, "bind 1 int 2", "bind 2 int 2", "step row", "step done", "finalize",             //
                            select, "bind 1 int 2", "bind 2 int 3", "step done", "finalize"));
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
}

TEST_F(AStorageWithRules, HandsOutAllRulesAtOnceAndGoesOnBehindThem) {
    Rules rules;
    EXPECT_EQ(storage->getNextRulesByCount(rules, -1), 3);
    EXPECT_THAT(fakemavo::trace(), ElementsAre("prepare SELECT * FROM firewall_rules", "step row", "step row",
                                               "step row", "step done", "finalize"));
    EXPECT_EQ(storage->getNextRulesByCount(rules, 1000), 0);
    EXPECT_EQ(rules.size(), 3U);
}

TEST_F(AStorageWithRules, AddsAllRulesAgainAndAgainToTheOffset) {
    Rules rules;
    storage->getNextRulesByCount(rules, 1);
    storage->getNextRulesByCount(rules, -1);
    forget();
    storage->getNextRulesByCount(rules, 1);
    EXPECT_THAT(fakemavo::trace("bind"), ElementsAre("bind 1 int 1", "bind 2 int 4"));
}

TEST_F(AStorageWithRules, StartsAtTheFirstRuleInEachObject) {
    Rules rules;
    storage->getNextRulesByCount(rules, 2);
    FirewallStorage other;
    EXPECT_EQ(other.getNextRulesByCount(rules, 1000), 3);
}

TEST_F(AStorageWithRules, KeepsWhatTheListHeldBefore) {
    Rules rules = {std::make_shared<FirewallRule>(rule("icmp:z:*", "X"))};
    EXPECT_EQ(storage->getNextRulesByCount(rules, 1), 1);
    EXPECT_THAT(shown(rules), ElementsAre("icmp|z||0|X", "tcp|a|1|0|ACCEPT"));
}

TEST_F(AnOpenStorage, HandsOutThousandsOfRulesInPages) {
    execute(kMain, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2500)"
                   " INSERT INTO firewall_rules SELECT 'tcp', 'host', i, 0, 1 FROM n");
    std::vector<int> counts;
    for (int i = 0; i < 4; ++i) {
        Rules page;
        counts.push_back(storage->getNextRulesByCount(page, 1000));
        EXPECT_EQ(page.size(), static_cast<std::size_t>(counts.back()));
    }
    EXPECT_THAT(counts, ElementsAre(1000, 1000, 500, 0));
}

TEST_F(AnOpenStorage, ReadsWhatAnotherToolWrote) {
    insert("('tcp', 'a', '1', 5, 7), ('TCP', 'b', 'http', -1, -1), (NULL, 'c', 9, 3, 0)");
    Rules rules;
    EXPECT_EQ(storage->getNextRulesByCount(rules, -1), 3);
    EXPECT_THAT(shown(rules), ElementsAre("tcp|a|1|0|ACCEPT", "TCP|b|http|0|ACCEPT", "|c|9|0|DROP"));
}

TEST_F(AStorageWithRules, SkipsRowsThatDoNotHaveFiveColumns) {
    for (const int wrong : {4, 6, 0}) {
        Rules rules;
        fakemavo::hooks().columnCount = [=](const std::string &, int) { return wrong; };
        EXPECT_EQ(storage->getNextRulesByCount(rules, 2), 0) << wrong;
        EXPECT_THAT(rules, IsEmpty()) << wrong;
    }
    EXPECT_EQ(fakemavo::trace("bind 2").back(), "bind 2 int 0");
}

TEST_F(AStorageWithRules, GoesOnBehindARowThatItSkips) {
    int row = 0;
    fakemavo::hooks().columnCount = [&](const std::string &, int count) { return row++ == 1 ? 4 : count; };
    Rules rules;
    EXPECT_EQ(storage->getNextRulesByCount(rules, 3), 2);
    EXPECT_THAT(shown(rules), ElementsAre("tcp|a|1|0|ACCEPT", "udp|c|3|2|ACCEPT"));
    storage->getNextRulesByCount(rules, 3);
    EXPECT_EQ(fakemavo::trace("bind 2").back(), "bind 2 int 2");
}

TEST_F(AStorageWithRules, LetsAFailureOfReadingThrough) {
    int steps = 0;
    fakemavo::hooks().step = [&](const std::string &) {
        if (++steps == 2)
            throw mavo::Exception("disk I/O error");
    };
    Rules rules;
    EXPECT_THROW(storage->getNextRulesByCount(rules, 3), mavo::Exception);
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
}

// Opposites.

struct Question {
    std::string rule;
    std::string target;
    bool opposite;
};

void PrintTo(const Question &question, std::ostream *stream) { *stream << question.rule << " " << question.target; }

class AStoredRule : public AnOpenStorage, public testing::WithParamInterface<Question> {
protected:
    AStoredRule() { insert("('tcp', 'a', '1', 1, 1), ('tcp', 'd', '1', 1, 0), ('tcp', 'x', '1', 1, 7)"); }
};

TEST_P(AStoredRule, IsTheOppositeOfOneThatDiffersInActionOrDirection) {
    EXPECT_EQ(storage->ifOppositeRuleExists(rule(GetParam().rule, GetParam().target)), GetParam().opposite)
        << GetParam().rule << " " << GetParam().target;
}

INSTANTIATE_TEST_SUITE_P(
    Questions, AStoredRule,
    testing::Values(Question{"tcp:a:1:in", "ACCEPT", false}, Question{"tcp:a:1:in", "DROP", true},
                    Question{"tcp:a:1:in", "VPK-LOGANDDROP", true}, Question{"tcp:a:1:out", "ACCEPT", true},
                    Question{"tcp:a:1:bid", "ACCEPT", true}, Question{"tcp:a:1:out", "DROP", true},
                    Question{"tcp:d:1:in", "DROP", false}, Question{"tcp:d:1:in", "VPK-LOGANDDROP", false},
                    Question{"tcp:d:1:in", "accept", false}, Question{"tcp:d:1:in", "ACCEPT", true},
                    Question{"tcp:d:1:out", "DROP", true}, Question{"udp:a:1:in", "DROP", false},
                    Question{"tcp:b:1:in", "DROP", false}, Question{"tcp:a:2:in", "DROP", false},
                    // A flag that another tool wrote is compared as it stands.
                    Question{"tcp:x:1:in", "ACCEPT", true}, Question{"tcp:x:1:in", "DROP", true}));

TEST_F(AnOpenStorage, AsksForTheFirstRowWithTheSameFields) {
    insert("('tcp', 'a', '1', 1, 7)");
    storage->ifOppositeRuleExists(rule("tcp:a:1:in", "DROP"));
    EXPECT_THAT(fakemavo::trace(), ElementsAre("prepare " + kSelectOpposite, "bind 1 text 'tcp'", "bind 2 text 'a'",
                                               "bind 3 text '1'", "step row", "finalize"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I VPK: HI, isAllowed = 7"));
    EXPECT_EQ(fakevlog::place(fakevlog::lines()[0]), "firewall-storage.cpp: ifOppositeRuleExists");
}

TEST_F(AnOpenStorage, HasNoOppositeOfAnUnknownRule) {
    EXPECT_FALSE(storage->ifOppositeRuleExists(rule("tcp:a:1:in", "DROP")));
    EXPECT_THAT(fakemavo::trace("step"), ElementsAre("step done"));
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
}

} // namespace
