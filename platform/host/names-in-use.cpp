#include "host/names-in-use.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <set>
#include <utility>

#include "host/documents.h"
#include "host/log.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kNamesTimeout{500};
constexpr std::chrono::seconds kSoon{1};
// While a name has no answer, and else.
constexpr std::chrono::seconds kShortPause{5};
constexpr std::chrono::seconds kLongPause{30};
constexpr std::size_t kMaxNameBytes = 254;

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool canBeInName(char c) { return isLetter(c) || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_'; }

// Between two rules of a list, and around those of a document.
bool separatesRules(char c) {
    return static_cast<unsigned char>(c) <= ' ' || std::string_view(";,\"[]{}").find(c) != std::string_view::npos;
}

// What stands between the first and the second colon.
std::string_view addressIn(std::string_view rule) {
    const std::size_t begin = std::min(rule.find(':'), rule.size());
    const std::size_t end = rule.find(':', begin + 1);
    return end == std::string_view::npos ? std::string_view() : rule.substr(begin + 1, end - begin - 1);
}

std::chrono::seconds pauseOf(const rlv::NamesState &state) {
    const auto refresh = std::max<std::uint64_t>(state.refreshSeconds, 1);
    const auto pause = state.unanswered > 0 ? kShortPause : kLongPause;
    return std::min(pause, std::chrono::seconds(std::min<std::uint64_t>(refresh, 3600)));
}

} // namespace

bool couldBeName(std::string_view address) {
    return address.size() <= kMaxNameBytes && std::any_of(address.begin(), address.end(), isLetter) &&
           std::all_of(address.begin(), address.end(), canBeInName);
}

std::vector<std::string> namesIn(std::string_view rules) {
    std::set<std::string, std::less<>> names;
    while (!rules.empty() && names.size() < rlv::kMaxNamesInUse) {
        const auto *const end = std::find_if(rules.begin(), rules.end(), separatesRules);
        const auto bytes = static_cast<std::size_t>(end - rules.begin());
        const std::string_view address = addressIn(rules.substr(0, bytes));
        if (couldBeName(address))
            names.emplace(address);
        rules.remove_prefix(std::min(bytes + 1, rules.size()));
    }
    return {names.begin(), names.end()};
}

// One line in the log, until it succeeds again.
template <typename Request> bool NamesInUse::ask(Request request) {
    try {
        last_ = request();
        inUse_ = last_.inUse > 0;
        isTold_ = false;
        return true;
    } catch (const std::exception &error) {
        if (!std::exchange(isTold_, true))
            logError(std::string("host names of the rules: ") + error.what());
    } catch (...) { // of the database
        if (!std::exchange(isTold_, true))
            logError("host names of the rules: the database cannot be read for now");
    }
    return false;
}

void NamesInUse::announceStored() {
    const bool isTold = ask([this] {
        const auto names = storedNames();
        const bool concerns = inUse_ || !names.empty();
        return concerns ? rlv::announceAllNames(names, kNamesTimeout) : rlv::NamesState();
    });
    storedChanged_ = !isTold;
    service_ = isTold ? last_.serviceId : service_;
    generation_ = isTold ? last_.generation : generation_;
    arm(isTold ? pauseOf(last_) : kShortPause);
}

// The generation stays the one that was seen last: other names may have changed meanwhile.
void NamesInUse::announceIn(const std::string &rules) {
    const auto names = namesIn(rules);
    if (names.empty())
        return;
    ask([&names] { return rlv::announceNames(names, kNamesTimeout); });
    if (service_ == 0) {
        service_ = last_.serviceId;
        generation_ = last_.generation;
    }
    inUse_ = true;
    rulesMayBeGone();
}

void NamesInUse::rulesMayBeGone() {
    if (!inUse_)
        return;
    storedChanged_ = true;
    arm(kSoon);
}

bool NamesInUse::retainStored() {
    const bool isTold = ask([] { return rlv::retainNames(storedNames(), kNamesTimeout); });
    storedChanged_ = !isTold;
    return isTold;
}

void NamesInUse::follow(support::EventLoop *loop, std::function<void(const std::string &)> changed) {
    if (loop_ != nullptr)
        loop_->cancel(std::exchange(timer_, 0));
    loop_ = loop;
    changed_ = std::move(changed);
    arm(kSoon);
}

void NamesInUse::arm(std::chrono::seconds pause) {
    if (loop_ == nullptr)
        return;
    loop_->cancel(std::exchange(timer_, 0));
    if (inUse_ || storedChanged_)
        timer_ = loop_->after(pause, [this] {
            timer_ = 0;
            look();
        });
}

// A service that was started anew, or has not been asked for so long that it has forgotten the names, does not know to
// which addresses the rules in the kernel were made.
void NamesInUse::look() {
    const bool mayBeNone = storedChanged_ || !inUse_;
    const bool hasAnswered =
        storedChanged_ ? retainStored() : ask([] { return rlv::queryNames(false, kNamesTimeout); });
    if (!hasAnswered)
        return arm(kShortPause);
    const bool isOther = (service_ != 0 && last_.serviceId != service_) || (last_.inUse == 0 && !mayBeNone);
    const bool hasChanged = isOther || (inUse_ && last_.generation != generation_);
    service_ = last_.serviceId;
    generation_ = last_.generation;
    inUse_ = inUse_ || isOther;
    arm(pauseOf(last_));
    if (hasChanged && changed_)
        changed_(isOther ? "the traffic-control service has forgotten the host names"
                         : "host names have other addresses");
}

rlv::NamesState NamesInUse::state() {
    if (storedChanged_)
        retainStored();
    if (!inUse_ || !ask([] { return rlv::queryNames(true, kNamesTimeout); }))
        return {};
    return last_;
}

} // namespace host
