// The policy host's storage of statuses, in memory, for unit tests.
#ifndef TESTS_SUPPORT_FAKE_PIL_H
#define TESTS_SUPPORT_FAKE_PIL_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <vpk-pil/vpk-pil.h>

namespace fakepil {

// Whether somebody holds the host's lock. May be asked by the holder.
bool locked();

// While it lives it is the host's storage.
class Storage : public PolicyStorage {
public:
    Storage();
    ~Storage() override;

    int storeStatus(const std::string &name, int status) override;
    int readStatus(const std::string &name) override;

    std::map<std::string, int> statuses;
    // "store NAME STATUS" and "read NAME", with ", unlocked" at the end of one that was not under dbLock.
    std::vector<std::string> calls;
    // What storing returns; a status is stored when this is 0.
    int storeResult = 0;
    // Called when storing begins; what it throws reaches the plugin. May be empty.
    std::function<void()> onStore;
};

} // namespace fakepil

#endif
