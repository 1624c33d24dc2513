#include "nyr-common-client/report-document.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using nyr::fromDocument;
using nyr::Report;
using nyr::toDocument;

Report reportOf(const std::string &body) {
    Report report;
    report.type = 10007;
    report.subtype = 1;
    report.time = 1'700'000'000;
    report.body = body;
    return report;
}

std::string bodyAgain(const std::string &body) {
    const std::optional<Report> report = fromDocument(toDocument(reportOf(body)));
    return report ? report->body : "no report";
}

TEST(AReportDocument, IsOneLineThatOthersCanRead) {
    EXPECT_EQ("{\"body\":\"{\\\"k\\\":\\\"\xc3\xa9\\\"}\",\"subtype\":1,\"time\":1700000000,\"type\":10007}\n",
              toDocument(reportOf("{\"k\":\"\xc3\xa9\"}")));
}

TEST(AReportDocument, GivesBackTypesAndTimeUpToTheirLimits) {
    Report report = reportOf("x");
    report.type = std::numeric_limits<int>::max();
    report.subtype = std::numeric_limits<int>::min();
    report.time = std::numeric_limits<std::int64_t>::min();
    const std::optional<Report> again = fromDocument(toDocument(report));
    ASSERT_TRUE(again);
    EXPECT_EQ(report.type, again->type);
    EXPECT_EQ(report.subtype, again->subtype);
    EXPECT_EQ(report.time, again->time);
    EXPECT_EQ("x", again->body);
    EXPECT_EQ("", again->file);
}

TEST(AReportDocument, GivesBackEverySingleByteAndEveryPairOfBytes) {
    for (int first = 0; first < 256; ++first) {
        std::string all(1, static_cast<char>(first));
        EXPECT_EQ(all, bodyAgain(all)) << first;
        for (int second = 0; second < 256; ++second)
            all += {static_cast<char>(first), static_cast<char>(second)};
        EXPECT_EQ(all, bodyAgain(all)) << first;
    }
}

TEST(AReportDocument, GivesBackWhatLooksLikeItsOwnSyntax) {
    for (const char *body : {"", "\\u0000 \\\" / \x7f \xe2\x80\xa8", "/* */ // x", "\xf0\x9f\x98\x80", "cut \xe2\x82"})
        EXPECT_EQ(body, bodyAgain(body));
}

TEST(AText, IsNoReportWhenAnythingOfOneIsMissingOrOfAnotherKind) {
    const std::vector<std::string> bad{
        "",
        "{",
        "[]",
        "1",
        R"({"type":1,"subtype":2,"time":3})",
        R"({"type":1,"subtype":2,"body":""})",
        R"({"type":1,"time":3,"body":""})",
        R"({"subtype":2,"time":3,"body":""})",
        R"({"type":"1","subtype":2,"time":3,"body":""})",
        R"({"type":1,"subtype":"2","time":3,"body":""})",
        R"({"type":1,"subtype":2,"time":"3","body":""})",
        R"({"type":1,"subtype":2,"time":3.5,"body":""})",
        R"({"type":4294967297,"subtype":2,"time":3,"body":""})",
        R"({"type":1,"subtype":4294967297,"time":3,"body":""})",
        R"({"type":1,"subtype":2,"time":3,"body":4})",
        R"({"type":1,"subtype":2,"time":3,"body":"","x":1} more)",
        R"({"type":1,"subtype":2,"time":3,"body":""} // note)",
        std::string(5000, '['),
    };
    for (const std::string &text : bad)
        EXPECT_FALSE(fromDocument(text)) << text;
}

TEST(AText, MayHoldMoreThanAReportNeeds) {
    const std::optional<Report> report = fromDocument(R"({"type":1,"subtype":2,"time":3,"body":"x","more":[4]})");
    ASSERT_TRUE(report);
    EXPECT_EQ("x", report->body);
}

} // namespace
