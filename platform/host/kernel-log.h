// The kernel log in the dialect of the device.
//
// The device's kernel stamps a line with the processor number, a hyphen and the seconds since boot:
//     <4>[0-  513.605353] IPTables-Dropped:IN= OUT=lo SRC=127.0.0.1 DST=127.0.0.1 …
// A stock kernel has no hyphen there, and with printk.time=0 no stamp at all. /dev/kmsg always gives both time and
// facility (format: Documentation/ABI/testing/dev-kmsg of the kernel), so the lines are made anew from there.
#ifndef PLATFORM_HOST_KERNEL_LOG_H
#define PLATFORM_HOST_KERNEL_LOG_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace host {

// One record of the kernel log.
struct KernelRecord {
    unsigned priority = 0; // facility * 8 + level, as the kernel prints it between < and >
    std::uint64_t microseconds = 0;
    std::string text; // as it was logged, without escapes; may hold line breaks
};

// Understands one record as read from /dev/kmsg: "prio,seq,usec,flags[,more];text", a line break, and lines that begin
// with a blank (a dictionary, which is left out). Empty for anything else.
std::optional<KernelRecord> parseKernelRecord(std::string_view raw);

// True for what netfilter logs of one IPv4 packet behind the log prefix ("IN=… OUT=… SRC=… DST=… …"), when nothing in
// it can be taken for an address or a port but the packet's own (or, in an ICMP error, the quoted packet's).
bool isPacketDescription(std::string_view text);

// Such a text with '_' for each '=' and each control character in what stands before the packet's addresses: in the
// names of the devices, which are nearly free, and in "MACSRC=" and "MACDST=". So none of it can be taken for an
// address.
std::string withPlainNames(std::string_view text);

// The record's lines in the device's dialect, each with its stamp and a line break. A line that holds the log prefix
// is left out unless it is the kernel's own: of its facility, with the prefix first in the record and a packet behind
// it, and then the names in it are made plain; and where its time is beyond INT_MAX seconds.
std::string inDeviceDialect(const KernelRecord &record);

// Reads one record as read(2) does from /dev/kmsg: the length, or -1 with errno EAGAIN at the end and EPIPE where
// records were overwritten before they could be read.
using ReadKernelRecord = std::function<ssize_t(char *buffer, std::size_t size)>;

// Copies the newest whole lines that fit into `buffer`, without a terminating NUL, and returns their length; -1 with
// errno set when the log cannot be read.
int copyKernelLog(const ReadKernelRecord &read, char *buffer, int size);
// A size in which the whole log fits, with room for what is logged before it is read. At least `atLeast`.
int boundKernelLog(const ReadKernelRecord &read, int atLeast);

// klogctl(2) as the plugin sees it: actions 3 and 10 as above, on /dev/kmsg, opened anew by each call; all others go to
// the kernel. Throws nothing. May be called in a process with its standard streams closed.
int deviceKlogctl(int action, char *buffer, int size) noexcept;

} // namespace host

#endif
