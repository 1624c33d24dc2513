// Whether others can change what a path leads to.
#ifndef PLATFORM_SUPPORT_TRUSTED_PATH_H
#define PLATFORM_SUPPORT_TRUSTED_PATH_H

#include <string>

namespace support {

// Goes from "/" to the directory `path`, as far as it exists, through symbolic links of root or of the process's
// account. Every directory on the way must belong to one of the two and be writable to no others, sticky or not.
// Returns one line that names the first that is not so and says what to do, or an empty text. In a user namespace an
// account from outside of it, who shows as the overflow account, counts as root.
std::string trustProblem(const std::string &path);

} // namespace support

#endif
