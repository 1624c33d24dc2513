// The stored status of plugins.
#ifndef PLATFORM_HOST_STATUS_STORAGE_H
#define PLATFORM_HOST_STATUS_STORAGE_H

#include <string>

#include "host/plugin-guard.h"
#include "vpk-pil/vpk-pil.h"

namespace host {

// Keeps statuses in an SQLite database. No connection is open between two calls.
class StatusStorage : public PolicyStorage {
public:
    // 0, or -1 when it cannot be stored, which is logged.
    int storeStatus(const std::string &name, int status) override;
    // -1 when none is stored. Throws mavo::Exception when the database cannot be read: that is not the same.
    int readStatus(const std::string &name) override;

private:
    PluginGuard guard_; // a second line: the plugin's daemon has no business with statuses
};

} // namespace host

#endif
