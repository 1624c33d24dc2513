#include "rlv/known-answers.h"

#include "rlv/command-form.h"

namespace rlv {

namespace {

// Two protocols and two chains have a dozen. A client that has more of them than this asks more often.
constexpr std::size_t kMaxForms = 256;

} // namespace

bool KnownAnswers::take(std::string_view options) {
    if (room_ == 0 || !formOf(options, form_) || forms_.count(form_) == 0)
        return false;
    --room_;
    return true;
}

void KnownAnswers::learn(std::string_view options, bool wasAccepted, std::uint64_t room) {
    if (!isAppending(options)) {
        forms_.clear();
        room_ = 0;
        return;
    }
    room_ = room;
    if (!wasAccepted || !formOf(options, form_))
        return;
    if (forms_.size() == kMaxForms)
        forms_.clear();
    forms_.insert(form_);
}

} // namespace rlv
