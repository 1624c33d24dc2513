// Standing in for the system calls of SQLite's own file layer (sqlite3.h, struct sqlite3_vfs).
#ifndef PLATFORM_MAVO_SQLITE_CALLS_H
#define PLATFORM_MAVO_SQLITE_CALLS_H

#include <sqlite3.h>

namespace mavo {
namespace database {

// The default file layer, or null where its calls cannot be replaced. The process's: replace each call once.
inline sqlite3_vfs *replaceableCalls() {
    constexpr int kHasSystemCalls = 3; // the version from which on they can be
    sqlite3_vfs *const layer = sqlite3_vfs_find(nullptr);
    return layer != nullptr && layer->iVersion >= kHasSystemCalls ? layer : nullptr;
}

// From now on the layer calls `ours` for what it calls `name`. Stores what it called before, null where it has no such
// call, which then stays away.
template <typename Function> void replaceCall(sqlite3_vfs *layer, const char *name, Function &own, Function ours) {
    own = reinterpret_cast<Function>(layer->xGetSystemCall(layer, name));
    if (own != nullptr)
        layer->xSetSystemCall(layer, name, reinterpret_cast<sqlite3_syscall_ptr>(ours));
}

} // namespace database
} // namespace mavo

#endif
