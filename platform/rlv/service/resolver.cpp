#include "rlv/service/resolver.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <netdb.h>
#include <netinet/in.h>
#include <optional>
#include <pthread.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "support/little-endian.h"
#include "support/signals.h"

namespace rlv {
namespace {

using Kind = LookUpResult::Kind;

// What the child sends for each name, in a packet: its place in the list, its kind, and a list of addresses.
constexpr std::size_t kPlaceBytes = 4;
constexpr std::size_t kKindBytes = 1;
constexpr std::size_t kAddressBytes = 4;
constexpr std::size_t kMaxAnswerBytes = kPlaceBytes + kKindBytes + support::kCountBytes + kMaxAddresses * kAddressBytes;
// For the modules that the C library loads to look up names; what is not used costs nothing.
constexpr std::size_t kStackBytes = 512 * std::size_t{1024};
// So that the clients have their turns in between.
constexpr int kMaxReadAtOnce = 64;

Kind kindOfError(int error) {
    const bool isAbsent = error == EAI_NONAME
#ifdef EAI_NODATA
                          || error == EAI_NODATA || error == EAI_ADDRFAMILY
#endif
        ;
    return isAbsent ? Kind::absent : Kind::failed;
}

LookUpResult lookUp(const char *name) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM; // one entry per address, not one per address and kind of socket
    addrinfo *found = nullptr;
    if (const int error = ::getaddrinfo(name, nullptr, &wanted, &found); error != 0)
        return {kindOfError(error), {}};
    Addresses addresses;
    for (const addrinfo *entry = found; entry != nullptr; entry = entry->ai_next)
        addresses.push_back(ntohl(reinterpret_cast<const sockaddr_in *>(entry->ai_addr)->sin_addr.s_addr));
    ::freeaddrinfo(found);
    std::sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
    if (addresses.size() > kMaxAddresses)
        return {Kind::tooMany, {}};
    return {addresses.empty() ? Kind::absent : Kind::found, std::move(addresses)};
}

std::string encode(std::size_t place, const LookUpResult &result) {
    support::FieldWriter out;
    out.integer(place, kPlaceBytes);
    out.integer(static_cast<std::uint64_t>(result.kind), kKindBytes);
    out.list(result.addresses, [&](std::uint32_t address) { out.integer(address, kAddressBytes); });
    return out.take();
}

struct Work {
    const std::vector<std::string> &names;
    std::atomic<std::size_t> next{0};
};

// A thread of the child. No exception can be told anybody: a name without an answer has failed.
void *answer(void *shared) noexcept try {
    Work &work = *static_cast<Work *>(shared);
    for (std::size_t place = work.next++; place < work.names.size(); place = work.next++) {
        const std::string packet = encode(place, lookUp(work.names[place].c_str()));
        if (::send(STDIN_FILENO, packet.data(), packet.size(), MSG_NOSIGNAL) < 0)
            return nullptr;
    }
    return nullptr;
} catch (...) {
    return nullptr;
}

// Fewer threads than wanted are slower and no failure: this one works too.
void answerAll(Work &work) {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, kStackBytes);
    std::vector<pthread_t> threads;
    pthread_t thread{};
    const std::size_t wanted = std::min(work.names.size(), kMaxLookUpsAtOnce) - 1;
    while (threads.size() < wanted && ::pthread_create(&thread, &attributes, &answer, &work) == 0)
        threads.push_back(thread);
    answer(&work);
    for (const pthread_t each : threads)
        ::pthread_join(each, nullptr);
}

// The child has copies of the service's sockets: while it held them, a client would not see the service close its own.
[[noreturn]] void answerAndExit(const std::vector<std::string> &names, int answers) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(answers, STDIN_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    support::unblockAllSignals();
    try {
        Work work{names};
        answerAll(work);
    } catch (...) { // no memory for a list of threads
        ::_exit(1);
    }
    ::_exit(0);
}

// Of a packet from our own child. Empty when it is none.
std::optional<std::pair<std::size_t, LookUpResult>> decode(std::string_view packet) {
    support::FieldReader in(packet);
    const std::size_t place = in.word();
    LookUpResult result;
    result.kind = static_cast<Kind>(in.integer(kKindBytes));
    in.list([&] { result.addresses.push_back(in.word()); });
    return in.complete() ? std::make_optional(std::make_pair(place, std::move(result))) : std::nullopt;
}

} // namespace

LookUps::LookUps(support::EventLoop &loop, const std::vector<std::string> &names, std::chrono::milliseconds timeout,
                 Each each, Done done)
    : loop_(loop), names_(names), each_(std::move(each)), done_(std::move(done)) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    answers_.reset(ends[0]);
    const support::UniqueFd writer(ends[1]);
    child_ = ::fork();
    if (child_ == 0)
        answerAndExit(names_, writer.get());
    if (child_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    try {
        loop_.watch(answers_.get(), EPOLLIN, [this](std::uint32_t) { readable(); });
        timer_ = loop_.after(timeout, [this] { finish(); });
    } catch (...) { // what was begun is ended by nobody else
        end();
        throw;
    }
}

LookUps::~LookUps() { end(); }

void LookUps::end() {
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

void LookUps::readable() {
    for (int i = 0; i < kMaxReadAtOnce && readOne(); ++i) {
    }
}

// False when there is nothing more for now.
bool LookUps::readOne() {
    std::array<char, kMaxAnswerBytes> buffer;
    const ssize_t size = answers_ ? ::recv(answers_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) : -1;
    if (!answers_ || (size < 0 && (errno == EAGAIN || errno == EINTR)))
        return false;
    if (size <= 0) {
        finish();
        return false;
    }
    ++answered_;
    const auto answer = decode({buffer.data(), static_cast<std::size_t>(size)});
    if (answer && answer->first < names_.size())
        each_(names_[answer->first], answer->second);
    return true;
}

void LookUps::finish() {
    end();
    // The callee may end this object.
    const Done done = std::move(done_);
    done();
}

} // namespace rlv
