#include "parser-klogs.h"

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/fake-vlog.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kLine = "<4>[0- 1234.5678] IPTables-Dropped:IN= OUT=lo SRC=10.0.0.2 DST=10.0.0.1 LEN=60 PROTO=UDP "
                          "SPT=5353 DPT=53 LEN=40";

std::string text(const DbLogRecord &record) {
    return std::to_string(record.ts) + " " + record.sip + ":" + std::to_string(record.sport) + " " + record.dip + ":" +
           std::to_string(record.dport);
}

std::vector<std::string> parsed(const std::vector<std::string> &lines) {
    std::vector<DbLogRecord> records;
    KLogParser::parse(lines, records);
    std::vector<std::string> texts;
    texts.reserve(records.size());
    for (const DbLogRecord &record : records)
        texts.push_back(text(record));
    return texts;
}

TEST(KLogParser, ReadsTimeAddressesAndPorts) {
    EXPECT_THAT(parsed({kLine}), ElementsAre("1234 10.0.0.2:5353 10.0.0.1:53"));
}

TEST(KLogParser, LogsEachLineAndRecord) {
    parsed({kLine, "nothing"});
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("I NYR_FIREWALL: KLogParser::parse", "I NYR_FIREWALL: KLogParser::parse origin:" + kLine,
                            "I NYR_FIREWALL: KLogParser::parse: record parsed: src=10.0.0.2:5353\tdst=10.0.0.1:53",
                            "I NYR_FIREWALL: KLogParser::parse origin:nothing",
                            "I NYR_FIREWALL: KLogParser::parse final output size: 1"));
}

TEST(KLogParser, AppendsNothingForNoLines) {
    EXPECT_THAT(parsed({}), IsEmpty());
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I NYR_FIREWALL: KLogParser::parse",
                                                  "I NYR_FIREWALL: KLogParser::parse final output size: 0"));
}

TEST(KLogParser, WarnsOfRecordsAlreadyThereAndKeepsThem) {
    std::vector<DbLogRecord> records{{7, "a", 1, "b", 2}};
    KLogParser::parse({kLine}, records);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(text(records[0]), "7 a:1 b:2");
    EXPECT_EQ(text(records[1]), "1234 10.0.0.2:5353 10.0.0.1:53");
    EXPECT_EQ(fakevlog::messages().at(1), "I NYR_FIREWALL: KLogParser::parse warning: \"output\" is not empty");
    EXPECT_EQ(fakevlog::messages().back(), "I NYR_FIREWALL: KLogParser::parse final output size: 2");
    EXPECT_THAT(fakevlog::functions("parser-klogs.h"), ElementsAre("parse", "parse", "parse", "parse", "parse"));
}

TEST(KLogParser, AppendsNothingForNoLinesToRecordsAlreadyThere) {
    std::vector<DbLogRecord> records{{7, "a", 1, "b", 2}, {8, "c", 3, "d", 4}};
    KLogParser::parse({}, records);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(text(records[0]), "7 a:1 b:2");
    EXPECT_EQ(text(records[1]), "8 c:3 d:4");
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I NYR_FIREWALL: KLogParser::parse",
                                                  "I NYR_FIREWALL: KLogParser::parse warning: \"output\" is not empty",
                                                  "I NYR_FIREWALL: KLogParser::parse final output size: 2"));
}

TEST(KLogParser, KeepsTheOrderOfTheLines) {
    EXPECT_THAT(parsed({"-2. SRC=a DST=b SPT=1 DPT=2", "bad", "-1. SRC=c DST=d SPT=3 DPT=4"}),
                ElementsAre("2 a:1 b:2", "1 c:3 d:4"));
}

struct Case {
    const char *name;
    const char *line;
    const char *record; // empty: the line is skipped
};

void PrintTo(const Case &value, std::ostream *stream) { *stream << value.name; }

class KLogParserLine : public testing::TestWithParam<Case> {};

TEST_P(KLogParserLine, GivesWhatTheGrammarSays) {
    const std::string record = GetParam().record;
    EXPECT_EQ(parsed({GetParam().line}),
              record.empty() ? std::vector<std::string>{} : std::vector<std::string>{record});
}

INSTANTIATE_TEST_SUITE_P(
    Lines, KLogParserLine,
    testing::Values(Case{"NoHyphen", "1. SRC=a DST=b SPT=1 DPT=2", ""}, //
                    Case{"PointRightAfterTheHyphen", "-. SRC=a DST=b SPT=1 DPT=2", ""},
                    Case{"NothingAfterTheHyphen", "1234-", ""}, //
                    Case{"NoPoint", "-12 SRC=a DST=b SPT=1 DPT=2", ""},
                    Case{"FirstHyphenCounts", "-1. - 5. SRC=a DST=b SPT=1 DPT=2", "1 a:1 b:2"},
                    Case{"FirstPointCounts", "-1.2.3 SRC=a DST=b SPT=1 DPT=2", "1 a:1 b:2"},
                    Case{"PointBeforeTheHyphenDoesNotCount", "5.x-1. SRC=a DST=b SPT=1 DPT=2", "1 a:1 b:2"},
                    Case{"BlanksBeforeTheTime", "-   7.5 SRC=a DST=b SPT=1 DPT=2", "7 a:1 b:2"},
                    Case{"TextAfterTheTime", "-7s.5 SRC=a DST=b SPT=1 DPT=2", "7 a:1 b:2"},
                    Case{"NegativeTime", "--1. SRC=a DST=b SPT=1 DPT=2", "4294967295 a:1 b:2"},
                    Case{"LatestTime", "-2147483647. SRC=a DST=b SPT=1 DPT=2", "2147483647 a:1 b:2"},
                    Case{"NoSource", "-1. DST=b SPT=1 DPT=2", ""}, //
                    Case{"SourceBeforeThePoint", "-1 SRC=a. DST=b SPT=1 DPT=2", ""},
                    Case{"SourceRightAfterThePoint", "-1.SRC=a DST=b SPT=1 DPT=2", "1 a:1 b:2"},
                    Case{"EmptySource", "-1. SRC= DST=b SPT=1 DPT=2", "1 :1 b:2"},
                    Case{"SourceAtTheEnd", "-1. DST=b SPT=1 DPT=2 SRC=a", ""},
                    Case{"DestinationBeforeSource", "-1. DST=b SRC=a SPT=1 DPT=2", ""},
                    Case{"NoDestination", "-1. SRC=a SPT=1 DPT=2", ""},
                    Case{"DestinationInsideTheSource", "-1. SRC=aDST=b SPT=1 DPT=2", ""},
                    Case{"EmptyDestination", "-1. SRC=a DST= SPT=1 DPT=2", "1 a:1 :2"},
                    Case{"DestinationAtTheEnd", "-1. SRC=a SPT=1 DPT=2 DST=b", ""},
                    Case{"NoSourcePort", "-1. SRC=a DST=b DPT=2", ""}, //
                    Case{"EmptySourcePort", "-1. SRC=a DST=b SPT= DPT=2", ""},
                    Case{"SourcePortBeforeDestination", "-1. SRC=a SPT=1 DST=b DPT=2", ""},
                    Case{"SourcePortInsideTheDestination", "-1. SRC=a DST=bSPT=1 DPT=2", ""},
                    Case{"SourcePortAtTheEnd", "-1. SRC=a DST=b DPT=2 SPT=1", ""},
                    Case{"NoDestinationPort", "-1. SRC=a DST=b SPT=1", ""}, //
                    Case{"EmptyDestinationPort", "-1. SRC=a DST=b SPT=1 DPT= ", ""},
                    Case{"EmptyDestinationPortAtTheEnd", "-1. SRC=a DST=b SPT=1 DPT=", ""},
                    Case{"DestinationPortBeforeSourcePort", "-1. SRC=a DST=b DPT=2 SPT=1 ", ""},
                    Case{"DestinationPortInsideTheSourcePort", "-1. SRC=a DST=b SPT=1DPT=2", ""},
                    Case{"DestinationPortAtTheEnd", "-1. SRC=a DST=b SPT=1 DPT=2", "1 a:1 b:2"},
                    Case{"OtherFieldsBetween", "-1.5] X=1 SRC=a Y=2 DST=b Z= SPT=1 Q DPT=2 R", "1 a:1 b:2"},
                    Case{"TextAfterThePorts", "-1. SRC=a DST=b SPT=1x DPT=2y", "1 a:1 b:2"},
                    Case{"PortsOfAnySize", "-1. SRC=a DST=b SPT=-5 DPT=70000", "1 a:-5 b:70000"}));

// A number that is none throws even where a later field would make the line be skipped.
class KLogParserNumber : public testing::TestWithParam<Case> {};

TEST_P(KLogParserNumber, ThrowsAndKeepsTheRecordsBefore) {
    std::vector<DbLogRecord> records;
    const std::vector<std::string> lines{kLine, GetParam().line, kLine};
    if (std::string(GetParam().record) == "invalid")
        EXPECT_THROW(KLogParser::parse(lines, records), std::invalid_argument);
    else
        EXPECT_THROW(KLogParser::parse(lines, records), std::out_of_range);
    EXPECT_EQ(records.size(), 1u);
    EXPECT_EQ(fakevlog::messages().back(), std::string("I NYR_FIREWALL: KLogParser::parse origin:") + GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, KLogParserNumber,
    testing::Values(Case{"TimeText", "-Dropped: 1.", "invalid"}, Case{"TimeTextToTheEnd", "-Dropped", "invalid"},
                    Case{"TimeOfBlanks", "-  . SRC=a", "invalid"}, Case{"TimeTooLarge", "-2147483648.", "range"},
                    Case{"SourcePortText", "-1. SRC=a DST=b SPT=x", "invalid"},
                    Case{"SourcePortTooLarge", "-1. SRC=a DST=b SPT=99999999999", "range"},
                    Case{"DestinationPortText", "-1. SRC=a DST=b SPT=1 DPT=x", "invalid"},
                    Case{"DestinationPortTooLarge", "-1. SRC=a DST=b SPT=1 DPT=99999999999", "range"}));

} // namespace
