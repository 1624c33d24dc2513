// The frames of the traffic-control service's socket: the same bytes on every machine, read from wherever in memory
// they lie.
#include "rlv/protocol.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

constexpr std::uint64_t kLarge = 0x8123456789abcdefU;
const std::string kLargeBytes = "\xef\xcd\xab\x89\x67\x45\x23\x81";

// `frame` at an address that is `offset` bytes beyond one of any alignment.
class At {
public:
    At(std::size_t offset, const std::string &frame) : room_(offset + frame.size()), offset_(offset) {
        frame.copy(room_.data() + offset, frame.size());
    }
    std::string_view frame() const { return {room_.data() + offset_, room_.size() - offset_}; }

private:
    std::vector<char> room_; // from operator new, so aligned for everything
    std::size_t offset_;
};

TEST(ARequestToTheTrafficControlService, HasTheseBytes) {
    const rlv::protocol::Request request{rlv::protocol::Request::Kind::commit, kLarge, "-F"};
    EXPECT_EQ("C\xef\xcd\xab\x89\x67\x45\x23\x81-F", rlv::protocol::encode(request));
}

TEST(ARequestToTheTrafficControlService, IsReadAtAnyAddress) {
    const rlv::protocol::Request sent{rlv::protocol::Request::Kind::commit, kLarge, "-A VPK-DENY -j DROP"};
    for (std::size_t offset = 0; offset < 9; ++offset) {
        const At at(offset, rlv::protocol::encode(sent));
        rlv::protocol::Request request;
        ASSERT_TRUE(rlv::protocol::decodeRequest(at.frame(), request)) << offset;
        EXPECT_EQ(sent.number, request.number);
        EXPECT_EQ(sent.text, request.text);
    }
}

TEST(AReplyOfTheTrafficControlService, HasTheseBytes) {
    const rlv::protocol::Reply reply{rlv::protocol::Reply::Kind::committed, -2, kLarge, "no"};
    EXPECT_EQ("c\xfe\xff\xff\xff\xef\xcd\xab\x89\x67\x45\x23\x81no", rlv::protocol::encode(reply));
}

TEST(AReplyOfTheTrafficControlService, IsReadAtAnyAddress) {
    const rlv::protocol::Reply sent{rlv::protocol::Reply::Kind::committed, INT32_MIN, kLarge, "why"};
    for (std::size_t offset = 0; offset < 9; ++offset) {
        const At at(offset, rlv::protocol::encode(sent));
        const auto reply = rlv::protocol::decodeReply(at.frame());
        ASSERT_TRUE(reply) << offset;
        EXPECT_EQ(sent.code, reply->code);
        EXPECT_EQ(sent.number, reply->number);
        EXPECT_EQ(sent.text, reply->text);
    }
}

TEST(AListOfCommands, HasTheseBytes) {
    rlv::protocol::CommandList list(rlv::protocol::Request::Kind::compare);
    ASSERT_TRUE(list.add("-F"));
    ASSERT_TRUE(list.add(std::string(0x102, 'x')));
    list.setNumber(kLarge);
    EXPECT_EQ("M" + kLargeBytes + "\2\0-F\2\1"s + std::string(0x102, 'x'), list.packet());
}

TEST(AListOfCommands, IsNoneWhenALengthIsTornOrTooLarge) {
    for (const std::string &text : {"\2"s, "\2\0-"s, "\1\0-F"s, "\xff\xff-F"s})
        EXPECT_FALSE(rlv::protocol::isCommandList(text)) << text;
    std::string_view torn("\2", 1);
    EXPECT_EQ("", rlv::protocol::takeCommand(torn));
    EXPECT_EQ("", torn);
}

std::string listOf(std::size_t count, std::size_t bytes) {
    const std::string length{static_cast<char>(bytes & 0xffU), static_cast<char>(bytes >> 8U)};
    std::string text;
    for (std::size_t i = 0; i < count; ++i)
        text.append(length).append(bytes, 'x');
    return text;
}

TEST(AListOfCommands, IsNoneBeyondAnyOfItsBounds) {
    using rlv::protocol::isCommandList;
    EXPECT_TRUE(isCommandList(listOf(1, rlv::protocol::kMaxOptionsBytes)));
    EXPECT_FALSE(isCommandList(listOf(1, rlv::protocol::kMaxOptionsBytes + 1)));
    EXPECT_TRUE(isCommandList(listOf(rlv::protocol::kMaxListedCommands, 1)));
    EXPECT_FALSE(isCommandList(listOf(rlv::protocol::kMaxListedCommands + 1, 1)));
    const std::string largest = listOf(4, rlv::protocol::kMaxListBytes / 4 - 2);
    ASSERT_EQ(largest.size(), rlv::protocol::kMaxListBytes);
    EXPECT_TRUE(isCommandList(largest));
    EXPECT_FALSE(isCommandList(largest.substr(0, 3 * rlv::protocol::kMaxListBytes / 4) +
                               listOf(1, rlv::protocol::kMaxListBytes / 4 - 1)));
}

TEST(AListOfCommands, IsReadAtAnyAddress) {
    rlv::protocol::CommandList list;
    for (const char *command : {"-A", "-A V", "-A VPK-DENY -j DROP", "-F"})
        ASSERT_TRUE(list.add(command));
    rlv::protocol::Request request;
    ASSERT_TRUE(rlv::protocol::decodeRequest(list.packet(), request));
    for (std::size_t offset = 0; offset < 9; ++offset) {
        const At at(offset, request.text);
        ASSERT_TRUE(rlv::protocol::isCommandList(at.frame())) << offset;
        std::string_view left = at.frame();
        std::vector<std::string> commands;
        while (!left.empty())
            commands.emplace_back(rlv::protocol::takeCommand(left));
        EXPECT_EQ((std::vector<std::string>{"-A", "-A V", "-A VPK-DENY -j DROP", "-F"}), commands);
    }
}

template <class State> std::string bytesOf(const State &state) {
    return rlv::protocol::decodeReply(rlv::protocol::encodeState(state).at(0))->text;
}

const std::string kEight = std::string(7, '\0'); // behind the lowest byte of a number of 8

TEST(AStateOfTheTrafficControlService, HasTheseBytes) {
    rlv::ServiceState state;
    state.simulated = true;
    state.serviceId = kLarge;
    state.hooks = {{"INPUT", "VPK-IN"}};
    state.chains = {{"VPK-IN", 3, 2}};
    state.connections = {{4, rlv::ConnectionEnd::closed, {{"-F", -2, "no", true}}, 5}};
    state.drift.repairs = 6;
    state.drift.texts = {"t"};
    state.drift.differences = 7;
    state.drift.processName = "ufw";
    state.drift.process = 0x80000001U;
    state.drift.problem = "p";
    EXPECT_EQ("\1" + kLargeBytes + "\1\0\0\0\5\0\0\0INPUT\6\0\0\0VPK-IN"s + "\1\0\0\0\6\0\0\0VPK-IN\3"s + kEight +
                  "\2" + kEight + "\1\0\0\0\4"s + kEight + "\1\1\0\0\0\2\0\0\0-F\xfe\xff\xff\xff\2\0\0\0no\1\5"s +
                  kEight + "\1\6"s + kEight + "\1\0\0\0\1\0\0\0t\7"s + kEight + "\3\0\0\0ufw\1\0\0\x80\1\0\0\0p"s +
                  std::string(8, '\xff'),
              bytesOf(state));
}

TEST(AStateOfNames, HasTheseBytes) {
    rlv::NamesState state;
    state.serviceId = kLarge;
    state.generation = 1;
    state.inUse = 2;
    state.unanswered = 3;
    state.refreshSeconds = 4;
    state.list = {{"a.b", rlv::UnansweredName::Problem::tooMany, 5, -1, true}};
    EXPECT_EQ(kLargeBytes + "\1" + kEight + "\2" + kEight + "\3" + kEight + "\4" + kEight + "\1\0\0\0\3\0\0\0a.b\2\5"s +
                  kEight + std::string(8, '\xff') + "\1",
              bytesOf(state));
}

TEST(AComparison, HasTheseBytes) {
    rlv::Comparison comparison;
    comparison.chains = {{"VPK-IN", 1, 2}};
    comparison.differences = {{rlv::Difference::Kind::shadowing, "INPUT", "-j X", "w"}};
    comparison.counts.at(4) = 1;
    const std::string none(8, '\0');
    EXPECT_EQ("\0\1\0\0\0\6\0\0\0VPK-IN\1"s + kEight + "\2" + kEight + "\1\0\0\0\4\5\0\0\0INPUT\4\0\0\0-j X\1\0\0\0w"s +
                  none + none + none + none + "\1" + kEight + none,
              bytesOf(comparison));
}

// Names of each length put the numbers after them at each address.
TEST(AStateOfTheTrafficControlService, KeepsNumbersOf64BitsAtAnyAddress) {
    for (std::size_t length = 0; length < 9; ++length) {
        rlv::ServiceState state;
        state.serviceId = kLarge;
        state.chains.push_back({std::string(length, 'x'), std::uint64_t{1} << 32U, std::uint64_t{1} << 33U});
        state.connections.push_back({kLarge, rlv::ConnectionEnd::closed, {{"-F", 4, "no", true}}, kLarge + 2});
        std::string text;
        for (const std::string &packet : rlv::protocol::encodeState(state))
            text += rlv::protocol::decodeReply(packet)->text;
        for (std::size_t offset = 0; offset < 9; ++offset) {
            const auto read = rlv::protocol::decodeState(At(offset, text).frame());
            ASSERT_TRUE(read) << length << " " << offset;
            EXPECT_EQ(kLarge, read->serviceId);
            EXPECT_EQ(std::uint64_t{1} << 32U, read->chains.at(0).rules);
            EXPECT_EQ(std::uint64_t{1} << 33U, read->chains.at(0).longestWalk);
            EXPECT_EQ(kLarge, read->connections.at(0).number);
            EXPECT_EQ(kLarge + 2, read->connections.at(0).failedBeyondList);
        }
    }
}

// A length that 32 bits hold, but no signed number of them and no memory.
TEST(AStateOfTheTrafficControlService, IsNoneWhenALengthIsLargerThanMemory) {
    rlv::ServiceState state;
    state.chains.push_back({"ABCD", 0, 0});
    std::string text = rlv::protocol::decodeReply(rlv::protocol::encodeState(state).at(0))->text;
    const auto name = text.find("ABCD");
    ASSERT_NE(std::string::npos, name);
    for (const char *length : {"\xff\xff\xff\xff", "\xff\xff\xff\x7f", "\x05\x00\x00\x80"})
        EXPECT_FALSE(rlv::protocol::decodeState(text.replace(name - 4, 4, length, 4)));
}

using About = rlv::protocol::NamesRequest::About;

TEST(ARequestAboutNames, IsReadAsItWasWritten) {
    for (const About about : {About::look, About::list, About::announce, About::announceAll, About::retain}) {
        const auto requests = rlv::protocol::encodeNamesRequest(about, {"one.example", "two"});
        ASSERT_EQ(1U, requests.size());
        EXPECT_EQ(static_cast<std::uint64_t>(about), requests[0].number);
        EXPECT_EQ("one.example\ntwo\n", requests[0].text);
        const auto read = rlv::protocol::decodeNamesRequest(requests[0]);
        ASSERT_TRUE(read);
        EXPECT_EQ(about, read->about);
        EXPECT_FALSE(read->moreFollow);
        EXPECT_EQ((std::vector<std::string>{"one.example", "two"}), read->names);
    }
}

TEST(ARequestAboutNames, GoesOnInAnotherWhereOneIsFullToTheByte) {
    std::vector<std::string> names(rlv::protocol::kMaxListBytes / 128,
                                   std::string(127, 'x')); // a line feed behind each
    EXPECT_EQ(1U, rlv::protocol::encodeNamesRequest(About::retain, names).size());
    names.emplace_back("y");
    const auto requests = rlv::protocol::encodeNamesRequest(About::retain, names);
    ASSERT_EQ(2U, requests.size());
    EXPECT_EQ(4U + 256, requests[0].number);
    EXPECT_EQ(4U, requests[1].number);
    EXPECT_EQ("y\n", requests[1].text);
    EXPECT_TRUE(rlv::protocol::decodeNamesRequest(requests[0])->moreFollow);
}

TEST(ARequestAboutNames, LeavesOutWhatIsLongerThanANameCanBe) {
    const auto requests = rlv::protocol::encodeNamesRequest(
        About::announce, {std::string(255, 'x'), std::string(254, 'y'), std::string(300, 'z')});
    ASSERT_EQ(1U, requests.size());
    EXPECT_EQ(std::string(254, 'y') + "\n", requests[0].text);
}

TEST(ARequestAboutNames, IsNoneOfAnotherKindOrMeaningOrTorn) {
    using rlv::protocol::decodeNamesRequest;
    using rlv::protocol::Request;
    EXPECT_TRUE(decodeNamesRequest({Request::Kind::names, 4, ""}));
    EXPECT_FALSE(decodeNamesRequest({Request::Kind::names, 5, ""}));
    EXPECT_FALSE(decodeNamesRequest({Request::Kind::names, 512, ""}));
    EXPECT_FALSE(decodeNamesRequest({Request::Kind::query, 0, ""}));
    EXPECT_FALSE(decodeNamesRequest({Request::Kind::names, 0, "one\ntwo"}));
}

} // namespace
