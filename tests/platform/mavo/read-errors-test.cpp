#include "mavo/read-errors.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "layer-calls.h"

namespace {

using mavo::database::forgetReadError;
using mavo::database::readError;
using Read = ssize_t (*)(int, void *, std::size_t);
using ReadAt = ssize_t (*)(int, void *, std::size_t, std::int64_t);

// What the disk answers, and what it was asked.
ssize_t answer = 0;
int error = 0;
std::tuple<std::string, int, void *, std::size_t, std::int64_t> asked;

ssize_t answered() {
    errno = error;
    return answer;
}
ssize_t read(int fd, void *buffer, std::size_t count) {
    asked = {"read", fd, buffer, count, 0};
    return answered();
}
ssize_t readAt(int fd, void *buffer, std::size_t count, std::int64_t offset) {
    asked = {"pread", fd, buffer, count, offset};
    return answered();
}
ssize_t readAt64(int fd, void *buffer, std::size_t count, std::int64_t offset) {
    asked = {"pread64", fd, buffer, count, offset};
    return answered();
}

class AReadThatIsWatched : public testing::Test {
protected:
    void SetUp() override {
        layer::set<Read>("read", read);
        layer::set<ReadAt>("pread", readAt);
        layer::set<ReadAt>("pread64", readAt64);
        mavo::database::watchReading();
        forgetReadError();
    }

    // Each of the three gives what the disk does, and passes on what it is asked.
    static void expectEach(ssize_t expectedAnswer, int expectedError, int expectedNote) {
        answer = expectedAnswer;
        error = expectedError;
        EXPECT_EQ(layer::get<Read>("read")(7, &answer, 8), expectedAnswer);
        EXPECT_EQ(asked, std::tuple("read", 7, &answer, 8, 0));
        EXPECT_EQ(readError(), expectedNote) << "read";
        for (const char *name : {"pread", "pread64"}) {
            EXPECT_EQ(layer::get<ReadAt>(name)(7, &answer, 8, 1LL << 40), expectedAnswer);
            EXPECT_EQ(asked, std::tuple(name, 7, &answer, 8, 1LL << 40));
            EXPECT_EQ(readError(), expectedNote) << name;
        }
    }
};

TEST_F(AReadThatIsWatched, IsNotedWhenItFails) {
    for (const int failure : {EIO, ENOMEM, EBADF})
        expectEach(-1, failure, failure);
}

TEST_F(AReadThatIsWatched, IsNotNotedWhenItGivesSomethingOrNothing) {
    expectEach(8, EIO, 0);
    expectEach(0, EIO, 0);
}

TEST_F(AReadThatIsWatched, IsNotNotedWhenItIsTriedAgain) {
    expectEach(-1, EINTR, 0);
    expectEach(-1, EIO, EIO);
    expectEach(-1, EINTR, EIO);
}

TEST_F(AReadThatIsWatched, IsForgottenOnRequest) {
    expectEach(-1, EIO, EIO);
    forgetReadError();
    EXPECT_EQ(readError(), 0);
}

TEST_F(AReadThatIsWatched, IsNotedInItsThreadAlone) {
    expectEach(-1, EIO, EIO);
    std::thread([] { EXPECT_EQ(readError(), 0); }).join();
}

TEST_F(AReadThatIsWatched, IsWatchedOnce) {
    const auto watched = layer::get<Read>("read");
    mavo::database::watchReading();
    EXPECT_EQ(layer::get<Read>("read"), watched);
    expectEach(4, 0, 0);
}

} // namespace
