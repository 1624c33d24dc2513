// What stands between the host and the process that the plugin forks.
#ifndef PLATFORM_HOST_PLUGIN_GUARD_H
#define PLATFORM_HOST_PLUGIN_GUARD_H

#include <exception>
#include <sys/types.h>

namespace host {

// Every call into the plugin goes through run(), with nothing between it and the plugin. The plugin forks its collector
// inside such a call, and that may come back out of it, by returning or by an exception; it is ended then and there,
// without destructors of the host's and without touching a descriptor. The log says which exception it was.
class PluginGuard {
public:
    // The process that constructs it is the host.
    PluginGuard();

    // What `call` returns or throws, in the host. Does not return in any other process.
    template <typename Call> auto run(Call &&call) const -> decltype(call()) {
        struct AtReturn {
            const PluginGuard &guard;
            int exceptions = std::uncaught_exceptions();
            ~AtReturn() {
                if (std::uncaught_exceptions() == exceptions)
                    guard.endUnlessHost();
            }
        };
        try {
            const AtReturn atReturn{*this};
            return call();
        } catch (...) { // without a handler in reach nothing would be unwound
            endUnlessHostAfterException();
            throw;
        }
    }

    // Ends the calling process with exit status 0 unless it is the host.
    void endUnlessHost() const;

private:
    void endUnlessHostAfterException() const;

    pid_t host_;
};

} // namespace host

#endif
