// Carrying out remote calls, and telling their callers what became of them.
#ifndef PLATFORM_HOST_DISPATCH_H
#define PLATFORM_HOST_DISPATCH_H

#include <memory>
#include <string>

#include "host/call-watch.h"
#include "host/host-parts.h"
#include "host/plugin-guard.h"
#include "host/remarks.h"
#include "mavo/rmi-protocol.h"
#include "mavo/rmi-server.h"
#include "mavo/rmi.h"

namespace host {

// Finds remote methods, the host's own and the plugin's, and calls them one at a time on the thread that asks.
class Dispatch {
public:
    explicit Dispatch(HostParts parts);
    Dispatch(const Dispatch &) = delete;
    Dispatch &operator=(const Dispatch &) = delete;

    // The method of that name, or null. While no plugin has come up each name may be one of the plugin's: it gets a
    // method for callers with the privilege /privilege/vpk.firewall that says so.
    std::shared_ptr<const mavo::rmi::MethodContext> find(const std::string &name) const;
    // Carries out a remote call; one that may change something is noted in the history. Throws std::bad_alloc, whatever
    // the plugin throws; a rebuild follows then, as the call may have got anywhere, unless it only looked. When one
    // follows otherwise, the remarks of the reply (see remarks.h) say so and why. One that is waited for already comes
    // sooner.
    mavo::rmi::Reply invoke(const mavo::rmi::Caller &caller, const std::string &name,
                            const mavo::rmi::MethodContext &method, mavo::rmi::Message &request);

private:
    // What a method has given back, and whether it ended for want of memory.
    struct Ended {
        mavo::rmi::Reply reply;
        bool lackedMemory = false;
    };

    mavo::rmi::Reply look(const std::string &name, const mavo::rmi::MethodContext &method, mavo::rmi::Message &request);
    mavo::rmi::Reply change(const std::string &name, const mavo::rmi::MethodContext &method,
                            mavo::rmi::Message &request);
    Ended carryOut(const std::string &name, const mavo::rmi::MethodContext &method, mavo::rmi::Message &request);
    void letThrough(const std::string &name, const mavo::rmi::Message &request);
    void orderRebuild(const Verdict &verdict, bool broughtUp, Remarks &remarks);
    std::string whyNotUp() const;

    HostParts parts_;
    PluginGuard guard_;
    mavo::rmi::Service ownMethods_;
};

} // namespace host

#endif
