// The service in a child process of the test, with limits and a table of the test's choice.
#ifndef TESTS_PLATFORM_RLV_SERVICE_RLVD_EMBEDDED_H
#define TESTS_PLATFORM_RLV_SERVICE_RLVD_EMBEDDED_H

#include <string>
#include <sys/types.h>

#include "rlv/service/service.h"

namespace rlvd {

// On the tests' socket, with a simulated table that does what it is told; killed with the object.
class EmbeddedService {
public:
    explicit EmbeddedService(const rlv::ServiceOptions &options = {});
    ~EmbeddedService();
    EmbeddedService(const EmbeddedService &) = delete;
    EmbeddedService &operator=(const EmbeddedService &) = delete;

    std::string log() const;

private:
    pid_t child_ = -1;
};

// What the table of an embedded service does from now on, or no longer.
enum class Fault {
    openFails,
    applyLacksMemory,
    pushFails,
    pushLoses,
    pushLosesMany,
    describeFails,
    discardFails,
    removalFails
};
void set(Fault fault, bool isSet = true);
// How often it has pushed, and how long the last command waited for it.
int pushes();
std::chrono::microseconds lastDelay();

} // namespace rlvd

#endif
