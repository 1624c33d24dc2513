#include "rlv/service/table-turns.h"

#include <algorithm>

namespace rlv {

void TableTurns::enter(Member &member) {
    waiting_.push_back(&member);
    arrangeNext();
}

void TableTurns::leave(const Member &member) {
    waiting_.erase(std::remove(waiting_.begin(), waiting_.end(), &member), waiting_.end());
    if (holder_ == &member)
        holder_ = nullptr;
    arrangeNext();
}

void TableTurns::arrangeNext() {
    if (holder_ != nullptr || waiting_.empty() || timer_ != 0)
        return;
    timer_ = loop_.after(std::chrono::milliseconds(0), [this] {
        timer_ = 0;
        if (holder_ != nullptr || waiting_.empty())
            return;
        holder_ = waiting_.front();
        waiting_.pop_front();
        holder_->haveTurn();
    });
}

} // namespace rlv
