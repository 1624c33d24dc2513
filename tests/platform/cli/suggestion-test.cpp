#include "cli/suggestion.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using cli::nearest;
using cli::Words;

struct Pair {
    const char *word;
    const char *known;
};

TEST(TheNearestWord, MayHaveAThirdOfItsLettersWrong) {
    for (const auto &[word, known] : {Pair{"abx", "abc"},
                                      {"xbc", "abc"},
                                      {"axc", "abc"},
                                      {"ab", "abc"},
                                      {"bc", "abc"},
                                      {"ac", "abc"},
                                      {"abcx", "abc"},
                                      {"xabc", "abc"},
                                      {"axbc", "abc"},
                                      {"acb", "abc"},
                                      {"bac", "abc"},
                                      {"stauts", "status"},
                                      {"tsatus", "status"},
                                      {"tsauts", "status"},
                                      {"xtatux", "status"},
                                      {"stat", "status"},
                                      {"staxtusx", "status"},
                                      {"ab", "ab"},
                                      {"a", "a"}})
        EXPECT_EQ(nearest(word, {known}), known) << word;
}

TEST(TheNearestWord, MayNotHaveMoreOfThemWrong) {
    for (const auto &[word, known] : {Pair{"", "abc"},
                                      {"x", "abc"},
                                      {"xyc", "abc"},
                                      {"xxabc", "abc"},
                                      {"abcxx", "abc"},
                                      {"cab", "abc"},
                                      {"cba", "abc"},
                                      {"ax", "ab"},
                                      {"ba", "ab"},
                                      {"b", "a"},
                                      {"ba", "a"},
                                      {"xtxtux", "status"},
                                      {"sta", "status"},
                                      {"tsuats", "status"}})
        EXPECT_EQ(nearest(word, {known}), "") << word;
}

TEST(TheNearestWord, IsFoundWithoutRegardToCase) {
    EXPECT_EQ(nearest("AZM", {"azm"}), "azm");
    EXPECT_EQ(nearest("azm", {"AZM"}), "AZM");
    EXPECT_EQ(nearest("ZAM", {"azm"}), "azm") << "exchanged, too";
    EXPECT_EQ(nearest("MZA", {"mza"}), "mza");
    EXPECT_EQ(nearest("@[`", {"`{@"}), "") << "are no letters";
}

TEST(TheNearestWord, IsTheFirstOfThoseThatAreNearest) {
    EXPECT_EQ(nearest("stax", {"show", "start", "stat", "star"}), "stat");
    EXPECT_EQ(nearest("stars", {"stat", "stars", "starts"}), "stars");
    EXPECT_EQ(nearest("abc", {}), "");
}

TEST(TheNearestWord, IsNotLookedForWhereAWordIsLongerThanAny) {
    const std::string sixtyFour(64, 'x');
    const std::string sixtyFive(65, 'x');
    EXPECT_EQ(nearest(sixtyFour, {sixtyFive}), sixtyFive);
    EXPECT_EQ(nearest(sixtyFive, {sixtyFive}), "");
}

TEST(ASuggestion, NamesTheNearestWordOrNothing) {
    EXPECT_EQ(cli::didYouMean("stat", {"rules", "status"}), "; did you mean \"status\"?");
    EXPECT_EQ(cli::didYouMean("xyzzy", {"rules", "status"}), "");
}

TEST(AList, HasCommasBetweenItsWords) {
    EXPECT_EQ(cli::listOf({}), "");
    EXPECT_EQ(cli::listOf({"one"}), "one");
    EXPECT_EQ(cli::listOf({"one", "two", "three"}), "one, two, three");
}

} // namespace
