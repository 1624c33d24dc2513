// A machine without a list of protocols.
#include <cstddef>
#include <netdb.h>

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker's word
extern "C" int __wrap_getprotobyname_r(const char *, protoent *, char *, std::size_t, protoent **found) {
    *found = nullptr;
    return 0;
}
