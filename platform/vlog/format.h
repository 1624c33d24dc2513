// The printf of the log: what the caller wrote stays as it is, what came from outside cannot break a line.
#ifndef PLATFORM_VLOG_FORMAT_H
#define PLATFORM_VLOG_FORMAT_H

#include <cstdarg>
#include <string>
#include <string_view>

namespace vlog {

// `text` with each control character (0x00 to 0x1f, 0x7f) written as \n, \r, \t or \xNN; other bytes stay.
void appendEscaped(std::string &out, std::string_view text);

// Formats as vsnprintf(3) does. Where all conversions are %s, %% and the bare %d, %i, %u and %x with or without l, ll
// or z, what they gave is escaped, and of the format itself only line breaks change: one at the end goes, others are
// escaped. With any other conversion the whole text is escaped, but for a line break at the format's end; it is
// "(unprintable)" where vsnprintf(3) fails. `errorNumber` is what %m stands for.
std::string formatText(const char *format, std::va_list arguments, int errorNumber);

} // namespace vlog

#endif
