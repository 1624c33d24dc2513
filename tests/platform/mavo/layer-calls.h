// The system calls of SQLite's own file layer, exchanged under what is tested.
#ifndef TESTS_PLATFORM_MAVO_LAYER_CALLS_H
#define TESTS_PLATFORM_MAVO_LAYER_CALLS_H

#include <sqlite3.h>

namespace layer {

// What the layer calls `name` from now on.
template <typename Function> void set(const char *name, Function call) {
    sqlite3_vfs *const system = sqlite3_vfs_find(nullptr);
    system->xSetSystemCall(system, name, reinterpret_cast<sqlite3_syscall_ptr>(call));
}

template <typename Function> Function get(const char *name) {
    sqlite3_vfs *const system = sqlite3_vfs_find(nullptr);
    return reinterpret_cast<Function>(system->xGetSystemCall(system, name));
}

} // namespace layer

#endif
