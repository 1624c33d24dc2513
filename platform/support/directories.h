// Making the directories that data lies in.
#ifndef PLATFORM_SUPPORT_DIRECTORIES_H
#define PLATFORM_SUPPORT_DIRECTORIES_H

#include <string>
#include <sys/types.h>

namespace support {

// Makes the directory `path` and those above it where they are missing, each with `mode` whatever the umask says; what
// exists keeps its mode. Throws std::system_error naming the directory that could not be made, or that is something
// else.
void makeDirectory(const std::string &path, mode_t mode);

// The same for a directory of the platform's data: /opt/data and what is above it 0755, all below it 0700.
void makeDataDirectory(const std::string &path);

} // namespace support

#endif
