// Names in use: what is announced, what the background looks up and when, and the generation.
#include "names-fixture.h"

#include <fstream>
#include <iterator>
#include <tuple>

#include <gmock/gmock.h>

namespace {

using names::kOne;
using names::kTwo;
using names::Milliseconds;
using names::seconds;
using names::Waiting;
using parts::Texts;
using rlv::Addresses;
using rlv::UnansweredName;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using Kind = names::Kind;

std::ptrdiff_t childrenCount() {
    std::ifstream list("/proc/thread-self/children");
    return std::distance(std::istream_iterator<int>(list), std::istream_iterator<int>());
}

class NamesInUse : public names::WithNames {
protected:
    static constexpr Milliseconds kABit{1};

    // After how many seconds the next look-up begins; 0: it does not within `most`. Somebody asks for the state.
    int secondsToTheNext(int most) {
        for (int time = 1; time <= most; ++time) {
            names->state(false);
            if (overAfter(seconds(1)) > 0)
                return time;
        }
        return 0;
    }
    Kind standingKind(const std::string &name) const {
        const auto standing = names->standing(name);
        return standing ? standing->kind : Kind::tooMany;
    }
};

TEST_F(NamesInUse, AreLookedUpTogetherAtOnce) {
    names->announce({"one.example", "two.example", "absent.example"});
    EXPECT_EQ(1U, names::forks);
    EXPECT_FALSE(names->standing("one.example")) << "it is worth waiting for";
    settle();
    EXPECT_THAT(names->standing("one.example")->addresses, ElementsAre(kOne));
    EXPECT_EQ(Kind::found, standingKind("two.example"));
    EXPECT_EQ(Kind::absent, standingKind("absent.example"));
    EXPECT_THAT(names->standing("absent.example")->addresses, IsEmpty());
    EXPECT_EQ(3U, names->state(false).inUse);
}

TEST_F(NamesInUse, AreHostNames) {
    announce({});
    announce({"10.0.0.1", "a b", ""});
    EXPECT_EQ(0U, names::forks);
    EXPECT_EQ(0U, names->state(false).inUse);
}

TEST_F(NamesInUse, AreCountedOnce) {
    announce({"one.example", "two.example"});
    announce({"one.example"});
    EXPECT_EQ(2U, names->state(false).inUse);
    names->announceAll({"one.example"});
    EXPECT_EQ(1U, names->state(false).inUse);
    names->retain({});
    EXPECT_EQ(0U, names->state(false).inUse);
    EXPECT_FALSE(names->standing("one.example"));
}

TEST_F(NamesInUse, AreAllLookedUpAgainWhenAllAreAnnounced) {
    announce({"one.example", "two.example"});
    names->announceAll({"two.example", "absent.example"});
    settle();
    EXPECT_EQ(1U, server.questions("one.example"));
    EXPECT_EQ(2U, server.questions("two.example"));
    EXPECT_EQ(1U, server.questions("absent.example"));
}

TEST_F(NamesInUse, AreLookedUpWhenTheyAreNewAmongThoseRetained) {
    announce({"one.example", "two.example"});
    names->retain({"one.example", "absent.example"});
    settle();
    EXPECT_EQ(1U, server.questions("one.example"));
    EXPECT_EQ(1U, server.questions("absent.example"));
    EXPECT_EQ(2U, names->state(false).inUse);
    names->retain({"two.example"});
    settle();
    EXPECT_EQ(2U, server.questions("two.example")) << "known, and not in use meanwhile";
    const std::size_t before = names::forks;
    names->retain({"two.example"});
    EXPECT_EQ(before, names::forks);
}

TEST_F(NamesInUse, KeepTheirAnswersWhenTheyAreInUseNoMore) {
    announce({"one.example"});
    names->retain({});
    EXPECT_THAT(denying("one.example"), ElementsAre(kOne));
}

TEST_F(NamesInUse, AreForgottenWithTheirFailuresWhenTheyAreInUseNoMore) {
    announce({"failed.example"});
    names->retain({});
    announce({"failed.example"});
    EXPECT_EQ(5, secondsToTheNext(6)) << "after a first failure";
}

TEST_F(NamesInUse, AreAskedForByAtMostFourAnnouncementsAtATime) {
    server.set("one.example", nameserver::silence());
    for (const auto *const other : {"a.one.example", "b.one.example", "c.one.example", "d.one.example"})
        begin(other, seconds(60));
    const std::size_t others = names::forks;
    for (int i = 0; i < 5; ++i)
        names->announce({"n" + std::to_string(i) + ".one.example"});
    EXPECT_EQ(4U, names::forks - others) << "whatever else is looked up";
    EXPECT_EQ(1U, begunAfter(seconds(1))) << "the fifth by the background, soon";
    begunAfter(rlv::kLookUpTime);
    EXPECT_EQ(4U, names->state(false).unanswered);
    const std::size_t before = names::forks;
    for (int i = 0; i < 5; ++i)
        names->announce({"m" + std::to_string(i) + ".one.example"});
    EXPECT_EQ(4U, names::forks - before) << "those before are over";
}

TEST_F(NamesInUse, AreWaitedForByAnAnnouncementForTwoSeconds) {
    names->announce({"held.example"});
    EXPECT_EQ(0U, names->state(false).unanswered);
    begunAfter(rlv::kLookUpTime - kABit);
    EXPECT_FALSE(names->standing("held.example"));
    begunAfter(kABit);
    EXPECT_EQ(Kind::failed, standingKind("held.example"));
    EXPECT_EQ(1U, names->state(false).unanswered);
}

TEST_F(NamesInUse, HaveTheirAnswerThoughAnotherOfTheirRoundHasNone) {
    names->announce({"one.example", "held.example"});
    ASSERT_TRUE(names::runUntil(loop, [&] { return names->standing("one.example").has_value(); }));
    begunAfter(rlv::kLookUpTime);
    EXPECT_EQ(Kind::failed, standingKind("held.example"));
    EXPECT_EQ(Kind::found, standingKind("one.example"));
}

TEST_F(NamesInUse, AreLookedUpOnceForAnnouncementsAndForThoseWhoWait) {
    names->announce({"held.example"});
    const Waiting &waiting = begin("held.example");
    EXPECT_EQ(1U, names::forks);
    ASSERT_TRUE(waitForQuestions("held.example"));
    server.release(1, names::one());
    ASSERT_TRUE(names::runUntil(loop, [&] { return waiting.result.has_value(); }));
    EXPECT_EQ(Kind::found, waiting.result->kind);
}

TEST_F(NamesInUse, AreLookedUpThoughNobodyWaitsAnyMore) {
    names->announce({"held.example"});
    begin("held.example");
    waits.clear();
    ASSERT_TRUE(waitForQuestions("held.example"));
    server.release(1, names::one());
    settle();
    EXPECT_EQ(Kind::found, standingKind("held.example"));
}

TEST_F(NamesInUse, AreWaitedForAfterAllWereDroppedMeanwhile) {
    names->announce({"held.example"});
    names->retain({});
    const Waiting &waiting = begin("held.example");
    EXPECT_EQ(1U, names::forks) << "still under way";
    ASSERT_TRUE(waitForQuestions("held.example"));
    server.release(1, names::one());
    ASSERT_TRUE(names::runUntil(loop, [&] { return waiting.result.has_value(); }));
    EXPECT_EQ(Kind::found, waiting.result->kind);
}

TEST_F(NamesInUse, AreLookedUpAgainAfterTheTimeToRefresh) {
    announce({"one.example"});
    EXPECT_EQ(0U, begunAfter(seconds(300) - kABit));
    EXPECT_EQ(1U, overAfter(kABit));
    EXPECT_EQ(0U, begunAfter(seconds(300) - kABit));
    EXPECT_EQ(1U, overAfter(kABit));
}

TEST_F(NamesInUse, AreLookedUpAgainNoMoreThanOneASecond) {
    start({"", seconds(1)});
    announce({"one.example", "two.example", "a.one.example", "b.one.example", "c.one.example"});
    EXPECT_EQ(0U, begunAfter(seconds(5) - kABit));
    EXPECT_EQ(1U, overAfter(kABit));
}

TEST_F(NamesInUse, AreLookedUpAgainNoMoreWhenNoneIsInUse) {
    announce({"one.example"});
    names->retain({});
    EXPECT_EQ(0U, begunAfter(seconds(301)));
    lookUp("two.example");
    EXPECT_EQ(0U, begunAfter(seconds(301))) << "used, but not in use";
}

TEST_F(NamesInUse, AreLookedUpAgainTogetherWhenTheyAreDueWithinASecond) {
    announce({"one.example"});
    begunAfter(seconds(1));
    announce({"two.example"});
    EXPECT_EQ(1U, overAfter(seconds(299)));
    EXPECT_EQ(2U, server.questions("two.example"));
    EXPECT_EQ(2U, server.questions("one.example"));
}

TEST_F(NamesInUse, AreLookedUpAgainEachInItsTime) {
    announce({"one.example"});
    begunAfter(seconds(1) + kABit);
    announce({"two.example"});
    EXPECT_EQ(1U, overAfter(seconds(299) - kABit));
    EXPECT_EQ(2U, server.questions("one.example"));
    EXPECT_EQ(1U, server.questions("two.example"));
    EXPECT_EQ(1U, overAfter(seconds(1) + kABit));
    EXPECT_EQ(2U, server.questions("one.example"));
    EXPECT_EQ(2U, server.questions("two.example"));
}

TEST_F(NamesInUse, AreLookedUpAgainAtLongerAndLongerPausesWhileTheyFail) {
    start({"", seconds(600)});
    announce({"failed.example"});
    for (const int pause : {5, 10, 20, 40, 80, 160, 300, 300})
        EXPECT_EQ(pause, secondsToTheNext(301));
    server.set("failed.example", names::one());
    EXPECT_EQ(300, secondsToTheNext(301));
    server.set("failed.example", nameserver::absent());
    EXPECT_EQ(600, secondsToTheNext(601)) << "it was found";
    EXPECT_EQ(5, secondsToTheNext(6)) << "the first failure since";
}

TEST_F(NamesInUse, AreLookedUpAgainAfterAFailureNoLaterThanAfterAnAnswer) {
    start({"", seconds(7)});
    announce({"failed.example"});
    EXPECT_EQ(5, secondsToTheNext(6));
    EXPECT_EQ(7, secondsToTheNext(8));
}

TEST_F(NamesInUse, AreLookedUpByTheBackgroundForFifteenSeconds) {
    announce({"one.example"});
    server.set("one.example", nameserver::silence());
    EXPECT_EQ(1U, begunAfter(seconds(300)));
    begunAfter(seconds(15) - kABit);
    EXPECT_EQ(Kind::found, standingKind("one.example")) << "as before, which counts meanwhile";
    EXPECT_EQ(0U, names->state(false).unanswered);
    begunAfter(kABit);
    EXPECT_EQ(Kind::failed, standingKind("one.example"));
    EXPECT_EQ(1U, begunAfter(seconds(5)));
}

TEST_F(NamesInUse, AreLookedUpByOneBackgroundAtATime) {
    announce({"one.example"});
    begunAfter(seconds(10));
    announce({"two.example"});
    server.set("one.example", nameserver::silence());
    EXPECT_EQ(1U, begunAfter(seconds(290)));
    EXPECT_EQ(0U, begunAfter(seconds(11))) << "the other is due";
    begunAfter(seconds(4));
    EXPECT_EQ(1U, overAfter(seconds(1)));
    EXPECT_EQ(2U, server.questions("two.example"));
}

TEST_F(NamesInUse, AreNotWaitedForFromTheBackground) {
    announce({"one.example"});
    server.set("one.example", nameserver::held());
    begunAfter(seconds(300));
    ASSERT_TRUE(waitForQuestions("one.example", 2));
    const std::size_t before = names::forks;
    const Waiting &waiting = begin("one.example");
    EXPECT_EQ(1U, names::forks - before);
    EXPECT_FALSE(names->standing("one.example"));
    names->announce({"held.example"});
    begin("held.example");
    EXPECT_EQ(2U, names::forks - before) << "an announcement is waited for";
    ASSERT_TRUE(waitForQuestions("one.example", 3));
    server.release(2, names::two());
    ASSERT_TRUE(names::runUntil(loop, [&] { return waiting.result.has_value(); }));
    EXPECT_THAT(waiting.result->addresses, ElementsAre(kTwo));
}

// The background has asked, a command asks again, and the older question is answered first.
class NamesLookedUpTwice : public NamesInUse {
protected:
    NamesLookedUpTwice() {
        announce({"one.example"});
        server.set("one.example", nameserver::held());
        begunAfter(seconds(300));
        EXPECT_TRUE(waitForQuestions("one.example", 2));
        begin("one.example");
        EXPECT_TRUE(waitForQuestions("one.example", 3));
    }
};

TEST_F(NamesLookedUpTwice, HaveTheOlderAnswerWhenItHasFoundSomething) {
    server.release(1, names::two());
    settle();
    ASSERT_TRUE(waits.front().result) << "and the newer look-up was given up";
    EXPECT_THAT(waits.front().result->addresses, ElementsAre(kTwo));
    EXPECT_THAT(names->standing("one.example")->addresses, ElementsAre(kTwo));
}

TEST_F(NamesLookedUpTwice, DoNotHaveTheOlderAnswerWhenItHasFoundNothing) {
    server.release(1, nameserver::absent());
    ASSERT_TRUE(names::runUntil(loop, [] { return childrenCount() == 1; }));
    EXPECT_FALSE(waits.front().result);
    server.release(1, names::two());
    settle();
    ASSERT_TRUE(waits.front().result);
    EXPECT_THAT(waits.front().result->addresses, ElementsAre(kTwo));
}

TEST_F(NamesInUse, AreLookedUpInTheBackgroundThoughAWaitForThemWasGivenUp) {
    announce({"one.example"});
    server.set("one.example", nameserver::held());
    begunAfter(seconds(300));
    ASSERT_TRUE(waitForQuestions("one.example", 2));
    begin("one.example");
    waits.clear();
    EXPECT_TRUE(names->standing("one.example"));
    server.release(1, names::two());
    settle();
    EXPECT_THAT(names->standing("one.example")->addresses, ElementsAre(kTwo));
}

TEST_F(NamesInUse, ThatHaveFailedAreAskedForBehindTheOthers) {
    announce({"failed.example"});
    Texts all{"failed.example"};
    server.set("one.example", nameserver::silence());
    for (std::size_t i = 0; i < rlv::kMaxLookUpsAtOnce; ++i)
        all.push_back("n" + std::to_string(i) + ".one.example");
    names->announceAll(all);
    for (std::size_t i = 1; i < all.size(); ++i)
        ASSERT_TRUE(waitForQuestions(all[i])) << all[i];
    EXPECT_EQ(1U, server.questions("failed.example"));
    begunAfter(rlv::kLookUpTime);
    EXPECT_EQ(all.size(), names->state(false).unanswered);
    EXPECT_EQ(1U, begunAfter(seconds(5)));
    EXPECT_TRUE(waitForQuestions("failed.example", 2)) << "it has not failed again, as nobody was asked for it";
}

TEST_F(NamesInUse, AreUsedUntilNobodyHasAskedForTheirStateForFifteenMinutes) {
    start({"", seconds(1)});
    begunAfter(names::minutes(20));
    announce({"one.example"});
    overAfter(names::minutes(15) - seconds(1));
    EXPECT_TRUE(names->standing("one.example"));
    EXPECT_EQ(1U, names->state(false).inUse);
    EXPECT_EQ(1U, overAfter(names::minutes(15)));
    EXPECT_TRUE(names->standing("one.example"));
    EXPECT_EQ(0U, overAfter(seconds(1)));
    EXPECT_FALSE(names->standing("one.example"));
    EXPECT_EQ(0U, names->state(false).inUse);
    EXPECT_THAT(denying("one.example"), ElementsAre(kOne));
}

TEST_F(NamesInUse, TellTheirState) {
    start({"", seconds(77)});
    EXPECT_EQ(1U, names->state(true).generation);
    EXPECT_EQ(77U, names->state(true).refreshSeconds);
    std::string many;
    for (std::size_t i = 0; i <= rlv::kMaxAddresses; ++i)
        many += "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + " many.example\n";
    nameserver::useNameServer(many);
    announce({"one.example", "absent.example", "failed.example", "many.example", "two.example"});
    lookUp("gone.example");
    server.set("one.example", nameserver::failure());
    server.set("two.example", nameserver::absent());
    names::pass(seconds(10));
    announce({"one.example", "two.example"});
    const auto state = names->state(true);
    EXPECT_EQ(5U, state.inUse);
    EXPECT_EQ(5U, state.unanswered);
    EXPECT_EQ(5U, names->state(false).unanswered);
    EXPECT_THAT(names->state(false).list, IsEmpty());
    std::vector<std::tuple<std::string, UnansweredName::Problem, std::uint64_t, std::int64_t, bool>> list;
    for (const auto &one : state.list)
        list.emplace_back(one.name, one.problem, one.addresses, one.ageSeconds, one.allows);
    using Problem = UnansweredName::Problem;
    EXPECT_THAT(list, ElementsAre(std::make_tuple("absent.example", Problem::absent, 0, -1, false),
                                  std::make_tuple("failed.example", Problem::failed, 0, -1, false),
                                  std::make_tuple("many.example", Problem::tooMany, 0, -1, false),
                                  std::make_tuple("one.example", Problem::failed, 1, 10, true),
                                  std::make_tuple("two.example", Problem::absent, 1, 10, false)));
}

TEST_F(NamesInUse, AreAppliedAsTheyStandUntilACommandHasThem) {
    announce({"one.example"});
    EXPECT_THAT(names->applied("one.example", true), Optional(ElementsAre(kOne)));
    server.set("one.example", nameserver::absent());
    announce({"one.example"});
    EXPECT_THAT(names->applied("one.example", true), Optional(IsEmpty()));
    EXPECT_THAT(names->applied("one.example", false), Optional(ElementsAre(kOne)));
    names->noteUse("one.example", false, {kOne});
    EXPECT_THAT(names->applied("one.example", false), Optional(ElementsAre(kOne)));
    EXPECT_THAT(names->applied("one.example", true), Optional(IsEmpty()));
}

// What a command was given is compared with each answer that comes.
TEST_F(NamesInUse, RaiseTheGenerationOnceWhenRulesThatHaveThemAreWrong) {
    for (const bool allows : {false, true}) {
        start();
        server.set("one.example", names::one());
        announce({"one.example"});
        names->noteUse("one.example", allows, {kOne});
        EXPECT_EQ(1U, generation());
        server.set("one.example", names::two());
        announce({"one.example"});
        EXPECT_EQ(2U, generation());
        EXPECT_THAT(names->applied("one.example", allows), Optional(ElementsAre(kTwo))) << "what is to be sent";
        announce({"one.example"});
        EXPECT_EQ(2U, generation());
    }
}

TEST_F(NamesInUse, RaiseTheGenerationOnceForRulesOfBothKinds) {
    announce({"one.example"});
    names->noteUse("one.example", false, {kOne});
    names->noteUse("one.example", true, {kOne});
    server.set("one.example", names::two());
    announce({"one.example"});
    EXPECT_EQ(2U, generation());
}

TEST_F(NamesInUse, RaiseTheGenerationForRulesThatAllowAloneWhenTheyAreGone) {
    announce({"one.example"});
    names->noteUse("one.example", false, {kOne});
    server.set("one.example", nameserver::absent());
    announce({"one.example"});
    EXPECT_EQ(1U, generation());
    names->noteUse("one.example", true, {kOne});
    EXPECT_EQ(2U, generation()) << "the command was given what does not count any more";
}

TEST_F(NamesInUse, DoNotRaiseTheGenerationWhenNoCommandWasGivenThem) {
    announce({"one.example"});
    server.set("one.example", names::two());
    announce({"one.example"});
    EXPECT_EQ(1U, generation()) << "there is no rule that could be wrong";
}

TEST_F(NamesInUse, DoNotRaiseTheGenerationForRulesThatAreGone) {
    announce({"one.example"});
    names->noteUse("one.example", false, {kOne});
    server.set("one.example", names::two());
    names->announceAll({"one.example"});
    settle();
    EXPECT_EQ(1U, generation()) << "they are about to be sent";
    names->noteUse("one.example", false, {kTwo});
    names->retain({});
    server.set("one.example", names::one());
    names->retain({"one.example"});
    settle();
    EXPECT_EQ(1U, generation());
    names->noteUse("two.example", true, {kOne});
    announce({"two.example"});
    EXPECT_EQ(1U, generation()) << "its command was given when it was not in use";
}

} // namespace
