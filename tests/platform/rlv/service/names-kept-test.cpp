// Answers that are kept: in the file over the service's life, and which of them when there are too many.
#include "names-fixture.h"

#include <algorithm>

#include <gmock/gmock.h>

#include "support/file-calls.h"
#include "support/text-file.h"

namespace {

using names::kOne;
using names::kTwo;
using names::Milliseconds;
using parts::Texts;
using rlv::Addresses;
using rlv::KeptName;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = names::Kind;

constexpr names::hours kDay{24};
constexpr std::int64_t kMinute = 60;
constexpr Milliseconds kSavePause{1'000};

class KeptNames : public names::WithNames {
protected:
    KeptNames() { startWithFile(); }

    void startWithFile() { start({kFile, names::minutes(5)}); }
    void startWith(const std::vector<KeptName> &kept) {
        rlv::writeNames(kFile, kept);
        startWithFile();
    }
    // Answers of a minute ago.
    static std::vector<KeptName> numbered(std::size_t count) {
        std::vector<KeptName> kept;
        for (std::size_t i = 0; i < count; ++i)
            kept.push_back({numberedName(i), names::wallSeconds() - kMinute, {kOne}});
        return kept;
    }
    static std::string numberedName(std::size_t number) { return "n" + std::to_string(number) + ".example"; }
    // Of the files that are written, which are synchronised.
    std::size_t savesAfter(Milliseconds time) {
        const auto isFile = [](const std::string &path) { return path.find(kFile) == 0; };
        const auto count = [&] {
            return std::count_if(calls::synchronised.begin(), calls::synchronised.end(), isFile);
        };
        const auto before = count();
        begunAfter(time);
        return static_cast<std::size_t>(count() - before);
    }
    static Texts saved() {
        Texts kept;
        for (const auto &one : rlv::readNames(kFile))
            kept.push_back(one.name);
        return kept;
    }
    // Of a name that is in use and without an answer.
    std::int64_t ageOf(const std::string &name) {
        for (const auto &one : names->state(true).list) {
            if (one.name == name)
                return one.ageSeconds;
        }
        return -2;
    }
    std::size_t standing(std::size_t count) const {
        std::size_t found = 0;
        for (std::size_t i = 0; i < count; ++i)
            found += denying(numberedName(i)).empty() ? 0 : 1;
        return found;
    }
};

TEST_F(KeptNames, AreSavedASecondLater) {
    lookUp("one.example");
    EXPECT_EQ(0U, savesAfter(Milliseconds(999)));
    EXPECT_EQ(1U, savesAfter(Milliseconds(1)));
    const auto kept = rlv::readNames(kFile);
    ASSERT_EQ(1U, kept.size());
    EXPECT_EQ("one.example", kept[0].name);
    EXPECT_EQ(names::wallSeconds(), kept[0].confirmed + 1);
    EXPECT_THAT(kept[0].addresses, ElementsAre(kOne));
    EXPECT_EQ(0U, savesAfter(names::minutes(1)));
}

TEST_F(KeptNames, AreSavedTogether) {
    lookUp("one.example");
    begunAfter(Milliseconds(500));
    lookUp("two.example");
    EXPECT_EQ(1U, savesAfter(Milliseconds(500)));
    EXPECT_EQ(0U, savesAfter(Milliseconds(2'000)));
    EXPECT_THAT(saved(), ElementsAre("two.example", "one.example"));
}

TEST_F(KeptNames, AreSavedAtTheEnd) {
    lookUp("one.example");
    end();
    EXPECT_THAT(saved(), ElementsAre("one.example"));
}

TEST_F(KeptNames, AreNotSavedWhenThereAreNone) {
    lookUp("failed.example");
    EXPECT_EQ(0U, savesAfter(names::minutes(1)));
    end();
    EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(KeptNames, AreSavedNowhereWithoutAFile) {
    log.take();
    start();
    lookUp("one.example");
    begunAfter(names::minutes(1));
    end();
    EXPECT_THAT(log.take(), ElementsAre("answers of name servers are kept in memory alone (no --names-file)"));
}

TEST_F(KeptNames, AreSavedWhenTheyAreOthers) {
    lookUp("one.example");
    EXPECT_EQ(1U, savesAfter(kSavePause));
    lookUp("one.example");
    EXPECT_EQ(0U, savesAfter(kSavePause)) << "the same";
    server.set("one.example", names::two());
    lookUp("one.example");
    EXPECT_EQ(1U, savesAfter(kSavePause));
    EXPECT_THAT(rlv::readNames(kFile).at(0).addresses, ElementsAre(kTwo));
}

TEST_F(KeptNames, AreSavedAnewAfterMoreThanADay) {
    startWith({{"one.example", names::wallSeconds(), {kOne}}});
    names::pass(kDay);
    lookUp("one.example");
    EXPECT_EQ(0U, savesAfter(Milliseconds(2'000)));
    EXPECT_EQ(names::wallSeconds() - names::seconds(kDay).count() - 2, rlv::readNames(kFile).at(0).confirmed);
    lookUp("one.example");
    EXPECT_EQ(1U, savesAfter(Milliseconds(2'000)));
    EXPECT_EQ(names::wallSeconds() - 2, rlv::readNames(kFile).at(0).confirmed);
    names::pass(kDay - names::seconds(2));
    lookUp("one.example");
    EXPECT_EQ(0U, savesAfter(Milliseconds(2'000))) << "it is one day since";
}

TEST_F(KeptNames, AreSavedAnewOnceTheirAgeIsKnown) {
    startWith({{"one.example", 0, {kOne}}});
    lookUp("one.example");
    EXPECT_EQ(1U, savesAfter(kSavePause));
    EXPECT_EQ(names::wallSeconds() - 1, rlv::readNames(kFile).at(0).confirmed);
}

TEST_F(KeptNames, AreSavedInTheOrderOfTheirUse) {
    startWith({{"c.example", 1, {kOne}}, {"a.example", 2, {kOne}}, {"b.example", 3, {kOne}}});
    lookUp("one.example");
    begunAfter(kSavePause);
    EXPECT_THAT(saved(), ElementsAre("one.example", "c.example", "a.example", "b.example"));
    names->noteUse("a.example", false, {kOne});
    lookUp("two.example");
    begunAfter(kSavePause);
    EXPECT_THAT(saved(), ElementsAre("two.example", "a.example", "one.example", "c.example", "b.example"));
}

TEST_F(KeptNames, AreSavedFirstWhenTheyAreInUse) {
    announce({"one.example"});
    lookUp("two.example");
    begunAfter(kSavePause);
    EXPECT_THAT(saved(), ElementsAre("one.example", "two.example"));
}

TEST_F(KeptNames, AreSavedWithTheirTimes) {
    const std::int64_t now = names::wallSeconds();
    startWith({{"a.example", 0, {kOne}},
               {"b.example", 1, {kOne}},
               {"c.example", now - 100, {kOne}},
               {"d.example", now, {kOne}},
               {"e.example", now + 1, {kOne}}});
    names::pass(names::seconds(50));
    lookUp("one.example");
    begunAfter(kSavePause);
    std::vector<std::int64_t> times;
    for (const auto &one : rlv::readNames(kFile))
        times.push_back(one.confirmed);
    EXPECT_THAT(times, ElementsAre(now + 50, 0, 1, now - 100, now, 0)) << "one of the future has none";
}

TEST_F(KeptNames, AreSavedWithoutATimeBefore1970) {
    lookUp("one.example");
    names::pass(names::seconds(100));
    const std::int64_t wall = names::wallMs;
    names::wallMs = 50'000;
    lookUp("two.example");
    end();
    EXPECT_EQ(50, rlv::readNames(kFile).at(0).confirmed);
    EXPECT_EQ(0, rlv::readNames(kFile).at(1).confirmed);
    names::wallMs = wall;
}

TEST_F(KeptNames, HaveTheAgeThatTheFileTells) {
    const std::int64_t now = names::wallSeconds();
    Texts all;
    std::vector<KeptName> kept = {{"a.example", 0, {kOne}},
                                  {"b.example", 1, {kOne}},
                                  {"c.example", now - 100, {kOne}},
                                  {"d.example", now, {kOne}},
                                  {"e.example", now + 1, {kOne}}};
    startWith(kept);
    for (const auto &one : kept)
        all.push_back(one.name);
    announce(all);
    EXPECT_EQ(-1, ageOf("a.example"));
    EXPECT_EQ(now - 1, ageOf("b.example"));
    EXPECT_EQ(100, ageOf("c.example"));
    EXPECT_EQ(0, ageOf("d.example"));
    EXPECT_EQ(-1, ageOf("e.example")) << "of the future";
    names::pass(names::seconds(30));
    EXPECT_EQ(130, ageOf("c.example"));
    EXPECT_THAT(names->answersAfter("d.example", {Kind::failed, {}}).allowing, ElementsAre(kOne));
    EXPECT_THAT(names->answersAfter("e.example", {Kind::failed, {}}).allowing, IsEmpty());
}

TEST_F(KeptNames, AreReadInLowerCase) {
    startWith({{"one.example", names::wallSeconds(), {kOne}}});
    EXPECT_THAT(denying("ONE.example"), ElementsAre(kOne));
}

TEST_F(KeptNames, TellOnceThatTheyCannotBeSaved) {
    log.take();
    for (int i = 0; i < 2; ++i) {
        std::filesystem::remove_all(kFolder);
        for (const auto &reply : {names::one(), names::two()}) {
            server.set("one.example", reply);
            lookUp("one.example");
            begunAfter(kSavePause);
        }
        const auto lines = log.take();
        ASSERT_EQ(1U, lines.size()) << i;
        EXPECT_THAT(lines[0], HasSubstr("E answers of name servers are kept in memory alone for now: "));
        EXPECT_THAT(denying("one.example"), ElementsAre(kTwo));
        std::filesystem::create_directories(kFolder);
        lookUp("one.example");
        begunAfter(kSavePause);
        lookUp("two.example");
        server.set("two.example", i == 0 ? names::one() : names::two());
        begunAfter(kSavePause);
        EXPECT_EQ(2U, saved().size()) << i;
    }
}

TEST_F(KeptNames, AreTriedToBeSavedAgainWhenTheyAreConfirmed) {
    std::filesystem::remove_all(kFolder);
    lookUp("one.example");
    begunAfter(kSavePause);
    std::filesystem::create_directories(kFolder);
    lookUp("one.example");
    EXPECT_EQ(1U, savesAfter(kSavePause));
}

TEST_F(KeptNames, AreNotReadFromADamagedFileWhichIsPutAside) {
    textfile::write(kFile, "nonsense\n");
    log.take();
    startWithFile();
    const auto lines = log.take();
    ASSERT_EQ(1U, lines.size());
    EXPECT_THAT(lines[0], HasSubstr("E kept answers of name servers are not used: "));
    EXPECT_THAT(lines[0], HasSubstr(kFile));
    EXPECT_THAT(lines[0], HasSubstr("; the file was renamed to .refused"));
    EXPECT_TRUE(std::filesystem::exists(std::string(kFile) + ".refused"));
    EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(KeptNames, DoNotSayThatAFileWasPutAsideWhichWasNot) {
    textfile::write(kFile, "nonsense\n");
    std::filesystem::create_directories(std::string(kFile) + ".refused");
    log.take();
    startWithFile();
    const auto lines = log.take();
    ASSERT_EQ(1U, lines.size());
    EXPECT_THAT(lines[0], HasSubstr("E kept answers of name servers are not used: "));
    EXPECT_THAT(lines[0], testing::Not(HasSubstr("renamed")));
}

TEST_F(KeptNames, MakeRoomByTheOneThatWasLastUsedLongestAgo) {
    startWith(numbered(rlv::kMaxKeptNames - 1));
    lookUp("one.example");
    EXPECT_EQ(rlv::kMaxKeptNames - 1, standing(rlv::kMaxKeptNames)) << "there was room for one";
    lookUp("two.example");
    EXPECT_EQ(rlv::kMaxKeptNames - 2, standing(rlv::kMaxKeptNames));
    EXPECT_THAT(denying(numberedName(rlv::kMaxKeptNames - 2)), IsEmpty());
    EXPECT_THAT(denying("one.example"), ElementsAre(kOne));
    EXPECT_THAT(denying("two.example"), ElementsAre(kTwo));
}

TEST_F(KeptNames, MakeRoomForOneThatIsAnnounced) {
    startWith(numbered(rlv::kMaxKeptNames));
    announce({numberedName(7)});
    EXPECT_EQ(rlv::kMaxKeptNames, standing(rlv::kMaxKeptNames)) << "it was there";
    announce({"one.example"});
    EXPECT_EQ(rlv::kMaxKeptNames - 1, standing(rlv::kMaxKeptNames));
    EXPECT_EQ(2U, names->state(false).inUse);
}

TEST_F(KeptNames, AreNotForgottenForOneThatHasNoRoomForItself) {
    startWith(numbered(rlv::kMaxKeptNames));
    announce({"10.0.0.1", "no name"});
    EXPECT_EQ(0U, names->state(false).inUse);
    EXPECT_EQ(rlv::kMaxKeptNames, standing(rlv::kMaxKeptNames));
}

TEST_F(KeptNames, DoNotMakeRoomByThoseInUse) {
    startWith(numbered(rlv::kMaxKeptNames));
    announce({numberedName(0)});
    for (std::size_t i = 1; i < rlv::kMaxKeptNames; ++i)
        names->noteUse(numberedName(i), false, {kOne});
    lookUp("one.example");
    EXPECT_THAT(denying(numberedName(0)), ElementsAre(kOne));
    EXPECT_THAT(denying(numberedName(1)), IsEmpty()) << "of the others, it was used first";
}

TEST_F(KeptNames, DoNotMakeRoomByThoseThatAreLookedUp) {
    startWith(numbered(rlv::kMaxKeptNames));
    const std::string last = numberedName(rlv::kMaxKeptNames - 1);
    server.set(last, nameserver::silence());
    begin(last);
    lookUp("one.example");
    EXPECT_THAT(denying(last), ElementsAre(kOne));
    EXPECT_THAT(denying(numberedName(rlv::kMaxKeptNames - 2)), IsEmpty());
}

TEST_F(KeptNames, AreKeptWhenAllRoomIsTaken) {
    startWith(numbered(rlv::kMaxKeptNames));
    server.set(numberedName(3), names::two());
    lookUp(numberedName(3));
    EXPECT_EQ(rlv::kMaxKeptNames, standing(rlv::kMaxKeptNames));
}

TEST_F(KeptNames, MakeRoomAtAnotherTimeWhenAllAreInUse) {
    names::forksFail = true;
    Texts all;
    for (std::size_t i = 0; i < rlv::kMaxKeptNames; ++i)
        all.push_back(numberedName(i));
    names->announce(all);
    names->announce({"one.example"});
    EXPECT_EQ(rlv::kMaxKeptNames, names->state(false).inUse);
    EXPECT_FALSE(names->standing("one.example"));
    names::forksFail = false;
    EXPECT_EQ(Kind::found, lookUp("one.example").kind) << "a command of such a name gets its answer";
    EXPECT_THAT(denying("one.example"), IsEmpty()) << "which is not kept";
}

} // namespace
