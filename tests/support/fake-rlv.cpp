#include "support/fake-rlv.h"

#include <cstring>
#include <map>

#include "rlv/rlv.h"

namespace fakerlv {
namespace {

struct State {
    int initializeCode = 0;
    int deinitializeCode = 0;
    std::map<std::string, Answer> answers;
    std::function<void(const std::string &)> callback;
    std::vector<std::string> calls;
    std::vector<std::string> commands;
};

State state;
rlv_handle current = 0;
rlv_handle next = 0x80000001; // a handle has all of its 32 bits

void record(const std::string &call, rlv_handle handle, bool failed) {
    state.calls.push_back(call + (handle != current ? " on " + std::to_string(handle) : "") +
                          (failed ? " failed" : ""));
    if (state.callback)
        state.callback(state.calls.back());
}

Answer answerTo(rlv_handle handle, const std::string &options) {
    if (handle == 0 || handle != current)
        return {0, 4, "no connection"};
    const auto found = state.answers.find(options);
    return found != state.answers.end() ? found->second : Answer{};
}

} // namespace

void reset() {
    state = {};
    current = 0;
}

void failInitialize(int code) { state.initializeCode = code; }

void failDeinitialize(int code) { state.deinitializeCode = code; }

void answer(const std::string &options, const Answer &answer) { state.answers[options] = answer; }

void onCall(const std::function<void(const std::string &)> &callback) { state.callback = callback; }

const std::vector<std::string> &calls() { return state.calls; }

std::vector<std::string> commands() { return state.commands; }

std::uint32_t openHandle() { return current; }

} // namespace fakerlv

int rlv_initialize(rlv_handle *handle) {
    const int code = fakerlv::state.initializeCode;
    fakerlv::current = code == 0 ? fakerlv::next++ : 0;
    *handle = fakerlv::current;
    fakerlv::record("initialize", fakerlv::current, code != 0);
    return code;
}

int rlv_deinitialize(rlv_handle handle) {
    const int code = fakerlv::state.deinitializeCode;
    fakerlv::record("deinitialize", handle, code != 0);
    fakerlv::current = 0;
    return code;
}

int rlv_iptables_commit(rlv_handle handle, const char *options, int *error_code, char **error_message) {
    const fakerlv::Answer answer = fakerlv::answerTo(handle, options);
    fakerlv::record(std::string("commit ") + options, handle, answer.errorCode != 0 || answer.result != 0);
    fakerlv::state.commands.emplace_back(options);
    *error_code = answer.errorCode;
    if (answer.message)
        *error_message = ::strdup(answer.message->c_str());
    return answer.result;
}
