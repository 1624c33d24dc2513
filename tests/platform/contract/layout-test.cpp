// What crosses the border between a program and the platform's libraries, which are built apart: its size on machines
// of 64 and of 32 bits, with the C++ library that Debian has. A change here is a change of the contract.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>
#include <mavo/database.h>
#include <mavo/exception.h>
#include <mavo/rmi.h>
#include <nyr/report.h>
#include <rlv/rlv.h>
#include <vlog/vlog.h>
#include <vpk-pil/vpk-pil.h>

namespace {

constexpr std::size_t bytes(std::size_t with64Bits, std::size_t with32Bits) {
    return sizeof(void *) == 8 ? with64Bits : with32Bits;
}

static_assert(sizeof(void *) == 8 || sizeof(void *) == 4);

TEST(TheContract, HasNumbersOfTheSameWidthEverywhere) {
    EXPECT_EQ(4U, sizeof(int));
    EXPECT_EQ(8U, sizeof(long long));
    EXPECT_EQ(8U, alignof(long long));
    EXPECT_EQ(4U, sizeof(rlv_handle));
    EXPECT_TRUE(std::is_unsigned<rlv_handle>::value);
    EXPECT_EQ(4U, sizeof(VLOG_ID_MAIN));
    EXPECT_EQ(4U, sizeof(VLOG_PRIORITY_ERROR));
}

TEST(TheContract, HasObjectsOfTheseSizes) {
    using mavo::database::Column;
    using mavo::database::Connection;
    using mavo::database::Statement;
    EXPECT_EQ(bytes(8, 4), sizeof(Connection));
    EXPECT_EQ(bytes(16, 8), sizeof(Statement));
    EXPECT_EQ(bytes(16, 8), sizeof(Column));
    EXPECT_EQ(bytes(16, 8), sizeof(mavo::Exception));
    EXPECT_EQ(bytes(16, 8), sizeof(mavo::rmi::BadArguments));
    EXPECT_EQ(bytes(40, 28), sizeof(mavo::rmi::Message));
    EXPECT_EQ(bytes(64, 40), sizeof(mavo::rmi::MethodContext));
    EXPECT_EQ(bytes(96, 52), sizeof(mavo::rmi::Service));
    EXPECT_EQ(bytes(8, 4), sizeof(AbstractDPluginProvider));
    EXPECT_EQ(bytes(8, 4), sizeof(AbstractPolicyProvider));
    EXPECT_EQ(bytes(8, 4), sizeof(PolicyStorage));
}

TEST(TheContract, HasObjectsOfTheLibrariesOfTheseSizes) {
    EXPECT_EQ(bytes(32, 24), sizeof(std::string));
    EXPECT_EQ(bytes(32, 16), sizeof(std::function<int()>));
    EXPECT_EQ(bytes(40, 24), sizeof(std::mutex));
    EXPECT_EQ(bytes(16, 8), sizeof(std::shared_ptr<int>));
}

// Functions, by what they take and give.
static_assert(std::is_same<decltype(&rlv_initialize), int (*)(std::uint32_t *)>::value);
static_assert(std::is_same<decltype(&rlv_deinitialize), int (*)(std::uint32_t)>::value);
static_assert(
    std::is_same<decltype(&rlv_iptables_commit), int (*)(std::uint32_t, const char *, int *, char **)>::value);
static_assert(std::is_same<decltype(&nyr::sendReport), int (*)(int, int, std::string &)>::value);

} // namespace
