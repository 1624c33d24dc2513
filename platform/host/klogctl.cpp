// What the plugin's calls of klogctl land in: a program's own symbols come before the C library's.
#include <sys/klog.h>

#include "host/kernel-log.h"

extern "C" __attribute__((visibility("default"))) int klogctl(int action, char *buffer, int size) noexcept {
    return host::deviceKlogctl(action, buffer, size);
}
