#include "extract-klogs.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/fake-klog.h"
#include "support/fake-vlog.h"
#include "unit/largest-allocation.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kFirst = "<4>[0-  1.5] IPTables-Dropped:IN= SRC=10.0.0.1";
const std::string kThird = "text before IPTables-Dropped:";

KLogExtractor extractor() { return KLogExtractor("IPTables-Dropped:"); }

TEST(KLogExtractor, ReadsNothingWhenItIsMade) {
    extractor();
    EXPECT_THAT(fakeklog::calls, IsEmpty());
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
}

TEST(KLogExtractor, MakesRoomForAThousandLines) {
    largestAllocation = 0;
    extractor();
    EXPECT_EQ(largestAllocation, 1000 * sizeof(std::string));
}

TEST(KLogExtractor, KeepsTheLinesThatHoldTheFilterAnywhere) {
    fakeklog::content = kFirst + "\nIPTables-Droppe:\n\n" + kThird + "\n";
    EXPECT_THAT(extractor().updateLogs(), ElementsAre(kFirst, kThird));
}

TEST(KLogExtractor, DropsALastLineWithoutALineFeed) {
    fakeklog::content = kFirst + "\nanother\n" + kThird;
    EXPECT_THAT(extractor().updateLogs(), ElementsAre(kFirst));
}

TEST(KLogExtractor, KeepsEmptyLinesForAnEmptyFilter) {
    fakeklog::content = "\na\n\n";
    EXPECT_THAT(KLogExtractor("").updateLogs(), ElementsAre("", "a", ""));
}

TEST(KLogExtractor, AsksForTheSizeThenReadsThatMuchIntoClearedMemory) {
    fakeklog::content = kFirst + "\n";
    fakeklog::size = 4711;
    extractor().updateLogs();
    ASSERT_EQ(fakeklog::calls.size(), 2u);
    EXPECT_EQ(fakeklog::calls[0].action, 10);
    EXPECT_FALSE(fakeklog::calls[0].hasBuffer);
    EXPECT_EQ(fakeklog::calls[0].length, 0);
    EXPECT_EQ(fakeklog::calls[1].action, 3);
    EXPECT_EQ(fakeklog::calls[1].length, 4711);
    EXPECT_TRUE(fakeklog::calls[1].cleared);
}

TEST(KLogExtractor, TakesTheBytesThatWereReadAndNoMore) {
    fakeklog::content = kFirst + "\n" + kThird + "\n";
    fakeklog::readResult = static_cast<int>(kFirst.size()) + 1;
    EXPECT_THAT(extractor().updateLogs(), ElementsAre(kFirst));
}

TEST(KLogExtractor, LogsAReading) {
    fakeklog::content = kFirst + "\n";
    KLogExtractor logs = extractor();
    EXPECT_EQ(logs.extractLogs(), 1);
    EXPECT_THAT(fakevlog::messages(), ElementsAre("I NYR_FIREWALL: KLogExtractor::extractLogs: enter",
                                                  "I NYR_FIREWALL: KLogExtractor::extractLogs: read " +
                                                      std::to_string(kFirst.size() + 1) + " chars from klog",
                                                  "I NYR_FIREWALL: KLogExtractor::extractLogs: exit: normal"));
}

TEST(KLogExtractor, LogsUnderTheNamesOfItsOperations) {
    fakeklog::content = kFirst + "\n";
    fakeklog::size = 0;
    KLogExtractor logs = extractor();
    logs.updateLogs();
    logs.getAsJson();
    fakeklog::readResult = -1;
    logs.extractLogs();
    EXPECT_THAT(fakevlog::functions("extract-klogs.cpp"),
                ElementsAre("updateLogs", "extractLogs", "extractLogs", "extractLogs", "extractLogs", "getAsJson",
                            "extractLogs", "extractLogs", "extractLogs"));
}

TEST(KLogExtractor, LogsEachStepWhenItIsThere) {
    fakeklog::size = 0;
    std::vector<std::size_t> callsAtLine;
    fakevlog::onLine([&](const fakevlog::Line &) { callsAtLine.push_back(fakeklog::calls.size()); });
    extractor().extractLogs();
    EXPECT_THAT(callsAtLine, ElementsAre(0u, 1u, 2u));
}

class KLogExtractorWithoutSize : public testing::TestWithParam<int> {};

TEST_P(KLogExtractorWithoutSize, ReadsHalfAMegabyte) {
    fakeklog::content = kFirst + "\n";
    fakeklog::size = GetParam();
    EXPECT_EQ(extractor().extractLogs(), 1);
    EXPECT_EQ(fakeklog::calls.at(1).length, 524288);
    EXPECT_EQ(fakevlog::messages().at(1),
              "I NYR_FIREWALL: KLogExtractor::extractLogs: set buf size to MAX_KLOG_BUFFER_SIZE");
    EXPECT_EQ(fakevlog::messages().size(), 4u);
}

INSTANTIATE_TEST_SUITE_P(Sizes, KLogExtractorWithoutSize, testing::Values(0, -1));

TEST(KLogExtractor, TakesASizeOfOne) {
    fakeklog::content = "\n";
    fakeklog::size = 1;
    EXPECT_EQ(KLogExtractor("").extractLogs(), 1);
    EXPECT_EQ(fakeklog::calls.at(1).length, 1);
}

class KLogExtractorWithoutText : public testing::TestWithParam<int> {};

TEST_P(KLogExtractorWithoutText, ReturnsZeroAndKeepsWhatItHeld) {
    KLogExtractor logs = extractor();
    fakeklog::content = kFirst + "\n";
    logs.extractLogs();
    fakeklog::readResult = GetParam();
    fakevlog::clear();
    EXPECT_EQ(logs.extractLogs(), 0);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre("I NYR_FIREWALL: KLogExtractor::extractLogs: enter",
                            "I NYR_FIREWALL: KLogExtractor::extractLogs: exit: nothing to read or unknown error"));
    EXPECT_THAT(logs.getLogs(), ElementsAre(kFirst));
}

INSTANTIATE_TEST_SUITE_P(Results, KLogExtractorWithoutText, testing::Values(0, -1));

TEST(KLogExtractor, ReadsASingleByte) {
    fakeklog::content = "\n";
    EXPECT_EQ(KLogExtractor("").extractLogs(), 1);
}

TEST(KLogExtractor, AddsToTheListWithEachExtraction) {
    fakeklog::content = kFirst + "\n";
    KLogExtractor logs = extractor();
    EXPECT_EQ(logs.extractLogs(), 1);
    EXPECT_EQ(logs.extractLogs(), 2);
    EXPECT_THAT(logs.getLogs(), ElementsAre(kFirst, kFirst));
}

TEST(KLogExtractor, GivesTheSameLinesWithEachUpdate) {
    fakeklog::content = kFirst + "\n";
    KLogExtractor logs = extractor();
    EXPECT_THAT(logs.updateLogs(), ElementsAre(kFirst));
    EXPECT_THAT(logs.updateLogs(), ElementsAre(kFirst));
}

TEST(KLogExtractor, LogsAnUpdateBeforeTheReading) {
    extractor().updateLogs();
    EXPECT_EQ(fakevlog::messages().at(0), "I NYR_FIREWALL: KLogExtractor::updateLogs");
    EXPECT_EQ(fakevlog::messages().at(1), "I NYR_FIREWALL: KLogExtractor::extractLogs: enter");
}

TEST(KLogExtractor, HoldsNothingAfterAnUpdateThatReadNothing) {
    fakeklog::content = kFirst + "\n";
    KLogExtractor logs = extractor();
    logs.updateLogs();
    fakeklog::readResult = -1;
    EXPECT_THAT(logs.updateLogs(), IsEmpty());
}

TEST(KLogExtractor, ReadsWhenAskedForLinesItDoesNotHave) {
    fakeklog::content = kFirst + "\n";
    EXPECT_THAT(extractor().getLogs(), ElementsAre(kFirst));
    EXPECT_EQ(fakevlog::messages().at(0), "I NYR_FIREWALL: KLogExtractor::extractLogs: enter");
}

TEST(KLogExtractor, DoesNotReadAgainWhenAskedForLinesItHas) {
    fakeklog::content = kFirst + "\n";
    KLogExtractor logs = extractor();
    logs.getLogs();
    fakeklog::calls.clear();
    fakevlog::clear();
    EXPECT_THAT(logs.getLogs(), ElementsAre(kFirst));
    EXPECT_THAT(fakeklog::calls, IsEmpty());
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
}

TEST(KLogExtractor, GivesAVersionAloneWhereThereAreNoLines) { EXPECT_EQ(extractor().getAsJson(), R"({"v":"0.1"})"); }

TEST(KLogExtractor, GivesItsLinesInOrderAsJson) {
    fakeklog::content = kThird + "\nno\n" + kFirst + "\n";
    const std::string json = R"({"data":[")" + kThird + R"(",")" + kFirst + R"("],"v":"0.1"})";
    EXPECT_EQ(extractor().getAsJson(), json);
    EXPECT_EQ(fakevlog::messages().back(), "I NYR_FIREWALL: KLogExtractor::getAsJson: " + json);
}

} // namespace
