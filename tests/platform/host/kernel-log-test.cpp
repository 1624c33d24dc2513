#include "host/kernel-log.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/klog.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using host::inDeviceDialect;
using host::KernelRecord;
using host::parseKernelRecord;
using testing::EndsWith;

const std::string kPacket = "IN= OUT=lo SRC=127.0.0.1 DST=127.0.0.2 LEN=60 TOS=0x00 PREC=0x00 TTL=64 ID=1 DF PROTO=TCP "
                            "SPT=40000 DPT=80 WINDOW=65495 RES=0x00 SYN URGP=0 ";

// A kernel log that hands out the given records; a negative number as text stands for that errno.
host::ReadKernelRecord readerOf(std::vector<std::string> records) {
    return [records = std::move(records), next = std::size_t{0}](char *buffer, std::size_t size) mutable -> ssize_t {
        if (next == records.size()) {
            errno = EAGAIN;
            return -1;
        }
        const std::string &record = records[next++];
        if (record.front() == '-') {
            errno = -std::stoi(record);
            return -1;
        }
        return static_cast<ssize_t>(record.copy(buffer, size));
    };
}

std::string copied(const std::vector<std::string> &records, int size) {
    std::string buffer(static_cast<std::size_t>(size), '#');
    const int length = host::copyKernelLog(readerOf(records), buffer.data(), size);
    return length < 0 ? "failed" : buffer.substr(0, static_cast<std::size_t>(length));
}

TEST(AKernelRecord, IsReadWithItsPriorityItsTimeAndItsText) {
    const auto record = parseKernelRecord("6,339,5140900,-;hello world\n");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->priority, 6U);
    EXPECT_EQ(record->microseconds, 5140900U);
    EXPECT_EQ(record->text, "hello world");
}

TEST(AKernelRecord, LosesItsDictionaryAndTheCaller) {
    const auto record = parseKernelRecord("4,12,77,-,caller=T1;text;more\n SUBSYSTEM=pci\n DEVICE=+pci:0000\n");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->text, "text;more");
}

TEST(AKernelRecord, IsRidOfItsEscapes) {
    const auto record = parseKernelRecord("4,12,77,-;a\\x0ab\\x5cx41\\xfc\\xZZ\\x4");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->text, "a\nb\\x41\xfc\\xZZ\\x4");
}

TEST(AKernelRecord, IsRefusedWhenItsHeadIsNotOne) {
    for (const char *raw : {"", "text", "4,12,77;text", "x,12,77,-;text", "4,12,,-;text", "4,12,7x,-;text"})
        EXPECT_FALSE(parseKernelRecord(raw)) << raw;
}

TEST(TheDeviceDialect, PutsProcessorAndHyphenBeforeTheSeconds) {
    EXPECT_EQ(inDeviceDialect({4, 513605353, "IPTables-Dropped:" + kPacket}),
              "<4>[0-  513.605353] IPTables-Dropped:" + kPacket + "\n");
    EXPECT_EQ(inDeviceDialect({30, 1234567000042, "user"}), "<30>[0-1234567.000042] user\n");
}

TEST(TheDeviceDialect, StampsEachLineOfARecord) {
    EXPECT_EQ(inDeviceDialect({4, 0, "one\n\ntwo\n"}),
              "<4>[0-    0.000000] one\n<4>[0-    0.000000] \n<4>[0-    0.000000] two\n");
}

struct ForgedLine {
    const char *what;
    KernelRecord record;
};

TEST(APacketsLine, IsLeftOutWhereTheClockHasGoneWrong) {
    const std::string line = "IPTables-Dropped:" + kPacket;
    EXPECT_EQ(inDeviceDialect({4, std::uint64_t{2147483647} * 1'000'000, line}),
              "<4>[0-2147483647.000000] " + line + "\n");
    EXPECT_EQ(inDeviceDialect({4, std::uint64_t{2147483648} * 1'000'000, line}), "");
    EXPECT_EQ(inDeviceDialect({4, 18446744073709551615U, line}), "");
    EXPECT_EQ(inDeviceDialect({4, 18446744073709551615U, "clock"}), "<4>[0-18446744073709.551615] clock\n");
}

TEST(AForgedLine, IsLeftOut) {
    for (const auto &[what, record] : std::vector<ForgedLine>{
             {"written by a program", {12, 0, "IPTables-Dropped:" + kPacket}},
             {"of another facility", {3 * 8 + 4, 0, "IPTables-Dropped:" + kPacket}},
             {"prefix not first", {4, 0, "x IPTables-Dropped:" + kPacket}},
             {"no IN= behind the prefix", {4, 0, "IPTables-Dropped: " + kPacket}},
             {"nothing behind the prefix", {4, 0, "IPTables-Dropped:"}},
             {"prefix twice", {4, 0, "IPTables-Dropped:IPTables-Dropped:" + kPacket}},
             {"a control character", {4, 0, "IPTables-Dropped:IN=a OUT= SRC=1.2.3.4 DST=1.2.3.4\rb"}}})
        EXPECT_EQ(inDeviceDialect(record), "") << what;
}

TEST(AForgedLine, IsLeftOutWhereItFollowsALineBreak) {
    EXPECT_EQ(inDeviceDialect({4, 0, "usb: name\nIPTables-Dropped:" + kPacket}), "<4>[0-    0.000000] usb: name\n");
}

TEST(APacketDescription, MayBeOfAnyProtocol) {
    for (const char *text :
         {"IN=eth0.7 OUT= MAC=02:00:00:00:00:01:02:00:00:00:00:02:08:00 SRC=10.0.0.1 DST=10.0.0.2 PROTO=UDP SPT=0 "
          "DPT=65535 LEN=8",
          "IN=br0 OUT= PHYSIN=eth0 SRC=10.0.0.1 DST=10.0.0.2 LEN=84 PROTO=ICMP TYPE=8 CODE=0 ID=1 SEQ=1 ",
          "IN=lo OUT= SRC=1.1.1.1 DST=2.2.2.2 PROTO=ICMP TYPE=3 CODE=3 [SRC=2.2.2.2 DST=1.1.1.1 PROTO=UDP SPT=9 DPT=53 "
          "LEN=9 ] MARK=0x1 ",
          "IN=lo OUT= SRC=1.1.1.1 DST=2.2.2.2 LEN=30 PROTO=TCP INCOMPLETE [8 bytes] ",
          "IN=lo OUT= SRC=1.1.1.1 DST=2.2.2.2"})
        EXPECT_TRUE(host::isPacketDescription(text)) << text;
}

TEST(APacketDescription, HoldsNoAddressOrPortThatIsNotThePackets) {
    for (const char *text :
         {"IN=SRC=6.6.6.6 OUT= SRC=1.1.1.1 DST=2.2.2.2", "IN= OUT=DST=6.6.6.6 SRC=1.1.1.1 DST=2.2.2.2",
          "IN= OUT=lo SRC=1.1.1.1 OPT DST=2.2.2.2", "IN= OUT=lo DST=2.2.2.2 SRC=1.1.1.1 DST=2.2.2.2",
          "IN= OUT=lo SRC=1.1.1.1", "IN= OUT=lo SRC=1.1.1 DST=2.2.2.2", "IN= OUT=lo SRC=1.1.1.256 DST=2.2.2.2",
          "IN= OUT=lo SRC=1.1.1.1.1 DST=2.2.2.2", "IN= OUT=lo SRC= DST=2.2.2.2", "IN= OUT=lo SRC=fe80::1 DST=fe80::2",
          "IN= OUT=lo SRC=1.1.1.1 DST=2.2.2.2 SPT= DPT=1", "IN= OUT=lo SRC=1.1.1.1 DST=2.2.2.2 SPT=x DPT=1",
          "IN= OUT=lo SRC=1.1.1.1 DST=2.2.2.2 SPT=1 DPT=65536", "IN= OUT=lo SRC=1.1.1.1 DST=2.2.2.2 SPT=1 DPT=-1",
          "IN= OUT=lo SRC=1.1.1.1 DST=2.2.2.2 XSPT=1 DPT=1", "IN= OUT=lo SRC=1.1.1.1 DST=2.2.2.2 [SRC=x DST=1.1.1.1",
          "IN= SRC=1.1.1.1 DST=2.2.2.2", "OUT=lo SRC=1.1.1.1 DST=2.2.2.2"})
        EXPECT_FALSE(host::isPacketDescription(text)) << text;
}

struct Named {
    const char *device;
    const char *shown;
};

TEST(ADeviceName, CannotBeTakenForAnAddressOrAPort) {
    for (const auto &[device, shown] : std::vector<Named>{{"SRC=6.6.6.6", "SRC_6.6.6.6"},
                                                          {"DST=6.6.6.6", "DST_6.6.6.6"},
                                                          {"SPT=7", "SPT_7"},
                                                          {"xDPT=x", "xDPT_x"},
                                                          {"[SRC=", "[SRC_"},
                                                          {"SRC==SRC=", "SRC__SRC_"},
                                                          {"IN=", "IN_"},
                                                          {"\x01-\x7f", "_-_"},
                                                          {"eth0", "eth0"}}) {
        for (const std::string head :
             {"IN=# OUT= ", "IN= OUT=# ", "IN=# OUT=# ", "IN=br0 OUT=br0 PHYSIN=# PHYSOUT=# "}) {
            const auto with = [&head](const char *name) {
                std::string text = head;
                for (auto at = text.find('#'); at != std::string::npos; at = text.find('#'))
                    text.replace(at, 1, name);
                return "IPTables-Dropped:" + text + "MAC=02:00 SRC=1.1.1.1 DST=2.2.2.2 PROTO=UDP SPT=1 DPT=2 LEN=8";
            };
            EXPECT_EQ(inDeviceDialect({4, 0, with(device)}), "<4>[0-    0.000000] " + with(shown) + "\n");
        }
    }
}

TEST(ADeviceName, IsAllThatIsMadePlain) {
    const std::string decoded = "IN=a OUT=b MACSRC=02:01 MACDST=02:02 MACPROTO=0800 SRC=1.1.1.1 DST=2.2.2.2";
    EXPECT_EQ(host::withPlainNames(decoded),
              "IN=a OUT=b MACSRC_02:01 MACDST_02:02 MACPROTO=0800 SRC=1.1.1.1 DST=2.2.2.2");
    const std::string forged = "IN=a OUT=b SRC=1.1.1.1 DST=2.2.2.2 MAC=SRC=6.6.6.6";
    EXPECT_EQ(host::withPlainNames(forged), forged);
    EXPECT_FALSE(host::isPacketDescription(forged));
    EXPECT_EQ(host::withPlainNames(""), "");
    EXPECT_EQ(host::withPlainNames("IN="), "IN=");
}

TEST(TheKernelLog, IsCopiedWholeWhereItFits) {
    const std::vector<std::string> records = {"4,1,1000000,-;one", "4,2,2000000,-;two"};
    EXPECT_EQ(copied(records, 100), "<4>[0-    1.000000] one\n<4>[0-    2.000000] two\n");
    EXPECT_EQ(copied(records, 48), "<4>[0-    1.000000] one\n<4>[0-    2.000000] two\n");
}

TEST(TheKernelLog, LosesItsOldestWholeLinesWhereItDoesNotFit) {
    const std::vector<std::string> records = {"4,1,1000000,-;one", "4,2,2000000,-;two\\x0athree"};
    EXPECT_EQ(copied(records, 73), "<4>[0-    2.000000] two\n<4>[0-    2.000000] three\n");
    EXPECT_EQ(copied(records, 49), "<4>[0-    2.000000] three\n");
    EXPECT_EQ(copied(records, 25), "");
    EXPECT_EQ(copied(records, 0), "");
}

TEST(TheKernelLog, GoesOnWhereRecordsWereOverwritten) {
    EXPECT_EQ(
        copied({"4,1,1000000,-;one", std::to_string(-EPIPE), "garbage", std::to_string(-EINTR), "4,9,2000000,-;nine"},
               100),
        "<4>[0-    1.000000] one\n<4>[0-    2.000000] nine\n");
}

TEST(TheKernelLog, ComesToAnEndWhereSomebodyWritesWithoutEnd) {
    const auto endless = [](bool overwritten) {
        return [overwritten, first = true](char *buffer, std::size_t size) mutable -> ssize_t {
            const std::string_view record = "4,1,1000000,-;one";
            if (std::exchange(first, false))
                return static_cast<ssize_t>(record.copy(buffer, size));
            *buffer = 'x'; // no record
            errno = EPIPE;
            return overwritten ? -1 : static_cast<ssize_t>(size);
        };
    };
    for (const bool overwritten : {true, false}) {
        std::string buffer(100, '\0');
        EXPECT_EQ(host::copyKernelLog(endless(overwritten), buffer.data(), 100), 24);
        EXPECT_GT(host::boundKernelLog(endless(overwritten), 0), 24);
    }
}

TEST(TheKernelLog, IsNotCopiedWhenItCannotBeRead) {
    EXPECT_EQ(copied({"4,1,1000000,-;one", std::to_string(-EPERM)}, 100), "failed");
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(host::boundKernelLog(readerOf({std::to_string(-EPERM)}), 1000), -1);
    EXPECT_EQ(host::copyKernelLog(readerOf({}), nullptr, 100), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(TheSizeOfTheKernelLog, BoundsTheRewrittenTextAndNewLines) {
    const std::vector<std::string> records(10'000, "4,1,1000000,-;x");
    const std::string all = copied(records, 1'000'000);
    EXPECT_GE(host::boundKernelLog(readerOf(records), 0), static_cast<int>(all.size()) + 10'000);
    EXPECT_EQ(host::boundKernelLog(readerOf({}), 5'000'000), 5'000'000);
    EXPECT_GT(host::boundKernelLog(readerOf({}), -1), 0);
}

class TheDeviceKlogctl : public testing::Test {
protected:
    void SetUp() override {
        const int fd = ::open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            GTEST_SKIP() << "/dev/kmsg cannot be read here";
        ::close(fd);
    }
};

TEST_F(TheDeviceKlogctl, DeliversTheKernelsOwnLogWithEveryLineStamped) {
    const int size = host::deviceKlogctl(10, nullptr, 0);
    ASSERT_GT(size, 0);
    std::string buffer(static_cast<std::size_t>(size), '\0');
    const int length = host::deviceKlogctl(3, buffer.data(), size);
    ASSERT_GT(length, 0);
    buffer.resize(static_cast<std::size_t>(length));
    EXPECT_THAT(buffer, EndsWith("\n"));
    EXPECT_THAT(buffer.substr(0, buffer.find('\n')), testing::MatchesRegex("<[0-9]+>\\[0- *[0-9]+\\.[0-9]+\\] .*"));
}

TEST_F(TheDeviceKlogctl, WorksWithTheStandardStreamsClosedAndLeavesThemClosed) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (int fd = 0; fd <= 2; ++fd)
            ::close(fd);
        const bool works = host::deviceKlogctl(10, nullptr, 0) > 0;
        ::_exit(works && ::fcntl(0, F_GETFD) < 0 && ::fcntl(2, F_GETFD) < 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(TheDeviceKlogctl, HandsOtherActionsToTheKernel) {
    EXPECT_EQ(host::deviceKlogctl(9, nullptr, 0), ::klogctl(9, nullptr, 0)); // size unread
    EXPECT_EQ(host::deviceKlogctl(12345, nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
