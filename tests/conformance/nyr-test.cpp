// The client of the report service.
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "nyr/report.h"
#include "probe.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;

class AReport : public conformance::WithServices {
protected:
    static std::vector<std::string> reports(std::size_t count) { return linesOf("reports", count); }
};

TEST_F(AReport, ArrivesWithItsTypesAndItsBodyUnchanged) {
    std::string body = R"({"version":"1.0","data":{"10.0.0.5":3},"name":")"
                       "caf\xc3\xa9\"}";
    const std::string before = body;
    EXPECT_EQ(0, nyr::sendReport(10007, 139, body));
    EXPECT_EQ(before, body);
    EXPECT_THAT(reports(1), ElementsAre("10007 139 " + before));
}

TEST_F(AReport, MayBeEmptyOrLong) {
    std::string empty;
    const std::string longText(200'000, 'x');
    std::string large = longText;
    EXPECT_EQ(0, nyr::sendReport(1, 2, empty));
    EXPECT_EQ(0, nyr::sendReport(3, 4, large));
    EXPECT_THAT(reports(2), ElementsAre("1 2 ", "3 4 " + longText));
}

TEST_F(AReport, ArrivesAfterThoseBefore) {
    std::vector<std::string> expected;
    for (int i = 0; i < 10; ++i) {
        const std::string number = std::to_string(i);
        std::string body = number;
        EXPECT_EQ(0, nyr::sendReport(1, i, body));
        expected.push_back(std::string("1 ").append(number).append(" ").append(number));
    }
    EXPECT_EQ(expected, reports(expected.size()));
}

// As the collector does: forked, without standard streams and with an umask of 0.
TEST_F(AReport, ArrivesFromAProcessWithoutStandardStreams) {
    EXPECT_EQ(0, conformance::inChild([] {
                  for (const int fd : {0, 1, 2})
                      ::close(fd);
                  ::umask(0);
                  std::string body = "from the collector";
                  return nyr::sendReport(1, 2, body) == 0 ? 0 : 1;
              }));
    EXPECT_THAT(reports(1), ElementsAre("1 2 from the collector"));
}

TEST_F(AReport, ArrivesFromEachOfSeveralProcesses) {
    EXPECT_EQ(0, conformance::inChild([] {
                  ::fork();
                  ::fork(); // four in all
                  std::string body = "x";
                  return nyr::sendReport(1, 2, body) == 0 ? 0 : 1;
              }));
    EXPECT_THAT(reports(4), SizeIs(4));
}

} // namespace
