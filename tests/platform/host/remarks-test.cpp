#include "host/remarks.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

TEST(Remarks, AreReadAsTheyWereWritten) {
    for (const host::Remarks &written :
         {host::Remarks{}, host::Remarks{{"one", "", "a\nb"}, {}}, host::Remarks{{}, {std::string("n\0te", 4)}},
          host::Remarks{{"line"}, {"note", "note"}}}) {
        const auto read = host::decodeRemarks(host::encode(written));
        EXPECT_EQ(read.errorLines, written.errorLines);
        EXPECT_EQ(read.notes, written.notes);
    }
}

TEST(Remarks, OfAnotherFormAreANoteThatSaysSo) {
    const std::string sound = host::encode({{"line"}, {"note"}});
    for (std::size_t bytes = 1; bytes < sound.size(); ++bytes)
        EXPECT_THAT(host::decodeRemarks(sound.substr(0, bytes)).notes,
                    ElementsAre(testing::StartsWith("what the policy host says beside the result cannot be read: ")))
            << bytes;
    EXPECT_EQ(host::decodeRemarks(sound + '\0').notes.size(), 1U);
}

TEST(Remarks, AreEmptyWhereNeitherALineNorANoteIs) {
    EXPECT_TRUE(host::Remarks().isEmpty());
    EXPECT_FALSE((host::Remarks{{"line"}, {}}).isEmpty());
    EXPECT_FALSE((host::Remarks{{}, {"note"}}).isEmpty());
    EXPECT_EQ(host::encode(host::Remarks()), "");
}

TEST(Remarks, WithMoreThanThatAreANoteThatSaysSo) {
    const auto read = host::decodeRemarks(host::encode({{"line"}, {"note"}}) + "x");
    EXPECT_THAT(read.errorLines, ElementsAre());
    EXPECT_THAT(read.notes, ElementsAre("what the policy host says beside the result cannot be read: more than was "
                                        "expected"));
}

} // namespace
