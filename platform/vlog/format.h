// The printf of the log: what the caller wrote stays as it is, what came from outside cannot break a line.
#ifndef PLATFORM_VLOG_FORMAT_H
#define PLATFORM_VLOG_FORMAT_H

#include <cstdarg>
#include <string>
#include <string_view>

namespace vlog {

// `text` with each control character (0x00 to 0x1f, 0x7f) written as \n, \r, \t or \xNN; other bytes stay.
void appendEscaped(std::string &out, std::string_view text);

// Formats as vsnprintf(3) does, and escapes what the conversions gave. Of the format itself only line breaks change:
// one at the end goes, others are escaped. `errorNumber` is what %m stands for. %n stores nothing. With a conversion
// that is not known the rest of the format comes unchanged; with positional arguments the whole text is escaped.
std::string formatText(const char *format, std::va_list arguments, int errorNumber);

} // namespace vlog

#endif
