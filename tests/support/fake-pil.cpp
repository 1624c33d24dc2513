#include "support/fake-pil.h"

#include <thread>

PolicyStorage::~PolicyStorage() = default;
PolicyStorage *PolicyStorage::backend = nullptr;
std::mutex PolicyStorage::dbLock;

namespace fakepil {
namespace {

std::string lockState() { return locked() ? "" : ", unlocked"; }

} // namespace

// Asked by another thread, because the owner must not try to lock again.
bool locked() {
    bool unlocked = false;
    std::thread([&unlocked] {
        unlocked = PolicyStorage::dbLock.try_lock();
        if (unlocked)
            PolicyStorage::dbLock.unlock();
    }).join();
    return !unlocked;
}

Storage::Storage() { backend = this; }

Storage::~Storage() { backend = nullptr; }

int Storage::storeStatus(const std::string &name, int status) {
    calls.push_back("store " + name + " " + std::to_string(status) + lockState());
    if (onStore)
        onStore();
    if (storeResult == 0)
        statuses[name] = status;
    return storeResult;
}

int Storage::readStatus(const std::string &name) {
    calls.push_back("read " + name + lockState());
    const auto found = statuses.find(name);
    return found != statuses.end() ? found->second : -1;
}

} // namespace fakepil
