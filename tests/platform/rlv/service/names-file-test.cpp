// The file in which answers of name servers are kept: its text, how it is read, and how it is written.
#include "rlv/service/names-file.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/file-calls.h"
#include "support/text-file.h"

namespace {

using rlv::KeptName;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint32_t kOne = 0x0a000001; // 10.0.0.1
const std::string kPath = "/run/names-file/names";

class AFileOfNames : public testing::Test {
protected:
    AFileOfNames() {
        std::filesystem::remove_all("/run/names-file");
        std::filesystem::create_directories("/run/names-file");
    }
};

// With the sum that belongs to these lines.
std::string textOf(const std::string &lines) {
    std::uint64_t hash = 14695981039346656037U; // FNV-1a
    const std::string text = "vpk-names 1\n" + lines;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    constexpr const char *kDigits = "0123456789abcdef";
    std::string sum;
    for (int shift = 60; shift >= 0; shift -= 4)
        sum += kDigits[hash >> shift & 15U];
    return text + "sum " + sum + "\n";
}

std::string refusalOf(const std::string &text) {
    try {
        rlv::decodeNames(text);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "";
}

std::string refusalAt(const std::string &path) {
    try {
        rlv::readNames(path);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "";
}

// Which file, and which error.
std::string failureOfWriting(const std::string &path = kPath) {
    try {
        rlv::writeNames(path, {{"new.example", 1, {kOne}}});
    } catch (const std::system_error &error) {
        return error.what();
    }
    return "";
}

TEST_F(AFileOfNames, HasALineForEachAndASumOfAll) {
    EXPECT_EQ(textOf("b.example 17 0.0.0.1 10.0.0.1 255.255.255.255\na.example 0 1.2.3.4\n"),
              rlv::encodeNames({{"b.example", 17, {1, kOne, 0xffffffff}}, {"a.example", 0, {0x01020304}}}));
    EXPECT_EQ(textOf(""), rlv::encodeNames({}));
}

TEST_F(AFileOfNames, IsReadAsItWasWritten) {
    const std::vector<KeptName> names = {{"b.example", 17, {1, kOne, 0xffffffff}}, {"a.example", 0, {kOne}}};
    const auto read = rlv::decodeNames(rlv::encodeNames(names));
    ASSERT_EQ(2U, read.size());
    EXPECT_EQ("b.example", read[0].name);
    EXPECT_EQ(17, read[0].confirmed);
    EXPECT_EQ(names[0].addresses, read[0].addresses);
    EXPECT_EQ("a.example", read[1].name);
    EXPECT_THAT(rlv::decodeNames(rlv::encodeNames({})), IsEmpty());
}

TEST_F(AFileOfNames, GivesAddressesInTheirOrder) {
    EXPECT_THAT(rlv::decodeNames(textOf("a.example 1 10.0.0.2 10.0.0.1\n")).at(0).addresses,
                ElementsAre(kOne, kOne + 1));
}

TEST_F(AFileOfNames, IsRefusedWithAnyBitTurnedOrAnyEndCutOff) {
    const std::string whole = rlv::encodeNames({{"one.example", 17, {kOne}}});
    for (std::size_t at = 0; at < whole.size(); ++at) {
        EXPECT_ANY_THROW(rlv::decodeNames(whole.substr(0, at))) << at;
        for (int bit = 0; bit < 8; ++bit) {
            std::string damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ (1 << bit));
            EXPECT_ANY_THROW(rlv::decodeNames(damaged)) << at << ' ' << bit;
        }
    }
}

TEST_F(AFileOfNames, IsRefusedForWhatDoesNotBelongThere) {
    EXPECT_EQ("the first line is another one", refusalOf("vpk-names 2\n"));
    EXPECT_EQ("damaged: the sum is wrong", refusalOf("vpk-names 1\n"));
    EXPECT_EQ("damaged: the sum is wrong", refusalOf(textOf("") + "x"));
    EXPECT_EQ("no host name: 10.0.0.1", refusalOf(textOf("10.0.0.1 1 10.0.0.1\n")));
    EXPECT_EQ("no host name: ", refusalOf(textOf("\n")));
    for (const std::string time : {"", "x", "-1", "1x", "99999999999999999999"})
        EXPECT_EQ("no time: " + time, refusalOf(textOf("a.example " + time + " 10.0.0.1\n")));
    for (const std::string address : {"x", "10.0.0", "10.0.0.0/8"})
        EXPECT_EQ("no address: " + address, refusalOf(textOf("a.example 1 " + address + "\n")));
    EXPECT_EQ("no address of a.example, or too many", refusalOf(textOf("a.example 1\n")));
    EXPECT_EQ("", refusalOf(textOf("a.example 0 10.0.0.0/32\n"))) << "one address all the same";
}

TEST_F(AFileOfNames, HasAsManyAddressesOfANameAsAreLookedUp) {
    std::string addresses;
    for (std::size_t i = 0; i < rlv::kMaxAddresses; ++i)
        addresses += " 10.0.0.1";
    EXPECT_EQ("", refusalOf(textOf("a.example 1" + addresses + "\n")));
    EXPECT_EQ("no address of a.example, or too many", refusalOf(textOf("a.example 1" + addresses + " 10.0.0.1\n")));
}

TEST_F(AFileOfNames, HasAsManyNamesAsAreKept) {
    std::string lines;
    for (std::size_t i = 0; i < rlv::kMaxKeptNames; ++i)
        lines += "a.example 1 10.0.0.1\n";
    EXPECT_EQ("", refusalOf(textOf(lines)));
    EXPECT_EQ("more names than are kept", refusalOf(textOf(lines + "a.example 1 10.0.0.1\n")));
}

TEST_F(AFileOfNames, LeavesOutWhatFindsNoRoom) {
    const rlv::Addresses many(rlv::kMaxAddresses, kOne);
    std::vector<KeptName> names(rlv::kMaxKeptAddresses / rlv::kMaxAddresses - 1, {"a.example", 1, many});
    names.push_back({"b.example", 1, rlv::Addresses(rlv::kMaxAddresses - 1, kOne)});
    names.push_back({"two.example", 1, {kOne, kOne + 1}});
    names.push_back({"one.example", 1, {kOne}});
    names.push_back({"none.example", 1, {kOne}});
    const auto read = rlv::decodeNames(rlv::encodeNames(names));
    EXPECT_EQ(names.size() - 2, read.size());
    EXPECT_EQ("one.example", read.back().name) << "what is smaller may still find room";
}

TEST_F(AFileOfNames, IsEmptyWhereThereIsNone) { EXPECT_THAT(rlv::readNames(kPath), IsEmpty()); }

TEST_F(AFileOfNames, IsReadBackAndOneAccountsAlone) {
    rlv::writeNames(kPath, {{"a.example", 17, {kOne}}});
    ASSERT_EQ(1U, rlv::readNames(kPath).size());
    struct stat status {};
    ASSERT_EQ(0, ::stat(kPath.c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777U);
    EXPECT_FALSE(std::filesystem::exists(kPath + ".new"));
}

TEST_F(AFileOfNames, IsNotReadWhereItIsNoRegularFileOfThisAccount) {
    textfile::write("/run/names-file/elsewhere", textOf(""));
    ASSERT_EQ(0, ::mkfifo(kPath.c_str(), 0600));
    EXPECT_EQ(kPath + ": not a regular file of this account", refusalAt(kPath));
    std::filesystem::remove(kPath);
    std::filesystem::create_symlink("/run/names-file/elsewhere", kPath);
    EXPECT_EQ(kPath + ": Too many levels of symbolic links", refusalAt(kPath));
    EXPECT_EQ("", refusalAt("/run/names-file/elsewhere"));
    ASSERT_EQ(0, ::chown("/run/names-file/elsewhere", 65534, 65534));
    EXPECT_EQ("/run/names-file/elsewhere: not a regular file of this account", refusalAt("/run/names-file/elsewhere"));
}

TEST_F(AFileOfNames, IsNotReadWhereItIsLongerThanOneCanBe) {
    textfile::write(kPath, "vpk-names 1\n");
    const std::size_t longest = 4096 * (253 + 24) + 65'536 * 16 + 64;
    std::filesystem::resize_file(kPath, longest);
    EXPECT_EQ(kPath + ": damaged: the sum is wrong", refusalAt(kPath));
    std::filesystem::resize_file(kPath, longest + 1);
    EXPECT_EQ(kPath + ": longer than " + std::to_string(longest) + " bytes", refusalAt(kPath));
}

TEST_F(AFileOfNames, IsWrittenHoweverLittleIsTakenAtATime) {
    calls::writeBytes = 7;
    calls::writes = {0, EINTR, 0};
    rlv::writeNames(kPath, {{"a.example", 17, {kOne}}, {"b.example", 18, {kOne}}});
    calls::writeBytes = static_cast<std::size_t>(-1);
    EXPECT_EQ(2U, rlv::readNames(kPath).size());
}

TEST_F(AFileOfNames, IsOnTheDiskWithItsName) {
    calls::synchronised.clear();
    rlv::writeNames(kPath, {{"a.example", 17, {kOne}}});
    EXPECT_THAT(calls::synchronised, ElementsAre(kPath + ".new", "/run/names-file"));
}

TEST_F(AFileOfNames, IsOnTheDiskInTheWorkingFolderAndInTheRoot) {
    std::filesystem::current_path("/run/names-file");
    calls::synchronised.clear();
    rlv::writeNames("here", {});
    EXPECT_THAT(calls::synchronised, ElementsAre("/run/names-file/here.new", "/run/names-file"));
    EXPECT_THAT(failureOfWriting("/no-such-folder/names"), HasSubstr("/no-such-folder/names.new"));
}

TEST_F(AFileOfNames, IsTheOldOneWhereTheNewOneFails) {
    rlv::writeNames(kPath, {{"old.example", 1, {kOne}}});
    calls::writes = {ENOSPC};
    EXPECT_EQ(kPath + ".new: No space left on device", failureOfWriting());
    calls::fsyncs = {EIO};
    EXPECT_EQ(kPath + ".new: Input/output error", failureOfWriting());
    calls::renames = {EACCES};
    EXPECT_EQ(kPath + ": Permission denied", failureOfWriting());
    EXPECT_EQ("old.example", rlv::readNames(kPath).at(0).name);
    calls::fsyncs = {0, EIO};
    EXPECT_EQ("/run/names-file: Input/output error", failureOfWriting());
    EXPECT_EQ("new.example", rlv::readNames(kPath).at(0).name);
}

TEST_F(AFileOfNames, TakesThePlaceOfWhatAnInterruptedOneHasLeft) {
    textfile::write(kPath + ".new", "half");
    rlv::writeNames(kPath, {{"a.example", 17, {kOne}}});
    EXPECT_EQ(1U, rlv::readNames(kPath).size());
    std::filesystem::create_directory(kPath + ".new");
    EXPECT_EQ(kPath + ".new: Is a directory", failureOfWriting());
}

TEST_F(AFileOfNames, IsPutAsideUnderAnotherName) {
    textfile::write(kPath, "damaged");
    EXPECT_TRUE(rlv::putAside(kPath));
    EXPECT_EQ("damaged", textfile::read(kPath + ".refused"));
    EXPECT_FALSE(std::filesystem::exists(kPath));
    EXPECT_FALSE(rlv::putAside(kPath)) << "there is none";
}

} // namespace
