#include "rlv/service/resolver.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace rlv {
namespace {

// What the child writes: a byte that says "found", then the addresses in network byte order. Nothing: not found.
constexpr char kFound = 'f';
constexpr std::size_t kAddressBytes = sizeof(in_addr);
// Fits into a pipe's buffer as a whole, so that the child never waits for the reader.
constexpr std::size_t kMaxAnswerBytes = 1 + (kMaxAddresses + 1) * kAddressBytes;

void appendOnce(std::string &answer, const in_addr &address) {
    std::array<char, kAddressBytes> raw{};
    std::memcpy(raw.data(), &address, raw.size());
    const std::string_view wanted(raw.data(), raw.size());
    for (std::size_t at = 1; at < answer.size(); at += kAddressBytes) {
        if (std::string_view(answer).substr(at, kAddressBytes) == wanted)
            return;
    }
    if (answer.size() < kMaxAnswerBytes)
        answer += wanted;
}

std::string addressesOf(const char *name) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM; // one entry per address, not one per address and kind of socket
    addrinfo *found = nullptr;
    if (::getaddrinfo(name, nullptr, &wanted, &found) != 0)
        return {};
    std::string answer(1, kFound);
    for (const addrinfo *entry = found; entry != nullptr; entry = entry->ai_next)
        appendOnce(answer, reinterpret_cast<const sockaddr_in *>(entry->ai_addr)->sin_addr);
    ::freeaddrinfo(found);
    return answer;
}

// The child has copies of the service's sockets: while it held them, a client would not see the service close its own.
[[noreturn]] void answerAndExit(const char *name, int answers) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(answers, STDIN_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const std::string answer = addressesOf(name);
    const bool written = ::write(STDIN_FILENO, answer.data(), answer.size()) == static_cast<ssize_t>(answer.size());
    ::_exit(written ? 0 : 1);
}

std::optional<Addresses> decode(const std::string &answer) {
    const std::size_t count = answer.empty() ? 0 : (answer.size() - 1) / kAddressBytes;
    if (count == 0 || count > kMaxAddresses || answer[0] != kFound)
        return std::nullopt;
    Addresses addresses(count);
    for (std::size_t i = 0; i < count; ++i) {
        in_addr_t raw = 0;
        std::memcpy(&raw, answer.data() + 1 + i * kAddressBytes, kAddressBytes);
        addresses[i] = ntohl(raw);
    }
    return addresses;
}

} // namespace

LookUp::LookUp(support::EventLoop &loop, const std::string &name, std::chrono::milliseconds timeout, Done done)
    : loop_(loop), done_(std::move(done)) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe2");
    answers_.reset(ends[0]);
    const support::UniqueFd writer(ends[1]);
    child_ = ::fork();
    if (child_ == 0)
        answerAndExit(name.c_str(), writer.get());
    if (child_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    loop_.watch(answers_.get(), EPOLLIN, [this](std::uint32_t) { readable(); });
    timer_ = loop_.after(timeout, [this] { finish(std::nullopt); });
}

LookUp::~LookUp() { endChild(); }

void LookUp::endChild() {
    loop_.cancel(std::exchange(timer_, 0));
    if (answers_)
        loop_.unwatch(answers_.get());
    answers_.reset();
    const pid_t child = std::exchange(child_, -1);
    if (child <= 0)
        return;
    ::kill(child, SIGKILL);
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void LookUp::readable() {
    std::array<char, kMaxAnswerBytes> buffer;
    const ssize_t size = ::read(answers_.get(), buffer.data(), buffer.size());
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (size > 0 && received_.size() < kMaxAnswerBytes)
        received_.append(buffer.data(), static_cast<std::size_t>(size));
    else
        finish(decode(received_));
}

void LookUp::finish(const std::optional<Addresses> &addresses) {
    endChild();
    // The callee may end this object.
    const Done done = std::move(done_);
    done(addresses);
}

} // namespace rlv
