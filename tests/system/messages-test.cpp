// What vpkctl says where something was refused: what, why, and what would be accepted.
#include <string>
#include <vector>

#include "system/system-test.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

using Words = std::vector<std::string>;

class Messages : public systemtest::RunningSystemTest {
protected:
    // What vpkctl, which must end with that status, writes to standard error.
    std::string errors(int status, const Words &words, const std::string &input = {}) const {
        const auto result = system.control(words, input);
        EXPECT_EQ(result.status, status) << words.back() << ": " << result.output << result.errors;
        return result.errors;
    }
};

TEST_F(Messages, NameTheFirstWordThatIsWrongAndWhatWasMeant) {
    EXPECT_THAT(errors(2, {"stauts"}),
                HasSubstr(R"("stauts" is no subcommand; did you mean "status"? (subcommands: exec)"));
    EXPECT_THAT(errors(2, {"deny", "10.0.0.5"}),
                HasSubstr(R"("deny" is no subcommand; this is: vpkctl exec ApplyDenyRules ')"));
    EXPECT_THAT(errors(2, {"xyzzy"}), HasSubstr(R"("xyzzy" is no subcommand (subcommands: exec, call, )"));
    EXPECT_THAT(errors(2, {"ApplyDenyRules"}), HasSubstr("a command of the plugin: vpkctl exec ApplyDenyRules"));
    EXPECT_THAT(errors(2, {"status", "--jsn"}), HasSubstr(R"("--jsn" is no option of status; did you mean "--json"?)"));
    EXPECT_THAT(errors(2, {"exec", "ApplyDenyRules", "tcp:192.0.2.1:80", "udp:*:53"}),
                HasSubstr(R"("udp:*:53" is one word too many for exec; data is one word: rules are joined by ";")"));
    EXPECT_THAT(errors(2, {}), HasSubstr("A subcommand is required: exec, call, "));
    EXPECT_THAT(errors(2, {"exec"}), HasSubstr("exec: COMMAND is required: ApplyAllowRules, ApplyDenyRules, "));
}

TEST_F(Messages, NameAStatusThatIsNone) {
    for (const char *word : {"on", "1x", ""}) {
        for (const char *subcommand : {"set-status", "apply-status"})
            EXPECT_EQ(errors(2, {subcommand, word}),
                      "vpkctl: \"" + std::string(word) + "\" is no status: 1 enables the plugin, 0 disables it\n");
    }
    EXPECT_EQ(errors(1, {"set-status", "2"}),
              "vpkctl: the plugin refuses the status 2: 1 enables the plugin, 0 disables it\n");
}

TEST_F(Messages, NameAFileThatIsNone) {
    EXPECT_EQ(errors(2, {"exec", "ApplyDenyRules", "@"}),
              "vpkctl: \"@\" names no file: @FILE takes the data from FILE, - from standard input\n");
    EXPECT_EQ(errors(2, {"exec", "ApplyDenyRules", "@/nowhere"}),
              "vpkctl: cannot read /nowhere: No such file or directory\n");
}

} // namespace
