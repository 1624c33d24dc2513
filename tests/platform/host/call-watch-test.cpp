#include "host/call-watch.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake-service.h"
#include "rlv/rlv.h"
#include "vlog/vlog.h"

namespace {

using rlv::ConnectionEnd;
using rlv::ConnectionOutcome;
using rlv::FailedCommand;
using testing::ElementsAre;
using testing::IsEmpty;

rlv::ServiceState stateOf(std::vector<ConnectionOutcome> connections) {
    rlv::ServiceState state;
    state.connections = std::move(connections);
    return state;
}

std::vector<rlv::Opening> opened(std::initializer_list<std::uint64_t> numbers) {
    std::vector<rlv::Opening> openings;
    for (const auto number : numbers)
        openings.push_back({number, false});
    return openings;
}

std::vector<std::string> judged(const FailedCommand &lost) {
    return host::judge(stateOf({{7, ConnectionEnd::closed, {lost}, 0}}), opened({7})).notInForce;
}

TEST(AnErrorText, IsWhatStandsBehindThePlaceWithoutColours) {
    EXPECT_EQ(host::errorText({VLOG_PRIORITY_ERROR, "VPK", "a.cpp: f(12) > \033[31mVPK: db > \033[1mbroken\033[0m"}),
              "VPK: db > broken");
    EXPECT_EQ(host::errorText({VLOG_PRIORITY_ERROR, "VPKD", "VPKD: plain"}), "VPKD: plain");
    EXPECT_EQ(host::errorText({VLOG_PRIORITY_ERROR, "VPK", "cut \033["}), "");
}

TEST(AnErrorText, IsOfErrorLinesAlone) {
    EXPECT_EQ(host::errorText({VLOG_PRIORITY_INFO, "VPK", "VPK: fine"}), std::nullopt);
}

TEST(ACommand, IsNotInForceWhenARuleWasRefused) {
    EXPECT_THAT(judged({"-A VPK-DENY -j DROP", 2, "bad", true}), ElementsAre("-A VPK-DENY -j DROP: bad"));
}

TEST(ACommand, IsNotCountedWhenItWasSentOnTheOffChance) {
    for (const char *options : {"-F VPK-DENY", "-N VPK-DENY", "-X VPK-DENY", "-D INPUT -j VPK-DENY"})
        EXPECT_THAT(judged({options, 1, "no such chain", true}), IsEmpty()) << options;
}

TEST(ACommand, CountsWhenItWasRefusedThoughThereWasSomethingToDo) {
    for (const int code : {2, 4}) {
        for (const char *options : {"-F VPK-DENY", "-N VPK-DENY", "-X VPK-DENY", "-D INPUT -j VPK-DENY"})
            EXPECT_THAT(judged({options, code, "refused", true}), ElementsAre(std::string(options) + ": refused"));
    }
}

TEST(ACommand, IsNotInForceWhenItWasAcceptedAndLost) {
    for (const char *options : {"-A VPK-DENY -j DROP", "-F VPK-DENY", "-N VPK-DENY", "-D INPUT -j VPK-DENY"})
        EXPECT_THAT(judged({options, 4, "lost", false}), ElementsAre(std::string(options) + ": lost"));
}

TEST(ACommand, CountsWhereItsTextWasTooMuchToKeep) {
    const auto verdict = host::judge(stateOf({{7, ConnectionEnd::closed, {}, 12}}), opened({7}));
    EXPECT_THAT(verdict.notInForce, ElementsAre("12 more commands"));
    EXPECT_THAT(verdict.acceptedThenLost, ElementsAre("12 commands"));
}

TEST(ACommand, CountsAsRefusedWhereItsTextWasTooMuchToKeepAmongRefusals) {
    const FailedCommand refused{"-A VPK-DENY -s nowhere -j DROP", 2, "host not found", true};
    const auto verdict = host::judge(stateOf({{7, ConnectionEnd::closed, {refused}, 12}}), opened({7}));
    EXPECT_THAT(verdict.notInForce.size(), 2U);
    EXPECT_THAT(verdict.acceptedThenLost, IsEmpty());
}

TEST(ACommand, IsLostOnlyWhenItWasAcceptedFirst) {
    const auto lostOf = [](bool wasRefused) {
        const FailedCommand lost{"-A VPK-DENY -j DROP", 4, "lost", wasRefused};
        return host::judge(stateOf({{7, ConnectionEnd::closed, {lost}, 0}}), opened({7})).acceptedThenLost;
    };
    EXPECT_THAT(lostOf(false), ElementsAre("-A VPK-DENY -j DROP"));
    EXPECT_THAT(lostOf(true), IsEmpty());
}

TEST(ARemark, IsMadeOfWhatIsNotInForce) {
    const FailedCommand lost{"-A VPK-DENY -j DROP", 4, "lost", false};
    const auto verdict = host::judge(stateOf({{7, ConnectionEnd::closed, {lost}, 0}}), opened({7}));
    EXPECT_THAT(host::remarksOn(verdict, {}).notes, ElementsAre("not in force: -A VPK-DENY -j DROP: lost"));
    host::Verdict unknown;
    unknown.unknown = "it is away";
    EXPECT_THAT(host::remarksOn(unknown, {}).notes, ElementsAre("whether all is in force is not known: it is away"));
    EXPECT_TRUE(host::remarksOn({}, {}).isEmpty());
}

TEST(ARemark, LeavesRefusalsInTheLogThatTheVerdictKnows) {
    const FailedCommand refused{"-N VPK-DENY", 1, "iptables: Chain already exists.", true};
    const auto verdict = host::judge(stateOf({{7, ConnectionEnd::closed, {refused}, 0}}), opened({7}));
    const std::string known = "VPK: invokeRLVIptablesCommit Iptables ERROR: 1 : iptables: Chain already exists.";
    const std::string other = "VPK: invokeRLVIptablesCommit Iptables ERROR: 4 : no answer";
    const std::string alike = "VPK: something else : iptables: Chain already exists.";
    EXPECT_THAT(host::remarksOn(verdict, {known, other, alike}).errorLines, ElementsAre(other, alike));
    EXPECT_THAT(host::remarksOn({}, {known}).errorLines, ElementsAre(known)) << "nobody has told of it";
}

TEST(AConnection, IsAnInterruptionWhenItDidNotComeToItsEnd) {
    const auto interruption = [](ConnectionEnd end) {
        return host::judge(stateOf({{7, end, {}, 0}}), opened({7})).interruption;
    };
    EXPECT_EQ(interruption(ConnectionEnd::vanished), "a connection to the traffic-control service broke");
    EXPECT_EQ(interruption(ConnectionEnd::open), "a connection to the traffic-control service broke");
    EXPECT_EQ(interruption(ConnectionEnd::closed), "");
}

TEST(AConnection, IsAnInterruptionWhenItWasClosedInTheMiddleOfAnOperation) {
    const auto state = stateOf({{7, ConnectionEnd::interrupted, {{"-F VPK-DENY", 4, "not sent", false}}, 0}});
    const auto verdict = host::judge(state, {{7, false, rlv::Interruption::exception}, {8, true}});
    EXPECT_EQ(verdict.interruption, "the operation was left by an exception");
    EXPECT_THAT(verdict.notInForce, ElementsAre("-F VPK-DENY: not sent"));
}

TEST(AConnection, IsAnInterruptionWhenTheServiceLostItsCommandsForAReasonThatMayPass) {
    const auto state = stateOf({{7, ConnectionEnd::interrupted, {{"-F VPK-DENY", 4, "no memory", false}}, 0}});
    const auto verdict = host::judge(state, opened({7}));
    EXPECT_EQ(verdict.interruption, "commands were lost for a reason that may pass: no memory");
    EXPECT_THAT(verdict.notInForce, ElementsAre("-F VPK-DENY: no memory"));
}

TEST(AConnection, IsAnInterruptionWhenTheServiceKnowsNothingOfIt) {
    const std::string startedAnew = "the traffic-control service was started anew during the call";
    const auto state = stateOf({{1, ConnectionEnd::closed, {}, 0}, {2, ConnectionEnd::closed, {}, 0}});
    EXPECT_EQ(host::judge(state, opened({1, 2})).interruption, "");
    EXPECT_EQ(host::judge(state, opened({3})).interruption, startedAnew);
    EXPECT_EQ(host::judge(state, opened({2, 1})).interruption, startedAnew) << "numbers begin at 1 again";
    EXPECT_EQ(host::judge(state, opened({2, 2})).interruption, startedAnew);
}

// The service forgets those that ended well before others.
TEST(AConnection, IsNoneWhenTheServiceHasForgottenAfterSayingThatItEndedWell) {
    const FailedCommand refused{"-N VPK-DENY", 1, "exists", true};
    const auto state = stateOf({{8, ConnectionEnd::closed, {refused}, 0}});
    const std::vector<rlv::Opening> openings{{7, true}, {8, false}};
    EXPECT_EQ(host::judge(state, openings).interruption, "");
    EXPECT_NE(host::judge(state, {{9, true}, {8, false}}).interruption, "") << "numbers begin at 1 again";
}

TEST(AConnection, IsNoneWhenItCouldNotBeOpened) {
    EXPECT_EQ(host::judge(stateOf({}), opened({0, 0})).interruption, "");
    EXPECT_EQ(host::judge(stateOf({}), opened({})).interruption, "");
}

TEST(AConnection, CountsOnlyWhenTheCallHasOpenedIt) {
    const FailedCommand lost{"-A VPK-DENY -j DROP", 4, "lost", false};
    const auto state = stateOf({{7, ConnectionEnd::closed, {lost}, 0}, {8, ConnectionEnd::closed, {lost, lost}, 0}});
    EXPECT_THAT(host::judge(state, opened({8})).notInForce.size(), 2U);
    EXPECT_THAT(host::judge(state, opened({})).notInForce, IsEmpty());
}

TEST(ACommand, CountsWhenItIsARuleWhateverTheReason) {
    EXPECT_THAT(judged({"-A VPK-DENY -j DROP", 1, "no such chain", true}),
                ElementsAre("-A VPK-DENY -j DROP: no such chain"));
}

void openAndSend() {
    rlv_handle handle = 0;
    if (rlv_initialize(&handle) != 0)
        return;
    rlv_iptables_commit(handle, "-A VPK-DENY -j DROP", nullptr, nullptr);
    rlv_deinitialize(handle);
}

void log(int priority, const std::string &text) {
    vlog_print(VLOG_ID_MAIN, priority, "TEST", "TEST: %s", text.c_str());
}

TEST(ACallWatch, CollectsErrorLinesFromItsConstructionOn) {
    log(VLOG_PRIORITY_ERROR, "before");
    const host::CallWatch watch;
    EXPECT_THAT(watch.errorLines(), IsEmpty());
    log(VLOG_PRIORITY_INFO, "fine");
    log(VLOG_PRIORITY_ERROR, "wrong");
    EXPECT_THAT(watch.errorLines(), ElementsAre("TEST: wrong"));
}

TEST(ACallWatch, CountsTheLinesBeyondAThousand) {
    const host::CallWatch watch;
    for (int i = 0; i < 1'000; ++i)
        log(VLOG_PRIORITY_ERROR, std::to_string(i));
    EXPECT_EQ(watch.errorLines().back(), "TEST: 999");
    log(VLOG_PRIORITY_ERROR, "more");
    EXPECT_EQ(watch.errorLines().size(), 1'001U);
    EXPECT_EQ(watch.errorLines().back(), "1 more lines");
}

TEST(ACallWatch, AsksOnlyWhatTheServiceHasNotSaidYet) {
    hosttest::FakeService service;
    openAndSend(); // before
    const host::CallWatch watch;
    service.asked();
    openAndSend();
    EXPECT_EQ(watch.verdict().interruption, "");
    for (const auto &one : service.asked())
        EXPECT_NE(one.kind, rlv::protocol::Request::Kind::query);
    service.change([](hosttest::Answers &answers) {
        answers.failedOnClosing = 1;
        answers.state.connections = {{3, ConnectionEnd::vanished, {}, 0}, {4, ConnectionEnd::closed, {}, 0}};
    });
    openAndSend();
    openAndSend();
    EXPECT_EQ(watch.verdict().interruption, "a connection to the traffic-control service broke");
    EXPECT_EQ(service.asked().back().number, 2U) << "of connections above this one";
    EXPECT_EQ(watch.verdict().interruption, "") << "nothing was opened since";
}

TEST(ACallWatch, SaysWhatIsNotKnownWhereTheServiceDoesNotAnswer) {
    auto service = std::make_unique<hosttest::FakeService>();
    service->change([](hosttest::Answers &answers) { answers.failedOnClosing = 1; });
    const host::CallWatch watch;
    openAndSend();
    service.reset();
    auto verdict = watch.verdict();
    EXPECT_THAT(verdict.unknown, testing::StartsWith("traffic-control service: "));
    EXPECT_EQ(verdict.interruption, verdict.unknown);
    EXPECT_FALSE(verdict.isUnopened);
    openAndSend();
    verdict = watch.verdict();
    EXPECT_THAT(verdict.unknown, testing::StartsWith("traffic-control service: "));
    EXPECT_EQ(verdict.interruption, "") << "none was opened";
    EXPECT_TRUE(verdict.isUnopened);
}

} // namespace
