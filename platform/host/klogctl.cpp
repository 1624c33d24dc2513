// What the plugin's calls of klogctl land in: a program's own symbols come before the C library's, where the program
// exports them (-Wl,--export-dynamic-symbol=klogctl in CMakeLists.txt). No call of ours leads here. Without that option
// nothing would fail to build: the plugin would read the stock kernel's stamp, and each collector would end at the
// first packet that was dropped.
#include <sys/klog.h>

#include "host/kernel-log.h"

extern "C" __attribute__((visibility("default"))) int klogctl(int action, char *buffer, int size) noexcept {
    return host::deviceKlogctl(action, buffer, size);
}
