// A TCP stream from this host to another one.
#ifndef BENCHMARKS_PACKET_PATH_STREAM_H
#define BENCHMARKS_PACKET_PATH_STREAM_H

#include "host.h"

namespace packetpath {

// Has both ends of the cable hand over packets as they would be on a real one: without segmentation, merging or
// checksums by the device.
void dropOffloads(const Host &host);

// Sends to a host that takes its own address, for about that time. In Gbit of payload received a second. Throws
// std::system_error.
double gigabitsPerSecond(const Host &host, double seconds);

} // namespace packetpath

#endif
