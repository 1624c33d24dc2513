// The platform's log service.
#ifndef VLOG_VLOG_H
#define VLOG_VLOG_H

#ifdef __cplusplus
extern "C" {
#endif

// Log buffers. The plugin writes to the main one alone.
enum { VLOG_ID_MAIN = 0 };

// Priorities, with the values of the device's log service.
enum { VLOG_PRIORITY_INFO = 4, VLOG_PRIORITY_ERROR = 6 };

// Writes one line. `format` and what follows it are as for printf(3); the line needs no line break at its end.
// Where the line goes is the program's choice, never the caller's. May be called from any thread, after fork(2), and
// with the descriptors 0 to 2 closed. Returns the number of bytes of the message, or -1 when it could not be written;
// errno is left as it was.
__attribute__((visibility("default"), format(printf, 4, 5))) int vlog_print(int logId, int priority, const char *tag,
                                                                            const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif
