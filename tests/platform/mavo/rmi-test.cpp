#include "mavo/rmi.h"

#include <climits>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(AMessageOfARemoteMethod, HasTheseBytes) {
    mavo::rmi::Message message;
    message.write(-2);
    message.write("ab"s);
    EXPECT_EQ("\xfe\xff\xff\xff\2\0\0\0ab"s, message.body());
}

TEST(AMessageOfARemoteMethod, ReadsNothingOfWhatIsTorn) {
    for (const std::string &body : {"\2\0\0\0a"s, "\xff\xff\xff\xff"s, "\2\0\0"s}) {
        mavo::rmi::Message message(body);
        std::string text = "before";
        EXPECT_THROW(message.read(text), mavo::rmi::BadArguments);
        EXPECT_EQ("before", text);
        int number = 7;
        if (body.size() >= 4)
            message.read(number);
        else
            EXPECT_THROW(message.read(number), mavo::rmi::BadArguments);
        EXPECT_EQ(body.size() < 4 ? 7 : body[0] == 2 ? 2 : -1, number);
    }
}

TEST(AMessageOfARemoteMethod, KeepsNumbersAtAnyAddress) {
    for (std::size_t length = 0; length < 9; ++length) {
        mavo::rmi::Message written;
        written.write(std::string(length, 'x'));
        for (const int number : {INT_MIN, -1, INT_MAX})
            written.write(number);
        mavo::rmi::Message message(written.body());
        std::string text;
        message.read(text);
        EXPECT_EQ(length, text.size());
        for (const int expected : {INT_MIN, -1, INT_MAX}) {
            int number = 0;
            message.read(number);
            EXPECT_EQ(expected, number) << length;
        }
    }
}

} // namespace
