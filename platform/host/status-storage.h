// The stored status of plugins.
#ifndef PLATFORM_HOST_STATUS_STORAGE_H
#define PLATFORM_HOST_STATUS_STORAGE_H

#include <map>
#include <optional>
#include <string>

#include "host/plugin-guard.h"
#include "vpk-pil/vpk-pil.h"

namespace host {

// Keeps statuses in an SQLite database. No connection is open between two calls. After watchOverDatabases() a damaged
// database, or one of something else, is put aside and one without a status made: nothing about statuses keeps a plugin
// from coming up.
class StatusStorage : public PolicyStorage {
public:
    // 0, or -1 when it cannot be stored, which is logged. What is stored already is not written again: each start
    // stores 1, and on a full disk the firewall has to come up.
    int storeStatus(const std::string &name, int status) override;
    // -1 when none is stored. Throws mavo::Exception, which names the file, when the database cannot be read, and
    // mavo::database::Unavailable when it cannot be read now: that is not the same.
    int readStatus(const std::string &name) override;

    // What was put aside and is still there: one line, or empty.
    static std::string remark();

    // While it lives, what is stored is kept in memory alone and read back from there; at its end it is forgotten. One
    // at a time. The storage must outlive it.
    class Rehearsal {
    public:
        explicit Rehearsal(StatusStorage &storage) : storage_(storage) { storage_.rehearsed_.emplace(); }
        ~Rehearsal() { storage_.rehearsed_.reset(); }
        Rehearsal(const Rehearsal &) = delete;
        Rehearsal &operator=(const Rehearsal &) = delete;

    private:
        StatusStorage &storage_;
    };

private:
    std::optional<std::map<std::string, int>> rehearsed_;
    PluginGuard guard_; // a second line: a collector has no business with statuses
};

} // namespace host

#endif
