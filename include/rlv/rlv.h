// Client of the traffic-control service.
#ifndef RLV_RLV_H
#define RLV_RLV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RLV_EXPORT __attribute__((visibility("default")))

// An open connection to the service; 0 is none.
typedef uint32_t rlv_handle;

// Opens a connection and stores its handle. There is one at a time: another one's end is waited for. Returns 0, or an
// error code (errno's: ENOENT or ECONNREFUSED when the service does not run, EACCES when it does not serve this
// account, ETIMEDOUT) and stores 0. Blocks for 10 s at most.
RLV_EXPORT int rlv_initialize(rlv_handle *handle);

// Brings the rules into force and closes the connection. Returns 0 when all that was accepted on it is in force, else
// an error code (errno's: EBADF for a handle that is not open, EIO when something was lost). The handle is gone in
// either case.
RLV_EXPORT int rlv_deinitialize(rlv_handle handle);

// Applies one iptables command to the filter table: `options` is its option text, without the program's name, such as
// "-A VPK-DENY -s 10.0.0.5 -j DROP". Returns 0 when the service answered, whatever its answer, else an error code
// (errno's). `*error_code` is set to 0 when the command was accepted, else to iptables' exit status for the failure
// (1, 2 or 4); `*error_message` to a text that the caller releases with free(), or left as it is. When the service did
// not answer, `*error_code` is 4 and the message says why. The answer holds for the tables as they are known when it is
// given: what was only added comes into force within 20 ms; after a command that removes something (-F, -D, -X) nothing
// does before the connection is closed, and then all at once.
RLV_EXPORT int rlv_iptables_commit(rlv_handle handle, const char *options, int *error_code, char **error_message);

#ifdef __cplusplus
}
#endif

#endif
