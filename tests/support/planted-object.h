// Things that somebody else has put where one of our programs has a path of its own.
#ifndef TESTS_SUPPORT_PLANTED_OBJECT_H
#define TESTS_SUPPORT_PLANTED_OBJECT_H

#include <functional>
#include <string>
#include <vector>

#include "support/unique-fd.h"

namespace planted {

constexpr unsigned kStranger = 4711; // an account that is nobody's

// One kind of thing.
struct Kind {
    std::string name;
    std::string told;      // what a message about it says behind the path
    bool trusted = false;  // a file that is ours
    bool removable = true; // all but a folder with something in it
    std::function<void(const std::string &path)> make;
};

// All kinds; at least ten that nobody may trust.
const std::vector<Kind> &kinds();

// A thing at a path, instead of what was there. It goes, whatever it has become, with the object, and what was there
// comes back.
class Object {
public:
    Object(const Kind &kind, std::string path);
    ~Object();
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    // The very thing is still there.
    bool stands() const;
    // What was done to things of others by way of it: a link's target or a stranger's file written, removed or given
    // another mode or owner. Empty for none.
    std::string harm() const;

private:
    std::string path_;
    bool replaced_ = false;
    std::string identity_;
    std::string before_;
};

} // namespace planted

#endif
