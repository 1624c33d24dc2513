#include "rlv/service/names.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <iterator>
#include <set>
#include <utility>

#include "rlv/service/service-log.h"
#include "rlv/table/rule-words.h"

namespace rlv {
namespace {

// A resolver's second attempt, of which it usually makes one after 5 s, may answer.
constexpr std::chrono::seconds kBackgroundTime{15};
constexpr std::chrono::seconds kFirstPause{5};
constexpr std::chrono::seconds kLongestPause{300};
constexpr int kMostDoublings = 10;
// What is due soon is looked up together with what is due, so that the machine wakes up once.
constexpr std::chrono::seconds kTogether{1};
// Whoever has not asked for so long uses its names no more.
constexpr std::chrono::minutes kForgetUse{15};
constexpr std::size_t kMaxAnnouncedAtOnce = 4;
constexpr std::chrono::seconds kSavePause{1};
// Of an answer that stays the same, the time is written anew when it is so much older in the file.
constexpr std::int64_t kSaveAgeSeconds = std::int64_t{24} * 3600;

std::string keyOf(std::string name) {
    for (char &c : name)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return name;
}

std::int64_t secondsOf(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return time.tv_sec;
}

// Goes on while the machine sleeps, and does not jump.
std::int64_t now() { return secondsOf(CLOCK_BOOTTIME); }

UnansweredName::Problem problemOf(LookUpResult::Kind kind) {
    switch (kind) {
    case LookUpResult::Kind::absent:
        return UnansweredName::Problem::absent;
    case LookUpResult::Kind::tooMany:
        return UnansweredName::Problem::tooMany;
    default:
        return UnansweredName::Problem::failed;
    }
}

} // namespace

Names::Wait::~Wait() {
    names_.loop_.cancel(timer_);
    names_.abandon(*this);
}

// The callee may end this object.
void Names::Wait::finish(const LookUpResult &result) {
    names_.loop_.cancel(std::exchange(timer_, 0));
    names_.abandon(*this);
    const Done done = std::move(done_);
    done(result);
}

Names::Names(support::EventLoop &loop, const NameOptions &options)
    : loop_(loop), options_(options), lastAsked_(Clock::now()) {
    load();
}

Names::~Names() {
    if (saveTimer_ != 0)
        save();
    for (const auto timer : {saveTimer_, dueTimer_, burialTimer_})
        loop_.cancel(timer);
}

void Names::load() try {
    if (options_.file.empty())
        return RLVD_INFO("answers of name servers are kept in memory alone (no --names-file)");
    const auto names = readNames(options_.file);
    const std::int64_t wall = secondsOf(CLOCK_REALTIME);
    lastUse_ = names.size();
    std::uint64_t use = names.size();
    for (const KeptName &one : names) {
        Entry &entry = entries_[keyOf(one.name)];
        entry.kept = one.addresses;
        entry.hasAge = one.confirmed > 0 && one.confirmed <= wall;
        entry.confirmed = now() - (wall - one.confirmed);
        entry.saved = entry.confirmed;
        entry.lastUse = use--;
    }
} catch (const std::exception &error) {
    const bool isAside = putAside(options_.file);
    RLVD_ERROR("kept answers of name servers are not used: %s%s", error.what(),
               isAside ? "; the file was renamed to .refused" : "");
}

// Those used last have room first.
std::vector<KeptName> Names::kept() const {
    std::vector<const Entries::value_type *> order;
    for (const auto &entry : entries_) {
        if (!entry.second.kept.empty())
            order.push_back(&entry);
    }
    std::sort(order.begin(), order.end(), [](const auto *left, const auto *right) {
        return std::make_pair(left->second.inUse, left->second.lastUse) >
               std::make_pair(right->second.inUse, right->second.lastUse);
    });
    const std::int64_t sinceStart = secondsOf(CLOCK_REALTIME) - now();
    std::vector<KeptName> names;
    for (const auto *one : order) {
        const std::int64_t time = one->second.hasAge ? one->second.confirmed + sinceStart : 0;
        names.push_back({one->first, std::max<std::int64_t>(time, 0), one->second.kept});
    }
    return names;
}

void Names::save() try {
    writeNames(options_.file, kept());
    for (auto &[name, entry] : entries_)
        entry.saved = entry.confirmed;
    saveFailed_ = false;
} catch (const std::exception &error) {
    if (!std::exchange(saveFailed_, true))
        RLVD_ERROR("answers of name servers are kept in memory alone for now: %s", error.what());
}

// Many change together, and the first one that fails to be saved is tried again when it is confirmed.
void Names::saveSoon() {
    if (options_.file.empty() || saveTimer_ != 0)
        return;
    saveTimer_ = loop_.after(kSavePause, [this] {
        saveTimer_ = 0;
        save();
    });
}

// Null for what is no name, or when there are too many.
Names::Entry *Names::use(const std::string &name) {
    auto found = entries_.find(keyOf(name));
    if (found == entries_.end()) {
        if (!isHostName(name) || !makeRoom())
            return nullptr;
        found = entries_.emplace(keyOf(name), Entry()).first;
    }
    Entry &entry = found->second;
    inUse_ += entry.inUse ? 0 : 1;
    entry.inUse = true;
    entry.lastUse = ++lastUse_;
    return &entry;
}

// For one more: the one that nobody has used for the longest time goes.
bool Names::makeRoom() {
    if (entries_.size() < kMaxKeptNames)
        return true;
    auto oldest = entries_.end();
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
        const bool canGo = !entry->second.inUse && entry->second.round == 0;
        if (canGo && (oldest == entries_.end() || entry->second.lastUse < oldest->second.lastUse))
            oldest = entry;
    }
    if (oldest == entries_.end())
        return false;
    entries_.erase(oldest);
    return true;
}

void Names::discardUnused(const std::vector<std::string> &names) {
    std::set<std::string> used;
    for (const auto &name : names)
        used.insert(keyOf(name));
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        Entry &one = entry->second;
        if (one.inUse && used.count(entry->first) == 0) {
            one.inUse = false;
            one.given = {};
            --inUse_;
        }
        const bool isEmpty = !one.inUse && one.kept.empty() && one.round == 0;
        entry = isEmpty ? entries_.erase(entry) : std::next(entry);
    }
}

void Names::announce(const std::vector<std::string> &names) {
    lastAsked_ = Clock::now();
    std::vector<std::string> keys;
    for (const auto &name : names) {
        if (use(name) != nullptr)
            keys.push_back(keyOf(name));
    }
    beginAnnounced(keys);
}

void Names::announceAll(const std::vector<std::string> &names) {
    discardUnused(names);
    for (auto &[name, entry] : entries_)
        entry.given = {}; // what is about to be built anew needs no further rebuild
    announce(names);
}

void Names::retain(const std::vector<std::string> &names) {
    discardUnused(names);
    std::vector<std::string> added;
    std::copy_if(names.begin(), names.end(), std::back_inserter(added), [this](const std::string &name) {
        const auto found = entries_.find(keyOf(name));
        return found == entries_.end() || !found->second.inUse;
    });
    announce(added);
}

void Names::beginAnnounced(const std::vector<std::string> &keys) {
    const auto running = std::count_if(rounds_.begin(), rounds_.end(),
                                       [](const Round &round) { return round.number != 0 && round.isAnnounced; });
    if (!keys.empty() && static_cast<std::size_t>(running) < kMaxAnnouncedAtOnce)
        begin(keys, kLookUpTime, false, true);
    schedule();
}

// False, and all have failed, when the system gives no process.
bool Names::begin(std::vector<std::string> keys, std::chrono::milliseconds timeout, bool isBackground,
                  bool isAnnounced) {
    // Those that are likely to stall do not keep others from being asked for.
    std::stable_partition(keys.begin(), keys.end(), [this](const auto &key) { return entries_[key].failures == 0; });
    Round &round = rounds_.emplace_back();
    const std::uint64_t number = round.number = ++lastRound_;
    round.isBackground = isBackground;
    round.isAnnounced = isAnnounced;
    round.keys = std::move(keys);
    for (const auto &key : round.keys)
        entries_[key].round = number;
    try {
        round.lookUps = std::make_unique<LookUps>(
            loop_, round.keys, timeout,
            [this, number](const std::string &key, const LookUpResult &result) { settle(key, number, result, true); },
            [this, number] { over(number); });
        return true;
    } catch (const std::exception &error) {
        RLVD_ERROR("no names can be looked up: %s", error.what());
        over(number);
        return false;
    }
}

// What has had no answer has failed.
void Names::over(std::uint64_t number) {
    const auto round =
        std::find_if(rounds_.begin(), rounds_.end(), [number](const Round &one) { return one.number == number; });
    if (round == rounds_.end())
        return;
    const std::size_t asked = round->lookUps ? round->lookUps->asked() : 0;
    for (std::size_t place = 0; place < round->keys.size(); ++place) {
        const auto entry = entries_.find(round->keys[place]);
        if (entry != entries_.end() && entry->second.round == number)
            settle(round->keys[place], number, LookUpResult(), place < asked);
    }
    bury(*round);
    schedule();
}

// It may be on the call stack, and goes in the next turn of the loop.
void Names::bury(Round &round) {
    round.number = 0;
    if (round.lookUps)
        round.lookUps->end();
    if (burialTimer_ == 0)
        burialTimer_ = loop_.after(std::chrono::milliseconds(0), [this] {
            burialTimer_ = 0;
            rounds_.remove_if([](const Round &one) { return one.number == 0; });
        });
}

// An older look-up that was overtaken counts when it has found something.
void Names::settle(const std::string &key, std::uint64_t round, const LookUpResult &result, bool wasAsked) {
    const auto found = entries_.find(key);
    if (found == entries_.end() || (found->second.round != round && result.kind != Kind::found))
        return;
    Entry &entry = found->second;
    if (entry.round == round)
        entry.round = 0;
    entry.last = result.kind;
    if (result.kind == Kind::found)
        keep(entry, result.addresses);
    else
        entry.failures += wasAsked ? 1 : 0;
    entry.due = Clock::now() + pauseAfter(entry);
    compare(entry);
    wake(key, result);
    forgetUnlessNeeded(key);
}

void Names::forgetUnlessNeeded(const std::string &key) {
    const auto found = entries_.find(key);
    if (found == entries_.end() || found->second.inUse || found->second.round != 0)
        return;
    if (found->second.kept.empty() || entries_.size() > kMaxKeptNames)
        entries_.erase(found);
}

void Names::keep(Entry &entry, const Addresses &addresses) {
    const bool isSame = entry.kept == addresses && entry.hasAge;
    entry.kept = addresses;
    entry.confirmed = now();
    entry.hasAge = true;
    entry.failures = 0;
    entry.lastUse = ++lastUse_;
    if (!isSame || !entry.saved || entry.confirmed - *entry.saved > kSaveAgeSeconds)
        saveSoon();
}

// Each may begin or abandon others.
void Names::wake(const std::string &key, const LookUpResult &result) {
    const auto isForKey = [&key](const Wait *wait) { return wait->key_ == key; };
    for (auto wait = std::find_if(waits_.begin(), waits_.end(), isForKey); wait != waits_.end();
         wait = std::find_if(waits_.begin(), waits_.end(), isForKey))
        (*wait)->finish(result);
}

std::unique_ptr<Names::Wait> Names::lookUp(const std::string &name, std::chrono::milliseconds timeout,
                                           Wait::Done done) {
    const std::string key = keyOf(name);
    std::unique_ptr<Wait> wait(new Wait(*this, key, std::move(done)));
    Wait *const waiting = wait.get();
    if (entries_.count(key) == 0)
        makeRoom();
    const Entry &entry = entries_[key];
    // One in the background may be waiting for what was lost on its way long ago.
    const bool isUnderWay = entry.round != 0 && !isInBackground(entry);
    const bool hasBegun = isUnderWay || begin({key}, timeout, false, false);
    waits_.push_back(waiting);
    waiting->timer_ = loop_.after(hasBegun ? timeout : std::chrono::milliseconds(0), [waiting] {
        waiting->timer_ = 0;
        waiting->finish(LookUpResult());
    });
    return wait;
}

bool Names::isInBackground(const Entry &entry) const {
    return std::any_of(rounds_.begin(), rounds_.end(),
                       [&entry](const Round &round) { return round.number == entry.round && round.isBackground; });
}

// Ends a look-up that nobody waits for any more.
void Names::abandon(Wait &wait) {
    const auto found = std::find(waits_.begin(), waits_.end(), &wait);
    if (found == waits_.end())
        return;
    waits_.erase(found);
    const auto entry = entries_.find(wait.key_);
    const bool isWaitedFor =
        std::any_of(waits_.begin(), waits_.end(), [&wait](const Wait *other) { return other->key_ == wait.key_; });
    if (entry == entries_.end() || entry->second.round == 0 || isWaitedFor)
        return;
    for (Round &round : rounds_) {
        if (round.number != entry->second.round || round.isAnnounced || round.isBackground)
            continue;
        bury(round);
        entry->second.round = 0;
    }
    forgetUnlessNeeded(wait.key_);
}

std::optional<LookUpResult> Names::standing(const std::string &name) const {
    const auto found = entries_.find(keyOf(name));
    if (found == entries_.end() || !found->second.inUse || !found->second.last)
        return std::nullopt;
    const Entry &entry = found->second;
    if (entry.round != 0 && !isInBackground(entry))
        return std::nullopt;
    return LookUpResult{*entry.last, *entry.last == Kind::found ? entry.kept : Addresses()};
}

NameAnswers Names::answers(const Entry &entry, Kind kind) {
    const std::int64_t allowedAge = std::chrono::seconds(kAllowedAge).count();
    const bool isYoung = entry.hasAge && now() - entry.confirmed <= allowedAge;
    const bool allows = kind == Kind::found || (kind != Kind::absent && isYoung);
    return {allows ? entry.kept : Addresses(), entry.kept};
}

NameAnswers Names::answersAfter(const std::string &name, const LookUpResult &result) const {
    if (result.kind == Kind::found)
        return {result.addresses, result.addresses};
    const auto found = entries_.find(keyOf(name));
    return found == entries_.end() ? NameAnswers() : answers(found->second, result.kind);
}

std::optional<Addresses> Names::applied(const std::string &name, bool allows) const {
    const auto found = entries_.find(keyOf(name));
    if (found != entries_.end() && found->second.given.at(allows ? 1 : 0))
        return found->second.given.at(allows ? 1 : 0);
    const auto result = standing(name);
    if (!result)
        return std::nullopt;
    const NameAnswers answers = answersAfter(name, *result);
    return allows ? answers.allowing : answers.denying;
}

void Names::noteUse(const std::string &name, bool allows, const Addresses &addresses) {
    const auto found = entries_.find(keyOf(name));
    if (found == entries_.end())
        return;
    found->second.lastUse = ++lastUse_;
    if (!found->second.inUse)
        return;
    found->second.given.at(allows ? 1 : 0) = addresses;
    compare(found->second);
}

void Names::compare(Entry &entry) {
    const NameAnswers right = answers(entry, entry.last.value_or(Kind::failed));
    bool isOther = false;
    for (const bool allows : {false, true}) {
        auto &given = entry.given.at(allows ? 1 : 0);
        const Addresses &wanted = allows ? right.allowing : right.denying;
        if (!given || *given == wanted)
            continue;
        given = wanted;
        isOther = true;
    }
    generation_ += isOther ? 1 : 0;
}

std::chrono::seconds Names::pauseAfter(const Entry &entry) const {
    const std::chrono::seconds whenFound = std::max(options_.refresh, std::chrono::seconds(inUse_));
    if (entry.last == Kind::found)
        return whenFound;
    const int doublings = std::clamp(entry.failures - 1, 0, kMostDoublings);
    return std::min({kFirstPause * (1 << doublings), kLongestPause, whenFound});
}

// No timer while no name is in use, and none while the background is at work.
void Names::schedule() {
    loop_.cancel(std::exchange(dueTimer_, 0));
    const bool isAtWork = std::any_of(rounds_.begin(), rounds_.end(),
                                      [](const Round &round) { return round.number != 0 && round.isBackground; });
    if (inUse_ == 0 || isAtWork)
        return;
    auto earliest = Clock::time_point::max();
    for (const auto &[name, entry] : entries_) {
        if (entry.inUse && entry.round == 0)
            earliest = std::min(earliest, entry.due);
    }
    if (earliest == Clock::time_point::max())
        return;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(earliest - Clock::now());
    dueTimer_ = loop_.after(std::max<std::chrono::milliseconds>(left, kTogether), [this] {
        dueTimer_ = 0;
        lookUpDue();
    });
}

void Names::lookUpDue() {
    if (Clock::now() - lastAsked_ > kForgetUse)
        return discardUnused({});
    std::vector<std::string> keys;
    for (const auto &[key, entry] : entries_) {
        if (entry.inUse && entry.round == 0 && entry.due <= Clock::now() + kTogether)
            keys.push_back(key);
    }
    if (!keys.empty())
        begin(std::move(keys), kBackgroundTime, true, false);
    schedule();
}

NamesState Names::state(bool withList) {
    lastAsked_ = Clock::now();
    NamesState state;
    state.generation = generation_;
    state.inUse = inUse_;
    state.refreshSeconds = static_cast<std::uint64_t>(options_.refresh.count());
    for (const auto &[name, entry] : entries_) {
        if (!entry.inUse || !entry.last || *entry.last == Kind::found)
            continue;
        ++state.unanswered;
        if (!withList)
            continue;
        const std::int64_t age = entry.hasAge && !entry.kept.empty() ? now() - entry.confirmed : -1;
        state.list.push_back(
            {name, problemOf(*entry.last), entry.kept.size(), age, !answers(entry, *entry.last).allowing.empty()});
    }
    return state;
}

} // namespace rlv
