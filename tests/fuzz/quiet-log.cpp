// A log service that formats its lines, so that what is wrong with them shows, and keeps none.
#include <array>
#include <cstdarg>
#include <cstdio>

#include "vlog/vlog.h"

extern "C" int vlog_print(int, int, const char *, const char *format, ...) {
    static std::array<char, 256> line;
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    return length;
}
