// The frames of the host's socket: the same bytes on every machine, read from wherever in memory they lie.
#include "mavo/rmi-protocol.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using mavo::rmi::encodeReply;
using mavo::rmi::Reply;
using mavo::rmi::Status;

TEST(ARequestToTheHost, HasTheseBytes) {
    EXPECT_EQ("RMI1\4\0\0\0\3\2\1\0Echo"s, mavo::rmi::encodeRequestHead("Echo", 0x10203));
    const auto head = mavo::rmi::decodeRequestHead("RMI1\4\0\0\0\3\2\1\0"s);
    ASSERT_TRUE(head);
    EXPECT_EQ(4U, head->nameBytes);
    EXPECT_EQ(0x10203U, head->bodyBytes);
}

TEST(ARequestToTheHost, MayCarryWhatTheProgramCallsItself) {
    const std::string head = mavo::rmi::encodeRequestHead("Echo", 1, "shell");
    EXPECT_EQ("RMI1\x0a\0\0\0\1\0\0\0Echo\0shell"s, head);
    const auto name = mavo::rmi::splitRequestName(head.substr(mavo::rmi::kRequestHeadBytes));
    EXPECT_EQ("Echo", name.method);
    EXPECT_EQ("shell", name.program);
    EXPECT_EQ("Echo", mavo::rmi::splitRequestName("Echo").method);
    EXPECT_EQ("", mavo::rmi::splitRequestName("Echo").program);
    EXPECT_EQ("a\0b"s, mavo::rmi::splitRequestName("Echo\0a\0b"s).program);
}

TEST(ARequestToTheHost, LeavesAProgramsNameOutForWhichThereIsNoRoom) {
    const std::string method(250, 'm');
    EXPECT_EQ(mavo::rmi::encodeRequestHead(method, 1), mavo::rmi::encodeRequestHead(method, 1, "123456"));
    EXPECT_EQ(mavo::rmi::kRequestHeadBytes + 256, mavo::rmi::encodeRequestHead(method, 1, "12345").size());
}

TEST(ARequestToTheHost, IsNoneWithOtherBytesInFrontOrWithTooMany) {
    for (const std::string &bytes : {"RMI1\4\0\0\0\3\2\1"s, "RMI1\4\0\0\0\3\2\1\0E"s, "RMP1\4\0\0\0\3\2\1\0"s,
                                     "RMI1\1\1\0\0\3\2\1\0"s, "RMI1\4\0\0\0\xff\xff\xff\xff"s})
        EXPECT_FALSE(mavo::rmi::decodeRequestHead(bytes)) << bytes;
    for (const char *const bytes : {"", "R", "RMI", "RMI1", "RMI1\4"})
        EXPECT_TRUE(mavo::rmi::beginsRequest(bytes)) << bytes;
    for (const char *const bytes : {"X", "RMX", "RMP1", "RMI2"})
        EXPECT_FALSE(mavo::rmi::beginsRequest(bytes)) << bytes;
}

TEST(ARequestToTheHost, HasANameOf256AndABodyOf4160KibibytesAtMost) {
    const auto head = mavo::rmi::decodeRequestHead("RMI1\0\1\0\0\0\0\x41\0"s);
    ASSERT_TRUE(head);
    EXPECT_EQ(256U, head->nameBytes);
    EXPECT_EQ(4'259'840U, head->bodyBytes);
    EXPECT_FALSE(mavo::rmi::decodeRequestHead("RMI1\1\1\0\0\0\0\x41\0"s));
    EXPECT_FALSE(mavo::rmi::decodeRequestHead("RMI1\0\1\0\0\1\0\x41\0"s));
}

TEST(AReplyOfTheHost, Has24MebibytesBehindItsHeadAtMost) {
    EXPECT_EQ(25'165'824U, mavo::rmi::decodeReplyHead("RMP1\0\0\x80\1"s).value_or(0));
    EXPECT_FALSE(mavo::rmi::decodeReplyHead("RMP1\1\0\x80\1"s));
    EXPECT_FALSE(mavo::rmi::decodeReplyHead("RMI1\1\0\0\0"s));
    EXPECT_FALSE(mavo::rmi::decodeReplyHead("RMP1\1\0\0"s));
    EXPECT_FALSE(mavo::rmi::decodeReplyHead("RMP1\1\0\0\0x"s));
}

TEST(AReplyOfTheHost, HasAStatusOfThese) {
    char number = 0;
    for (const Status status :
         {Status::ok, Status::malformed, Status::unknownMethod, Status::denied, Status::exception, Status::busy}) {
        const std::string content = encodeReply({status, {}, {}, {}}).substr(mavo::rmi::kReplyHeadBytes);
        EXPECT_EQ(number++, content[0]);
        EXPECT_EQ(status, mavo::rmi::decodeReply(content).value_or(Reply{}).status);
    }
}

TEST(AReplyOfTheHost, HasTheseBytes) {
    const std::string body(0x102, 'b');
    const std::string content = "\3\0\0\0\2\1\0\0"s + body + "\1\0\0\0e\2\0\0\0rm"s;
    EXPECT_EQ("RMP1\x15\1\0\0"s + content, mavo::rmi::encodeReply({mavo::rmi::Status::denied, body, "e", "rm"}));
}

// What ends before a value does is not read, and the values before it can be.
TEST(AReplyOfTheHost, KeepsItsFieldsAtAnyAddress) {
    for (std::size_t length = 0; length < 9; ++length) {
        const mavo::rmi::Reply sent{mavo::rmi::Status::exception, std::string(length, 'b'), "e", "r"};
        const std::string frame = mavo::rmi::encodeReply(sent);
        const auto size = mavo::rmi::decodeReplyHead(frame.substr(0, mavo::rmi::kReplyHeadBytes));
        ASSERT_EQ(frame.size() - mavo::rmi::kReplyHeadBytes, size);
        const auto reply = mavo::rmi::decodeReply(frame.substr(mavo::rmi::kReplyHeadBytes));
        ASSERT_TRUE(reply) << length;
        EXPECT_EQ(sent.status, reply->status);
        EXPECT_EQ(sent.body, reply->body);
        EXPECT_EQ(sent.error, reply->error);
        EXPECT_EQ(sent.remarks, reply->remarks);
    }
}

TEST(AReplyOfTheHost, IsNoneWhenItsLengthsAreLargerThanMemory) {
    const std::string head("RMP1\xff\xff\xff\xff", mavo::rmi::kReplyHeadBytes);
    EXPECT_FALSE(mavo::rmi::decodeReplyHead(head));
    std::string content(4, '\0');
    content += "\xff\xff\xff\xff" + std::string(20, '\0');
    EXPECT_FALSE(mavo::rmi::decodeReply(content));
}

TEST(AReplyOfTheHost, IsReadAsItWasWritten) {
    const Reply written{Status::exception, std::string("b\0dy", 4), "error", std::string("r\0marks", 7)};
    const std::string frame = encodeReply(written);
    const auto length = mavo::rmi::decodeReplyHead(frame.substr(0, mavo::rmi::kReplyHeadBytes));
    ASSERT_EQ(frame.size() - mavo::rmi::kReplyHeadBytes, length.value_or(0));
    const auto read = mavo::rmi::decodeReply(frame.substr(mavo::rmi::kReplyHeadBytes));
    ASSERT_TRUE(read);
    EXPECT_EQ(written.status, read->status);
    EXPECT_EQ(written.body, read->body);
    EXPECT_EQ(written.error, read->error);
    EXPECT_EQ(written.remarks, read->remarks);
}

TEST(AReplyOfTheHost, IsNotReadFromMoreOrLessThanItself) {
    const std::string content =
        encodeReply({Status::ok, "body", "error", "remarks"}).substr(mavo::rmi::kReplyHeadBytes);
    for (std::size_t size = 0; size < content.size(); ++size)
        EXPECT_FALSE(mavo::rmi::decodeReply(content.substr(0, size))) << size;
    EXPECT_FALSE(mavo::rmi::decodeReply(content + '\0'));
    EXPECT_FALSE(mavo::rmi::decodeReply('\6' + content.substr(1))) << "an unknown status";
}

} // namespace
