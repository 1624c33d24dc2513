// A file that takes another one's place when it is whole.
#ifndef PLATFORM_MAVO_REPLACEMENT_H
#define PLATFORM_MAVO_REPLACEMENT_H

#include <cstddef>
#include <string>

#include "support/unique-fd.h"

namespace mavo {
namespace database {

// Written beside its target as "<target>-new", and removed again unless it takes the place. All but the destructor
// throw Unavailable when the system does not do it; the target is as it was then.
class Replacement {
public:
    Replacement(const std::string &target, unsigned mode);
    ~Replacement();
    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;

    // The file beside.
    const std::string &path() const { return path_; }
    void write(const char *bytes, std::size_t count);
    // Nothing is written afterwards.
    void synchronise();
    // Durable when it returns. What it throws may also mean that the place is taken, but perhaps not durably.
    void takePlace();

private:
    std::string path_; // empty once it has the target's name
    const std::string target_;
    support::UniqueFd file_;
};

} // namespace database
} // namespace mavo

#endif
