// The configuration file: what is put aside, what takes its place, and what is kept.
#include "host/config-file.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/firewall-plugin.h"
#include "support/file-calls.h"
#include "told-lines.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const std::string kFile = host::kConfigFile;
const std::string kGood = kFile + ".good";
const std::string kRefused = kFile + ".refused";
const std::string kSound = R"({"enabled":"1","send_report_interval":"3600"})";

std::string contents(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::string &path, const std::string &text) { std::ofstream(path) << text; }

class TheConfigurationFile : public testing::Test {
protected:
    void SetUp() override { fs::create_directories(fs::path(kFile).parent_path()); }

    static void keep(const std::string &text) {
        write(kFile, text);
        host::keepConfig();
    }
};

TEST_F(TheConfigurationFile, IsKeptBesideAsTheLastGoodOne) {
    keep(kSound);
    EXPECT_EQ(contents(kGood), kSound);
    keep("{}");
    EXPECT_EQ(contents(kGood), "{}");
    EXPECT_EQ(contents(kFile), "{}");
}

TEST_F(TheConfigurationFile, IsLeftAloneWhileItIsSound) {
    for (const std::string text : {"{}", "\n {\"enabled\":1}\n", "{\"enabled\":null}", "{\"other\":[1,{}]} // note",
                                   "{\"send_report_interval\":\"abc\"}", "{\"send_report_interval\":1.5}"}) {
        write(kFile, text);
        host::healConfig();
        EXPECT_EQ(contents(kFile), text);
        EXPECT_FALSE(fs::exists(kRefused)) << text;
    }
    EXPECT_EQ(host::configRemark(), "");
}

TEST_F(TheConfigurationFile, IsNotMadeByTheHost) {
    host::healConfig();
    host::keepConfig();
    EXPECT_FALSE(fs::exists(kFile)) << "the defaults are the plugin's";
    EXPECT_EQ(host::configRemark(), "");
}

struct Refused {
    std::string text;
    std::string reason;
};

const std::vector<Refused> kRefusals = {
    {"[]", "it must be a JSON object"},
    {"\"text\"", "it must be a JSON object"},
    {"7", "it must be a JSON object"},
    {R"({"enabled":{}})", R"(the value of "enabled" must be a string, "1" or "0", not {})"},
    {R"({"enabled":[1,2]})", R"(must be a string, "1" or "0", not [1,2])"},
    {R"({"send_report_interval":[]})", R"(the value of "send_report_interval" must be a number of seconds)"},
    {R"({"send_report_interval":"12345678901234567890"})", "\"12345678901234567890\""},
    {R"({"last_send_report_ts":12345678901234567890})", "the value of \"last_send_report_ts\" must be"},
    {R"({"last_send_report_ts":{"a":1}})", "the value of \"last_send_report_ts\" must be"},
    {"", "it is empty"},
    {"\n", "it is no complete JSON document"},
    {"null", "it is no complete JSON document"},
    {R"({"enabled":"1","send_repo)", "it is no complete JSON document"},
    {std::string(100'000, '['), "it must be a JSON object"},
    {std::string(300'000, ' '), "it has 300000 bytes; 262144 are accepted"},
    {std::string("\x00\xff\x7f", 3), "it is no complete JSON document"},
};

TEST_F(TheConfigurationFile, GivesWayToTheLastGoodOne) {
    keep(kSound);
    for (const auto &refused : kRefusals) {
        write(kFile, refused.text);
        host::healConfig();
        EXPECT_EQ(contents(kFile), kSound) << refused.text.substr(0, 50);
        EXPECT_EQ(contents(kRefused), refused.text);
        EXPECT_THAT(host::configRemark(), AllOf(HasSubstr(kRefused + " was put aside: "), HasSubstr(refused.reason)));
    }
    EXPECT_EQ(contents(kGood), kSound);
}

TEST_F(TheConfigurationFile, GivesWayToWhatCouldBeUnderstoodOfItWhereThereIsNoCopy) {
    write(kFile, R"({"enabled":"1","other":2,"send_repo)");
    host::healConfig();
    EXPECT_EQ(contents(kFile), "{\"enabled\":\"1\",\"other\":2}\n");
}

TEST_F(TheConfigurationFile, GivesWayToTheDefaultsWhereNothingCouldBe) {
    for (const std::string text : {"", "[]", "garbage", R"({"enabled":{}})", R"({"enabled":[)"}) {
        write(kFile, text);
        host::healConfig();
        EXPECT_FALSE(fs::exists(kFile)) << text;
        EXPECT_EQ(contents(kRefused), text);
    }
}

TEST_F(TheConfigurationFile, IsNoLongerMissedAfterADeletion) {
    // Whoever deletes it wants the defaults.
    keep(kSound);
    fs::remove(kFile);
    host::healConfig();
    EXPECT_FALSE(fs::exists(kFile));
}

TEST_F(TheConfigurationFile, IsPutAsideTenTimesAndTheOldestGo) {
    for (int i = 0; i < 13; ++i) {
        write(kFile, "[" + std::to_string(i) + "]");
        host::healConfig();
    }
    EXPECT_EQ(contents(kRefused), "[12]");
    EXPECT_EQ(contents(kRefused + ".1"), "[11]");
    EXPECT_EQ(contents(kRefused + ".9"), "[3]");
    EXPECT_FALSE(fs::exists(kRefused + ".10"));
}

TEST_F(TheConfigurationFile, GivesWayWhateverItIs) {
    keep(kSound);
    const std::string elsewhere = "/run/elsewhere.json";
    write(elsewhere, "{}");
    const std::vector<std::function<void()>> kinds = {
        [] { fs::create_directory(kFile); },
        [] {
            fs::create_directories(kFile + "/full/of");
            write(kFile + "/full/file", "x");
        },
        [] { ASSERT_EQ(::mkfifo(kFile.c_str(), 0600), 0); },
        [&] { fs::create_symlink(elsewhere, kFile); },
        [] { fs::create_symlink("/nowhere", kFile); },
        [] { ASSERT_EQ(::mknod(kFile.c_str(), S_IFCHR | 0600, 0x501), 0); },
        [] {
            write(kFile, "{}");
            ASSERT_EQ(::chown(kFile.c_str(), 4711, 4711), 0);
        },
    };
    for (int round = 0; round < 2; ++round) { // more than ten: the oldest go, whatever they are
        for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
            fs::remove_all(kFile);
            kinds[kind]();
            host::healConfig();
            EXPECT_EQ(contents(kFile), kSound) << kind;
            EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kFile))) << kind;
        }
    }
    EXPECT_EQ(contents(elsewhere), "{}");
    EXPECT_FALSE(fs::exists(fs::symlink_status(kRefused + ".10")));
    EXPECT_THAT(host::configRemark(), HasSubstr("it belongs to account 4711"));
}

TEST_F(TheConfigurationFile, IsReadAgainAfterItsOwnerTookThatAway) {
    write(kFile, kSound);
    ASSERT_EQ(::chmod(kFile.c_str(), 0), 0);
    host::healConfig();
    EXPECT_EQ(contents(kFile), kSound);
    EXPECT_FALSE(fs::exists(kRefused));
}

TEST_F(TheConfigurationFile, HasAFolderAgainWhereSomethingElseStood) {
    const fs::path folder = fs::path(kFile).parent_path().parent_path();
    fs::remove_all(folder);
    write(folder, "a file");
    host::healConfig();
    EXPECT_TRUE(fs::is_directory(fs::path(kFile).parent_path()));
    EXPECT_EQ(contents(folder.string() + ".refused"), "a file");
}

TEST_F(TheConfigurationFile, HasItsFolderOpenedToUsAndNoFurther) {
    const std::string folder = fs::path(kFile).parent_path();
    const std::string above = fs::path(folder).parent_path();
    keep(kSound);
    for (const mode_t mode : {0400U, 0755U}) {
        for (const std::string &one : {folder, above})
            ASSERT_EQ(0, ::chmod(one.c_str(), mode));
        host::healConfig();
        struct stat status {};
        ASSERT_EQ(0, ::stat(above.c_str(), &status));
        EXPECT_EQ(mode == 0755 ? 0755U : 0700U, status.st_mode & 0777);
        EXPECT_EQ(contents(kFile), kSound);
    }
}

TEST_F(TheConfigurationFile, IsFoundAgainAfterAKillInTheMiddle) {
    write(kFile + ".new", kSound);
    host::healConfig();
    EXPECT_EQ(contents(kFile), kSound);
    EXPECT_FALSE(fs::exists(kFile + ".new"));
}

TEST_F(TheConfigurationFile, IsTheSameAgainAfterAHoldWhateverIsWrittenMeanwhile) {
    for (const std::string meanwhile : {"{}", "", "[]", "cut {"}) {
        write(kFile, kSound);
        {
            const host::ConfigRestorer restorer;
            ASSERT_TRUE(restorer.isReady());
            write(kFile, meanwhile);
        }
        EXPECT_EQ(contents(kFile), kSound);
        EXPECT_FALSE(fs::exists(kFile + ".new"));
    }
}

TEST_F(TheConfigurationFile, IsNotHeldWhereNobodyKnowsWhatToHold) {
    for (const std::string text : {"", "[]", "{\"enabled\":"}) {
        write(kFile, text);
        EXPECT_FALSE(host::ConfigRestorer().isReady());
        EXPECT_EQ(contents(kFile), text);
    }
    fs::remove(kFile);
    EXPECT_TRUE(host::ConfigRestorer().isReady()) << "whoever makes it makes the defaults";
}

TEST_F(TheConfigurationFile, IsNotReplacedByWhatWasLeftBesideItBeforeItWasKept) {
    write(kFile + ".new", R"({"send_report_interval":"1"})");
    keep(kSound);
    host::healConfig();
    EXPECT_EQ(contents(kFile), kSound);
}

TEST_F(TheConfigurationFile, PutsAsideWhatAKillLeftBesideItsSubstitute) {
    write(kFile, "[]");
    write(kFile + ".new", kSound);
    host::healConfig();
    EXPECT_EQ(contents(kFile), kSound);
    EXPECT_EQ(contents(kRefused), "[]");
}

TEST_F(TheConfigurationFile, SurvivesALastGoodCopyThatIsNone) {
    for (const std::string good : {"[]", "", "{\"enabled\":"}) {
        write(kGood, good);
        write(kFile, "[]");
        host::healConfig();
        EXPECT_FALSE(fs::exists(kFile)) << good;
        keep(kSound);
        EXPECT_EQ(contents(kGood), kSound);
    }
    fs::remove(kGood);
    fs::create_directories(kGood + "/full");
    keep(kSound);
    EXPECT_EQ(contents(kGood), kSound);
}

TEST_F(TheConfigurationFile, GetsTheLastGoodOneBackOnAFullDisk) {
    const std::string folder = fs::path(kFile).parent_path();
    ASSERT_EQ(::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=64k,mode=0700"), 0);
    keep(kSound);
    write(kFile, "");
    std::ofstream filler(folder + "/filler");
    while (filler << std::string(4096, 'x') << std::flush) {
    }
    host::healConfig();
    EXPECT_EQ(contents(kFile), kSound);
}

TEST_F(TheConfigurationFile, IsNotSaidToBeSafeWhenItIsNotWhole) {
    keep(kSound);
    for (const std::string text : {"", R"({"enabled":"1","send)", "[]"}) {
        write(kFile, text);
        try {
            host::keepConfig();
            ADD_FAILURE() << "kept: " << text;
        } catch (const std::runtime_error &error) {
            EXPECT_THAT(error.what(), AllOf(HasSubstr("not safe on the disk: " + kFile), Not(HasSubstr("\n"))));
        }
        EXPECT_EQ(contents(kGood), kSound);
    }
}

// On the disk before it is said to be: the file, its name, and the copy.
TEST_F(TheConfigurationFile, IsSynchronisedWithItsFolderAndItsCopy) {
    const std::string folder = fs::path(kFile).parent_path();
    const auto synchronisedBy = [](const std::function<void()> &what) {
        calls::synchronised.clear();
        what();
        return calls::synchronised;
    };
    write(kFile, kSound);
    EXPECT_THAT(synchronisedBy(host::keepConfig), ElementsAre(kFile, folder, kGood + ".new", folder));
    EXPECT_THAT(synchronisedBy(host::keepConfig), ElementsAre(kFile, folder)) << "the copy is the same";
    write(kFile, "[]");
    EXPECT_THAT(synchronisedBy(host::healConfig), ElementsAre(kFile + ".new", folder));
    write(kFile + ".new", kSound);
    EXPECT_THAT(synchronisedBy(host::healConfig), ElementsAre(folder));
    EXPECT_THAT(synchronisedBy([] { host::ConfigRestorer(); }), ElementsAre(kFile + ".new", folder, folder));
}

TEST_F(TheConfigurationFile, IsNotSaidToBeSafeWhereItCannotBeSynchronised) {
    for (const std::deque<int> &fails : {std::deque<int>{EIO}, std::deque<int>{0, EIO}}) {
        write(kFile, kSound);
        calls::fsyncs = fails;
        EXPECT_THROW(host::keepConfig(), std::runtime_error);
        EXPECT_FALSE(fs::exists(kGood));
    }
}

TEST_F(TheConfigurationFile, IsSafeThoughItsCopyCannotBeRenewed) {
    keep("{}");
    for (const bool isWriting : {true, false}) {
        write(kFile, kSound);
        hosttest::ToldLines told;
        (isWriting ? calls::writes : calls::fsyncs) = isWriting ? std::deque<int>{ENOSPC} : std::deque<int>{0, 0, EIO};
        host::keepConfig();
        EXPECT_THAT(told.take(), ElementsAre(HasSubstr("the copy of the last good configuration cannot be renewed")));
        EXPECT_EQ(contents(kGood), "{}");
    }
    calls::writes = {EINTR};
    calls::writeBytes = 3;
    host::keepConfig();
    calls::writeBytes = static_cast<std::size_t>(-1);
    EXPECT_EQ(contents(kGood), kSound);
}

} // namespace
