// Moments that a person names.
#include "cli/since.h"

#include <cstdlib>
#include <ctime>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using cli::sinceFrom;

constexpr std::int64_t kNow = 1'795'357'800; // 2026-11-22 14:30:00 UTC

class AMoment : public testing::Test {
protected:
    void SetUp() override { in("UTC"); }
    static void in(const char *zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    static std::string ago(std::int64_t seconds) { return "@" + std::to_string(kNow - seconds); }
};

TEST_F(AMoment, MayBeAnEntry) {
    EXPECT_EQ(sinceFrom("41", kNow), "41");
    EXPECT_EQ(sinceFrom("0041", kNow), "41");
}

TEST_F(AMoment, MayBeADuration) {
    EXPECT_EQ(sinceFrom("30s", kNow), ago(30));
    EXPECT_EQ(sinceFrom("5m", kNow), ago(300));
    EXPECT_EQ(sinceFrom("2h", kNow), ago(7'200));
    EXPECT_EQ(sinceFrom("1d12h", kNow), ago(129'600));
    EXPECT_EQ(sinceFrom("1w", kNow), ago(604'800));
}

TEST_F(AMoment, MayBeATime) {
    EXPECT_EQ(sinceFrom("@1795357800", kNow), "@1795357800");
    for (const char *word :
         {"2026-11-22 14:30", "2026-11-22 14:30:00", "2026-11-22T14:30", "2026-11-22T14:30:00", "14:30", "14:30:00"})
        EXPECT_EQ(sinceFrom(word, kNow), ago(0)) << word;
    EXPECT_EQ(sinceFrom("2026-11-21", kNow), ago(52'200 + 86'400));
    EXPECT_EQ(sinceFrom("today", kNow), ago(52'200));
    EXPECT_EQ(sinceFrom("yesterday", kNow), ago(52'200 + 86'400));
}

TEST_F(AMoment, IsOfTheZoneOfWhoAsks) {
    in("XYZ-2");
    EXPECT_EQ(sinceFrom("14:30", kNow), ago(7'200));
    EXPECT_EQ(sinceFrom("today", kNow), ago(52'200 + 7'200));
    in("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(sinceFrom("2026-07-01 12:00", kNow), "@1782900000") << "in summer";
}

TEST_F(AMoment, IsNoneOfThese) {
    for (const char *word : {"", "x", "-1", "2x", "h", "2h3", "@", "@x", "@-1", "2026-13-01", "2026-11-22 25:00",
                             "14:30 h", "99999999999999999999", "99999999999d", "1.5h", "+2h", "60000d"}) {
        const auto end = clitest::ended([&] { sinceFrom(word, kNow); });
        EXPECT_EQ(end.status, 2) << word;
        EXPECT_EQ(end.line, "\"" + std::string(word) +
                                "\" is no moment: the number of an entry is accepted (vpkctl history shows them), a "
                                "duration as 2h or 1d12h, today, yesterday, a time as 14:30, \"2026-11-22 14:30\" or "
                                "@1795357800");
    }
}

} // namespace
