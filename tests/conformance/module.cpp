// A small plugin, to try the plugin interface with.
#include <mutex>
#include <string>

#include "mavo/exception.h"
#include "mavo/rmi.h"
#include "vpk-pil/vpk-pil.h"

namespace {

class Module : public AbstractDPluginProvider {
public:
    int setStatus(int status) override {
        const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
        return PolicyStorage::backend->storeStatus("module", status);
    }
    int getStatus() override {
        const std::lock_guard<std::mutex> lock(PolicyStorage::dbLock);
        return PolicyStorage::backend->readStatus("module");
    }
    void applyStatus(int status) override { applied_ = status; }
    std::string executeCommand(const std::string &command, const std::string &data) override {
        if (command == "throw")
            throw mavo::Exception(data);
        if (command == "try lock")
            return tryLock();
        return command == "what came" ? "applied " + std::to_string(applied_) : data;
    }

private:
    static std::string tryLock() {
        const std::unique_lock<std::mutex> lock(PolicyStorage::dbLock, std::try_to_lock);
        return lock.owns_lock() ? "free" : "locked";
    }

    int applied_ = 0;
};

} // namespace

extern "C" __attribute__((visibility("default"))) AbstractDPluginProvider *DPluginFactory(mavo::rmi::Service &service) {
    service.setMethodHandler<int, int>("http://vpk/privilege/module", "Module::Twice",
                                       [](int &number) { return 2 * number; });
    return new Module;
}
