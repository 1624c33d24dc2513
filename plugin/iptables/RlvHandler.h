// The connection to the traffic-control service.
#ifndef PLUGIN_IPTABLES_RLV_HANDLER_H
#define PLUGIN_IPTABLES_RLV_HANDLER_H

#include <rlv/rlv.h>

namespace iptables {

// Holds the process's one connection open while it lives. Scopes must not nest: the handle is one for all, and the
// inner scope would close it under the outer one. Not thread-safe.
class RlvHandler {
public:
    // Throws std::runtime_error when the service cannot be reached; blocks as rlv_initialize does.
    RlvHandler();
    ~RlvHandler();
    RlvHandler(const RlvHandler &) = delete;
    RlvHandler &operator=(const RlvHandler &) = delete;

    // The handle of the open connection, 0 when there is none.
    static rlv_handle Get();

private:
    static rlv_handle m_rlvHandler;
};

} // namespace iptables

#endif
