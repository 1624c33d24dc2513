// Who has the table: one connection at a time, the others wait in the order in which they came.
#ifndef PLATFORM_RLV_SERVICE_TABLE_TURNS_H
#define PLATFORM_RLV_SERVICE_TABLE_TURNS_H

#include <deque>

#include "support/event-loop.h"

namespace rlv {

// Turns are given from the event loop alone, never from within a call: whoever leaves has done all that it has to do
// before the next one begins.
class TableTurns {
public:
    class Member {
    public:
        virtual ~Member() = default;
        // The table is this one's, until it leaves. It may leave at once.
        virtual void haveTurn() = 0;
    };

    explicit TableTurns(support::EventLoop &loop) : loop_(loop) {}
    ~TableTurns() { loop_.cancel(timer_); }
    TableTurns(const TableTurns &) = delete;
    TableTurns &operator=(const TableTurns &) = delete;

    // The member leaves before it goes away.
    void enter(Member &member);
    // Does nothing for one that neither waits nor has the table.
    void leave(const Member &member);

    bool isWaitedFor() const { return !waiting_.empty(); }

private:
    void arrangeNext();

    support::EventLoop &loop_;
    Member *holder_ = nullptr;
    std::deque<Member *> waiting_;
    support::EventLoop::Timer timer_ = 0;
};

} // namespace rlv

#endif
