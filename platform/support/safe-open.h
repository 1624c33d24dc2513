// Opening files at paths where somebody else may have put something.
#ifndef PLATFORM_SUPPORT_SAFE_OPEN_H
#define PLATFORM_SUPPORT_SAFE_OPEN_H

#include <string>
#include <sys/stat.h>
#include <sys/types.h>

#include "support/unique-fd.h"

namespace support {

// What lies somewhere and whose it is, for a person: "a fifo of account 1000".
std::string describe(const struct stat &object);

// Whose a file may be.
enum class Owner {
    us,      // this process's account, or root
    ofFolder // as well the account that the folder belongs to, for root at work in folders of others
};

struct Opened {
    UniqueFd fd;         // 3 or above
    int error = 0;       // errno when it is empty; EPERM when what lies there is not taken for a file of ours
    std::string problem; // then also: one line that names the path, what lies there and what should
    explicit operator bool() const { return static_cast<bool>(fd); }
};

// Opens a regular file. Whatever else lies there is refused without being opened: a link is not followed, a fifo or a
// device not waited for, a file of somebody else not believed, nor a second name of a file of ours in a folder where
// others may put it. `flags` and `mode` are those of open(2), and O_NONBLOCK, O_NOFOLLOW and O_CLOEXEC are added. Links
// on the way to the file's folder are followed.
Opened openPlain(const std::string &path, int flags, mode_t mode = 0, Owner owner = Owner::us);

// Why openPlain() would refuse what lies at `path`; empty for a file that it takes and where nothing is. Opens nothing.
std::string plainFileProblem(const std::string &path, Owner owner = Owner::us);

// What is in the file at `path`; empty where openPlain() gives none, and when it cannot be read.
std::string contentsOfPlain(const std::string &path);

// Takes away what openPlain() would refuse, in a folder that belongs to this process's account and is changed by no
// others: a folder only when it is empty. Safe against another process that does the same. The result is empty, also
// when there was nothing to take away, or one line that says why it stays. `removed`, when given, receives what it was.
std::string clearPath(const std::string &path, std::string *removed = nullptr);

} // namespace support

#endif
