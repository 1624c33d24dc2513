// One connection and its loop in the test's own process, turn by turn.
#include "mavo/rmi-request-stream.h"

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using mavo::rmi::Caller;
using mavo::rmi::encodeReply;
using mavo::rmi::encodeRequestHead;
using mavo::rmi::kBodyLimitBytes;
using mavo::rmi::kReplyHeadBytes;
using mavo::rmi::kReplyLimitBytes;
using mavo::rmi::Reply;
using mavo::rmi::RequestStream;
using mavo::rmi::ServerLimits;
using mavo::rmi::Status;
using std::chrono::milliseconds;
using support::UniqueFd;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kChunkBytes = 65'536;

class ARequestStream : public testing::Test, public mavo::rmi::RequestHandler {
protected:
    void begin(milliseconds requestTimeout = std::chrono::hours(1), milliseconds idleTimeout = std::chrono::hours(1)) {
        int ends[2] = {-1, -1};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        client_.reset(ends[0]);
        ServerLimits limits;
        limits.requestTimeout = requestTimeout;
        limits.idleTimeout = idleTimeout;
        stream_ = std::make_unique<RequestStream>(loop_, UniqueFd(ends[1]), Caller{{1, 2, 3}, true, {}}, limits, *this);
    }

    // All that can be done now, in `turns` turns of the loop.
    void turn(int turns = 1) {
        for (int i = 0; i < turns; ++i) {
            loop_.after(milliseconds(0), [this] { loop_.stop(); });
            loop_.run();
        }
    }
    // Until the stream is over, however long that takes; the time.
    milliseconds waitForEnd() {
        const auto before = support::EventLoop::Clock::now();
        const auto deadline = loop_.after(std::chrono::seconds(20), [this] { loop_.stop(); });
        loop_.run();
        loop_.cancel(deadline);
        EXPECT_FALSE(stream_);
        return std::chrono::duration_cast<milliseconds>(support::EventLoop::Clock::now() - before);
    }

    void send(const std::string &bytes) const {
        EXPECT_EQ(::send(client_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // And has the loop take a turn.
    void tell(const std::string &bytes) {
        send(bytes);
        turn();
    }
    // All that has come, up to so many bytes.
    std::string received(std::size_t most = 1'000'000) const {
        std::string bytes(most, '\0');
        const ssize_t got = ::recv(client_.get(), bytes.data(), most, 0);
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }
    bool clientSeesTheEnd() const {
        char byte = 0;
        return ::recv(client_.get(), &byte, 1, MSG_PEEK) == 0;
    }
    int unread() const {
        int bytes = -1;
        EXPECT_EQ(::ioctl(stream_->descriptor(), FIONREAD, &bytes), 0);
        return bytes;
    }

    static std::string request(const std::string &method, const std::string &body) {
        return encodeRequestHead(method, body.size()) + body;
    }
    // A frame: what a request with that body gets.
    static std::string echo(const std::string &body) { return encodeReply({Status::ok, body, {}, {}}); }
    static std::string malformed(const std::string &error) { return encodeReply({Status::malformed, {}, error, {}}); }
    std::string refused() const { return encodeReply(*refusal_); }

    std::optional<Reply> refusal(const Caller &caller, const std::string &method, std::size_t bodyBytes) override {
        EXPECT_TRUE(caller.user == 1 && caller.group == 2 && caller.process == 3 && caller.holdsPrivilege);
        asked_.push_back(method + " " + std::to_string(bodyBytes));
        return method == "no" ? refusal_ : std::nullopt;
    }
    Reply carryOut(const Caller &caller, const std::string &method, std::string body) override {
        EXPECT_TRUE(caller.process == 3 && caller.holdsPrivilege);
        if (method == "throw")
            throw std::runtime_error("no memory");
        carriedOut_.push_back(method + (caller.program.empty() ? "" : " for " + caller.program));
        return {Status::ok, method == "large" ? std::string(replySize_, 'r') : std::move(body), {}, {}};
    }
    milliseconds timeInCalls() const override {
        ++timersStarted_;
        return timeInCalls_;
    }
    void ended(RequestStream &stream) override {
        EXPECT_EQ(&stream, stream_.get());
        stream_.reset();
        loop_.stop();
    }

    std::optional<Reply> refusal_ = Reply{Status::denied, {}, "no", {}};
    std::size_t replySize_ = 1'000'000;
    milliseconds timeInCalls_{0};
    mutable int timersStarted_ = 0;
    std::vector<std::string> asked_;
    std::vector<std::string> carriedOut_;
    support::EventLoop loop_;
    UniqueFd client_;
    std::unique_ptr<RequestStream> stream_;
};

TEST_F(ARequestStream, AnswersOneRequestAfterTheOther) {
    begin();
    tell(request("one", "first") + request("two", "") + request("", "third"));
    EXPECT_EQ(received(), echo("first"));
    turn(2);
    EXPECT_EQ(received(), echo("") + echo("third"));
    EXPECT_THAT(asked_, ElementsAre("one 5", "two 0", " 5"));
    EXPECT_THAT(carriedOut_, ElementsAre("one", "two", ""));
    EXPECT_EQ(stream_->caller().process, 3);
}

TEST_F(ARequestStream, TellsWhatTheProgramOfEachRequestCallsItself) {
    begin();
    tell(encodeRequestHead("one", 0, "shell") + encodeRequestHead("two", 0) + encodeRequestHead("three", 0, "cron"));
    turn(3);
    EXPECT_THAT(carriedOut_, ElementsAre("one for shell", "two", "three for cron"));
}

TEST_F(ARequestStream, PutsTornRequestsTogether) {
    begin();
    for (const char byte : request("torn", "body")) {
        EXPECT_EQ(received(), "");
        tell(std::string(1, byte));
    }
    EXPECT_EQ(received(), echo("body"));
}

TEST_F(ARequestStream, KnowsWhichBodyIsUnderWay) {
    begin();
    EXPECT_EQ(stream_->bodyUnderWay(), 0U);
    tell(encodeRequestHead("name", 10).substr(0, 15));
    EXPECT_EQ(stream_->bodyUnderWay(), 0U) << "not asked yet whether it may come";
    tell("e");
    EXPECT_EQ(stream_->bodyUnderWay(), 10U);
    tell("123456789");
    EXPECT_EQ(stream_->bodyUnderWay(), 10U);
    tell("0");
    EXPECT_EQ(stream_->bodyUnderWay(), 0U);
    EXPECT_EQ(received(), echo("1234567890"));
}

TEST_F(ARequestStream, AnswersARefusedRequestAtOnceAndPassesOverItsBody) {
    begin();
    tell(encodeRequestHead("no", 10) + "12345");
    EXPECT_EQ(received(), refused());
    EXPECT_EQ(stream_->bodyUnderWay(), 0U);
    tell("67890" + request("yes", "next"));
    EXPECT_EQ(received(), echo("next"));
    tell(request("no", ""));
    EXPECT_EQ(received(), refused());
    tell(request("yes", "again"));
    EXPECT_EQ(received(), echo("again"));
    EXPECT_THAT(carriedOut_, ElementsAre("yes", "yes"));
}

TEST_F(ARequestStream, WritesALargeReplyAsItIsTakenAndReadsNothingMeanwhile) {
    begin();
    send(request("large", "") + request("next", "x"));
    turn(3);
    const std::string whole = echo(std::string(replySize_, 'r'));
    EXPECT_EQ(stream_->replyUnderWay(), whole.size());
    EXPECT_THAT(carriedOut_, ElementsAre("large"));
    EXPECT_EQ(unread(), static_cast<int>(request("next", "x").size()));
    std::string all;
    for (int i = 0; i < 1'000 && all.size() < whole.size(); ++i) {
        all += received();
        turn();
    }
    EXPECT_TRUE(all.substr(0, whole.size()) == whole);
    turn();
    all += received();
    EXPECT_EQ(all.substr(whole.size()), echo("x"));
    EXPECT_EQ(stream_->replyUnderWay(), 0U);
}

TEST_F(ARequestStream, WaitsForRoomForALargeReplyAndThenForTheNextRequest) {
    begin();
    tell(request("large", ""));
    const std::string whole = echo(std::string(replySize_, 'r'));
    std::string all;
    for (int i = 0; i < 1'000 && all.size() < whole.size(); ++i) {
        all += received();
        turn();
    }
    EXPECT_TRUE(all == whole);
    tell(request("next", "x"));
    EXPECT_EQ(received(), echo("x"));
}

TEST_F(ARequestStream, PassesOverABodyWhileTheAnswerIsOnItsWay) {
    refusal_->error = std::string(1'000'000, 'n');
    begin();
    tell(request("no", "12345") + request("yes", "next"));
    EXPECT_GT(stream_->replyUnderWay(), 1'000'000U);
    std::string all;
    for (int i = 0; i < 1'000 && all.size() < refused().size() + echo("next").size(); ++i) {
        all += received();
        turn();
    }
    EXPECT_TRUE(all == refused() + echo("next"));
}

TEST_F(ARequestStream, LeavesTheLoopToOthersAfterFourChunks) {
    begin();
    send(encodeRequestHead("name", kBodyLimitBytes));
    std::size_t sent = 12 + 4;
    const std::string chunk(kChunkBytes / 4, 'x');
    for (ssize_t size = 0; (size = ::send(client_.get(), chunk.data(), chunk.size(), MSG_NOSIGNAL)) > 0;)
        sent += static_cast<std::size_t>(size);
    ASSERT_GT(sent, 16 + 2 * kChunkBytes);
    turn();
    EXPECT_EQ(static_cast<std::size_t>(unread()), sent - 16 - 2 * kChunkBytes) << "head, name and two chunks";
}

TEST_F(ARequestStream, SaysWhyItEndsAfterABadHeadAndWaitsUntilThatIsRead) {
    const std::string tooLong = "method name longer than 256 bytes or body longer than 4259840";
    for (const auto &[head, error] : std::vector<std::pair<std::string, std::string>>{
             {"G", "not a request"},
             {"RMI2", "not a request"},
             {encodeRequestHead(std::string(257, 'x'), 0).substr(0, 12), tooLong},
             {encodeRequestHead("x", kBodyLimitBytes + 1).substr(0, 12), tooLong}}) {
        begin();
        tell(head);
        EXPECT_EQ(received(), malformed(error));
        EXPECT_TRUE(clientSeesTheEnd());
        tell(request("more", "x"));
        ASSERT_TRUE(stream_);
        EXPECT_TRUE(clientSeesTheEnd());
        client_.reset();
        turn();
        EXPECT_FALSE(stream_);
    }
    EXPECT_THAT(asked_, IsEmpty());
}

TEST_F(ARequestStream, PassesOverTwoLargestBodiesAfterABadHeadAndNoMore) {
    begin();
    tell("G");
    const std::string chunk(kChunkBytes, 'x');
    for (std::size_t i = 1; i < 2 * kBodyLimitBytes / kChunkBytes; ++i)
        tell(chunk);
    EXPECT_TRUE(stream_);
    tell(chunk);
    EXPECT_FALSE(stream_);
}

TEST_F(ARequestStream, AnswersARequestThatEndsTooEarly) {
    const std::string whole = request("name", "body");
    for (std::size_t size = 1; size < whole.size(); ++size) {
        begin();
        send(whole.substr(0, size));
        ::shutdown(client_.get(), SHUT_WR);
        turn(2);
        EXPECT_FALSE(stream_) << size;
        EXPECT_EQ(received(), malformed("request ends early")) << size;
        EXPECT_TRUE(clientSeesTheEnd());
    }
    EXPECT_THAT(carriedOut_, IsEmpty());
}

TEST_F(ARequestStream, EndsWithoutAWordBetweenTwoRequestsAndWithinARefusedOne) {
    for (const std::string &said : {std::string(), request("name", "body"), encodeRequestHead("no", 10) + "12345"}) {
        begin();
        send(said);
        ::shutdown(client_.get(), SHUT_WR);
        turn(2);
        EXPECT_FALSE(stream_);
        const std::string answer = received();
        EXPECT_TRUE(answer.empty() || answer == echo("body") || answer == refused());
        EXPECT_EQ(answer.empty(), said.empty());
    }
}

TEST_F(ARequestStream, WritesALargeReplyToAClientThatSaysNoMore) {
    begin();
    send(request("large", ""));
    ::shutdown(client_.get(), SHUT_WR);
    std::string all;
    const std::string whole = echo(std::string(replySize_, 'r'));
    for (int i = 0; i < 1'000 && stream_; ++i) {
        turn();
        all += received();
    }
    EXPECT_FALSE(stream_);
    all += received();
    EXPECT_TRUE(all == whole);
}

TEST_F(ARequestStream, WritesALargeRefusalToAClientThatSaysNoMore) {
    refusal_->error = std::string(1'000'000, 'n');
    begin();
    send(encodeRequestHead("no", 10));
    ::shutdown(client_.get(), SHUT_WR);
    std::string all;
    for (int i = 0; i < 1'000 && stream_; ++i) {
        turn();
        all += received();
    }
    EXPECT_FALSE(stream_);
    EXPECT_TRUE(all + received() == refused());
}

TEST_F(ARequestStream, EndsWhenTheClientIsGone) {
    begin();
    tell("");
    EXPECT_TRUE(stream_) << "there is nothing to read, which is no end";
    tell(request("large", ""));
    client_.reset(); // with the reply unread
    turn(2);
    EXPECT_FALSE(stream_);
}

TEST_F(ARequestStream, EndsWhenACallCannotBeAnswered) {
    begin();
    tell(request("throw", ""));
    EXPECT_FALSE(stream_);
}

TEST_F(ARequestStream, SendsNoReplyThatIsLongerThanAClientReads) {
    constexpr std::size_t kAroundTheBody = 16;
    replySize_ = kReplyLimitBytes - kAroundTheBody;
    begin();
    tell(request("large", ""));
    EXPECT_EQ(stream_->replyUnderWay(), kReplyHeadBytes + kReplyLimitBytes);
    ++replySize_;
    begin();
    tell(request("large", ""));
    EXPECT_EQ(received(), encodeReply({Status::exception, {}, "the reply is too large", {}}));
}

TEST_F(ARequestStream, EndsWhereNothingComesForTooLong) {
    begin(std::chrono::hours(1), milliseconds(20));
    EXPECT_GE(waitForEnd(), milliseconds(20));
    EXPECT_EQ(received(), "");
    EXPECT_TRUE(clientSeesTheEnd());
    begin(std::chrono::hours(1), milliseconds(20));
    tell(request("name", "body"));
    EXPECT_GE(waitForEnd(), milliseconds(20)) << "anew after each request";
    EXPECT_EQ(received(), echo("body"));
}

TEST_F(ARequestStream, EndsWhereARequestTakesTooLong) {
    for (const std::size_t size : {1U, 12U, 14U, 16U, 19U}) {
        begin(milliseconds(20));
        tell(request("name", "body").substr(0, size));
        waitForEnd();
        EXPECT_EQ(received(), malformed("request not complete in time")) << size;
    }
    begin(milliseconds(20));
    tell(encodeRequestHead("no", 10) + "12345");
    waitForEnd();
    EXPECT_EQ(received(), refused()) << "it has its answer";
}

TEST_F(ARequestStream, CountsTheTimeOfARequestFromItsFirstByte) {
    begin();
    EXPECT_EQ(timersStarted_, 1);
    const std::string whole = request("name", "body");
    tell(whole.substr(0, 1));
    EXPECT_EQ(timersStarted_, 2);
    for (std::size_t i = 1; i + 1 < whole.size(); ++i)
        tell(whole.substr(i, 1));
    EXPECT_EQ(timersStarted_, 2);
    tell(whole.substr(whole.size() - 1));
    EXPECT_EQ(timersStarted_, 3) << "until the next one";
}

TEST_F(ARequestStream, DoesNotHoldTheTimeOfCallsAgainstItsClient) {
    begin(std::chrono::hours(1), milliseconds(10));
    timeInCalls_ = milliseconds(60);
    EXPECT_GE(waitForEnd(), milliseconds(70));
}

TEST_F(ARequestStream, LeavesNothingInTheLoop) {
    begin(milliseconds(1), milliseconds(1));
    const UniqueFd another(::dup(stream_->descriptor()));
    stream_.reset();
    send("x");
    loop_.after(milliseconds(5), [this] { loop_.stop(); });
    loop_.run();
    EXPECT_EQ(timersStarted_, 1);
}

} // namespace
