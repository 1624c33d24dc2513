// The client of the traffic-control service, with the service behind it and the kernel's filter table behind that.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "probe.h"
#include "rlv/rlv.h"

namespace {

using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::SizeIs;
using testing::UnorderedElementsAreArray;

struct Answer {
    int result = -1;
    int code = -1;
    std::string message; // "as it was" when the client left it alone
};

Answer commit(rlv_handle handle, const std::string &options) {
    Answer answer;
    char left[] = "as it was";
    char *message = left;
    answer.result = rlv_iptables_commit(handle, options.c_str(), &answer.code, &message);
    answer.message = message != nullptr ? message : "null";
    if (message != left)
        std::free(message);
    return answer;
}

// A connection for as long as the object lives.
class Client {
public:
    Client() { EXPECT_EQ(0, rlv_initialize(&handle_)); }
    ~Client() { rlv_deinitialize(handle_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // The exit status of iptables for this command.
    int code(const std::string &options) const {
        const Answer answer = commit(handle_, options);
        EXPECT_EQ(0, answer.result) << options << ": " << answer.message;
        return answer.code;
    }
    int close() { return rlv_deinitialize(std::exchange(handle_, 0)); }
    rlv_handle handle() const { return handle_; }

private:
    rlv_handle handle_ = 0;
};

class ATrafficControlClient : public conformance::WithServices {
protected:
    static std::vector<std::string> rulesOf(const std::string &chain) {
        std::vector<std::string> found;
        for (const std::string &line : conformance::ask("rules")) {
            if (line.rfind("-A " + chain + " ", 0) == 0)
                found.push_back(line);
        }
        return found;
    }
    // A chain with one rule, in force.
    static void makeChain() {
        Client client;
        EXPECT_EQ(0, client.code("-N VPK-DENY"));
        EXPECT_EQ(0, client.code("-A VPK-DENY -s 10.0.0.1 -j DROP"));
        EXPECT_EQ(0, client.close());
    }
    // The numbers of all open files, and their flags.
    static std::map<int, int> descriptors() {
        std::map<int, int> found;
        for (int number = 0; number < 256; ++number) {
            const int flags = ::fcntl(number, F_GETFD);
            if (flags >= 0)
                found[number] = flags;
        }
        return found;
    }
    const std::string kFirst = "-A VPK-DENY -s 10.0.0.1/32 -j DROP";
    const std::string kSecond = "-A VPK-DENY -s 10.0.0.2/32 -j DROP";
};

// ---- connections ----

TEST_F(ATrafficControlClient, OpensAndClosesAConnection) {
    rlv_handle handle = 0;
    EXPECT_EQ(0, rlv_initialize(&handle));
    EXPECT_NE(0U, handle);
    EXPECT_EQ(0, rlv_deinitialize(handle));
    EXPECT_EQ(EBADF, rlv_deinitialize(handle));
}

TEST_F(ATrafficControlClient, KnowsNoHandleZeroAndNoOther) {
    for (const rlv_handle handle : {0U, 1234U}) {
        const Answer answer = commit(handle, "-F VPK-DENY");
        EXPECT_EQ(EBADF, answer.result);
        EXPECT_EQ(4, answer.code);
        EXPECT_NE("as it was", answer.message) << "it says why";
        EXPECT_EQ(EBADF, rlv_deinitialize(handle));
    }
}

TEST_F(ATrafficControlClient, GivesOutAHandleNotAgainSoon) {
    std::set<rlv_handle> handles;
    for (int i = 0; i < 20; ++i)
        handles.insert(Client().handle());
    EXPECT_THAT(handles, SizeIs(20));
}

TEST_F(ATrafficControlClient, KeepsItsDescriptorsFromStandardStreamsAndPrograms) {
    EXPECT_EQ(0, conformance::inChild([] {
                  for (const int stream : {0, 1, 2})
                      ::close(stream);
                  const auto before = descriptors();
                  Client client;
                  EXPECT_EQ(0, client.code("-N VPK-DENY"));
                  for (const auto &[number, flags] : descriptors()) {
                      if (number < 3)
                          return 10 + number;
                      if (before.count(number) == 0 && (flags & FD_CLOEXEC) == 0)
                          return 20;
                  }
                  return client.close();
              }));
}

TEST_F(ATrafficControlClient, StoresNoHandleWhenTheServiceDoesNotRun) {
    conformance::ask("stop");
    rlv_handle handle = 7;
    EXPECT_THAT(rlv_initialize(&handle), AnyOf(ENOENT, ECONNREFUSED));
    EXPECT_EQ(0U, handle);
}

TEST_F(ATrafficControlClient, WaitsForTheEndOfAnothersConnection) {
    constexpr std::chrono::milliseconds kHeld{300}; // the first connection, while the other one waits for its end
    Client first;
    auto other = std::async(std::launch::async, [] {
        return conformance::inChild([] {
            rlv_handle handle = 0;
            const int error = rlv_initialize(&handle);
            return error != 0 ? error : rlv_deinitialize(handle);
        });
    });
    EXPECT_EQ(std::future_status::timeout, other.wait_for(kHeld));
    EXPECT_EQ(0, first.close());
    EXPECT_EQ(0, other.get());
}

TEST_F(ATrafficControlClient, WorksWithTheStandardStreamsClosed) {
    EXPECT_EQ(0, conformance::inChild([] {
                  for (const int stream : {0, 1, 2})
                      ::close(stream);
                  Client client;
                  const int code = client.code("-N VPK-DENY");
                  return code != 0 ? code : client.close();
              }));
    EXPECT_THAT(conformance::ask("rules"), Contains("-N VPK-DENY"));
}

TEST_F(ATrafficControlClient, ServesSeveralThreadsOfOneProcess) {
    Client().code("-N VPK-DENY");
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            const Client client;
            for (int rule = 0; rule < 50; ++rule)
                EXPECT_EQ(0, client.code("-A VPK-DENY -j DROP"));
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_THAT(rulesOf("VPK-DENY"), SizeIs(200));
}

// ---- answers ----

TEST_F(ATrafficControlClient, LeavesTheMessageAloneWhenACommandIsAccepted) {
    const Client client;
    const Answer answer = commit(client.handle(), "-N VPK-DENY");
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ(0, answer.code);
    EXPECT_EQ("as it was", answer.message);
}

TEST_F(ATrafficControlClient, RefusesWithIptablesCodesAndGoesOn) {
    const Client client;
    EXPECT_EQ(1, client.code("-F VPK-DENY")) << "no such chain";
    EXPECT_THAT(client.code("-D INPUT -j VPK-DENY"), AnyOf(1, 2)) << "no such rule, no such chain";
    EXPECT_EQ(2, client.code("--no-such-option"));
    EXPECT_EQ(2, client.code(""));
    EXPECT_EQ(0, client.code("-N VPK-DENY"));
    EXPECT_EQ(1, client.code("-N VPK-DENY")) << "it is there";
}

TEST_F(ATrafficControlClient, AnswersForTheTableAsAllCommandsBeforeLeftIt) {
    Client client;
    for (const char *options : {"-N VPK-DENY", "-N VPK-OTHER", "-A VPK-DENY -s 10.0.0.1 -j VPK-OTHER"})
        EXPECT_EQ(0, client.code(options)) << options;
    EXPECT_THAT(client.code("-X VPK-OTHER"), AnyOf(1, 4)) << "it is in use";
    EXPECT_EQ(0, client.code("-F VPK-DENY"));
    EXPECT_EQ(0, client.code("-X VPK-OTHER"));
    EXPECT_EQ(2, client.code("-A VPK-DENY -s 10.0.0.1 -j VPK-OTHER")) << "no such target";
    EXPECT_EQ(0, client.code("-A VPK-DENY -s 10.0.0.1 -j DROP"));
    EXPECT_EQ(1, client.code("-D VPK-DENY -s 10.0.0.2 -j DROP")) << "no such rule";
    EXPECT_EQ(0, client.code("-F VPK-DENY"));
    EXPECT_EQ(0, client.code("-X VPK-DENY"));
    EXPECT_EQ(1, client.code("-A VPK-DENY -s 10.0.0.1 -j DROP")) << "no such chain";
    EXPECT_EQ(0, client.close());
}

// ---- the border ----

// What a rule's fields can make of the text. Of this nothing may be done, and no part of it.
TEST_F(ATrafficControlClient, RefusesEveryOtherTextAndDoesNoPartOfIt) {
    makeChain();
    const auto before = conformance::ask("rules");
    std::string folder = (std::filesystem::temp_directory_path() / "conformance-XXXXXX").string();
    ASSERT_NE(nullptr, ::mkdtemp(folder.data()));
    const std::string made = folder + "/made";
    Client client;
    for (const std::string &options : {
             std::string("-A VPK-DENY -s 10.0.0.2 -j DROP\n-F VPK-DENY"),
             std::string("-A VPK-DENY -s 10.0.0.2\n-j DROP"),
             std::string("-A VPK-DENY\t-s 10.0.0.2 -j DROP"),
             "-A VPK-DENY -s 10.0.0.2 -j DROP; touch " + made,
             "-A VPK-DENY -s 10.0.0.2 -j DROP & touch " + made,
             "-A VPK-DENY -s $(touch " + made + ") -j DROP",
             "-A VPK-DENY -s `touch " + made + "` -j DROP",
             "-A VPK-DENY -s 10.0.0.2 -j DROP > " + made,
             std::string("-A VPK-DENY -s '10.0.0.2' -j DROP"),
             std::string("-t nat -N VPK-DENY"),
             std::string("-A VPK-DENY -t nat -j DROP"),
             std::string("-t filter -F VPK-DENY"),
             std::string("-A VPK-DENY --modprobe=/bin/true -j DROP"),
             std::string("-A VPK-DENY -s 10.0.0.2 -j DROP -j ACCEPT"),
             std::string("-A VPK-DENY -s 10.0.0.2 -j DROP --dport 80"),
             std::string("-A VPK-DENY ! -s 10.0.0.2 -j DROP"),
             std::string("-A VPK-DENY -s 10.0.0.2,0.0.0.0/0 -j DROP"),
             std::string("-A VPK-DENY -s 10.0.0.2/33 -j DROP"),
             std::string("-A VPK-DENY -i lo -j DROP"),
             std::string("-A VPK-DENY -m comment --comment x -j DROP"),
             std::string("-A VPK-DENY -p tcp --dport 65536 -j DROP"),
             std::string("-A VPK-DENY -p udp --dport 65536 -j DROP"),
             std::string("-A VPK-DENY -p tcp --dport 80,443 -j DROP"),
             std::string("-A VPK-DENY -j REJECT"),
             std::string("-F"),
             std::string("-F INPUT"),
             std::string("-F OUTPUT"),
             std::string("-X"),
             std::string("-P INPUT DROP"),
             std::string("-I VPK-DENY -j ACCEPT"),
             std::string("-R VPK-DENY 1 -j ACCEPT"),
             std::string("-Z VPK-DENY"),
             std::string("-A INPUT -j ACCEPT"),
             std::string("-A FORWARD -j DROP"),
             "-A VPK-DENY -s " + std::string(10'000, '1') + " -j DROP",
         })
        EXPECT_NE(0, client.code(options)) << options;
    EXPECT_EQ(0, client.code("-A VPK-DENY -s 10.0.0.2 -j DROP")) << "the connection goes on";
    EXPECT_EQ(0, client.close());
    EXPECT_THAT(rulesOf("VPK-DENY"), ElementsAre(kFirst, kSecond));
    auto expected = before;
    expected.push_back(kSecond);
    EXPECT_THAT(conformance::ask("rules"), UnorderedElementsAreArray(expected));
    EXPECT_EQ(1U, std::filesystem::remove_all(folder)) << "something was made in it";
}

// ---- what comes into force, and when ----

TEST_F(ATrafficControlClient, PutsIntoForceEachFormOfRuleThatThePluginUses) {
    const struct {
        const char *options;
        const char *rule;
    } forms[] = {
        {"-A VPK-DENY -p tcp -s 10.0.0.5 --sport 80 -j DROP",
         "-A VPK-DENY -s 10.0.0.5/32 -p tcp -m tcp --sport 80 -j DROP"},
        {"-A VPK-DENY -p udp -d 10.1.0.0/16 --dport 5000:5100 -j DROP",
         "-A VPK-DENY -d 10.1.0.0/16 -p udp -m udp --dport 5000:5100 -j DROP"},
        {"-A VPK-DENY -p icmp -j DROP", "-A VPK-DENY -p icmp -j DROP"},
        {"-A VPK-DENY -s 10.0.0.6 -j ACCEPT", "-A VPK-DENY -s 10.0.0.6/32 -j ACCEPT"},
        {"-A VPK-DENY -d 10.0.0.7 -j VPK-LOG", "-A VPK-DENY -d 10.0.0.7/32 -j VPK-LOG"},
        {"-A VPK-DENY -j LOG -v --log-prefix=IPTables-Dropped:",
         "-A VPK-DENY -j LOG --log-prefix \"IPTables-Dropped:\""},
    };
    Client client;
    EXPECT_EQ(0, client.code("-N VPK-DENY"));
    EXPECT_EQ(0, client.code("-N VPK-LOG"));
    std::vector<std::string> expected;
    for (const auto &form : forms) {
        EXPECT_EQ(0, client.code(form.options)) << form.options;
        expected.emplace_back(form.rule);
    }
    EXPECT_EQ(0, client.code("-A OUTPUT -j VPK-DENY"));
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(expected, rulesOf("VPK-DENY"));
    EXPECT_THAT(rulesOf("OUTPUT"), ElementsAre("-A OUTPUT -j VPK-DENY"));
}

TEST_F(ATrafficControlClient, NeedsNoEndForWhatIsOnlyAdded) {
    makeChain();
    const Client client;
    EXPECT_EQ(0, client.code("-A VPK-DENY -s 10.0.0.2 -j DROP"));
    EXPECT_TRUE(conformance::waitUntil([&] { return rulesOf("VPK-DENY").size() == 2; }));
}

TEST_F(ATrafficControlClient, KeepsTheOldRulesInForceUntilTheEndAfterARemoval) {
    makeChain();
    Client client;
    EXPECT_EQ(0, client.code("-F VPK-DENY"));
    EXPECT_EQ(0, client.code("-A VPK-DENY -s 10.0.0.2 -j DROP"));
    EXPECT_THAT(rulesOf("VPK-DENY"), ElementsAre(kFirst));
    EXPECT_EQ(0, client.close());
    EXPECT_THAT(rulesOf("VPK-DENY"), ElementsAre(kSecond));
}

TEST_F(ATrafficControlClient, DropsWhatAnInterruptedConnectionBeganWithARemoval) {
    makeChain();
    EXPECT_EQ(0, conformance::inChild([] {
                  rlv_handle handle = 0;
                  rlv_initialize(&handle);
                  const int code = commit(handle, "-F VPK-DENY").code;
                  return code != 0 ? code : commit(handle, "-A VPK-DENY -s 10.0.0.2 -j DROP").code;
              }));
    EXPECT_EQ(0, Client().close()) << "the next one is not held up";
    EXPECT_THAT(rulesOf("VPK-DENY"), ElementsAre(kFirst));
}

// What is closed by a destructor while an exception leaves the operation, as the plugin does when its database fails in
// the middle of a rebuild.
int closedByException(const std::vector<std::string> &commands) {
    struct AtEnd {
        int &closed;
        rlv_handle handle = 0;
        ~AtEnd() { closed = rlv_deinitialize(handle); }
    };
    int closed = -1;
    try {
        AtEnd atEnd{closed};
        EXPECT_EQ(0, rlv_initialize(&atEnd.handle));
        for (const std::string &options : commands)
            EXPECT_EQ(0, commit(atEnd.handle, options).code) << options;
        throw std::runtime_error("in the middle");
    } catch (const std::runtime_error &) {
        return closed;
    }
}

TEST_F(ATrafficControlClient, DropsWhatBeganWithARemovalWhenAnExceptionClosesIt) {
    makeChain();
    closedByException({"-F VPK-DENY", "-A VPK-DENY -s 10.0.0.2 -j DROP"});
    EXPECT_THAT(rulesOf("VPK-DENY"), ElementsAre(kFirst));
    Client next;
    EXPECT_EQ(0, next.code("-A VPK-DENY -s 10.0.0.2 -j DROP"));
    EXPECT_EQ(0, next.close());
    EXPECT_THAT(rulesOf("VPK-DENY"), ElementsAre(kFirst, kSecond));
}

TEST_F(ATrafficControlClient, KeepsWhatWasOnlyAddedWhenAnExceptionClosesIt) {
    makeChain();
    closedByException({"-A VPK-DENY -s 10.0.0.2 -j DROP"});
    EXPECT_THAT(rulesOf("VPK-DENY"), ElementsAre(kFirst, kSecond));
}

TEST_F(ATrafficControlClient, FailsToCloseWhatAnExceptionInterrupts) {
    makeChain();
    EXPECT_NE(0, closedByException({"-F VPK-DENY"}));
    EXPECT_NE(0, closedByException({"-A VPK-DENY -s 10.0.0.2 -j DROP"}));
}

TEST_F(ATrafficControlClient, IsNotInterruptedByAnExceptionWithoutACommand) { EXPECT_EQ(0, closedByException({})); }

TEST_F(ATrafficControlClient, ChangesNoRulesOfOthers) {
    makeChain();
    const auto before = conformance::ask("rules");
    {
        Client client;
        EXPECT_EQ(0, client.code("-N VPK-OTHER"));
        EXPECT_EQ(0, client.code("-A VPK-OTHER -j DROP"));
        EXPECT_EQ(0, client.code("-F VPK-OTHER"));
        EXPECT_EQ(0, client.code("-X VPK-OTHER"));
        EXPECT_EQ(0, client.close());
    }
    EXPECT_EQ(before, conformance::ask("rules"));
}

} // namespace
