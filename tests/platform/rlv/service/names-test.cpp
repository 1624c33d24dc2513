// Look-ups of names that somebody waits for, and what an answer counts for.
#include "names-fixture.h"

#include <gmock/gmock.h>

namespace {

using names::kOne;
using names::kTwo;
using names::Milliseconds;
using names::Waiting;
using rlv::Addresses;
using rlv::LookUpResult;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using Kind = names::Kind;

bool isAsking() { return ::waitpid(-1, nullptr, WNOHANG) == 0; }

class NamesOfHosts : public names::WithNames {
protected:
    static constexpr Milliseconds kMostOfLookUpTime = rlv::kLookUpTime - Milliseconds(1);
};

TEST_F(NamesOfHosts, AreLookedUp) {
    const LookUpResult found = lookUp("one.example");
    EXPECT_EQ(Kind::found, found.kind);
    EXPECT_THAT(found.addresses, ElementsAre(kOne));
    EXPECT_EQ(Kind::absent, lookUp("absent.example").kind);
    EXPECT_EQ(Kind::failed, lookUp("failed.example").kind);
    EXPECT_EQ(3U, names::forks);
    EXPECT_EQ(1, waits.front().answers);
}

TEST_F(NamesOfHosts, AreTheSameInUpperAndLowerCase) {
    server.set("az-09.example", names::one());
    lookUp("AZ-09.Example");
    EXPECT_EQ(1U, server.questions("az-09.example"));
    EXPECT_THAT(denying("aZ-09.eXAMPLE"), ElementsAre(kOne));
    announce({"Az-09.example", "aZ-09.example"});
    EXPECT_EQ(1U, names->state(false).inUse);
    EXPECT_TRUE(names->standing("az-09.EXAMPLE"));
    names->noteUse("AZ-09.EXAMPLE", false, {kTwo});
    EXPECT_THAT(names->applied("az-09.example", false), Optional(ElementsAre(kOne))) << "which is right now";
    names->retain({"AZ-09.example"});
    EXPECT_EQ(1U, names->state(false).inUse);
}

TEST_F(NamesOfHosts, AreLookedUpOnceForAllWhoWait) {
    begin("held.example");
    begin("HELD.example");
    EXPECT_EQ(1U, names::forks);
    ASSERT_TRUE(waitForQuestions("held.example"));
    server.release(1, names::one());
    ASSERT_TRUE(names::runUntil(loop, [&] { return waits.front().result && waits.back().result; }));
    for (const Waiting &waiting : waits) {
        EXPECT_EQ(1, waiting.answers);
        EXPECT_THAT(waiting.result->addresses, ElementsAre(kOne));
    }
}

TEST_F(NamesOfHosts, AreNotMixedUp) {
    const Waiting &held = begin("held.example");
    const LookUpResult other = lookUp("one.example");
    EXPECT_THAT(other.addresses, ElementsAre(kOne));
    EXPECT_FALSE(held.result);
    parts::runDue(loop);
    ASSERT_TRUE(waitForQuestions("held.example"));
    server.release(1, names::two());
    ASSERT_TRUE(names::runUntil(loop, [&] { return held.result.has_value(); }))
        << "also when another look-up has come to its end";
    EXPECT_THAT(held.result->addresses, ElementsAre(kTwo));
}

TEST_F(NamesOfHosts, AreLookedUpAnewOnceThatIsOver) {
    lookUp("one.example");
    server.set("one.example", names::two());
    EXPECT_THAT(lookUp("one.example").addresses, ElementsAre(kTwo));
    EXPECT_EQ(2U, server.questions("one.example"));
}

TEST_F(NamesOfHosts, AreWaitedForUntilTheTimeIsOver) {
    const Waiting &waiting = begin("held.example");
    begunAfter(kMostOfLookUpTime);
    EXPECT_FALSE(waiting.result);
    begunAfter(Milliseconds(1));
    ASSERT_TRUE(waiting.result);
    EXPECT_EQ(Kind::failed, waiting.result->kind);
    EXPECT_FALSE(isAsking());
    begunAfter(names::minutes(1));
    EXPECT_EQ(1, waiting.answers);
}

TEST_F(NamesOfHosts, AreWaitedForByEachInItsOwnTime) {
    const Waiting &patient = begin("held.example", Milliseconds(2'000));
    const Waiting &hasty = begin("held.example", Milliseconds(1'000));
    begunAfter(Milliseconds(1'000));
    ASSERT_TRUE(hasty.result);
    EXPECT_EQ(Kind::failed, hasty.result->kind);
    EXPECT_FALSE(patient.result);
    EXPECT_TRUE(isAsking());
    ASSERT_TRUE(waitForQuestions("held.example"));
    server.release(1, names::one());
    ASSERT_TRUE(names::runUntil(loop, [&] { return patient.result.has_value(); }));
    EXPECT_EQ(Kind::found, patient.result->kind);
    EXPECT_EQ(1, hasty.answers);
}

TEST_F(NamesOfHosts, AreNotWaitedForOnceTheyAreAnswered) {
    lookUp("one.example");
    begunAfter(names::minutes(1));
    EXPECT_EQ(1, waits.front().answers);
}

TEST_F(NamesOfHosts, AreGivenUpWithTheLastWait) {
    begin("held.example");
    begin("held.example");
    waits.pop_front();
    EXPECT_TRUE(isAsking());
    int &answers = waits.front().answers;
    waits.front().wait.reset();
    EXPECT_FALSE(isAsking());
    begunAfter(names::minutes(1));
    EXPECT_EQ(0, answers);
    begin("held.example");
    EXPECT_EQ(2U, names::forks) << "no longer under way";
}

TEST_F(NamesOfHosts, AreNotGivenUpWithAWaitForAnother) {
    server.set("silent.example", nameserver::silence());
    const Waiting &held = begin("held.example");
    begin("silent.example");
    waits.pop_back();
    ASSERT_TRUE(waitForQuestions("held.example"));
    server.release(1, names::one());
    ASSERT_TRUE(names::runUntil(loop, [&] { return held.result.has_value(); }));
    EXPECT_EQ(Kind::found, held.result->kind);
}

TEST_F(NamesOfHosts, MayBeNoLongerWaitedForByTheOneWhoIsTold) {
    std::unique_ptr<rlv::Names::Wait> other;
    std::unique_ptr<rlv::Names::Wait> first;
    int answers = 0;
    first = names->lookUp("one.example", rlv::kLookUpTime, [&](const LookUpResult &) {
        ++answers;
        other.reset();
        first.reset();
    });
    other = names->lookUp("one.example", rlv::kLookUpTime, [&](const LookUpResult &) { answers += 10; });
    settle();
    begunAfter(names::minutes(1));
    EXPECT_EQ(1, answers);
}

TEST_F(NamesOfHosts, MayBeLookedUpByTheOneWhoIsTold) {
    std::unique_ptr<rlv::Names::Wait> next;
    LookUpResult result;
    const auto first = names->lookUp("one.example", rlv::kLookUpTime, [&](const LookUpResult &) {
        next = names->lookUp("two.example", rlv::kLookUpTime, [&](const LookUpResult &second) { result = second; });
    });
    ASSERT_TRUE(names::runUntil(loop, [&] { return result.kind == Kind::found; }));
    EXPECT_THAT(result.addresses, ElementsAre(kTwo));
}

TEST_F(NamesOfHosts, HaveFailedWhenThereIsNoProcess) {
    names::forksFail = true;
    log.take();
    const Waiting &waiting = begin("one.example");
    EXPECT_FALSE(waiting.result) << "told from within the loop";
    parts::runDue(loop);
    ASSERT_TRUE(waiting.result);
    EXPECT_EQ(Kind::failed, waiting.result->kind);
    EXPECT_THAT(log.take(), ElementsAre("E no names can be looked up: fork: Resource temporarily unavailable"));
    names::forksFail = false;
    EXPECT_EQ(Kind::found, lookUp("one.example").kind);
}

TEST_F(NamesOfHosts, StandForNothingThatIsNotKnown) {
    for (const auto *const name : {"unknown.example", "two.example"}) {
        EXPECT_THAT(denying(name), IsEmpty());
        EXPECT_THAT(allowing(name), IsEmpty());
        EXPECT_FALSE(names->standing(name));
        EXPECT_FALSE(names->applied(name, false));
        names->noteUse(name, false, {kOne});
        EXPECT_FALSE(names->applied(name, false));
    }
}

TEST_F(NamesOfHosts, StandForWhatWasFoundAndElseForTheLastAnswer) {
    lookUp("one.example");
    const auto found = names->answersAfter("one.example", {Kind::found, {kTwo}});
    EXPECT_THAT(found.denying, ElementsAre(kTwo));
    EXPECT_THAT(found.allowing, ElementsAre(kTwo));
    for (const auto kind : {Kind::failed, Kind::tooMany, Kind::absent}) {
        const auto answers = names->answersAfter("one.example", {kind, {}});
        EXPECT_EQ(Addresses{kOne}, answers.denying);
        EXPECT_EQ(kind == Kind::absent ? Addresses{} : Addresses{kOne}, answers.allowing);
    }
}

TEST_F(NamesOfHosts, StandForAnAnswerOfSevenDaysInRulesThatAllow) {
    lookUp("one.example");
    names::pass(names::hours(7 * 24));
    EXPECT_THAT(allowing("one.example"), ElementsAre(kOne));
    names::pass(names::seconds(1));
    EXPECT_THAT(allowing("one.example"), IsEmpty());
    EXPECT_THAT(denying("one.example"), ElementsAre(kOne));
    lookUp("one.example");
    EXPECT_THAT(allowing("one.example"), ElementsAre(kOne)) << "young again";
}

TEST_F(NamesOfHosts, StandForAnAnswerOfSevenDaysAlsoWhenTheClockIsSet) {
    lookUp("one.example");
    const std::int64_t wall = names::wallMs;
    names::wallMs = 0;
    EXPECT_THAT(allowing("one.example"), ElementsAre(kOne));
    names::wallMs = 2 * wall;
    EXPECT_THAT(allowing("one.example"), ElementsAre(kOne));
    names::wallMs = wall;
}

TEST_F(NamesOfHosts, AreForgottenWhenTheyWereNeitherFoundNorUsed) {
    lookUp("failed.example");
    announce({"failed.example"});
    EXPECT_EQ(0U, overAfter(Milliseconds(4'999)));
    EXPECT_EQ(1U, overAfter(Milliseconds(1))) << "after 5 s, as after a first failure";
}

TEST_F(NamesOfHosts, HaveNothingToDoAfterTheirEnd) {
    start({kFile, names::seconds(1)});
    announce({"one.example"});
    begin("held.example");
    begunAfter(rlv::kLookUpTime);
    end();
    std::filesystem::remove(kFile);
    EXPECT_EQ(0U, begunAfter(names::minutes(1)));
    EXPECT_FALSE(std::filesystem::exists(kFile));
}

} // namespace
