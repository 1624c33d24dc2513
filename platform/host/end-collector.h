// Ending the statistics collector from outside, for whoever replaces or removes the programs: a sleeping collector
// would go on with the old ones for up to a day.
#ifndef PLATFORM_HOST_END_COLLECTOR_H
#define PLATFORM_HOST_END_COLLECTOR_H

#include <chrono>

namespace host {

// Ends every process that holds the collector's lock (see collector.h) and takes its marker away. No policy host may
// run, and none can come up meanwhile. A collector at work is left to it until it sleeps, for `patience` at most: it
// rewrites its configuration in place. One that SIGTERM does not end within `patience` is killed. Does nothing, and
// makes no file, where none was ever started. Throws std::runtime_error with one line when a host runs, or when a
// collector or a marker is left.
void endCollector(std::chrono::milliseconds patience = std::chrono::seconds(10));

} // namespace host

#endif
