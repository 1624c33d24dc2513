#include "faults/installation.h"

#include <exception>
#include <filesystem>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "faults/failing-memory.h"
#include "host/remarks.h"
#include "mavo/rmi-client.h"
#include "support/process.h"
#include "support/unique-fd.h"
#include "support/whole-system.h"

namespace faults {
namespace {

namespace fs = std::filesystem;
using children::Clock;
using mavo::rmi::Reply;
using mavo::rmi::Status;

constexpr const char *kKept = "/run/kept-data";
constexpr const char *kMarker = "/dev/shm/nyr_firewall_sd";
constexpr std::chrono::seconds kStartDeadline{60};
constexpr const char *kBroken = "!";
constexpr const char *kSetStatus = "Host::setStatus"; // takes a number
constexpr const char *kLibrary = NYR_BINARY_DIR "/lib/libfailing-memory.so";
constexpr const char *kPlugin = NYR_BINARY_DIR "/lib/libnyr-firewall-plugin.so";

// The frame of the reply, or kBroken and why there is none.
std::string carryOut(const std::string &method, const std::vector<std::string> &arguments) try {
    mavo::rmi::Message request;
    for (const auto &argument : arguments)
        method == kSetStatus ? request.write(std::stoi(argument)) : request.write(argument);
    return encodeReply(mavo::rmi::Client(wholesystem::kHostSocket).call(method, request));
} catch (const std::exception &error) {
    return kBroken + std::string(error.what());
}

bool accepts(const char *path, int type) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(path).copy(address.sun_path, sizeof address.sun_path - 1);
    const support::UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    return ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

std::string contentOf(int file) {
    std::string text(static_cast<std::size_t>(::lseek(file, 0, SEEK_END)), '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::pread(file, text.data(), text.size(), 0))));
    return text;
}

// Some methods give a number, which is not 0 when they failed; the others the plugin's text or a document.
bool saysFailure(const std::string &method, const Reply &reply, std::string &value) {
    mavo::rmi::Message message(reply.body);
    if (reply.body.size() == sizeof(int) && method != "Host::executeCommand") {
        int number = 0;
        message.read(number);
        return number != 0 && method != "Host::getStatus";
    }
    message.read(value);
    return value == "fail";
}

Answer understand(const std::string &method, const Reply &reply) {
    if (reply.status != Status::ok)
        return {true, reply.error, {}};
    Answer answer;
    const host::Remarks remarks = host::decodeRemarks(reply.remarks);
    answer.told = saysFailure(method, reply, answer.value) || !remarks.notes.empty();
    for (const auto *lines : {&remarks.errorLines, &remarks.notes}) {
        for (const auto &line : *lines)
            answer.text += line + "; ";
    }
    return answer;
}

std::vector<std::string> preloaded(bool wanted) {
    if (!wanted)
        return {};
    return {std::string("LD_PRELOAD=") + kLibrary, std::string(failing_memory::kPlanVariable) + "=/run/memory-plan"};
}

} // namespace

Call::Call(const std::string &method, const std::vector<std::string> &arguments)
    : answer_(::memfd_create("answer", MFD_CLOEXEC)), method_(method) {
    child_ = children::fork([this, &arguments] {
        const std::string answer = carryOut(method_, arguments);
        return ::write(answer_, answer.data(), answer.size()) == static_cast<ssize_t>(answer.size()) ? 0 : 1;
    });
}

Call::~Call() {
    children::kill(child_);
    ::close(answer_);
}

Answer Call::answer() const {
    const std::string frame = contentOf(answer_);
    if (frame.size() < mavo::rmi::kReplyHeadBytes || frame.compare(0, 1, kBroken) == 0)
        return {true, "no answer: " + frame, {}};
    const auto reply = mavo::rmi::decodeReply(frame.substr(mavo::rmi::kReplyHeadBytes));
    return reply ? understand(method_, *reply) : Answer{true, "a broken frame", {}};
}

std::optional<Answer> ask(const std::string &method, const std::vector<std::string> &arguments,
                          std::chrono::milliseconds atMost) {
    const Call call(method, arguments);
    if (!children::waitUntil([&call] { return call.over(); }, Clock::now() + atMost))
        return std::nullopt;
    return call.answer();
}

void Installation::startService() {
    std::vector<std::string> words{process::built("rlvd"), "--socket",   wholesystem::kServiceSocket,
                                   "--no-resolve",         "--log-file", wholesystem::kServiceLog};
    if (simulate_)
        words.emplace_back("--simulate");
    fs::create_directories(fs::path(wholesystem::kServiceSocket).parent_path());
    service_ = children::start(words, {preloaded(memory_ == Memory::ofService), "/run/rlvd.out", false});
}

void Installation::startHost(bool traced) {
    const std::vector<std::string> words{
        process::built("vpkd"), "--socket",   wholesystem::kHostSocket, "--plugin", kPlugin, "--privileges",
        "/run/privileges",      "--log-file", wholesystem::kHostLog};
    fs::create_directories(fs::path(wholesystem::kHostSocket).parent_path());
    host_ = children::start(words, {preloaded(memory_ == Memory::ofHost), "/run/vpkd.out", traced});
}

bool Installation::serviceServes() const {
    return children::runs(service_) && accepts(wholesystem::kServiceSocket, SOCK_SEQPACKET);
}

bool Installation::hostServes() const {
    return children::runs(host_) && accepts(wholesystem::kHostSocket, SOCK_STREAM);
}

bool Installation::bringServiceUp() {
    if (!children::runs(service_))
        startService();
    children::waitUntil([this] { return serviceServes() || !children::runs(service_); }, Clock::now() + kStartDeadline);
    return serviceServes();
}

bool Installation::bringHostUp() {
    if (!children::runs(host_))
        startHost();
    children::waitUntil([this] { return hostServes() || !children::runs(host_); }, Clock::now() + kStartDeadline);
    return hostServes();
}

void Installation::killHost() {
    children::kill(host_);
    host_ = -1;
}

void Installation::killAll() {
    children::kill(host_);
    children::kill(service_);
    host_ = service_ = -1;
    children::forgetEnded();
    ::unlink(wholesystem::kHostSocket);
    ::unlink(wholesystem::kServiceSocket);
    for (const char *log : {wholesystem::kHostLog, wholesystem::kServiceLog, "/run/vpkd.out", "/run/rlvd.out"})
        ::unlink(log);
}

void Installation::keepData() {
    fs::remove_all(kKept);
    fs::copy(kData, kKept, fs::copy_options::recursive);
}

void Installation::putDataBack() {
    ::unlink(kMarker);
    fs::remove_all(kData);
    fs::create_directories(fs::path(kData).parent_path());
    fs::copy(kKept, kData, fs::copy_options::recursive);
}

} // namespace faults
