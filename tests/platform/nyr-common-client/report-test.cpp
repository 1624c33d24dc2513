#include "nyr/report.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nyr-common-client/outbox.h"
#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

namespace {

class ASentReport : public testing::Test {
protected:
    void SetUp() override {
        vlog::useFile({"/run/log"});
        vlog::setObserver([this](const vlog::Line &line) { logged_.push_back(line); });
    }
    void TearDown() override { vlog::setObserver({}); }
    std::vector<vlog::Line> logged_;
};

TEST_F(ASentReport, LiesInTheOutboxWithTheTimeOfNow) {
    std::string body = R"({"a":"b"})";
    const auto before = std::time(nullptr);
    EXPECT_EQ(nyr::sendReport(10007, 139, body), 0);
    EXPECT_EQ(body, R"({"a":"b"})");
    const auto reports = nyr::readOutbox();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].type, 10007);
    EXPECT_EQ(reports[0].subtype, 139);
    EXPECT_EQ(reports[0].body, body);
    EXPECT_GE(reports[0].time, before);
    EXPECT_LE(reports[0].time, std::time(nullptr));
    EXPECT_TRUE(logged_.empty());
}

TEST_F(ASentReport, FailsWithOneErrorLineWhereThereCanBeNoOutbox) {
    std::filesystem::create_directories("/opt/data");
    std::ofstream("/opt/data/vpk") << "in the way";
    std::string body = "x";
    EXPECT_EQ(nyr::sendReport(1, 2, body), -1);
    EXPECT_EQ(body, "x");
    ASSERT_EQ(logged_.size(), 1U);
    EXPECT_EQ(logged_[0].priority, VLOG_PRIORITY_ERROR);
    EXPECT_EQ(logged_[0].tag, "NYR_REPORT");
    EXPECT_EQ(logged_[0].text, "NYR_REPORT: report 1/2 is lost: directory /opt/data/vpk: Not a directory");
}

} // namespace
