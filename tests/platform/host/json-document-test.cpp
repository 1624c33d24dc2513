#include "host/json-document.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using host::readJson;
using host::shapeOf;
using host::writeJson;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string nested(int depth) {
    const auto bytes = static_cast<std::size_t>(depth);
    return std::string(bytes, '[') + std::string(bytes, ']');
}

TEST(AJsonDocument, IsReadWithItsComments) {
    const auto document = readJson(R"({"a":1, /* b */ "c":[true]} // d)");
    EXPECT_EQ(document.error, "");
    EXPECT_FALSE(document.tooDeep);
    EXPECT_EQ(writeJson(document.root), R"({"a":1,"c":[true]})") << "and without them";
}

TEST(AJsonDocument, LeavesWhatCouldBeUnderstoodOfACutOne) {
    const auto document = readJson("{\"a\":1,\n\"b\":");
    EXPECT_THAT(document.error, StartsWith("is no complete JSON document: "));
    EXPECT_THAT(document.error, HasSubstr("Line 2")) << "its place";
    EXPECT_THAT(document.error, Not(HasSubstr("\n"))) << "on one line";
    EXPECT_FALSE(document.tooDeep);
    EXPECT_EQ(document.root["a"].asInt(), 1);
}

TEST(AJsonDocument, IsReadUpToItsNesting) {
    EXPECT_EQ(readJson(nested(3), 3).error, "");
    EXPECT_EQ(readJson("[[[1]]]", 3).error, "");
    const auto deep = readJson("[[[[1]]]]", 3);
    EXPECT_EQ(deep.error, "is nested more deeply than 3");
    EXPECT_TRUE(deep.tooDeep);
    EXPECT_EQ(readJson(nested(999)).error, "");
    EXPECT_TRUE(readJson(nested(1'001)).tooDeep);
    EXPECT_EQ(readJson(nested(1'001)).error, "is nested more deeply than 999");
}

TEST(AJsonDocument, IsWrittenOnOneLineAndEmptyForNull) {
    EXPECT_EQ(writeJson(Json::Value()), "");
    EXPECT_EQ(writeJson(Json::Value("text")), "\"text\"");
    EXPECT_EQ(writeJson(readJson("{ \"a\" : [ 1 , { } ] }").root), R"({"a":[1,{}]})");
}

TEST(TheShapeOfAJsonDocument, CountsValuesAndNesting) {
    const auto shapeOfText = [](const std::string &text) { return shapeOf(readJson(text).root); };
    EXPECT_EQ(shapeOfText("7").values, 1U);
    EXPECT_EQ(shapeOfText("7").nesting, 0);
    EXPECT_EQ(shapeOfText("[]").nesting, 1);
    EXPECT_EQ(shapeOfText("{}").nesting, 1);
    const auto shape = shapeOfText(R"({"a":[1,2],"b":{"c":[[]]},"d":null})");
    EXPECT_EQ(shape.values, 8U); // itself, a with 2, b, c with 1, d
    EXPECT_EQ(shape.nesting, 4);
    EXPECT_FALSE(shape.hasNul);
}

TEST(TheShapeOfAJsonDocument, ShowsANulWhereverItStands) {
    for (const char *text : {R"("a\u0000")", R"(["a","\u0000b"])", R"({"\u0000":1})", R"({"a":[{"b\u0000":[]}]})",
                             R"({"a":"\u0000","b":"c"})"})
        EXPECT_TRUE(shapeOf(readJson(text).root).hasNul) << text;
    for (const char *text : {R"("a")", R"({"a":["b"]})", "[0,false,null]"})
        EXPECT_FALSE(shapeOf(readJson(text).root).hasNul) << text;
}

} // namespace
