#include "rlv/service/table-turns.h"

#include <algorithm>

namespace rlv {

void TableTurns::leave(const Member &member) {
    waiting_.erase(std::remove(waiting_.begin(), waiting_.end(), &member), waiting_.end());
    if (holder_ != &member)
        return;
    holder_ = nullptr;
    next();
}

void TableTurns::next() {
    if (holder_ != nullptr || waiting_.empty())
        return;
    holder_ = waiting_.front();
    waiting_.pop_front();
    holder_->haveTurn();
}

} // namespace rlv
