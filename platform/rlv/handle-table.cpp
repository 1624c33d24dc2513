#include "rlv/handle-table.h"

#include <algorithm>
#include <utility>

namespace rlv::client {
namespace {

constexpr std::size_t kMaxOpenings = 100'000;

} // namespace

rlv_handle HandleTable::add(support::UniqueFd fd, std::uint64_t number) {
    const std::lock_guard<std::mutex> lock(mutex_);
    auto connection = std::make_shared<OpenConnection>(std::move(fd), number, failureCount_());
    do {
        ++last_;
    } while (last_ == 0 || byHandle_.count(last_) != 0);
    byHandle_.emplace(last_, std::move(connection));
    return last_;
}

HandleTable::Shared HandleTable::find(rlv_handle handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = byHandle_.find(handle);
    return found == byHandle_.end() ? nullptr : found->second;
}

HandleTable::Shared HandleTable::remove(rlv_handle handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = byHandle_.find(handle);
    if (found == byHandle_.end())
        return nullptr;
    Shared connection = std::move(found->second);
    byHandle_.erase(found);
    return connection;
}

void HandleTable::noteOpening(std::uint64_t number) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (openings_.size() < kMaxOpenings)
        openings_.push_back({number, false, Interruption::none});
}

void HandleTable::noteEnd(std::uint64_t number, bool allInForce, Interruption interruption) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto opening =
        std::find_if(openings_.rbegin(), openings_.rend(), [number](const auto &one) { return one.number == number; });
    if (opening != openings_.rend())
        *opening = {number, allInForce, interruption};
}

std::vector<Opening> HandleTable::takeOpenings() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(openings_, {});
}

Interruption HandleTable::interruptionOf(const OpenConnection &connection) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!connection.isUsed)
        return Interruption::none;
    if (std::uncaught_exceptions() > connection.exceptions)
        return Interruption::exception;
    return failureCount_() != connection.failures ? Interruption::databaseFailure : Interruption::none;
}

void HandleTable::setFailureCount(FailureCount count) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failureCount_ = count;
}

void HandleTable::setPath(const std::string &path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    path_ = path;
}

std::string HandleTable::path() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return path_;
}

HandleTable &handleTable() {
    static auto *const table = new HandleTable;
    return *table;
}

} // namespace rlv::client
