#include "vpkd-fixture.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <signal.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "host/remarks.h"
#include "mavo/rmi-client.h"

namespace vpkdtest {

namespace {

constexpr const char *kServiceSocket = "/run/vpk/rlvd/socket";

mavo::rmi::Message messageOf(int value) {
    mavo::rmi::Message message;
    message.write(value);
    return message;
}

template <typename Value> Value valueOf(const mavo::rmi::Reply &reply) {
    EXPECT_EQ(reply.status, mavo::rmi::Status::ok) << reply.error;
    Value value{};
    mavo::rmi::Message(reply.body).read(value);
    return value;
}

} // namespace

std::string contents(const std::string &file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void write(const std::string &file, const std::string &text) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file) << text;
}

bool exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }

void AHost::SetUp() { startService(); }

void AHost::startService() {
    // A predecessor that was killed has left its socket.
    std::filesystem::remove(kServiceSocket);
    std::filesystem::create_directories("/run/vpk/rlvd");
    service_.emplace(std::vector<std::string>{process::built("rlvd"), "--simulate", "--socket", kServiceSocket,
                                              "--log-file", "/run/rlvd.log"});
    ASSERT_TRUE(service_->waitReady([] { return exists(kServiceSocket); })) << service_->errors();
}

std::vector<std::string> AHost::commandLine(const std::vector<std::string> &more) {
    std::vector<std::string> words{process::built("vpkd"), "--plugin",       kPlugin, "--log-file", kLog,
                                   "--privileges",         "/run/privileges"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

void AHost::start(const std::vector<std::string> &more, const process::Options &how) {
    host_.emplace(commandLine(more), how);
    waitUntilItServes();
}

void AHost::startWithoutStandardStreams() { startInShell(R"(exec "$@" <&- >&- 2>&-)"); }

void AHost::startWithFileSizeLimit(int blocks) {
    startInShell("ulimit -f " + std::to_string(blocks) + R"(; exec "$@")");
}

void AHost::startInShell(const std::string &script) {
    std::vector<std::string> words{"/bin/sh", "-c", script, "sh"};
    const auto command = commandLine();
    words.insert(words.end(), command.begin(), command.end());
    host_.emplace(words);
    waitUntilItServes();
}

void AHost::waitUntilItServes() {
    ASSERT_TRUE(host_->waitReady([] {
        try {
            mavo::rmi::Client client(kSocket);
            return true;
        } catch (const std::exception &) {
            return false;
        }
    })) << host_->errors()
        << contents(kLog);
}

process::Result AHost::startInVain(const std::vector<std::string> &more) { return process::capture(commandLine(more)); }

std::optional<int> AHost::stop() { return host_->terminate(); }

mavo::rmi::Reply AHost::call(const std::string &method, const mavo::rmi::Message &request) {
    return mavo::rmi::Client(kSocket).call(method, request);
}

std::vector<std::string> AHost::notesOf(const mavo::rmi::Reply &reply) {
    return host::decodeRemarks(reply.remarks).notes;
}

std::vector<std::string> AHost::errorLinesOf(const mavo::rmi::Reply &reply) {
    return host::decodeRemarks(reply.remarks).errorLines;
}

mavo::rmi::Reply AHost::execute(const std::string &command, const std::string &data) {
    mavo::rmi::Message request;
    request.write(command);
    request.write(data);
    return call("Host::executeCommand", request);
}

std::string AHost::executed(const std::string &command, const std::string &data) {
    return valueOf<std::string>(execute(command, data));
}

int AHost::number(const std::string &method) { return valueOf<int>(call(method)); }

int AHost::number(const std::string &method, int argument) { return valueOf<int>(call(method, messageOf(argument))); }

std::string AHost::text(const std::string &method) { return valueOf<std::string>(call(method)); }

void AHost::tell(const std::string &place, const std::string &action) { write(kNotes + place, action); }

std::string AHost::noted() { return contents(std::string(kNotes) + "calls"); }

pid_t AHost::collector(pid_t before) {
    pid_t id = 0;
    const auto noted = [&id] {
        std::istringstream(contents(std::string(kNotes) + "collector")) >> id;
        return id;
    };
    EXPECT_TRUE(process::waitUntil([&] { return noted() != 0 && id != before; })) << contents(kLog);
    return id;
}

std::string AHost::collectorsDescriptors() {
    const std::string all = contents(std::string(kNotes) + "collector");
    return all.substr(all.find('\n') + 1);
}

bool AHost::runs(pid_t process) {
    const std::string status = contents("/proc/" + std::to_string(process) + "/stat");
    return !status.empty() && status.find(") Z ") == std::string::npos;
}

std::size_t AHost::children() const {
    const std::string id = std::to_string(host_->id());
    std::istringstream list(contents("/proc/" + id + "/task/" + id + "/children"));
    return static_cast<std::size_t>(std::distance(std::istream_iterator<int>(list), {}));
}

} // namespace vpkdtest
