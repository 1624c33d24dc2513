// The real policy host with the simulated traffic-control service and a plugin that does as it is told.
#ifndef TESTS_PLATFORM_HOST_VPKD_FIXTURE_H
#define TESTS_PLATFORM_HOST_VPKD_FIXTURE_H

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

#include "mavo/rmi-protocol.h"
#include "mavo/rmi.h"
#include "support/process.h"

namespace vpkdtest {

constexpr const char *kSocket = "/run/vpk/host/socket";
constexpr const char *kLog = "/run/vpkd.log";
constexpr const char *kPlugin = NYR_BINARY_DIR "/lib/libtest-plugin.so";
constexpr const char *kFirewall = NYR_BINARY_DIR "/lib/libnyr-firewall-plugin.so";
constexpr const char *kNotes = "/run/test-plugin/";

std::string contents(const std::string &file);
void write(const std::string &file, const std::string &text);
bool exists(const std::string &path);

class AHost : public testing::Test {
protected:
    void SetUp() override;

    // Starts the simulated service and waits until it serves.
    void startService();

    // The command line of vpkd with the test plugin, and `more`.
    static std::vector<std::string> commandLine(const std::vector<std::string> &more = {});
    // Starts vpkd and waits until it serves. Fails the test when it does not.
    void start(const std::vector<std::string> &more = {}, const process::Options &how = process::Options());
    // The same with its standard streams closed.
    void startWithoutStandardStreams();
    // The same with a limit of the size of files, in blocks of 512 bytes.
    void startWithFileSizeLimit(int blocks);
    // Runs a vpkd that is expected to give up.
    static process::Result startInVain(const std::vector<std::string> &more = {});
    // Ends it with SIGTERM; its exit status, or nothing when it did not end.
    std::optional<int> stop();

    // Remote calls. The value is a note when there is none.
    static mavo::rmi::Reply call(const std::string &method, const mavo::rmi::Message &request = mavo::rmi::Message());
    static mavo::rmi::Reply execute(const std::string &command, const std::string &data = {});
    // What a reply says beside its result.
    static std::vector<std::string> notesOf(const mavo::rmi::Reply &reply);
    static std::vector<std::string> errorLinesOf(const mavo::rmi::Reply &reply);
    static std::string executed(const std::string &command, const std::string &data = {});
    static int number(const std::string &method);
    static int number(const std::string &method, int argument);
    static std::string text(const std::string &method);

    // What the plugin does at a place from now on (see test-plugin.cpp).
    static void tell(const std::string &place, const std::string &action);
    // The calls that the plugin has noted, one in a line.
    static std::string noted();
    // The process of the collector, once it runs (and is not `before`), and what it found open: "number target" lines.
    static pid_t collector(pid_t before = 0);
    static std::string collectorsDescriptors();
    static bool runs(pid_t process);
    // How many children the host has now.
    std::size_t children() const;

    std::optional<process::Child> service_;
    std::optional<process::Child> host_;

private:
    void waitUntilItServes();
    void startInShell(const std::string &script);
};

} // namespace vpkdtest

#endif
