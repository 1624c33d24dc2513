// The exception type of the platform's utility library.
#ifndef MAVO_EXCEPTION_H
#define MAVO_EXCEPTION_H

#include <stdexcept>
#include <string>

namespace mavo {

// What the utility library, and those who build on it, throw. The text is what().
class __attribute__((visibility("default"))) Exception : public std::runtime_error {
public:
    explicit Exception(const std::string &text);
    Exception(const Exception &) = default;
    Exception &operator=(const Exception &) = default;
    ~Exception() override;
};

} // namespace mavo

#endif
