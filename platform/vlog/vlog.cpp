#include "vlog/vlog.h"

#include <cerrno>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <pthread.h>

#include "vlog/format.h"
#include "vlog/line.h"
#include "vlog/sink.h"
#include "vlog/vlog-sink.h"

namespace vlog {
namespace {

struct State {
    std::mutex mutex;
    std::unique_ptr<Sink> sink; // empty until the first line or the program's choice
    std::function<void(const Line &)> observer;
};

// Never destroyed: other libraries log while the program ends.
State &state() {
    static State &theState = *new State;
    return theState;
}

// A fork waits until no line is under way, so that the child finds the mutex free and no half-made rotation. Done when
// the library is loaded, so that other fork handlers of the program can log.
__attribute__((constructor)) void registerForkHandlers() {
    const auto unlock = [] { state().mutex.unlock(); };
    const auto begin = [] {
        forgetProcessId();
        state().mutex.unlock();
    };
    ::pthread_atfork([] { state().mutex.lock(); }, unlock, begin);
}

void replaceSink(std::unique_ptr<Sink> sink) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().sink.swap(sink);
}

int print(int priority, const char *tag, std::string text) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    if (!state().sink)
        state().sink = openSystemLog(program_invocation_short_name, "/dev/log");
    const int result = state().sink->write(priority, text) ? static_cast<int>(text.size()) : -1;
    if (state().observer)
        state().observer({priority, tag != nullptr ? tag : "", std::move(text)});
    return result;
}

} // namespace

void useSystemLog(const std::string &ident, const std::string &path) { replaceSink(openSystemLog(ident, path)); }

void useStandardError() { replaceSink(openStandardError()); }

void useFile(const FileSink &file) { replaceSink(openFile(file)); }

void setObserver(std::function<void(const Line &)> observer) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().observer.swap(observer);
}

} // namespace vlog

extern "C" int vlog_print(int /*logId*/, int priority, const char *tag, const char *format, ...) {
    const int errorNumber = errno;
    int result = -1;
    std::va_list arguments;
    va_start(arguments, format);
    try {
        result = vlog::print(priority, tag, vlog::formatText(format, arguments, errorNumber));
    } catch (...) { // NOLINT(bugprone-empty-catch): the caller logs, so there is nobody left to tell
    }
    va_end(arguments);
    errno = errorNumber;
    return result;
}
