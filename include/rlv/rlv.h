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
// account, ETIMEDOUT, that of the kernel when its tables cannot be read) and stores 0. Blocks for 10 s at most.
RLV_EXPORT int rlv_initialize(rlv_handle *handle);

// Brings into force what is not yet and closes the connection. Returns 0 when all that was accepted on it is in force,
// else an error code (errno's: EBADF for a handle that is not open, EIO when something was lost, ECANCELED when the
// connection was interrupted). The handle is gone in either case.
//
// An interrupted connection may carry half of what its caller meant to send, such as a chain that was emptied and not
// filled again. So what it sent from its first removing command (-F, -D, -X) on is dropped, and the kernel keeps the
// rules that it had; what was only added stays. A connection counts as interrupted when
// - it is never closed;
// - a command on it has got no answer, also for want of memory in this library or in the service;
// - it has sent a command, and on the closing thread more exceptions are uncaught than were at its opening: it is
//   closed by a destructor, while an exception leaves the operation;
// - what its caller reads the rules from has failed meanwhile, where the host has told this library how to know.
RLV_EXPORT int rlv_deinitialize(rlv_handle handle);

// Applies one iptables command to the filter table: `options` is its option text, without the program's name, such as
// "-A VPK-DENY -s 10.0.0.5 -j DROP". Returns 0 when there is an answer, whatever it is, else an error code (errno's).
// `*error_code` is set to 0 when the command is accepted, else to iptables' exit status for the failure (1, 2 or 4);
// `*error_message` to a text that the caller releases with free(), or left as it is. Without an answer `*error_code` is
// 4 and the message says why. May block for as long as the service is busy, a minute at most.
//
// The answer is exact for the table as it is known then, with all commands before this one. An answer that needs no
// question is given without one; that the service is gone may then be noticed by a later command, or by the end. What
// is only added comes into force within 20 ms; after a command that removes something (-F, -D, -X) nothing does before
// the connection is closed, and then all at once. What the kernel refuses later, or somebody else's changes have made
// impossible, changes no answer: rlv_deinitialize fails.
RLV_EXPORT int rlv_iptables_commit(rlv_handle handle, const char *options, int *error_code, char **error_message);

#ifdef __cplusplus
}
#endif

#endif
