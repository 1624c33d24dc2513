#include "mavo/rmi.h"

#include <climits>
#include <string>

#include <gtest/gtest.h>

namespace {

using mavo::rmi::BadArguments;
using mavo::rmi::Message;
using mavo::rmi::Service;

TEST(AMessage, GivesBackWhatWasWritten) {
    Message written;
    written.write(INT_MIN);
    written.write(std::string("a\0b", 3));
    written.write(std::string());
    written.write(-2);
    Message message(written.body());
    int first = 0;
    int last = 0;
    std::string text;
    std::string empty = "x";
    message.read(first);
    message.read(text);
    message.read(empty);
    message.read(last);
    EXPECT_EQ(INT_MIN, first);
    EXPECT_EQ(std::string("a\0b", 3), text);
    EXPECT_EQ("", empty);
    EXPECT_EQ(-2, last);
    EXPECT_TRUE(message.atEnd());
}

TEST(AMessage, IsLittleEndianWithLengthsBeforeStrings) {
    Message message;
    message.write(0x01020384);
    message.write(std::string("hi"));
    EXPECT_EQ(std::string("\x84\x03\x02\x01\x02\0\0\0hi", 10), message.body());
}

TEST(AMessage, RefusesEveryBodyThatEndsTooEarlyAndReadsNothingOfIt) {
    for (const std::string &body : {std::string(), std::string("\1\0\0", 3), std::string("\1\0\0\0", 4),
                                    std::string("\xff\xff\xff\xff....", 8), std::string("\xff\xff\xff\x7f....", 8)}) {
        Message message(body);
        std::string text = "before";
        EXPECT_THROW(message.read(text), BadArguments);
        EXPECT_EQ("before", text);
        EXPECT_EQ(body.empty(), message.atEnd());
    }
}

TEST(AMessage, RefusesAnIntegerOfThreeBytes) {
    Message message(std::string(3, '\1'));
    int value = 7;
    EXPECT_THROW(message.read(value), mavo::Exception);
    EXPECT_EQ(7, value);
}

TEST(AMessage, AnswersWithAnEmptyOne) {
    EXPECT_EQ("", Message(std::string("\1\0\0\0", 4)).createReplyMessage().body());
}

TEST(AService, CallsTheHandlerWithItsArgumentsAndWritesTheResult) {
    Service service;
    service.setMethodHandler<int, std::string, int>(
        "http://vpk/privilege/x", "Add",
        [](std::string &text, int &number) { return static_cast<int>(text.size()) + number; });
    Message request;
    request.write(std::string("four"));
    request.write(38);
    Message reply = service.find("Add")->dispatcher(request);
    EXPECT_EQ(std::string("\x2a\0\0\0", 4), reply.body());
    EXPECT_EQ("http://vpk/privilege/x", service.find("Add")->privilege);
}

TEST(AService, ServesMethodsWithoutArguments) {
    Service service;
    service.setMethodHandler<int>("p", "Flush", [] { return -1; });
    Message request;
    EXPECT_EQ(std::string(4, '\xff'), service.find("Flush")->dispatcher(request).body());
}

TEST(AService, DoesNotCallTheHandlerWhenTheRequestEndsBeforeTheArguments) {
    Service service;
    int calls = 0;
    service.setMethodHandler<int, std::string>("p", "Apply", [&calls](std::string &) { return ++calls; });
    const auto method = service.find("Apply");
    for (const std::string &body : {std::string(), std::string("\2\0\0\0a", 5)}) {
        Message request(body);
        EXPECT_THROW(method->dispatcher(request), BadArguments);
    }
    EXPECT_EQ(0, calls);
}

TEST(AService, CallsTheHandlerWhateverStandsBehindTheArguments) {
    Service service;
    std::string got;
    service.setMethodHandler<int, std::string>("p", "Apply", [&got](std::string &text) {
        got = text;
        return 5;
    });
    service.setMethodHandler<int>("p", "Flush", [] { return 6; });
    Message longer(std::string("\1\0\0\0ab", 6));
    EXPECT_EQ(std::string("\5\0\0\0", 4), service.find("Apply")->dispatcher(longer).body());
    EXPECT_EQ("a", got);
    Message any("b");
    EXPECT_EQ(std::string("\6\0\0\0", 4), service.find("Flush")->dispatcher(any).body());
}

TEST(AService, LetsTheHandlersExceptionThrough) {
    Service service;
    service.setMethodHandler<int>("p", "Fail", []() -> int { throw mavo::Exception("insert failure"); });
    Message request;
    try {
        service.find("Fail")->dispatcher(request);
        FAIL() << "nothing thrown";
    } catch (const BadArguments &) {
        FAIL() << "taken for the caller's mistake";
    } catch (const mavo::Exception &exception) {
        EXPECT_STREQ("insert failure", exception.what());
    }
}

TEST(AService, RefusesASecondHandlerOfOneNameAndKeepsTheFirst) {
    Service service;
    service.setMethodHandler<int>("first", "Flush", [] { return 0; });
    try {
        service.setMethodHandler<int>("second", "Flush", [] { return 1; });
        FAIL() << "nothing thrown";
    } catch (const mavo::Exception &exception) {
        EXPECT_STREQ("Method handler already registered", exception.what());
    }
    EXPECT_EQ("first", service.find("Flush")->privilege);
}

TEST(AService, HasNoMethodThatWasNotRegistered) { EXPECT_EQ(nullptr, Service().find("Flush")); }

} // namespace
