#include "config.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "compact-json.h"
#include "support/fake-vlog.h"
#include "support/text-file.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string kDirectory = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config";
const std::string kFile = kDirectory + "/config.json";
const std::string kDefaults = "\n    {\n      \"db_max_size\": 25500000,\n      \"send_report_interval\": 86400,\n"
                              "      \"config_version\": \"0\"\n    }\n    ";
const std::string kDefaultsInOneLine = R"({"config_version":"0","db_max_size":25500000,"send_report_interval":86400})";

// What the last call logged.
template <typename Call> std::vector<std::string> logOf(const Call &call) {
    fakevlog::clear();
    call();
    return fakevlog::messages();
}

// Makes the status query fail: the path ends in a loop of links.
void makeFileALoop() {
    std::filesystem::remove(kFile);
    std::filesystem::create_directories(kDirectory);
    std::filesystem::create_symlink(kFile, kFile);
}

Json::Value object(const std::string &text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

TEST(Config, CreatesFolderAndFileWithTheDefaultsToTheByte) {
    Config config;
    EXPECT_EQ(textfile::read(kFile), kDefaults);
    EXPECT_EQ(config.get("send_report_interval", false), "86400");
    EXPECT_EQ(config.get("db_max_size", false), "25500000");
    EXPECT_EQ(config.get("config_version", false), "0");
}

TEST(Config, LogsItsConstructionWithoutAFile) {
    std::optional<Config> config;
    EXPECT_THAT(logOf([&] { config.emplace(); }),
                ElementsAre("I NYR_FIREWALL: firewall: Enter Config()", "I NYR_FIREWALL: firewall: readConfigFile",
                            "I NYR_FIREWALL: firewall: Config: createDefaultConfig"));
}

TEST(Config, LogsUnderTheNamesOfItsOperations) {
    std::optional<Config> config(std::in_place);
    config->update("enabled", config->get("enabled", true));
    EXPECT_THAT(fakevlog::functions("config.cpp"),
                ElementsAre("Config", "readConfigFile", "createDefaultConfig", "get", "readConfigFile", "update",
                            "update", "writeConfigFile"));
    fakevlog::clear();
    config.reset();
    EXPECT_THAT(fakevlog::functions("config.cpp"), ElementsAre("writeConfigFile", "~Config"));
}

TEST(Config, LogsFailuresUnderTheNamesOfItsOperations) {
    Config config;
    makeFileALoop();
    fakevlog::clear();
    config.readConfigFile();
    config.writeConfigFile();
    std::filesystem::remove_all("/opt/data");
    textfile::write("/opt/data", "a file");
    config.createDefaultConfig();
    EXPECT_THAT(fakevlog::functions("config.cpp"),
                ElementsAre("readConfigFile", "readConfigFile", "writeConfigFile", "writeConfigFile",
                            "createDefaultConfig", "createDefaultConfig"));
}

TEST(Config, LogsItsConstructionWithAFile) {
    textfile::write(kFile, "{}");
    std::optional<Config> config;
    EXPECT_THAT(logOf([&] { config.emplace(); }),
                ElementsAre("I NYR_FIREWALL: firewall: Enter Config()", "I NYR_FIREWALL: firewall: readConfigFile"));
}

void changeAt(const std::filesystem::path &path, std::int64_t seconds) {
    const std::array<std::timespec, 2> times{{{seconds, 0}, {seconds, 0}}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times.data(), 0));
}

// 32 bits for the time of a file end in January 2038 with a sign, and in February 2106 without.
TEST(Config, ReadsAndWritesAFileOfAnyDate) {
    for (const std::int64_t seconds : {0x7fffffffLL, 0x80000000LL, 0x100000001LL}) {
        textfile::write(kFile, R"({"enabled":"1"})");
        changeAt(kFile, seconds);
        changeAt(kDirectory, seconds);
        Config config;
        EXPECT_EQ(config.get("enabled", false), "1") << seconds;
        changeAt(kFile, seconds);
        EXPECT_EQ(config.get("enabled", true), "1");
        changeAt(kFile, seconds);
        EXPECT_TRUE(config.update("enabled", "0"));
        EXPECT_EQ(textfile::read(kFile), "{\"enabled\":\"0\"}\n");
        changeAt(kDirectory, 0); // for the C++ library, which has the same trouble
    }
}

TEST(Config, CreatesTheDefaultsInAFolderOfAnyDate) {
    for (const std::int64_t seconds : {0x7fffffffLL, 0x80000000LL, 0x100000001LL}) {
        std::filesystem::path folder = kDirectory;
        std::filesystem::create_directories(folder);
        std::filesystem::remove(kFile);
        changeAt(folder, seconds);
        Config config;
        EXPECT_EQ(textfile::read(kFile), kDefaults) << seconds;
        // The folder itself is missing, in one of such a date.
        std::filesystem::remove_all(folder);
        folder = folder.parent_path();
        changeAt(folder, seconds);
        changeAt(folder.parent_path(), seconds);
        EXPECT_TRUE(config.readConfigFile());
        EXPECT_EQ(textfile::read(kFile), kDefaults) << seconds;
    }
}

TEST(Config, WritesThenLogsItsEnd) {
    std::optional<Config> config(std::in_place);
    EXPECT_THAT(logOf([&] { config.reset(); }), ElementsAre("I NYR_FIREWALL: firewall: Config: writeConfigFile",
                                                            "I NYR_FIREWALL: firewall: ~Config()"));
    EXPECT_EQ(textfile::read(kFile), kDefaultsInOneLine + "\n");
}

TEST(Config, KeepsAnExistingFileWhileItLives) {
    textfile::write(kFile, "  {\"a\" : 1}\n");
    const Config config;
    EXPECT_EQ(textfile::read(kFile), "  {\"a\" : 1}\n");
}

TEST(Config, TellsThatItReadTheFile) {
    Config config;
    EXPECT_TRUE(config.readConfigFile());
}

TEST(Config, TellsThatItCreatedAMissingFile) {
    Config config;
    std::filesystem::remove_all(kDirectory);
    EXPECT_TRUE(config.readConfigFile());
    EXPECT_EQ(textfile::read(kFile), kDefaults);
}

TEST(Config, ReplacesWhatItHeldByTheDefaults) {
    textfile::write(kFile, R"({"a":"b"})");
    Config config;
    EXPECT_TRUE(config.createDefaultConfig());
    EXPECT_EQ(config.get("a", false), "");
    EXPECT_EQ(config.get("config_version", false), "0");
    EXPECT_EQ(textfile::read(kFile), kDefaults);
}

TEST(Config, DoesNotNoticeThatTheDefaultsCannotBeWritten) {
    std::filesystem::create_directories(kFile);
    Config config;
    EXPECT_TRUE(config.createDefaultConfig());
    EXPECT_EQ(config.get("config_version", false), "0");
}

TEST(Config, DoesNotNoticeThatTheDocumentCannotBeWritten) {
    std::filesystem::create_directories(kFile);
    Config config;
    EXPECT_TRUE(config.update("enabled", "1"));
    EXPECT_EQ(config.get("enabled", false), "1");
    EXPECT_TRUE(std::filesystem::is_directory(kFile));
}

TEST(Config, ReportsAFolderThatCannotBeCreated) {
    textfile::write("/opt/data", "a file");
    std::optional<Config> config;
    const auto log = logOf([&] { config.emplace(); });
    ASSERT_EQ(log.size(), 4u);
    EXPECT_THAT(log.at(3), StartsWith("E NYR_FIREWALL: firewall: can't create config: "));
    EXPECT_THAT(log.at(3), HasSubstr("Not a directory"));
    EXPECT_THAT(log.at(3), EndsWith("\""));
    EXPECT_EQ(config->get("send_report_interval", false), "") << "the defaults are taken once the folder is there";
    EXPECT_FALSE(config->createDefaultConfig());
    EXPECT_EQ(config->get("config_version", false), "") << "the defaults are parsed only once there is a folder";
    EXPECT_FALSE(config->readConfigFile());
    EXPECT_FALSE(config->writeConfigFile());
}

TEST(Config, ReportsAFileThatCannotBeQueriedForReading) {
    Config config;
    makeFileALoop();
    bool read = true;
    const auto log = logOf([&] { read = config.readConfigFile(); });
    EXPECT_FALSE(read);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_THAT(log.at(1), StartsWith("I NYR_FIREWALL: firewall: readConfigFile: ex: "));
    EXPECT_THAT(log.at(1), HasSubstr("Too many levels of symbolic links"));
    EXPECT_THAT(log.at(1), EndsWith("\""));
}

TEST(Config, ReportsAFileThatCannotBeQueriedForWritingInTheWordsOfReading) {
    Config config;
    makeFileALoop();
    bool written = true;
    const auto log = logOf([&] { written = config.writeConfigFile(); });
    EXPECT_FALSE(written);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log.at(0), "I NYR_FIREWALL: firewall: Config: writeConfigFile");
    EXPECT_THAT(log.at(1), StartsWith("I NYR_FIREWALL: firewall: readConfigFile: ex: "));
    EXPECT_THAT(log.at(1), HasSubstr("Too many levels of symbolic links"));
    EXPECT_THAT(log.at(1), EndsWith("\""));
}

TEST(Config, ReportsADocumentNestedTooDeeply) {
    textfile::write(kFile, std::string(2000, '['));
    std::optional<Config> config;
    const auto log = logOf([&] { config.emplace(); });
    ASSERT_EQ(log.size(), 3u);
    EXPECT_THAT(log.at(2), StartsWith("I NYR_FIREWALL: firewall: readConfigFile: ex: Exceeded stackLimit"));
}

TEST(Config, LeavesAFileThatDoesNotParseAloneWhileItLives) {
    textfile::write(kFile, "no json");
    std::optional<Config> config;
    EXPECT_THAT(logOf([&] { config.emplace(); }),
                ElementsAre("I NYR_FIREWALL: firewall: Enter Config()", "I NYR_FIREWALL: firewall: readConfigFile"));
    EXPECT_FALSE(config->readConfigFile());
    EXPECT_EQ(textfile::read(kFile), "no json");
    config.reset();
    EXPECT_EQ(textfile::read(kFile), "\n");
}

TEST(Config, KeepsWhatTheParserUnderstood) {
    textfile::write(kFile, R"({"a":"b", oops)");
    Config config;
    EXPECT_EQ(config.get("a", false), "b");
}

TEST(Config, DropsCommentsWhenItReads) {
    textfile::write(kFile, "{\"a\":\n// note\n\"b\"}");
    const Config config;
    EXPECT_FALSE(config.getChild("a").hasComment(Json::commentBefore));
    EXPECT_EQ(config.getChild("a").asString(), "b");
}

TEST(Config, WritesOneLineWithMembersInOrder) {
    textfile::write(kFile, "{\"b\": 1, \"a\": [ true, null ], \"c\": {\"d\": \"e\"} }");
    Config config;
    EXPECT_TRUE(config.writeConfigFile());
    EXPECT_EQ(textfile::read(kFile), "{\"a\":[true,null],\"b\":1,\"c\":{\"d\":\"e\"}}\n");
}

TEST(Config, TruncatesTheFileBeforeItWrites) {
    textfile::write(kFile, "{}" + std::string(500, ' '));
    Config config;
    config.writeConfigFile();
    EXPECT_EQ(textfile::read(kFile), "{}\n");
}

TEST(Config, SetsOneKeyAsAString) {
    Config config;
    EXPECT_TRUE(config.update("enabled", "1"));
    EXPECT_EQ(textfile::read(kFile),
              "{\"config_version\":\"0\",\"db_max_size\":25500000,\"enabled\":\"1\",\"send_report_interval\":86400}\n");
}

TEST(Config, LogsTheSettingOfOneKey) {
    Config config;
    EXPECT_THAT(logOf([&] { config.update("enabled", "1"); }),
                ElementsAre("I NYR_FIREWALL: firewall: update key/value: enabled 1",
                            "I NYR_FIREWALL: firewall: update common",
                            "I NYR_FIREWALL: firewall: Config: writeConfigFile"));
}

TEST(Config, DoesNotSplitTheKeyThatItSets) {
    textfile::write(kFile, "{}");
    Config config;
    config.update("a.b", "c");
    EXPECT_EQ(textfile::read(kFile), "{\"a.b\":\"c\"}\n");
    EXPECT_EQ(config.get("a.b", false), "");
}

TEST(Config, LosesAChangeWhenTheFileHasGone) {
    Config config;
    std::filesystem::remove(kFile);
    bool updated = false;
    const auto log = logOf([&] { updated = config.update("last_send_report_ts", "5"); });
    EXPECT_TRUE(updated);
    EXPECT_EQ(log.back(), "I NYR_FIREWALL: firewall: Config: createDefaultConfig");
    EXPECT_EQ(textfile::read(kFile), kDefaults);
    EXPECT_EQ(config.get("last_send_report_ts", false), "");
}

TEST(Config, ReturnsTheResultOfTheWriting) {
    Config config;
    makeFileALoop();
    EXPECT_FALSE(config.update("enabled", "1"));
    EXPECT_EQ(config.get("enabled", false), "1");
}

TEST(Config, RecreatesAMissingFileWhenItEnds) {
    textfile::write(kFile, R"({"a":"b"})");
    std::optional<Config> config(std::in_place);
    std::filesystem::remove(kFile);
    config.reset();
    EXPECT_EQ(textfile::read(kFile), kDefaults);
}

TEST(Config, UndoesTheChangesOfAnotherObjectWhenItEnds) {
    std::optional<Config> older(std::in_place);
    {
        Config newer;
        newer.update("enabled", "0");
    }
    EXPECT_THAT(textfile::read(kFile), HasSubstr("\"enabled\":\"0\""));
    older.reset();
    EXPECT_EQ(textfile::read(kFile), kDefaultsInOneLine + "\n");
}

TEST(Config, SeesTheChangesOfAnotherObjectOnlyAfterReadingAgain) {
    Config older;
    Config newer;
    newer.update("enabled", "0");
    EXPECT_EQ(older.get("enabled", false), "");
    EXPECT_EQ(older.get("enabled", true), "0");
}

TEST(Config, LogsALookupUnderTheNameOfThePath) {
    Config config;
    EXPECT_THAT(logOf([&] { config.get("a.b", false); }), ElementsAre("I NYR_FIREWALL: Config::get: configPath: a.b"));
    EXPECT_THAT(
        logOf([&] { config.get("enabled", true); }),
        ElementsAre("I NYR_FIREWALL: Config::get: configPath: enabled", "I NYR_FIREWALL: firewall: readConfigFile"));
}

struct Lookup {
    const char *document;
    const char *key;
    const char *text;
};

void PrintTo(const Lookup &lookup, std::ostream *stream) { *stream << lookup.document << " at " << lookup.key; }

class ConfigLookup : public testing::TestWithParam<Lookup> {};

TEST_P(ConfigLookup, GivesTheValueAsText) {
    textfile::write(kFile, GetParam().document);
    Config config;
    EXPECT_EQ(config.get(GetParam().key, false), GetParam().text);
    config.writeConfigFile();
    EXPECT_EQ(textfile::read(kFile), std::string(GetParam().document) + "\n") << "a lookup must not change anything";
}

INSTANTIATE_TEST_SUITE_P(Values, ConfigLookup,
                         testing::Values(Lookup{R"({"a":{"b":"deep"}})", "a.b", "deep"},
                                         Lookup{R"({"a":"text"})", "a", "text"}, Lookup{R"({"a":-7})", "a", "-7"},
                                         Lookup{R"({"a":true})", "a", "true"}, Lookup{R"({"a":false})", "a", "false"},
                                         Lookup{R"({"a":null})", "a", ""}, Lookup{R"({"a":"text"})", "missing", ""},
                                         Lookup{R"({"a":"text"})", "missing.more.of.it", ""},
                                         Lookup{R"({"a":{"":{"b":"between two dots"}}})", "a..b", "between two dots"},
                                         Lookup{R"({"":"empty key"})", "", "empty key"},
                                         Lookup{R"({"a":{"":"at the end"}})", "a.", "at the end"}));

TEST(Config, ThrowsForALookupThroughAValueThatIsNoObject) {
    textfile::write(kFile, R"({"a":"text"})");
    Config config;
    EXPECT_THROW(config.get("a.b", false), Json::LogicError);
}

TEST(Config, ThrowsForTheTextOfAnObjectOrArray) {
    textfile::write(kFile, R"({"a":{"b":1},"c":[]})");
    Config config;
    EXPECT_THROW(config.get("a", false), Json::LogicError);
    EXPECT_THROW(config.get("c", false), Json::LogicError);
}

TEST(Config, MergesMembersOverWhatIsThere) {
    textfile::write(kFile, R"({"a":1,"b":[2]})");
    Config config;
    Json::Value changes = object(R"({"b":{"c":3},"d":"4"})");
    EXPECT_TRUE(config.update(changes));
    EXPECT_EQ(textfile::read(kFile), "{\"a\":1,\"b\":{\"c\":3},\"d\":\"4\"}\n");
    EXPECT_EQ(compactJson(changes), R"({"b":{"c":3},"d":"4"})");
}

TEST(Config, LogsAMergeOnceHoweverManyMembersItHas) {
    Config config;
    Json::Value changes = object(R"({"a":1,"b":2})");
    EXPECT_THAT(
        logOf([&] { config.update(changes); }),
        ElementsAre("I NYR_FIREWALL: firewall: update common", "I NYR_FIREWALL: firewall: Config: writeConfigFile"));
}

TEST(Config, WritesTheFileWhenThereIsNothingToMerge) {
    Config config;
    Json::Value nothing;
    EXPECT_TRUE(config.update(nothing));
    EXPECT_EQ(textfile::read(kFile), kDefaultsInOneLine + "\n");
}

TEST(Config, PutsTheChangesOfANestedObjectBesideIt) {
    textfile::write(kFile, R"({"a":{"b":"old"}})");
    Config config;
    Json::Value changes = object(R"({"a":{"b":"new","c":"too"}})");
    const auto log = logOf([&] { config.update(changes); });
    EXPECT_EQ(textfile::read(kFile), "{\"a\":{\"b\":\"old\"},\"b\":\"new\",\"c\":\"too\"}\n");
    EXPECT_THAT(log, ElementsAre("I NYR_FIREWALL: firewall: update common", "I NYR_FIREWALL: firewall: update common",
                                 "I NYR_FIREWALL: firewall: Config: writeConfigFile",
                                 "I NYR_FIREWALL: firewall: Config: writeConfigFile"));
}

TEST(Config, ThrowsForATextOverAnObject) {
    textfile::write(kFile, R"({"b":{}})");
    Config config;
    Json::Value changes = object(R"({"a":"set before","b":"text","c":"never reached"})");
    EXPECT_THROW(config.update(changes), Json::LogicError);
    EXPECT_EQ(config.get("a", false), "set before");
    EXPECT_EQ(config.get("c", false), "");
}

TEST(CompactJson, LeavesCommentsOut) {
    Json::Value value("text");
    value.setComment(std::string("// note"), Json::commentBefore);
    EXPECT_EQ(compactJson(value), "\"text\"");
}

TEST(CompactJson, WritesNothingForNull) { EXPECT_EQ(compactJson(Json::Value()), ""); }

} // namespace
