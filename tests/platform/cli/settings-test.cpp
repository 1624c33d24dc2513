#include "cli/settings.h"

#include <cerrno>
#include <initializer_list>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using cli::settingsWarnings;
using testing::ElementsAre;
using testing::IsEmpty;

struct Warned {
    const char *settings;
    const char *warning;
};

TEST(Settings, AreNotWarnedOfWhereTheyDoAsTheySay) {
    for (const char *settings :
         {"", "garbage", "[]", "{}", R"({"enabled":"1"})", R"({"enabled":"0"})", R"({"enabled":1})",
          R"({"send_report_interval":"1"})", R"({"send_report_interval":3600})",
          R"({"send_report_interval":"4294967295"})", R"({"send_report_interval":"99999999999999999999"})",
          R"({"last_send_report_ts":"1700000000"})", R"({"last_send_report_ts":0} // a comment)"})
        EXPECT_THAT(settingsWarnings(settings), IsEmpty()) << settings;
}

TEST(Settings, AreWarnedOfWhereTheyDoSomethingElse) {
    for (
        const auto &[settings, warning] : std::initializer_list<Warned>{
            {R"({"enabled":"yes"})", R"("enabled": "yes" switches the collector off; "1" switches it on, "0" off)"},
            {R"({"enabled":null})", R"("enabled": null switches the collector off; "1" switches it on, "0" off)"},
            {R"({"enabled":true})", R"("enabled": true switches the collector off; "1" switches it on, "0" off)"},
            {R"({"send_report_interval":"hourly"})",
             R"("send_report_interval": "hourly" has no number and is taken for 86400, a day; a number of seconds is accepted)"},
            {R"({"send_report_interval":null})",
             R"("send_report_interval": null has no number and is taken for 86400, a day; a number of seconds is accepted)"},
            {R"({"send_report_interval":0})",
             R"("send_report_interval": 0 is no time to sleep; a number of seconds from 1 on is accepted)"},
            {R"({"send_report_interval":"-1s"})",
             R"("send_report_interval": "-1s" is no time to sleep; a number of seconds from 1 on is accepted)"},
            {R"({"send_report_interval":"1h"})",
             R"("send_report_interval": "1h" is taken for 1 second; a number of seconds alone is accepted, "3600" for an hour)"},
            {R"({"send_report_interval":"2h"})",
             R"("send_report_interval": "2h" is taken for 2 seconds; a number of seconds alone is accepted, "3600" for an hour)"},
            {R"({"send_report_interval":"4294967296"})",
             R"("send_report_interval": "4294967296" is longer than 4294967295 seconds, and its lowest 32 bits alone count)"},
            {R"({"last_send_report_ts":"now"})",
             R"("last_send_report_ts": "now" is no time, and the collector reports as soon as it starts)"},
            {R"({"config_version":"2"})", R"("config_version": "2" has no effect)"},
            {"{\"db_max_size\":2} // a comment", R"("db_max_size": 2 has no effect)"},
            {R"({"db_max_size":1})", R"("db_max_size": 1 has no effect)"},
            {R"({"send_report_intervall":"60"})",
             R"("send_report_intervall" is no setting: it is kept and has no effect; did you mean "send_report_interval"?)"},
            {R"({"xyzzy":"60"})", R"("xyzzy" is no setting: it is kept and has no effect)"}})
        EXPECT_THAT(settingsWarnings(settings), ElementsAre(warning));
}

TEST(Settings, AreWarnedOfOneByOne) {
    EXPECT_THAT(
        settingsWarnings(R"({"db_max_size":1,"enabled":"1","send_report_interval":"1","xyzzy":2})"),
        ElementsAre(R"("db_max_size": 1 has no effect)", R"("xyzzy" is no setting: it is kept and has no effect)"));
}

TEST(Settings, AreReadWhateverWentWrongBefore) {
    errno = ERANGE;
    EXPECT_THAT(settingsWarnings(R"({"send_report_interval":"0"})"), testing::SizeIs(1));
}

} // namespace
