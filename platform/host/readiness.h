// Telling the service manager that the program serves.
#ifndef PLATFORM_HOST_READINESS_H
#define PLATFORM_HOST_READINESS_H

namespace host {

// Sends READY=1 to the socket that NOTIFY_SOCKET names, as sd_notify(3) describes it. Does nothing without one.
void tellReady();

} // namespace host

#endif
