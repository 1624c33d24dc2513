#include "host/passing-failure.h"

#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "mavo/database.h"
#include "mavo/exception.h"

namespace {

template <typename Thrown> bool mayPass(const Thrown &thrown) {
    try {
        throw thrown;
    } catch (...) {
        return host::mayPass();
    }
}

TEST(AFailure, MayPassWhereSomethingIsShortOrAway) {
    EXPECT_TRUE(mayPass(host::PassingFailure("the service is away")));
    EXPECT_TRUE(mayPass(mavo::database::Unavailable("held")));
    EXPECT_TRUE(mayPass(std::bad_alloc()));
}

TEST(AFailure, StaysElse) {
    EXPECT_FALSE(mayPass(std::runtime_error("thrown")));
    EXPECT_FALSE(mayPass(mavo::Exception("damaged")));
    EXPECT_FALSE(mayPass(7));
}

} // namespace
