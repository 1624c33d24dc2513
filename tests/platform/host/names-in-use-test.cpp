// Which words of rules could be host names.
#include "host/names-in-use.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using host::namesIn;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(NamesInRules, AreTheAddressesWithLetters) {
    EXPECT_THAT(namesIn("tcp:b.example:80;*:10.0.0.1:*;udp:a-1.Example:53:out;*:*:*;*::*"),
                ElementsAre("a-1.Example", "b.example"));
}

TEST(NamesInRules, AreEachThereOnce) { EXPECT_THAT(namesIn("*:a.b:*;*:a.b:1;tcp:a.b:2"), ElementsAre("a.b")); }

TEST(NamesInRules, StandInDocumentsToo) {
    EXPECT_THAT(namesIn("{\"ALLOW\": [\"*:a.example:*\",\n\"tcp:b.example:80:in\"], \"DENY\":[]}"),
                ElementsAre("a.example", "b.example"));
}

TEST(NamesInRules, AreNothingElse) {
    for (const char *rules :
         {"", ";;;", ":", "::", "a:b", "*:a b:*", "*:a/8:*", "*:\x80xyz:*", "x:1.2.3.4:y", "*:a*:*"})
        EXPECT_THAT(namesIn(rules), IsEmpty()) << rules;
    EXPECT_THAT(namesIn("*:" + std::string(255, 'a') + ":*"), IsEmpty());
}

TEST(NamesInRules, AreLimited) {
    std::string rules;
    for (int i = 0; i < 5000; ++i)
        rules += "*:n" + std::to_string(i) + ".example:*;";
    EXPECT_EQ(rlv::kMaxNamesInUse, namesIn(rules).size());
}

} // namespace
