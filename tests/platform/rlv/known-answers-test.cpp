// What a client knows of an answer before it asks, and that the service would give that answer.
#include "rlv/known-answers.h"

#include <array>
#include <deque>
#include <random>

#include <gtest/gtest.h>

#include "rlv/table/transactional-table.h"

namespace {

using rlv::KnownAnswers;

constexpr std::uint64_t kMuchRoom = 1'000'000;

TEST(AClientsKnowledge, BeginsWithNothing) {
    KnownAnswers known;
    EXPECT_FALSE(known.take("-A C -s 10.0.0.5 -j DROP"));
}

TEST(AClientsKnowledge, HoldsForOtherAddressesAndPorts) {
    KnownAnswers known;
    known.learn("-A C -p tcp -s 10.0.0.5 --sport 80 -j DROP", true, kMuchRoom);
    EXPECT_TRUE(known.take("-A C -p tcp -s 0.0.0.0/0 --sport 0:65535 -j DROP"));
    EXPECT_TRUE(known.take("-A C -p tcp -s 10.0.0.5 --sport 80 -j DROP"));
    EXPECT_FALSE(known.take("-A C -p tcp -s localhost --sport 80 -j DROP"));
    EXPECT_FALSE(known.take("-A C -p udp -s 10.0.0.5 --sport 80 -j DROP"));
}

TEST(AClientsKnowledge, ComesFromAcceptedCommandsAlone) {
    KnownAnswers known;
    known.learn("-A C -s 10.0.0.5 -j DROP", false, kMuchRoom);
    EXPECT_FALSE(known.take("-A C -s 10.0.0.5 -j DROP"));
    known.learn("-A C -s localhost -j DROP", true, kMuchRoom);
    EXPECT_FALSE(known.take("-A C -s 10.0.0.5 -j DROP"));
}

TEST(AClientsKnowledge, EndsWithEveryCommandThatIsNoAppending) {
    for (const char *other : {"-F C", "-X C", "-D C -s 10.0.0.5 -j DROP", "-N C", "-Z", ""}) {
        KnownAnswers known;
        known.learn("-A C -s 10.0.0.5 -j DROP", true, kMuchRoom);
        known.learn(other, true, kMuchRoom);
        EXPECT_FALSE(known.take("-A C -s 10.0.0.6 -j DROP")) << other;
    }
}

TEST(AClientsKnowledge, EndsWhenTheTableIsFull) {
    KnownAnswers known;
    known.learn("-A C -s 10.0.0.5 -j DROP", true, 2);
    EXPECT_TRUE(known.take("-A C -s 10.0.0.6 -j DROP"));
    EXPECT_TRUE(known.take("-A C -s 10.0.0.7 -j DROP"));
    EXPECT_FALSE(known.take("-A C -s 10.0.0.8 -j DROP"));
    known.learn("-A C -s 10.0.0.8 -j DROP", true, 1);
    EXPECT_TRUE(known.take("-A C -s 10.0.0.9 -j DROP"));
    EXPECT_FALSE(known.take("-A C -s 10.0.0.9 -j DROP"));
}

TEST(AClientsKnowledge, StandsARefusal) {
    KnownAnswers known;
    known.learn("-A C -s 10.0.0.5 -j DROP", true, kMuchRoom);
    known.learn("-A B -s 10.0.0.5 -j DROP", false, kMuchRoom);
    EXPECT_TRUE(known.take("-A C -s 10.0.0.6 -j DROP"));
}

TEST(AClientsKnowledge, IsBoundedAndStaysTrue) {
    KnownAnswers known;
    for (int i = 0; i < 10'000; ++i)
        known.learn("-A C" + std::to_string(i) + " -j DROP", true, kMuchRoom);
    EXPECT_TRUE(known.take("-A C9999 -j DROP"));
    EXPECT_FALSE(known.take("-A C0 -j DROP"));
}

// ---- against the service's own grammar and table ----

class RandomCommands {
public:
    explicit RandomCommands(unsigned seed) : random_(seed) {}

    // Mostly of forms that came before; many are wrong in one way or another.
    std::string command() {
        if (chance(40))
            return one({"-F ", "-X ", "-N ", "-D "}) + chain() + (chance(2) ? " -j " + one({"VPK-A", "DROP"}) : "");
        if (chance(8) || forms_.size() < 8)
            forms_.push_back(form());
        if (forms_.size() > 8)
            forms_.pop_front();
        const auto &[begin, addressOption, portOption, end] = forms_[random_() % forms_.size()];
        return begin + (addressOption.empty() ? "" : addressOption + address()) +
               (portOption.empty() ? "" : portOption + ports()) + end;
    }
    bool chance(unsigned of) { return random_() % of == 0; }

private:
    std::string one(std::initializer_list<const char *> of) { return *(of.begin() + random_() % of.size()); }
    std::string chain() { return one({"VPK-A", "VPK-B", "VPK-C", "VPK-A", "INPUT", "OUTPUT", "FORWARD"}); }
    std::string address() {
        return one({"10.0.0.1", "10.0.0.2/24", "0.0.0.0/0", "1.2.3.4/0", "255.255.255.255", "10.0.0.256", "010.0.0.1",
                    "10.5", "-s", "10.0.0.1/33"});
    }
    std::string ports() { return one({"80", "0:65535", ":", "1:2", "2:1", "65535", "65536", "080"}); }
    std::array<std::string, 4> form() {
        const bool isSource = chance(2);
        const bool hasProtocol = chance(2);
        return {one({"-A ", "-A ", "-A ", "-A ", "-A ", "-I "}) + chain() +
                    (hasProtocol ? " -p " + one({"tcp", "udp", "tcp", "UDP", "icmp", "6", "nosuch", "-s"}) : ""),
                chance(3)  ? ""
                : isSource ? " -s "
                           : " -d ",
                !hasProtocol ? ""
                : isSource   ? " --sport "
                             : " --dport ",
                " -j " + one({"DROP", "ACCEPT", "VPK-A", "VPK-B", "VPK-C", "LOG -v --log-prefix=x", "LOG", "REJECT"}) +
                    (chance(20) ? one({" ", " -j DROP", "\n", "  x"}) : "")};
    }

    std::mt19937 random_;
    std::deque<std::array<std::string, 4>> forms_;
};

struct Outcome {
    rlv::Answer answer;
    std::uint64_t room = 0;
};

Outcome carryOut(rlv::Table &table, const std::string &options) {
    const auto parsed = rlv::parseCommand(options, "VPK-");
    const auto *command = std::get_if<rlv::Command>(&parsed);
    const auto answer = command == nullptr ? std::get<rlv::Answer>(parsed) : table.apply({*command}, options);
    return {answer, table.room()};
}

class EveryKnownAnswer : public testing::TestWithParam<unsigned> {};

// Of how many commands the answer was known. The table is small, so that it gets full.
int tryConnection(RandomCommands &commands) {
    rlv::TransactionalTable table(rlv::makeSimulatedBackend(), "VPK-", 60);
    KnownAnswers known;
    table.open();
    for (const char *made : {"-N VPK-A", "-N VPK-B", "-N VPK-C"})
        carryOut(table, made);
    int taken = 0;
    for (int i = 0; i < 500; ++i) {
        const std::string options = commands.command();
        const bool isKnown = known.take(options);
        const auto [answer, room] = carryOut(table, options);
        taken += isKnown ? 1 : 0;
        if (isKnown)
            EXPECT_EQ(0, answer.code) << options << ": " << answer.message;
        else
            known.learn(options, answer.code == 0, room);
        const bool isPushed = commands.chance(50);
        EXPECT_TRUE(!isPushed || table.push().lost.empty());
    }
    return taken;
}

TEST_P(EveryKnownAnswer, IsTheServices) {
    RandomCommands commands(GetParam());
    int taken = 0;
    for (int i = 0; i < 60; ++i)
        taken += tryConnection(commands);
    EXPECT_GT(taken, 1000) << "little was tried";
}

INSTANTIATE_TEST_SUITE_P(Seeds, EveryKnownAnswer, testing::Range(1U, 9U));

} // namespace
