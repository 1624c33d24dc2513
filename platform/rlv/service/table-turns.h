// Who has the table: one connection at a time, the others wait in the order in which they came.
#ifndef PLATFORM_RLV_SERVICE_TABLE_TURNS_H
#define PLATFORM_RLV_SERVICE_TABLE_TURNS_H

#include <deque>

namespace rlv {

class TableTurns {
public:
    class Member {
    public:
        virtual ~Member() = default;
        // The table is this one's, until it leaves. It may leave at once.
        virtual void haveTurn() = 0;
    };

    // Tells the member at once when nobody has the table, else later.
    void enter(Member &member) {
        waiting_.push_back(&member);
        next();
    }

    // Does nothing for one that neither waits nor has the table.
    void leave(const Member &member);

    bool isWaitedFor() const { return !waiting_.empty(); }

private:
    void next();

    Member *holder_ = nullptr;
    std::deque<Member *> waiting_;
};

} // namespace rlv

#endif
