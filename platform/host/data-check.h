// The directories and files that the plugin relies on.
#ifndef PLATFORM_HOST_DATA_CHECK_H
#define PLATFORM_HOST_DATA_CHECK_H

#include <string>

namespace host {

// Makes the data directories where they are missing: /opt/data for all to enter, everything below it private. Throws
// std::system_error naming the directory, and std::runtime_error, with nothing made, where somebody else could exchange
// what lies there.
void makeDataDirectories();

// Looks for a way to the data that others could bend, and for what would make the plugin fail to open its rule
// database, which it takes for damage, or would keep it from loading. Returns one line that names the file, or an empty
// text when all is well. Throws mavo::database::Unavailable where nobody can tell now: no descriptor, no memory, an
// error of the disk. Changes nothing.
std::string dataProblem();

} // namespace host

#endif
