// What our own programs ask the service beside the contract: comparisons, notices, and names.
#include "scripted-service.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <poll.h>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

constexpr std::chrono::milliseconds kTimeout{10'000};

// What is asked, and how it failed: an errno, 0 for not.
int errorOf(const std::function<void()> &asking) {
    try {
        asking();
    } catch (const std::system_error &error) {
        EXPECT_THAT(error.what(), testing::StartsWith("traffic-control service: "));
        return error.code().value();
    }
    return 0;
}

rlv::Comparison comparison() {
    rlv::Comparison result;
    for (int i = 0; i < 1'000; ++i)
        result.differences.push_back({rlv::Difference::Kind::missing, "VPK-A", std::string(100, 'r'), "why"});
    result.chains.push_back({"VPK-A", 7, 5});
    result.counts[0] = 1'000;
    return result;
}

// The requests to compare that the service gets, and their commands.
struct Compared {
    std::vector<std::uint64_t> numbers;
    Texts commands;

    void receive(Peer &peer) {
        do {
            const Request request = peer.receive();
            ASSERT_EQ(Request::Kind::compare, request.kind);
            EXPECT_TRUE(rlv::protocol::isCommandList(request.text));
            numbers.push_back(request.number);
            for (std::string_view list = request.text; !list.empty();)
                commands.emplace_back(rlv::protocol::takeCommand(list));
        } while (numbers.back() >= rlv::protocol::kMoreFollow);
    }
};

rlv::WantedCommands wanted(const Texts &commands) {
    return [commands](const auto &each) {
        for (const auto &one : commands)
            each(one);
    };
}

rlv::Comparison compare(const Texts &commands, bool reading = false) {
    return rlv::compare(wanted(commands), reading, kTimeout);
}

TEST(AComparison, IsAskedForWithWhatIsWanted) {
    for (const bool reading : {false, true}) {
        Compared compared;
        ScriptedService service([&](Peer &peer) {
            compared.receive(peer);
            for (const auto &packet : rlv::protocol::encodeState(comparison()))
                peer.sendRaw(packet);
        });
        const auto result = compare({"-N VPK-A", "-A VPK-A -j DROP"}, reading);
        EXPECT_EQ(7U, result.chains.at(0).wanted);
        EXPECT_EQ(1'000U, result.differences.size()) << "in several parts";
        EXPECT_EQ(1'000U, result.count(rlv::Difference::Kind::missing));
        EXPECT_THAT(compared.commands, ElementsAre("-N VPK-A", "-A VPK-A -j DROP"));
        EXPECT_THAT(compared.numbers, ElementsAre(reading ? rlv::protocol::kReading : 0));
    }
}

TEST(AComparison, IsAskedForInSeveralPackets) {
    Compared compared;
    ScriptedService service([&](Peer &peer) {
        compared.receive(peer);
        for (const auto &packet : rlv::protocol::encodeState(rlv::Comparison{}))
            peer.sendRaw(packet);
    });
    Texts commands;
    for (int i = 0; i < 1'200; ++i)
        commands.push_back("-A VPK-A -s 10.0.0." + std::to_string(i));
    const auto result = compare(commands, true);
    EXPECT_THAT(result.differences, IsEmpty());
    EXPECT_EQ(commands, compared.commands);
    EXPECT_THAT(compared.numbers, ElementsAre(rlv::protocol::kMoreFollow, rlv::protocol::kMoreFollow, 1U));
}

TEST(AComparison, TellsOneByteMoreThanIsAllowedOfATextThatIsTooLong) {
    Compared compared;
    ScriptedService service([&](Peer &peer) {
        compared.receive(peer);
        for (const auto &packet : rlv::protocol::encodeState(rlv::Comparison{}))
            peer.sendRaw(packet);
    });
    compare({std::string(rlv::protocol::kMaxOptionsBytes - 1, 'a'), std::string(rlv::protocol::kMaxOptionsBytes, 'b'),
             std::string(20'000, 'c'), std::string(20'000, 'd')});
    std::vector<std::size_t> sizes;
    for (const auto &command : compared.commands)
        sizes.push_back(command.size());
    EXPECT_THAT(sizes, ElementsAre(4095, 4096, 4096, 4096));
    EXPECT_EQ('d', compared.commands.back().back());
}

TEST(ARehearsal, IsRefusedByAServiceThatKnowsNone) {
    ScriptedService service([](Peer &peer) {
        EXPECT_EQ(Request::Kind::rehearse, peer.receive().kind);
        peer.send(Reply::Kind::refused, EPROTO, 0, "not a request");
    });
    EXPECT_EQ(EPROTO, errorOf([] { rlv::rehearse(wanted({"-A VPK-A -j DROP"}), kTimeout); }));
}

TEST(ARehearsal, OfWhichNothingIsRefusedAsksNoMore) {
    Texts commands;
    ScriptedService service([&](Peer &peer) {
        peer.acceptOpening();
        for (Request list = peer.receive(); list.kind == Request::Kind::list; list = peer.receive()) {
            for (std::string_view rest = list.text; !rest.empty();)
                commands.emplace_back(rlv::protocol::takeCommand(rest));
        }
        peer.send(Reply::Kind::closed);
    });
    Texts sent;
    for (int i = 0; i < 1'200; ++i)
        sent.push_back("-A VPK-A -s 10.0.0." + std::to_string(i));
    const auto rehearsal = rlv::rehearse(wanted(sent), kTimeout);
    EXPECT_THAT(rehearsal.refused, IsEmpty());
    EXPECT_EQ(0U, rehearsal.refusedBeyondList);
    EXPECT_EQ(sent, commands);
}

TEST(ARehearsal, FailsWhereTheServiceGoes) {
    for (const bool afterOpening : {false, true}) {
        ScriptedService service([afterOpening](Peer &peer) {
            if (afterOpening)
                peer.acceptOpening();
        });
        EXPECT_NE(0, errorOf([] { rlv::rehearse(wanted({"-A VPK-A -j DROP"}), kTimeout); }));
    }
}

int errorOfComparison(const std::function<void(Peer &)> &answer) {
    ScriptedService service([&](Peer &peer) {
        Compared().receive(peer);
        answer(peer);
    });
    return errorOf([] { compare({"-N VPK-A"}); });
}

TEST(AComparison, FailsOnAnyOtherAnswer) {
    EXPECT_EQ(
        0, errorOfComparison([](Peer &peer) { peer.sendRaw(rlv::protocol::encodeState(rlv::Comparison{}).front()); }));
    EXPECT_EQ(EPROTO, errorOfComparison([](Peer &peer) {
                  const auto whole = rlv::protocol::decodeReply(rlv::protocol::encodeState(rlv::Comparison{}).front());
                  peer.send(Reply::Kind::committed, 0, 0, whole->text);
              }));
    EXPECT_EQ(EACCES, errorOfComparison([](Peer &peer) { peer.send(Reply::Kind::refused, EACCES); }));
    EXPECT_EQ(ECONNRESET, errorOfComparison([](Peer &) {}));
    EXPECT_EQ(EPROTO, errorOfComparison([](Peer &peer) { peer.send(Reply::Kind::state, 0, 0, "short"); }));
}

TEST(AComparison, FailsOnPartsInAnotherOrder) {
    const auto packets = rlv::protocol::encodeState(comparison());
    ASSERT_GT(packets.size(), 3U);
    EXPECT_EQ(EPROTO, errorOfComparison([&](Peer &peer) {
                  peer.sendRaw(packets[0]);
                  peer.sendRaw(packets[2]);
                  peer.sendRaw(packets[1]);
              }));
    EXPECT_EQ(EPROTO, errorOfComparison([&](Peer &peer) {
                  peer.sendRaw(packets[0]);
                  peer.send(Reply::Kind::committed, 0, packets.size() - 2);
              }));
}

TEST(AComparison, FailsWithoutAService) {
    rlv::setSocketPath("/run/nobody-here");
    EXPECT_EQ(ENOENT, errorOf([] { compare({"-N VPK-A"}); }));
}

TEST(AComparison, SaysWhyWhenTheServiceRefusesItMeanwhile) {
    std::promise<void> hasRefused;
    ScriptedService service([&](Peer &peer) {
        peer.send(Reply::Kind::refused, EACCES, 0, "not you");
        peer.close();
        hasRefused.set_value();
    });
    EXPECT_EQ(EACCES, errorOf([&] {
                  rlv::compare(
                      [&](const auto &each) {
                          hasRefused.get_future().wait();
                          each("-N VPK-A");
                      },
                      false, kTimeout);
              }));
}

rlv::WatchNotice awaitNotice(int watch) {
    pollfd waited{watch, POLLIN, 0};
    EXPECT_EQ(1, ::poll(&waited, 1, 10'000));
    const auto notice = rlv::receiveNotice(watch);
    EXPECT_TRUE(notice);
    return notice.value_or(rlv::WatchNotice{});
}

TEST(AWatch, TellsWhatHasComeAndWaitsForNothing) {
    std::promise<void> mayTell;
    ScriptedService service([&](Peer &peer) {
        EXPECT_EQ(Request::Kind::watch, peer.receive().kind);
        mayTell.get_future().wait();
        peer.send(Reply::Kind::watched, 0, 77);
        peer.send(Reply::Kind::watched, 1, 77);
    });
    const auto watch = rlv::openWatch(kTimeout);
    EXPECT_FALSE(rlv::receiveNotice(watch.get())) << "nothing has come";
    mayTell.set_value();
    const auto first = awaitNotice(watch.get());
    EXPECT_FALSE(first.isEnd || first.isUnjudged);
    EXPECT_EQ(77U, first.serviceId);
    const auto second = awaitNotice(watch.get());
    EXPECT_FALSE(second.isEnd);
    EXPECT_TRUE(second.isUnjudged);
    EXPECT_EQ(77U, second.serviceId);
    const auto last = awaitNotice(watch.get());
    EXPECT_TRUE(last.isEnd) << "the service has closed it";
    EXPECT_FALSE(last.isUnjudged);
    EXPECT_EQ(0U, last.serviceId);
}

TEST(AWatch, EndsWithAnythingElse) {
    const std::vector<std::function<void(Peer &)>> others = {
        [](Peer &peer) { peer.send(Reply::Kind::refused, EACCES, 5, std::string(1'000, 'x')); },
        [](Peer &peer) { peer.send(Reply::Kind::state, 1, 5); }, [](Peer &peer) { peer.sendRaw("garbage"); }};
    for (const auto &other : others) {
        ScriptedService service([&](Peer &peer) {
            peer.receive();
            other(peer);
        });
        const auto watch = rlv::openWatch(kTimeout);
        const auto notice = awaitNotice(watch.get());
        EXPECT_TRUE(notice.isEnd);
        EXPECT_FALSE(notice.isUnjudged);
        EXPECT_EQ(0U, notice.serviceId);
    }
}

TEST(AWatch, CannotBeOpenedWithoutAService) {
    rlv::setSocketPath("/run/nobody-here");
    EXPECT_EQ(ENOENT, errorOf([] { rlv::openWatch(kTimeout); }));
}

rlv::NamesState stateOfNames(std::uint64_t generation) {
    rlv::NamesState state;
    state.generation = generation;
    return state;
}

// What the service is told by these calls, and what they give back.
TEST(Names, AreAskedForAndAnnounced) {
    using About = rlv::protocol::NamesRequest::About;
    const std::vector<std::pair<About, std::function<rlv::NamesState()>>> calls = {
        {About::look, [] { return rlv::queryNames(false, kTimeout); }},
        {About::list, [] { return rlv::queryNames(true, kTimeout); }},
        {About::announce, [] { return rlv::announceNames({"a.example"}, kTimeout); }},
        {About::announceAll, [] { return rlv::announceAllNames({"a.example"}, kTimeout); }},
        {About::retain, [] { return rlv::retainNames({"a.example"}, kTimeout); }}};
    for (const auto &[about, call] : calls) {
        std::optional<rlv::protocol::NamesRequest> asked;
        ScriptedService service([&](Peer &peer) {
            asked = rlv::protocol::decodeNamesRequest(peer.receive());
            peer.sendRaw(rlv::protocol::encodeState(stateOfNames(9)).front());
        });
        EXPECT_EQ(9U, call().generation);
        ASSERT_TRUE(asked);
        EXPECT_EQ(about, asked->about);
        EXPECT_EQ(about == About::look || about == About::list ? 0U : 1U, asked->names.size());
    }
}

TEST(Names, AreAnnouncedInSeveralRequestsOfWhichTheLastAnswerCounts) {
    Texts names;
    for (int i = 0; i < 1'500; ++i)
        names.push_back("name-of-some-length-" + std::to_string(i) + ".example");
    Texts told;
    std::uint64_t requests = 0;
    ScriptedService service([&](Peer &peer) {
        for (bool more = true; more;) {
            const auto request = rlv::protocol::decodeNamesRequest(peer.receive());
            ASSERT_TRUE(request);
            told.insert(told.end(), request->names.begin(), request->names.end());
            more = request->moreFollow;
            peer.sendRaw(rlv::protocol::encodeState(stateOfNames(++requests)).front());
        }
    });
    EXPECT_EQ(requests, rlv::announceNames(names, kTimeout).generation);
    EXPECT_GT(requests, 1U);
    EXPECT_EQ(names, told);
}

TEST(Names, AreNotAnnouncedFurtherOnceThatHasFailed) {
    const Texts names(3'000, "name-of-some-length.example");
    std::size_t requests = 0;
    {
        ScriptedService service([&](Peer &peer) {
            while (peer.receive().kind == Request::Kind::names) {
                ++requests;
                peer.send(Reply::Kind::committed);
            }
        });
        EXPECT_EQ(EPROTO, errorOf([&] { rlv::announceNames(names, kTimeout); }));
    }
    EXPECT_EQ(1U, requests);
}

} // namespace
