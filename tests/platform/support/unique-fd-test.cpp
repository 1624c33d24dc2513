#include "support/unique-fd.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

namespace {

using support::aboveStandardStreams;
using support::UniqueFd;

int newDescriptor() { return ::open("/", O_RDONLY | O_DIRECTORY); }
bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

TEST(AUniqueDescriptor, IsClosedWithItsOwner) {
    const int fd = newDescriptor();
    {
        const UniqueFd owner(fd);
        EXPECT_EQ(owner.get(), fd);
        EXPECT_TRUE(owner);
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_FALSE(UniqueFd());
    EXPECT_EQ(UniqueFd().get(), -1);
}

TEST(AUniqueDescriptor, MayBeNumberZero) {
    ::close(0);
    const UniqueFd owner(newDescriptor());
    ASSERT_EQ(owner.get(), 0);
    EXPECT_TRUE(owner);
}

TEST(AUniqueDescriptor, HasOneOwner) {
    const int fd = newDescriptor();
    UniqueFd first(fd);
    UniqueFd second(std::move(first));
    EXPECT_EQ(first.get(), -1); // NOLINT(bugprone-use-after-move): that is what is asked
    EXPECT_EQ(second.get(), fd);
    const int other = newDescriptor();
    UniqueFd third(other);
    third = std::move(second);
    EXPECT_FALSE(isOpen(other));
    EXPECT_EQ(third.get(), fd);
    EXPECT_EQ(third.release(), fd);
    EXPECT_FALSE(third);
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

TEST(AUniqueDescriptor, IsClosedWhenItsOwnerGetsAnotherAndNotWhenItGetsTheSame) {
    const int fd = newDescriptor();
    const int other = newDescriptor();
    UniqueFd owner(fd);
    owner.reset(fd);
    EXPECT_TRUE(isOpen(fd));
    owner.reset(other);
    EXPECT_FALSE(isOpen(fd));
    owner.reset();
    EXPECT_FALSE(isOpen(other));
}

TEST(ADescriptorAboveTheStandardStreams, IsMovedThereWhereItIsNone) {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        UniqueFd low(::dup2(newDescriptor(), stream));
        ASSERT_EQ(low.get(), stream);
        const UniqueFd high = aboveStandardStreams(std::move(low));
        EXPECT_GT(high.get(), STDERR_FILENO);
        EXPECT_EQ(::fcntl(high.get(), F_GETFD), FD_CLOEXEC);
        EXPECT_FALSE(isOpen(stream));
    }
}

TEST(ADescriptorAboveTheStandardStreams, IsMovedToTheFirstNumberThatIsFree) {
    for (int fd = 0; fd < 20; ++fd)
        ::close(fd);
    EXPECT_EQ(aboveStandardStreams(UniqueFd(newDescriptor())).get(), 3);
}

TEST(ADescriptorAboveTheStandardStreams, StaysWhereItIsOne) {
    const int fd = newDescriptor();
    ASSERT_GT(fd, STDERR_FILENO);
    EXPECT_EQ(aboveStandardStreams(UniqueFd(fd)).get(), fd);
    EXPECT_EQ(aboveStandardStreams(UniqueFd()).get(), -1);
}

TEST(ADescriptorAboveTheStandardStreams, IsNoneWhereNoNumberIsFree) {
    UniqueFd low(::dup2(newDescriptor(), STDIN_FILENO));
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{3, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const UniqueFd high = aboveStandardStreams(std::move(low));
    const int error = errno;
    ::setrlimit(RLIMIT_NOFILE, &before); // a sanitizer needs descriptors, too
    EXPECT_FALSE(high);
    EXPECT_EQ(error, EINVAL);
}

} // namespace
