// The service with the kernel's table, over a netlink socket on which calls fail, answers are lost and rules are
// refused.
#include "rlvd-process.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/mapped-plan.h"
#include "support/netlink-faults.h"

namespace {

using netlink_faults::Calls;
using netlink_faults::Plan;
using netlink_faults::Telling;
using testing::AnyOf;
using testing::HasSubstr;
using namespace rlvd;
using Words = std::vector<std::string>;

constexpr const char *kPlanPath = "/run/netlink-faults";

process::Options withFaults() {
    const char *const old = std::getenv("ASAN_OPTIONS");
    process::Options how;
    how.environment = {"LD_PRELOAD=" NYR_BINARY_DIR "/lib/libnetlink-faults.so",
                       std::string(netlink_faults::kPlanVariable) + "=" + kPlanPath,
                       "ASAN_OPTIONS=" + std::string(old != nullptr ? old : "") + ":verify_asan_link_order=0"};
    return how;
}

void arrange(Calls &calls, int skip, int error, int times = 1) {
    calls.skip = skip;
    calls.error = error;
    calls.met = 0;
    calls.times = times;
}

std::string chainOf(const Words &rules) {
    std::string text;
    for (const auto &rule : rules)
        text += "-A VPK-DENY -s " + rule + "/32 -j DROP\n";
    return text;
}

// What the caller of a connection was told.
struct Outcome {
    int opened = 0;
    std::uint64_t number = 0;
    Words refused; // answers other than 0
    int closed = 0;

    bool isGood() const { return opened == 0 && refused.empty() && closed == 0; }
};

Outcome connect(const Words &commands) {
    Outcome outcome;
    rlv_handle handle = 0;
    rlv::takeOpenings();
    outcome.opened = rlv_initialize(&handle);
    if (outcome.opened != 0)
        return outcome;
    outcome.number = rlv::takeOpenings().at(0).number;
    for (const auto &command : commands) {
        int code = -1;
        char *message = nullptr;
        EXPECT_EQ(0, rlv_iptables_commit(handle, command.c_str(), &code, &message));
        if (code != 0)
            outcome.refused.push_back(command + ": " + (message != nullptr ? message : ""));
        std::free(message);
    }
    outcome.closed = rlv_deinitialize(handle);
    return outcome;
}

const Words kOld{"10.0.0.1", "10.0.0.2"};
const Words kNew{"10.0.0.3", "10.0.0.4", "10.0.0.5"};

Words appending(const Words &rules) {
    Words commands;
    for (const auto &rule : rules)
        commands.push_back("-A VPK-DENY -s " + rule + " -j DROP");
    return commands;
}

Words refilling(const Words &rules) {
    Words commands = appending(rules);
    commands.insert(commands.begin(), "-F VPK-DENY");
    return commands;
}

class AFaultyNetlink : public testing::Test {
protected:
    AFaultyNetlink() : plan(*mapped_plan::make<Plan>(kPlanPath)) { startAnew(); }
    void startAnew() {
        service.reset();
        service = std::make_unique<Service>(Words{}, withFaults());
    }

    static std::string rules() {
        return process::capture({"iptables", "-S", "VPK-DENY"}).output.substr(std::strlen("-N VPK-DENY\n"));
    }
    // As somebody else, so that the service has to read. It does not know yet what should stand, or it would put that
    // back.
    void foreign(const Words &rules, int many = 0) {
        startAnew();
        process::Options how;
        how.input = "*filter\n:VPK-DENY -\n-F VPK-DENY\n" + chainOf(rules);
        for (int i = 0; i < many; ++i)
            how.input += "-A VPK-DENY -s 10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                         " -p tcp --sport 80 -j DROP\n";
        how.input += "COMMIT\n";
        const auto result = process::capture({"iptables-restore", "--noflush"}, how);
        ASSERT_EQ(0, result.status) << result.errors;
    }

    // Nothing that was lost is passed over in silence.
    void expectTold(const Outcome &outcome, const Words &commands) const {
        EXPECT_THAT(outcome.refused, testing::IsEmpty());
        EXPECT_EQ(EIO, outcome.closed);
        const auto lost = outcomeOf(outcome.number).failed;
        ASSERT_EQ(commands.size(), lost.size());
        for (std::size_t i = 0; i < commands.size(); ++i) {
            EXPECT_EQ(commands[i], lost[i].options);
            EXPECT_THAT(service->log(), HasSubstr("connection " + std::to_string(outcome.number) + ": lost (4, " +
                                                  lost[i].message + "): " + commands[i] + "\n"));
        }
    }

    // One connection with a call that fails, then one without. False when the call was not reached.
    bool runWith(Calls &calls, const Words &commands, const std::string &after) {
        const int error = calls.error;
        const bool isMissing = &calls == &plan.receptions && error == EAGAIN; // when asked for what is there
        SCOPED_TRACE("the call " + std::to_string(calls.skip) + " fails: " + std::strerror(error));
        foreign(kOld);
        calls.times = 1; // from here on
        const Outcome outcome = connect(commands);
        const bool wasMet = calls.times == 0;
        calls.times = 0;
        const std::string now = rules();
        closesFailed += outcome.closed != 0 ? 1 : 0;
        if (outcome.isGood()) {
            EXPECT_EQ(after, now);
        } else {
            EXPECT_THAT(now, AnyOf(chainOf(kOld), after));
            if (outcome.opened == 0) {
                expectTold(outcome, commands);
                EXPECT_EQ(rlv::ConnectionEnd::interrupted, outcomeOf(outcome.number).end);
            } else {
                EXPECT_EQ(isMissing ? EIO : error, outcome.opened);
            }
        }
        EXPECT_TRUE(connect(refilling(kNew)).isGood());
        EXPECT_EQ(chainOf(kNew), rules());
        return wasMet;
    }

    // Each call that a connection makes fails once, in each of these ways. `cost` tells whether that can cost commands.
    void runWithEach(Calls &calls, const Words &commands, const std::string &after, const std::vector<int> &errors,
                     bool cost = true) {
        for (const int error : errors) {
            int place = 0;
            closesFailed = 0;
            do {
                arrange(calls, place, error, 0);
            } while (runWith(calls, commands, after) && ++place < 100);
            EXPECT_LE(4, place);
            EXPECT_EQ(cost, closesFailed > 0) << std::strerror(error);
        }
    }

    bool removeWith(Calls &calls, int place, int error);

    Plan &plan;
    std::unique_ptr<Service> service;
    int closesFailed = 0;
    int removalsFailed = 0;
};

TEST_F(AFaultyNetlink, LosesNothingInSilenceWhenASendingFails) {
    runWithEach(plan.sendings, refilling(kNew), chainOf(kNew), {EPERM, ENOBUFS, ENOMEM, EAGAIN});
    runWithEach(plan.sendings, appending(kNew), chainOf(kOld) + chainOf(kNew), {ENOBUFS});
}

TEST_F(AFaultyNetlink, LosesNothingInSilenceWhenAReceptionFails) {
    runWithEach(plan.receptions, refilling(kNew), chainOf(kNew), {EPERM, ENOMEM, EAGAIN});
    runWithEach(plan.receptions, appending(kNew), chainOf(kOld) + chainOf(kNew), {ENOMEM});
}

TEST_F(AFaultyNetlink, LosesNothingInSilenceWhenAnAnswerIsLost) {
    runWithEach(plan.answers, refilling(kNew), chainOf(kNew), {ENOBUFS});
    runWithEach(plan.answers, appending(kNew), chainOf(kOld) + chainOf(kNew), {ENOBUFS});
}

// A full buffer says nothing of an acknowledgement that lies in it.
TEST_F(AFaultyNetlink, LosesNothingWhereItNeedOnlyTryAgain) {
    runWithEach(plan.sendings, refilling(kNew), chainOf(kNew), {EINTR}, false);
    runWithEach(plan.receptions, refilling(kNew), chainOf(kNew), {EINTR, ENOBUFS}, false);
}

// The kernel always answers at once: nobody waits for what is not there.
TEST_F(AFaultyNetlink, DoesNotHoldUpTheServiceWithAnAnswerThatNeverComes) {
    foreign(kOld);
    arrange(plan.answers, 0, 0);
    EXPECT_EQ(EIO, connect({}).opened);
    EXPECT_EQ(1, plan.answers.met);
    EXPECT_TRUE(connect(refilling(kNew)).isGood());
    EXPECT_EQ(chainOf(kNew), rules());
}

TEST_F(AFaultyNetlink, CostsEachCommandThatIsSentWhileItLasts) {
    foreign(kOld);
    Client client;
    arrange(plan.sendings, 0, ENOBUFS, 1'000'000);
    for (const auto &command : appending(kNew)) {
        EXPECT_EQ("0: ", client.commit(command));
        const std::string line = "netlink send: No buffer space available): " + command + "\n";
        EXPECT_TRUE(service->process().waitReady([&] { return service->log().find(line) != std::string::npos; }));
    }
    EXPECT_LE(3, plan.sendings.met);
    plan.sendings.times = 0;
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -s 10.0.0.9 -j DROP"));
    EXPECT_EQ(EIO, client.close());
    EXPECT_EQ(3U, outcomeOf(1).failed.size()) << service->log();
    EXPECT_EQ(chainOf(kOld) + chainOf({"10.0.0.9"}), rules());
}

TEST_F(AFaultyNetlink, ReadsAgainAfterALongReadingThatBrokeOff) {
    for (const int skip : {1, 4, 10}) {
        foreign(kOld, 10'000);
        arrange(plan.receptions, skip, ENOMEM);
        EXPECT_EQ(ENOMEM, connect({}).opened);
        EXPECT_EQ(1, plan.receptions.met);
        const Outcome outcome = connect(refilling(kNew));
        EXPECT_TRUE(outcome.isGood()) << std::strerror(outcome.opened);
        EXPECT_EQ(chainOf(kNew), rules());
    }
}

TEST_F(AFaultyNetlink, TakesAReadingThatEndsWithAnErrorForNone) {
    foreign(kOld);
    arrange(plan.dumpEnds, 1, ENOMEM);
    EXPECT_EQ(ENOMEM, connect({}).opened);
    EXPECT_EQ(1, plan.dumpEnds.met);
    EXPECT_TRUE(connect(refilling(kNew)).isGood());
    EXPECT_EQ(chainOf(kNew), rules());
}

TEST_F(AFaultyNetlink, AnswersAQuestionAfterOneThatFailed) {
    foreign(kOld);
    arrange(plan.receptions, 0, ENOBUFS);
    EXPECT_THROW(rlv::query(0), std::system_error);
    EXPECT_EQ(2U, rulesOf("VPK-DENY"));
}

// The call at `place` of a removal fails. False when it was not reached.
bool AFaultyNetlink::removeWith(Calls &calls, int place, int error) {
    SCOPED_TRACE("the call " + std::to_string(place) + " fails: " + std::strerror(error));
    foreign(kOld);
    EXPECT_TRUE(connect(refilling(kNew)).isGood());
    arrange(calls, place, error);
    const auto removed = ended({"--remove-tables"});
    const bool wasMet = calls.times == 0;
    calls.times = 0;
    if (removed.status == 0) {
        EXPECT_EQ(1, process::capture({"iptables", "-S", "VPK-DENY"}).status) << "it is gone";
        return wasMet;
    }
    ++removalsFailed;
    EXPECT_THAT(removed.errors, HasSubstr("rlvd: "));
    const auto isBack = [] { return rules() == chainOf(kNew); };
    EXPECT_TRUE(process::waitUntil(isBack)) << service->log();
    EXPECT_EQ(0, process::capture({"iptables", "-F", "VPK-DENY"}).status);
    EXPECT_TRUE(process::waitUntil(isBack)) << service->log();
    return wasMet;
}

TEST_F(AFaultyNetlink, LeavesWhatCouldNotBeRemovedDefended) {
    for (const auto &[calls, error] :
         {std::make_pair(&plan.sendings, ENOBUFS), std::make_pair(&plan.receptions, ENOMEM),
          std::make_pair(&plan.answers, ENOBUFS)}) {
        removalsFailed = 0;
        for (int place = 0; removeWith(*calls, place, error) && place < 100; ++place) {
        }
        EXPECT_LE(1, removalsFailed);
    }
}

TEST_F(AFaultyNetlink, DoesNotLetTheServiceStartWithoutASocket) {
    service.reset();
    arrange(plan.sockets, 0, EMFILE);
    const auto result = ended({}, withFaults());
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("rlvd: netlink socket: Too many open files\n", result.errors);
}

class ARefusingKernel : public AFaultyNetlink {
protected:
    ARefusingKernel() { foreign(kOld); }
    void refuse(const std::string &address, int error, Telling telling) {
        in_addr parsed{};
        ASSERT_EQ(1, ::inet_pton(AF_INET, address.c_str(), &parsed));
        plan.refusedAddress = parsed.s_addr;
        plan.telling = telling;
        plan.refusalError = error;
    }
    void expectRepaired() {
        plan.refusalError = 0;
        EXPECT_TRUE(connect(refilling(kNew)).isGood());
        EXPECT_EQ(chainOf(kNew), rules());
    }
};

TEST_F(ARefusingKernel, CostsTheRefusedCommandAlone) {
    for (const int error : {EBUSY, EPERM, EINVAL}) {
        for (const auto telling : {Telling::byMessage, Telling::asAWhole}) {
            refuse("10.0.0.4", error, telling);
            const Outcome outcome = connect(refilling(kNew));
            expectTold(outcome, appending({"10.0.0.4"}));
            EXPECT_EQ(rlv::ConnectionEnd::closed, outcomeOf(outcome.number).end) << "it would be refused again";
            EXPECT_THAT(service->log(),
                        HasSubstr(std::string("RULE_APPEND failed (") + std::strerror(error) + "): rule in chain"));
            EXPECT_EQ(chainOf({"10.0.0.3", "10.0.0.5"}), rules());
            expectRepaired();
            foreign(kOld);
        }
    }
}

// With the half of a transaction that there is memory for, the firewall would stand open.
TEST_F(ARefusingKernel, CostsTheWholeConnectionWhereItIsShortOfMemory) {
    for (const auto telling : {Telling::byMessage, Telling::asAWhole}) {
        refuse("10.0.0.4", ENOMEM, telling);
        const Outcome outcome = connect(refilling(kNew));
        expectTold(outcome, refilling(kNew));
        EXPECT_EQ(rlv::ConnectionEnd::interrupted, outcomeOf(outcome.number).end) << "it may pass";
        EXPECT_EQ(chainOf(kOld), rules());
        expectRepaired();
        foreign(kOld);
    }
}

TEST_F(ARefusingKernel, CostsTheWholeConnectionWhereItOnlyTellsAtTheEnd) {
    refuse("10.0.0.4", ENOMEM, Telling::atTheEndOnly);
    expectTold(connect(refilling(kNew)), refilling(kNew));
    EXPECT_EQ(chainOf(kOld), rules());
    expectRepaired();
}

TEST_F(ARefusingKernel, CostsTheRefusedCommandOfAnAddingConnectionAlone) {
    refuse("10.0.0.4", EINVAL, Telling::byMessage);
    expectTold(connect(appending(kNew)), appending({"10.0.0.4"}));
    EXPECT_EQ(chainOf(kOld) + chainOf({"10.0.0.3", "10.0.0.5"}), rules());
    expectRepaired();
}

} // namespace
