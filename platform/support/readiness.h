// Telling the service manager that the program serves.
#ifndef PLATFORM_SUPPORT_READINESS_H
#define PLATFORM_SUPPORT_READINESS_H

namespace support {

// Sends READY=1 to the socket that NOTIFY_SOCKET names, as sd_notify(3) describes it. False, with errno set, when there
// is one and it was not told. Waits for room in the manager's queue: a message that is lost would let the start time
// out.
[[nodiscard]] bool tellReady();

} // namespace support

#endif
