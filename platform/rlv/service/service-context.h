// What all that the service does for its clients shares.
#ifndef PLATFORM_RLV_SERVICE_SERVICE_CONTEXT_H
#define PLATFORM_RLV_SERVICE_SERVICE_CONTEXT_H

#include <chrono>
#include <cstdint>
#include <string>

#include "rlv/service/connection-history.h"
#include "rlv/service/drift.h"
#include "rlv/service/names.h"
#include "rlv/service/table-turns.h"
#include "rlv/table/table.h"
#include "support/event-loop.h"

namespace rlv {

// The service owns it.
struct ServiceContext {
    support::EventLoop &loop;
    Table &table;
    TableTurns turns;
    ConnectionHistory history;
    Names names;
    Drift drift;
    std::string chainPrefix;
    std::chrono::milliseconds maxWait; // for a turn
    bool resolveNames = true;
    bool logAccepted = false;
    bool simulated = false;
    std::uint64_t serviceId = 0;
};

} // namespace rlv

#endif
