// The firewall's programs in the namespaces of a worker of the harness, brought into a known state again and again.
#ifndef TESTS_FAULTS_INSTALLATION_H
#define TESTS_FAULTS_INSTALLATION_H

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "faults/children.h"

namespace faults {

constexpr const char *kData = "/opt/data/vpk";

// What a caller of the host got. Nothing came of the call when neither `ended` nor an answer is there.
struct Answer {
    bool told = false; // that something went wrong: refused, failed, an exception, a remark, or the connection broke
    std::string text;  // of what was told
    std::string value; // the reply's text, where there is one
};

// A call of a remote method by a process of its own, so that nobody waits for a host that hangs.
class Call {
public:
    Call(const std::string &method, const std::vector<std::string> &arguments);
    ~Call();
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    bool over() const { return !children::runs(child_); }
    // Once it is over.
    Answer answer() const;

private:
    pid_t child_ = -1;
    int answer_ = -1;
    std::string method_;
};

// Calls and waits. Nothing when there was no end within `atMost`.
std::optional<Answer> ask(const std::string &method, const std::vector<std::string> &arguments = {},
                          std::chrono::milliseconds atMost = std::chrono::seconds(20));

class Installation {
public:
    enum class Memory { sound, ofHost, ofService };

    explicit Installation(bool simulate) : simulate_(simulate) {}
    ~Installation() { killAll(); }
    Installation(const Installation &) = delete;
    Installation &operator=(const Installation &) = delete;

    // Whose allocations can fail from its next start on.
    void setMemory(Memory memory) { memory_ = memory; }

    void startService();
    // With `traced` it stands before its first instruction until a tracer lets it go.
    void startHost(bool traced = false);
    pid_t service() const { return service_; }
    pid_t host() const { return host_; }
    bool serviceServes() const;
    bool hostServes() const;
    // Start what does not run and wait until it serves. False when it does not within some seconds.
    bool bringServiceUp();
    bool bringHostUp();

    void killHost();
    void killAll();

    // Keeps the data as they are now, and puts them back.
    static void keepData();
    static void putDataBack();

private:
    bool simulate_;
    Memory memory_ = Memory::sound;
    pid_t service_ = -1;
    pid_t host_ = -1;
};

} // namespace faults

#endif
