#include "mavo/replacement.h"

#include <cerrno>
#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/database.h"
#include "support/file-calls.h"
#include "support/text-file.h"
#include "unavailable.h"

namespace {

namespace fs = std::filesystem;
using mavo::database::Replacement;
using testing::ElementsAre;

const std::string kTarget = "/run/rules";
const std::string kNew = "/run/rules-new";

TEST(AReplacement, TakesThePlaceOfItsTargetWhole) {
    textfile::write(kTarget, "old");
    Replacement copy(kTarget, 0640);
    EXPECT_EQ(copy.path(), kNew);
    copy.write("new", 3);
    copy.write("er", 2);
    copy.synchronise();
    EXPECT_EQ(textfile::read(kTarget), "old");
    EXPECT_EQ(textfile::read(kNew), "newer");
    copy.takePlace();
    EXPECT_EQ(textfile::read(kTarget), "newer");
    EXPECT_FALSE(fs::exists(kNew));
    EXPECT_THAT(calls::synchronised, ElementsAre(kNew, "/run"));
    struct stat status {};
    ASSERT_EQ(::stat(kTarget.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST(AReplacement, IsGoneWithItsObjectUnlessItTookThePlace) {
    {
        Replacement copy(kTarget, 0600);
        copy.write("x", 1);
        EXPECT_TRUE(fs::exists(kNew));
    }
    EXPECT_FALSE(fs::exists(kNew));
    { Replacement(kTarget, 0600).takePlace(); }
    EXPECT_TRUE(fs::exists(kTarget));
}

TEST(AReplacement, IsMadeAnewWhereAProcessThatWasKilledHasLeftOne) {
    textfile::write(kNew, "half of an old one");
    Replacement copy(kTarget, 0600);
    copy.write("x", 1);
    EXPECT_EQ(textfile::read(kNew), "x");
}

TEST(AReplacement, IsUnavailableWhereItCannotBeMadeWrittenOrPutInPlace) {
    EXPECT_EQ(unavailable([] { Replacement("/run/missing/rules", 0600); }),
              "/run/missing/rules-new: No such file or directory");
    fs::create_directory(kTarget);
    Replacement copy(kTarget, 0600);
    calls::writes = {ENOSPC};
    EXPECT_EQ(unavailable([&] { copy.write("x", 1); }), kNew + ": No space left on device");
    EXPECT_EQ(unavailable([&] { copy.takePlace(); }), kNew + ": Is a directory");
}

TEST(AReplacement, IsSynchronisedAgainAfterSignalsAndNoMoreAfterErrors) {
    Replacement copy(kTarget, 0600);
    calls::fsyncs = {EIO};
    EXPECT_EQ(unavailable([&] { copy.synchronise(); }), kNew + ": Input/output error");
    calls::fsyncs = {EINTR, EINTR};
    copy.synchronise();
    EXPECT_THAT(calls::synchronised, ElementsAre(kNew));
}

} // namespace
