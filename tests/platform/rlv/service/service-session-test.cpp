// One client's requests, and what is done and answered.
#include "rlv/service/service-session.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/service/served-tables.h"
#include "service-parts.h"
#include "support/name-server.h"

namespace {

using parts::Milliseconds;
using parts::runDue;
using parts::Texts;
using rlv::ConnectionEnd;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ASession : public testing::Test {
protected:
    struct Client {
        Client(ASession &test, const support::Peer &peer) : of(test) {
            std::array<int, 2> ends{};
            EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()));
            socket.reset(ends[0]);
            session = std::make_unique<rlv::Session>(of.around.context, support::UniqueFd(ends[1]), peer);
            session->onEnd([this] { ++ended; });
        }
        void send(Request::Kind kind, std::uint64_t number = 0, const std::string &text = "") {
            sendPacket(encode(Request{kind, number, text}));
        }
        void sendPacket(const std::string &packet) {
            EXPECT_EQ(static_cast<ssize_t>(packet.size()),
                      ::send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL));
            runDue(of.around.loop);
        }
        // "none" where none has come, "end" at the end.
        std::string reply() {
            std::string packet(100'000, '\0');
            const ssize_t size = ::recv(socket.get(), packet.data(), packet.size(), MSG_DONTWAIT);
            if (size <= 0)
                return size == 0 ? "end" : "none";
            packet.resize(static_cast<std::size_t>(size));
            last = *rlv::protocol::decodeReply(packet);
            return std::string(1, static_cast<char>(last.kind)) + " " + std::to_string(last.code) + " " +
                   std::to_string(last.number) + " " + (last.kind == Reply::Kind::state ? "" : last.text);
        }
        std::string ask(Request::Kind kind, std::uint64_t number = 0, const std::string &text = "") {
            send(kind, number, text);
            return reply();
        }
        std::string command(const std::string &options) {
            send(Request::Kind::commit, 0, options);
            return reply();
        }
        void open() { EXPECT_EQ('o', ask(Request::Kind::open, rlv::protocol::kVersion)[0]); }
        void list(const Texts &commands) {
            rlv::protocol::CommandList texts;
            for (const std::string &options : commands)
                EXPECT_TRUE(texts.add(options));
            sendPacket(texts.packet());
        }

        ASession &of;
        support::UniqueFd socket;
        std::unique_ptr<rlv::Session> session;
        Reply last;
        int ended = 0;
    };

    rlv::ConnectionOutcome outcome(std::uint64_t number) { return around.context.history.of(kPeer, number - 1).at(0); }
    Texts failures(std::uint64_t number = 1) {
        Texts texts;
        for (const auto &failed : outcome(number).failed)
            texts.push_back(failed.options + (failed.wasRefused ? " refused" : " lost"));
        return texts;
    }
    // What decides is taken out.
    std::string removal(Client &by) {
        const auto tables = rlv::ServedTables::here("VPK-", false);
        const auto request = removalOf(tables);
        return by.ask(request.kind, request.number, request.text);
    }

    static constexpr support::Peer kPeer{0, 0, 100};
    parts::Around around;
    parts::Log log;
    Client client{*this, kPeer};
};

TEST_F(ASession, IsOpenedAndClosed) {
    EXPECT_FALSE(client.session->isOpen());
    EXPECT_EQ("o 0 1 ", client.ask(Request::Kind::open, rlv::protocol::kVersion));
    EXPECT_TRUE(client.session->isOpen());
    EXPECT_EQ("c 0 0 ", client.command("-N VPK-A"));
    EXPECT_EQ("x 0 0 ", client.ask(Request::Kind::close));
    EXPECT_FALSE(client.session->isOpen());
    EXPECT_EQ(ConnectionEnd::closed, outcome(1).end);
    EXPECT_EQ("o 0 2 ", client.ask(Request::Kind::open, rlv::protocol::kVersion)) << "and again";
    EXPECT_THAT(log.lines, Contains("connection 1 of user 0, process 100: opened"));
    EXPECT_THAT(log.lines, Contains("connection 1 of user 0, process 100: closed"));
}

TEST_F(ASession, IsRefusedWithAnotherVersion) {
    EXPECT_EQ("r " + std::to_string(EPROTONOSUPPORT) + " 0 another version of the protocol",
              client.ask(Request::Kind::open, rlv::protocol::kVersion + 1));
    EXPECT_EQ("end", client.reply());
    EXPECT_EQ(1, client.ended);
}

TEST_F(ASession, IsOpenBeforeItsCommandsAndOnce) {
    EXPECT_EQ("r " + std::to_string(EPROTO) + " 0 not opened", client.command("-N VPK-A"));
    Client other(*this, kPeer);
    other.open();
    EXPECT_EQ("r " + std::to_string(EPROTO) + " 0 opened twice",
              other.ask(Request::Kind::open, rlv::protocol::kVersion));
    EXPECT_EQ(ConnectionEnd::vanished, outcome(1).end);
    for (const auto kind : {Request::Kind::list, Request::Kind::close}) {
        Client third(*this, kPeer);
        EXPECT_THAT(third.ask(kind), HasSubstr("not opened"));
    }
}

TEST_F(ASession, ThatIsOpenNeitherWatchesNorRemoves) {
    client.open();
    EXPECT_THAT(client.ask(Request::Kind::watch), Not(HasSubstr("w ")));
    Client other(*this, kPeer);
    other.open();
    EXPECT_THAT(removal(other), Not(HasSubstr("c 0")));
}

TEST_F(ASession, RehearsesAndSendsNothing) {
    client.open();
    EXPECT_EQ("c 0 0 ", client.command("-N VPK-A"));
    client.ask(Request::Kind::close);
    around.table.takeCalls();
    EXPECT_EQ("o 0 2 ", client.ask(Request::Kind::rehearse, rlv::protocol::kVersion));
    EXPECT_EQ("c 0", client.command("-A VPK-A -j DROP").substr(0, 3));
    EXPECT_EQ("c 0 0 ", client.command("-D VPK-A -j DROP")) << "as if it stood there";
    client.list({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-B -j DROP", "nonsense"});
    EXPECT_FALSE(parts::runUntil(
        around.loop, [] { return false; }, Milliseconds(50)))
        << "a push would be due by now";
    EXPECT_EQ("x 0 2 ", client.ask(Request::Kind::close));
    EXPECT_THAT(failures(2), ElementsAre("-A VPK-B -j DROP refused", "nonsense refused"));
    EXPECT_THAT(around.table.takeCalls(), testing::AllOf(Contains("discard"), Not(Contains("push"))));
    client.open();
    EXPECT_EQ("c 1", client.command("-D VPK-A -s 10.0.0.1 -j DROP").substr(0, 3)) << "nothing is left of it";
    EXPECT_THAT(log.lines, Not(Contains(testing::StartsWith("E "))));
    EXPECT_THAT(log.lines, Contains("connection 2 of user 0, process 100: opened, to rehearse"));
}

TEST_F(ASession, ForgetsTheRehearsalOfAClientThatVanishes) {
    client.open();
    EXPECT_EQ("c 0 0 ", client.command("-N VPK-A"));
    client.ask(Request::Kind::close);
    for (const bool endsWell : {false, true}) {
        Client other(*this, kPeer);
        other.ask(Request::Kind::rehearse, rlv::protocol::kVersion);
        EXPECT_EQ("c 0", other.command("-A VPK-A -j DROP").substr(0, 3));
        around.table.takeCalls();
        if (endsWell)
            other.ask(Request::Kind::close, 1); // interrupted
        else
            other.session->end("for this test");
        EXPECT_THAT(around.table.takeCalls(), testing::AllOf(Contains("discard"), Not(Contains("push"))));
    }
}

TEST_F(ASession, RehearsesOnceAtATime) {
    client.ask(Request::Kind::rehearse, rlv::protocol::kVersion);
    EXPECT_EQ("r " + std::to_string(EPROTO) + " 0 opened twice",
              client.ask(Request::Kind::rehearse, rlv::protocol::kVersion));
    Client other(*this, kPeer);
    EXPECT_EQ("r " + std::to_string(EPROTONOSUPPORT) + " 0 another version of the protocol",
              other.ask(Request::Kind::rehearse, rlv::protocol::kVersion - 1));
}

TEST_F(ASession, IsRefusedForGarbage) {
    client.sendPacket("garbage");
    EXPECT_EQ("r " + std::to_string(EPROTO) + " 0 not a request", client.reply());
    EXPECT_THAT(log.lines, Contains("E user 0, process 100 is refused: not a request"));
}

TEST_F(ASession, TellsTheRoomToAppendingCommandsAlone) {
    client.open();
    EXPECT_EQ("c 0 0 ", client.command("-N VPK-A"));
    const auto room = around.table.room();
    EXPECT_EQ("c 0 " + std::to_string(room - 1) + " ", client.command("-A VPK-A -j DROP"));
    EXPECT_EQ("c 0 0 ", client.command("-F VPK-A"));
}

TEST_F(ASession, RefusesACommandAndGoesOn) {
    client.open();
    EXPECT_EQ("c 1 0 iptables: No chain/target/match by that name.", client.command("-F VPK-A"));
    EXPECT_EQ("c 2 0 ", client.command("nonsense").substr(0, 6));
    EXPECT_EQ("c 0 0 ", client.command("-N VPK-A"));
    EXPECT_EQ("x 0 2 ", client.ask(Request::Kind::close)) << "all that was accepted is in force, and two have failed";
    EXPECT_THAT(failures(), ElementsAre("-F VPK-A refused", "nonsense refused"));
    EXPECT_THAT(log.lines,
                Contains("connection 1 of user 0, process 100: refused (1, iptables: No chain/target/match by "
                         "that name.): -F VPK-A"));
}

TEST_F(ASession, LogsAcceptedCommandsWhereThatIsAsked) {
    client.open();
    client.command("-N VPK-A");
    EXPECT_THAT(log.lines, Not(Contains(HasSubstr("-N VPK-A"))));
    around.context.logAccepted = true;
    client.command("-N VPK-B");
    EXPECT_THAT(log.lines, Contains("connection 1 of user 0, process 100: -N VPK-B"));
}

TEST_F(ASession, RefusesATextThatIsTooLong) {
    client.open();
    const std::string longest = "-F " + std::string(rlv::protocol::kMaxOptionsBytes - 3, 'x');
    EXPECT_THAT(client.command(longest), Not(HasSubstr("bytes or more")));
    EXPECT_EQ("c 2 0 the option text has 4097 bytes or more; at most 4096 are taken", client.command(longest + "x"));
    client.command(std::string(30'000, 'x'));
    EXPECT_THAT(client.last.text, HasSubstr("30000 bytes or more"));
    EXPECT_EQ(4096U, outcome(1).failed.at(1).options.size());
}

TEST_F(ASession, DefersAllAfterAnOverlongRemoval) {
    client.open();
    client.command("-N VPK-A");
    ASSERT_TRUE(parts::runUntil(around.loop, [this] { return around.table.calls.back() == "push"; }));
    client.command("-F " + std::string(5'000, 'x'));
    client.command("-A VPK-A -j DROP");
    EXPECT_FALSE(parts::runUntil(
        around.loop, [this] { return around.table.calls.back() == "push"; }, Milliseconds(50)));
}

TEST_F(ASession, CarriesOutAListWithoutAReply) {
    client.open();
    client.list({"-N VPK-A", "-A VPK-A -j DROP", "-A VPK-B -j DROP", "-A VPK-A -j ACCEPT"});
    EXPECT_EQ("none", client.reply());
    EXPECT_THAT(around.table.calls, Contains("apply -A VPK-A -j ACCEPT"));
    EXPECT_THAT(failures(), ElementsAre("-A VPK-B -j DROP lost"));
    EXPECT_EQ("x " + std::to_string(EIO) + " 1 ", client.ask(Request::Kind::close)) << "its sender believed in it";
}

TEST_F(ASession, IsRefusedForAListThatIsNone) {
    client.open();
    EXPECT_EQ("r " + std::to_string(EPROTO) + " 0 not a list of commands", client.ask(Request::Kind::list, 0, "x"));
    EXPECT_EQ(1, client.ended);
}

TEST_F(ASession, LooksUpNamesInTheirOrder) {
    nameserver::useNameServer("10.0.0.1 one.example\n10.0.0.2 one.example\n");
    client.open();
    client.list({"-N VPK-A", "-A VPK-A -s one.example -j DROP", "-A VPK-A -j ACCEPT"});
    const auto applied = [this] {
        Texts texts;
        for (const std::string &call : around.table.calls) {
            if (call.rfind("apply", 0) == 0)
                texts.push_back(call.substr(6));
        }
        return texts;
    };
    EXPECT_TRUE(parts::runUntil(around.loop, [&] { return applied().size() == 3; }));
    EXPECT_THAT(applied(), ElementsAre("-N VPK-A", "-A VPK-A -s one.example -j DROP", "-A VPK-A -j ACCEPT"));
    client.send(Request::Kind::commit, 0, "-A VPK-A -s two.example -j DROP");
    std::string answer = "none";
    parts::runUntil(around.loop, [&] {
        answer = answer == "none" ? client.reply() : answer;
        return answer != "none";
    });
    EXPECT_THAT(answer, HasSubstr("c 2 ")) << "there is no such name";
    EXPECT_EQ("x 0 1 ", client.ask(Request::Kind::close));
}

TEST_F(ASession, IsInterruptedByItsClient) {
    client.open();
    client.command("-F VPK-A");
    client.command("-N VPK-A");
    EXPECT_EQ("x " + std::to_string(ECANCELED) + " 1 ",
              client.ask(Request::Kind::close, static_cast<std::uint64_t>(rlv::Interruption::exception)));
    EXPECT_EQ(ConnectionEnd::interrupted, outcome(1).end);
    EXPECT_THAT(around.table.calls, Contains("discard"));
    EXPECT_THAT(log.lines,
                Contains("E connection 1 of user 0, process 100 is interrupted: the operation was left by an "
                         "exception"));
    EXPECT_THAT(log.lines, Contains("connection 1 of user 0, process 100: interrupted"));
}

TEST_F(ASession, IsInterruptedForReasonsThatTheServiceDoesNotKnow) {
    for (const std::uint64_t reason : {std::uint64_t{3}, std::uint64_t{256}, ~std::uint64_t{0}}) {
        client.open();
        EXPECT_EQ("x " + std::to_string(ECANCELED) + " 0 ", client.ask(Request::Kind::close, reason));
    }
}

TEST_F(ASession, IsInterruptedByALossThatMayPass) {
    client.open();
    client.command("-N VPK-A");
    rlv::PushReport report;
    report.mayPass = true;
    around.table.pushed = report;
    EXPECT_EQ("x 0 0 ", client.ask(Request::Kind::close));
    EXPECT_EQ(ConnectionEnd::interrupted, outcome(1).end);
}

TEST_F(ASession, EndsWithItsClient) {
    client.open();
    client.command("-F VPK-A");
    client.command("-N VPK-A");
    client.socket.reset();
    runDue(around.loop);
    EXPECT_EQ(1, client.ended);
    EXPECT_EQ(ConnectionEnd::vanished, outcome(1).end);
    EXPECT_THAT(around.table.calls, Contains("discard"));
    EXPECT_THAT(log.lines, Contains("connection 1 of user 0, process 100: vanished"));
}

TEST_F(ASession, EndsWhereTheServiceSays) {
    client.open();
    client.session->end("it is told to");
    EXPECT_EQ(1, client.ended);
    EXPECT_EQ("end", (client.reply(), client.reply()));
    EXPECT_THAT(log.lines, Contains("a client of user 0, process 100 is cut off: it is told to"));
    client.session.reset();
    EXPECT_EQ(1, client.ended);
    EXPECT_EQ(ConnectionEnd::vanished, outcome(1).end);
}

TEST_F(ASession, WaitsForItsTurn) {
    client.open();
    Client other(*this, kPeer);
    EXPECT_EQ("none", other.ask(Request::Kind::open, rlv::protocol::kVersion));
    EXPECT_FALSE(other.session->isOpen());
    EXPECT_THAT(other.ask(Request::Kind::query), "none") << "in the middle of a request";
    client.ask(Request::Kind::close);
    runDue(around.loop);
    EXPECT_EQ("o 0 2 ", other.reply());
}

TEST_F(ASession, WaitsNoLongerThanItMay) {
    around.context.maxWait = Milliseconds(20);
    client.open();
    Client other(*this, kPeer);
    other.send(Request::Kind::open, rlv::protocol::kVersion);
    ASSERT_TRUE(parts::runUntil(around.loop, [&] { return other.ended > 0; }));
    EXPECT_EQ("r " + std::to_string(ETIMEDOUT) + " 0 another connection has been open for too long", other.reply());
    EXPECT_FALSE(parts::runUntil(
        around.loop, [this] { return client.ended > 0; }, Milliseconds(40)))
        << "who has had the turn waits no more";
}

TEST_F(ASession, IsRefusedWhereTheTableCannotBeRead) {
    around.table.failing["open"] = ENOBUFS;
    EXPECT_THAT(client.ask(Request::Kind::open, rlv::protocol::kVersion),
                HasSubstr("r " + std::to_string(ENOBUFS) + " 0 told to"));
    around.table.failing.clear();
    Client other(*this, kPeer);
    other.open();
}

TEST_F(ASession, IsInterruptedByTroubleThatIsNoAnswer) {
    client.open();
    around.table.failing["apply"] = EIO;
    EXPECT_THAT(client.command("-N VPK-A"), HasSubstr("r " + std::to_string(EIO) + " 0 internal error: told to"));
    EXPECT_EQ(ConnectionEnd::vanished, outcome(1).end);
    Client other(*this, kPeer);
    other.open();
    other.list({"-N VPK-A"});
    EXPECT_EQ("none", other.reply());
    EXPECT_THAT(failures(2), ElementsAre("-N VPK-A lost")) << "a list's command has its answer already";
}

TEST_F(ASession, TellsWhatStands) {
    client.open();
    client.command("-N VPK-A");
    Client other(*this, kPeer);
    EXPECT_EQ("q 0 0 ", other.ask(Request::Kind::query, 0));
    const auto state = rlv::protocol::decodeState(other.last.text);
    ASSERT_TRUE(state);
    EXPECT_EQ(77U, state->serviceId);
    EXPECT_FALSE(state->simulated);
    ASSERT_EQ(1U, state->connections.size());
    EXPECT_TRUE(state->drift.isMending);
    around.context.simulated = true;
    other.ask(Request::Kind::query, 1);
    EXPECT_TRUE(rlv::protocol::decodeState(other.last.text)->simulated);
    EXPECT_THAT(rlv::protocol::decodeState(other.last.text)->connections, IsEmpty());
}

TEST_F(ASession, IsRefusedWhereWhatStandsCannotBeRead) {
    around.table.failing["describe"] = EIO;
    EXPECT_THAT(client.ask(Request::Kind::query), HasSubstr("r " + std::to_string(EIO) + " 0 told to"));
}

TEST_F(ASession, WatchesWhatNobodyCanJudge) {
    client.session->tellUnjudged();
    EXPECT_EQ("none", client.reply()) << "it does not watch";
    EXPECT_FALSE(client.session->isWatching());
    EXPECT_EQ("w 0 77 ", client.ask(Request::Kind::watch));
    EXPECT_TRUE(client.session->isWatching());
    client.session->tellUnjudged();
    EXPECT_EQ("w 1 77 ", client.reply());
}

TEST_F(ASession, TellsAWatcherNoMoreThanItReads) {
    client.ask(Request::Kind::watch);
    for (int i = 0; i < 10'000 && !client.session->stream().stuck(); ++i)
        client.session->tellUnjudged();
    ASSERT_TRUE(client.session->stream().stuck());
    int told = 0;
    client.session->tellUnjudged();
    parts::runUntil(around.loop, [&] {
        while (client.reply() != "none")
            ++told;
        return !client.session->stream().stuck();
    });
    EXPECT_LT(0, told);
}

TEST_F(ASession, ComparesWhatIsWanted) {
    rlv::protocol::CommandList wanted(Request::Kind::compare);
    ASSERT_TRUE(wanted.add("-N VPK-A"));
    wanted.setNumber(rlv::protocol::kMoreFollow);
    client.sendPacket(wanted.packet());
    EXPECT_EQ("none", client.reply()) << "more follow";
    wanted.clear();
    ASSERT_TRUE(wanted.add("-A VPK-A -j DROP"));
    wanted.setNumber(rlv::protocol::kReading);
    client.sendPacket(wanted.packet());
    EXPECT_EQ("q 0 0 ", client.reply());
    const auto comparison = rlv::protocol::decodeComparison(client.last.text);
    ASSERT_TRUE(comparison);
    EXPECT_EQ(1U, comparison->chains.size());
    EXPECT_FALSE(comparison->simulated);
    EXPECT_EQ("look reading", around.table.calls.back());
    around.context.simulated = true;
    client.ask(Request::Kind::compare);
    EXPECT_EQ("look", around.table.calls.back());
    EXPECT_TRUE(rlv::protocol::decodeComparison(client.last.text)->simulated);
    EXPECT_THAT(rlv::protocol::decodeComparison(client.last.text)->chains, IsEmpty()) << "it begins anew";
    EXPECT_EQ("r " + std::to_string(EPROTO) + " 0 not a list of wanted rules",
              client.ask(Request::Kind::compare, 0, "x"));
}

TEST_F(ASession, IsToldOfNames) {
    nameserver::useNameServer("10.0.0.1 one.example\n");
    using About = rlv::protocol::NamesRequest::About;
    const auto ask = [this](About about, const Texts &names, std::uint64_t more = 0) {
        const auto request = rlv::protocol::encodeNamesRequest(about, names).at(0);
        EXPECT_EQ("q 0 0 ", client.ask(request.kind, request.number | more, request.text));
        return *rlv::protocol::decodeNamesState(client.last.text);
    };
    EXPECT_EQ(77U, ask(About::look, {}).serviceId);
    EXPECT_EQ(0U, ask(About::announce, {"one.example"}, rlv::protocol::kMoreFollow).inUse);
    EXPECT_EQ(2U, ask(About::announce, {"two.example"}).inUse) << "with those before";
    EXPECT_EQ(3U, ask(About::announce, {"three.example"}).inUse);
    EXPECT_EQ(1U, ask(About::retain, {"one.example"}).inUse);
    EXPECT_EQ(1U, ask(About::announceAll, {"two.example"}).inUse);
    around.context.resolveNames = false;
    EXPECT_EQ(0U, ask(About::announce, {"four.example"}).inUse);
    EXPECT_EQ("r " + std::to_string(EPROTO) + " 0 not a request about names",
              client.ask(Request::Kind::names, 2, "no end"));
}

// ---- the tables are taken out ----

class ARemovalThroughASession : public ASession {
protected:
    void SetUp() override {
        client.open();
        client.command("-N VPK-A");
        client.command("-A VPK-A -j DROP");
        client.command("-A INPUT -j VPK-A");
        client.ask(Request::Kind::close);
        log.take();
        around.table.takeCalls();
    }
    Client remover{*this, kPeer};
};

TEST_F(ARemovalThroughASession, IsAnsweredAndForgets) {
    EXPECT_EQ("c 0 0 ", removal(remover));
    EXPECT_THAT(around.table.calls, ElementsAre("removeAll", "describe", "forget"));
    EXPECT_THAT(log.lines, Contains("hooks and chains taken out for user 0, process 100: all"));
    EXPECT_FALSE(remover.session->isOpen());
    client.open();
}

TEST_F(ARemovalThroughASession, IsForRootAndTheServicesAccountAlone) {
    Client stranger(*this, {7, 7, 100});
    EXPECT_EQ("r " + std::to_string(EACCES) + " 0 only root may have the tables taken out", removal(stranger));
    Client account(*this, {::geteuid(), 0, 100});
    EXPECT_EQ("c 0 0 ", removal(account));
}

TEST_F(ARemovalThroughASession, IsOfTheseTablesAlone) {
    const auto request = removalOf(rlv::ServedTables::here("OTHER-", false));
    EXPECT_EQ("r " + std::to_string(ENOENT) + " 0 these tables are not served here",
              remover.ask(request.kind, request.number, request.text));
    EXPECT_THAT(around.table.calls, IsEmpty());
}

TEST_F(ARemovalThroughASession, ThatFailsLeavesAllDefended) {
    around.table.failing["removeAll"] = EIO;
    EXPECT_EQ("c 4 0 told to: Input/output error", removal(remover));
    EXPECT_THAT(around.table.calls, ElementsAre("removeAll", "discard", "mend"));
    around.table.failing["discard"] = EIO;
    EXPECT_EQ("c 4 0 told to: Input/output error", removal(remover));
    EXPECT_THAT(log.lines, Contains("E what was to be taken out cannot be discarded: told to: Input/output error"));
}

TEST_F(ARemovalThroughASession, HasFailedWhereNobodyKnowsWhatIsLeft) {
    around.table.failing["describe"] = EIO;
    EXPECT_EQ("c 4 0 not all is out: the tables cannot be read: told to: Input/output error", removal(remover));
    EXPECT_THAT(around.table.calls, Not(Contains("forget")));
}

} // namespace
