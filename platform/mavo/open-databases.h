// What this process has open: connections, and the files behind them.
//
// One that changes its file marks the file's digest as no longer true before the first change reaches the disk; the
// last of a file's connections to close writes what the file holds then.
#ifndef PLATFORM_MAVO_OPEN_DATABASES_H
#define PLATFORM_MAVO_OPEN_DATABASES_H

#include <string>

struct sqlite3;

namespace mavo {
namespace database {

// Thread-safe, all of them.

// Of a connection that has just been opened. Throws std::bad_alloc.
void noteOpened(sqlite3 *handle, const std::string &path);
// Before it is closed: writes the digest where that is due. Throws nothing.
void noteClosing(sqlite3 *handle) noexcept;

bool isOpen(const std::string &path);
// True from the first change by a connection of this process until the last one is closed: the digest says nothing
// then, and what was checked at the opening has since gone through our own hands.
bool isBeingChangedByUs(const std::string &path);

// Whether the connection is still being opened: for its users that lasts until its first table has been made sure of.
bool isBeingOpened(sqlite3 *handle);
void noteReady(sqlite3 *handle);

// The path that a connection was opened with; empty for an unknown one.
std::string pathOf(sqlite3 *handle);

// Something in the file has turned out to be damaged: it is checked at the next opening, whatever is done until then.
void distrust(sqlite3 *handle) noexcept;

} // namespace database
} // namespace mavo

#endif
