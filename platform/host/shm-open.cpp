// What the plugin's calls of shm_open land in: a program's own symbols come before the C library's.
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>

#include "host/firewall-plugin.h"
#include "host/marker.h"

extern "C" __attribute__((visibility("default"))) int shm_open(const char *name, int flags, mode_t mode) {
    if (std::strcmp(name, host::kMarkerName) == 0 && (flags & O_EXCL) != 0)
        return host::openMarkerForPlugin(flags, mode);
    using Function = int(const char *, int, mode_t);
    static auto *const libraries = reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, "shm_open"));
    return libraries(name, flags, mode);
}
