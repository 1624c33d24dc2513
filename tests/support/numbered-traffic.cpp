#include "support/numbered-traffic.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "support/process.h"

namespace traffic {
namespace {

using std::chrono::nanoseconds;
using support::UniqueFd;

constexpr std::uint16_t kPort = 4711;
constexpr std::size_t kCapacity = 1'000'000;
constexpr std::size_t kMaximalFlows = 4;
constexpr int kBufferBytes = 64 * 1024 * 1024;
constexpr std::size_t kNamedPackets = 10;

enum Ending : int { ended = 0, capacityReached = 3 };

// The content of a packet.
struct Content {
    std::uint64_t flow = 0;
    std::uint64_t number = 0;
};

[[noreturn]] void fail(const std::string &what) { throw std::system_error(errno, std::generic_category(), what); }

sockaddr_in addressOf(const std::string &text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    if (::inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1)
        throw std::invalid_argument("no address: " + text);
    return address;
}

UniqueFd roomy(UniqueFd socket, int option) {
    if (::setsockopt(socket.get(), SOL_SOCKET, option, &kBufferBytes, sizeof kBufferBytes) != 0)
        fail("socket buffer");
    return socket;
}

std::uint64_t droppedAt(const UniqueFd &socket) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> values{};
    socklen_t size = sizeof values;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_MEMINFO, values.data(), &size);
    return values[SK_MEMINFO_DROPS];
}

void sleepUntil(nanoseconds time) {
    const timespec wanted{static_cast<time_t>(time.count() / 1'000'000'000),
                          static_cast<long>(time.count() % 1'000'000'000)};
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wanted, nullptr) == EINTR) {
    }
}

nanoseconds now() { return Clock::now().time_since_epoch(); }

double seconds(nanoseconds time) { return std::chrono::duration<double>(time).count(); }

template <typename... Values> std::string format(const char *text, Values... values) {
    std::array<char, 256> line{};
    std::snprintf(line.data(), line.size(), text, values...);
    return line.data();
}

std::string nameOf(const Packet &packet, const std::vector<Mark> &marks) {
    const auto after =
        std::find_if(marks.begin(), marks.end(), [&](const Mark &mark) { return mark.time > packet.time; });
    const std::string when = after == marks.begin() ? "the beginning" : std::prev(after)->text;
    return format("  packet %zu at %.6f s", packet.number, seconds(packet.time)) + ", after " + when + "\n";
}

template <typename Condition>
std::string namesOf(const Flow &flow, const std::vector<Mark> &marks, const Condition &wanted) {
    std::string names;
    std::size_t count = 0;
    for (const auto &packet : flow.packets) {
        if (wanted(packet) && count++ < kNamedPackets)
            names += nameOf(packet, marks);
    }
    if (count > kNamedPackets)
        names += "  and " + std::to_string(count - kNamedPackets) + " more\n";
    return names;
}

template <typename Condition> std::size_t countOf(const Flow &flow, const Condition &wanted) {
    return static_cast<std::size_t>(std::count_if(flow.packets.begin(), flow.packets.end(), wanted));
}

} // namespace

std::size_t Flow::arrived() const {
    return countOf(*this, [](const Packet &packet) { return packet.arrived; });
}

std::size_t Flow::leaked() const {
    return countOf(*this, [](const Packet &packet) { return packet.passedTheFilter(); });
}

std::size_t Flow::lostElsewhere() const {
    return countOf(*this, [](const Packet &packet) { return !packet.arrived && packet.error != EPERM; });
}

double Flow::perSecond() const {
    if (packets.size() < 2)
        return 0;
    return static_cast<double>(packets.size() - 1) / seconds(packets.back().time - packets.front().time);
}

nanoseconds Flow::longestPause() const {
    nanoseconds longest{0};
    for (std::size_t i = 1; i < packets.size(); ++i)
        longest = std::max(longest, packets[i].time - packets[i - 1].time);
    return longest;
}

std::string Report::leaksOf(std::size_t flow) const {
    return namesOf(flows.at(flow), marks, [](const Packet &packet) { return packet.passedTheFilter(); });
}

std::string Report::lossesOf(std::size_t flow) const {
    return namesOf(flows.at(flow), marks, [](const Packet &packet) { return !packet.arrived; });
}

std::string Report::summary() const {
    std::string text;
    for (std::size_t i = 0; i < flows.size(); ++i) {
        const Flow &flow = flows[i];
        text +=
            format("flow %zu: %zu packets at %.0f/s, longest pause %.1f ms, %zu arrived, %zu lost elsewhere than in "
                   "the filter\n",
                   i, flow.packets.size(), flow.perSecond(), 1e3 * seconds(flow.longestPause()), flow.arrived(),
                   flow.lostElsewhere());
    }
    return text;
}

// What the sending process and the test have in common. The process allocates nothing.
struct Stream::Shared {
    struct Entry {
        std::int64_t time;
        std::int32_t error;
        bool arrived;
    };

    std::atomic<bool> stop{false};
    std::array<std::atomic<std::uint64_t>, kMaximalFlows> arrived{};
    std::atomic<std::size_t> count{0}; // sent to each destination
    nanoseconds begin{0};              // of CLOCK_MONOTONIC
    std::uint64_t overflowed = 0;
    std::array<std::array<Entry, kCapacity>, kMaximalFlows> entries;

    void sendOne(const UniqueFd &socket, std::size_t flow, const sockaddr_in &to) {
        const Content content{flow, count};
        Entry &entry = entries[flow][count];
        entry.time = now().count();
        const auto *address = reinterpret_cast<const sockaddr *>(&to);
        if (::sendto(socket.get(), &content, sizeof content, 0, address, sizeof to) != sizeof content)
            entry.error = errno;
    }

    // Takes what is there. True when there was anything.
    bool receive(const UniqueFd &socket) {
        Content content;
        bool any = false;
        while (::recv(socket.get(), &content, sizeof content, 0) == sizeof content) {
            any = true;
            if (content.flow >= kMaximalFlows || content.number >= count)
                continue;
            const auto flow = static_cast<std::size_t>(content.flow);
            entries[flow][static_cast<std::size_t>(content.number)].arrived = true;
            ++arrived[flow];
        }
        return any;
    }

    int run(const UniqueFd &sender, const UniqueFd &receiver, const std::vector<sockaddr_in> &to, nanoseconds period) {
        begin = now();
        for (nanoseconds next = begin; !stop && count < kCapacity; next += period) {
            sleepUntil(next);
            for (std::size_t flow = 0; flow < to.size(); ++flow)
                sendOne(sender, flow, to[flow]);
            ++count;
            receive(receiver);
        }
        do
            sleepUntil(now() + network::kSilence);
        while (receive(receiver));
        overflowed = droppedAt(receiver);
        return stop ? ended : capacityReached;
    }
};

Stream::Stream(const network::Pair &pair, const std::vector<std::string> &destinations, unsigned perSecond)
    : flows_(destinations.size()) {
    if (flows_ > kMaximalFlows || perSecond == 0)
        throw std::invalid_argument("Stream");
    const UniqueFd receiver = roomy(pair.openUdp(network::Side::far, kPort), SO_RCVBUFFORCE);
    const UniqueFd sender = roomy(pair.openUdp(network::Side::near, 0), SO_SNDBUFFORCE);
    std::vector<sockaddr_in> to;
    std::transform(destinations.begin(), destinations.end(), std::back_inserter(to), addressOf);
    void *memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        fail("mmap");
    shared_ = new (memory) Shared; // the entries stay as the kernel gave them: zero, and taking no room yet
    process_ = ::fork();
    if (process_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::_exit(shared_->run(sender, receiver, to, nanoseconds(1'000'000'000 / perSecond)));
    }
    if (process_ < 0)
        fail("fork");
}

Stream::~Stream() {
    if (process_ > 0) {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
    }
    ::munmap(shared_, sizeof(Shared));
}

void Stream::waitForSending() const {
    const std::size_t before = shared_->count;
    if (!process::waitUntil([&] { return shared_->count > before + 1; })) // the first may be on its way already
        throw std::runtime_error("no packets are sent");
}

void Stream::waitForArrival(std::size_t flow) const {
    const std::uint64_t before = shared_->arrived.at(flow);
    if (!process::waitUntil([&] { return shared_->arrived.at(flow) > before; }))
        throw std::runtime_error("no packet arrives where one should");
}

void Stream::mark(std::string text) { marks_.push_back({now() - shared_->begin, std::move(text)}); }

Report Stream::finish() {
    shared_->stop = true;
    int status = 0;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    if (status != 0)
        throw std::runtime_error("the stream of packets ended with status " + std::to_string(status));
    Report report;
    report.marks = marks_;
    report.overflowed = shared_->overflowed;
    report.flows.resize(flows_);
    for (std::size_t flow = 0; flow < flows_; ++flow) {
        for (std::size_t i = 0; i < shared_->count; ++i) {
            const Shared::Entry &entry = shared_->entries[flow][i];
            report.flows[flow].packets.push_back(
                {i, nanoseconds(entry.time) - shared_->begin, entry.error, entry.arrived});
        }
    }
    return report;
}

void reachOnce(const network::Pair &pair, const std::vector<std::string> &destinations) {
    const UniqueFd receiver = pair.openUdp(network::Side::far, kPort);
    const UniqueFd sender = pair.openUdp(network::Side::near, 0);
    for (const auto &destination : destinations) {
        network::sendUdp(sender, {destination, kPort}, destination);
        if (network::receiveUdp(receiver) != destination)
            throw std::runtime_error("nothing arrives at " + destination);
    }
}

} // namespace traffic
