// That no plugin came up, and may come up later.
#ifndef PLATFORM_HOST_PASSING_FAILURE_H
#define PLATFORM_HOST_PASSING_FAILURE_H

#include <stdexcept>

namespace host {

// What keeps a plugin from coming up for now: a database that cannot be used, a service that is away, no memory.
class PassingFailure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Whether the exception that is being handled is of such a kind.
bool mayPass();

} // namespace host

#endif
