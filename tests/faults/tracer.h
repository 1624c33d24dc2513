// Stands between one process and the kernel: sees each of its system calls, and can have it fail, or the process die.
#ifndef TESTS_FAULTS_TRACER_H
#define TESTS_FAULTS_TRACER_H

#include <functional>
#include <string>
#include <sys/types.h>

namespace faults {

// What a call's first argument is.
enum class Operand : char { none = '-', file = 'f', socket = 's', other = 'o' };

struct SystemCall {
    long number = 0;
    Operand operand = Operand::none;
};

// What becomes of a call that is about to be made.
struct Fate {
    enum Kind { made, fails, madeAndFails, deadly } kind = made;
    int error = 0;
};

// False where system calls cannot be changed on this processor.
bool canTrace();

// At most one at a time, of one process. Works while children::takeNews() is called. Forked children are not followed.
class Tracer {
public:
    using Decide = std::function<Fate(const SystemCall &)>;

    Tracer();
    ~Tracer();
    Tracer(const Tracer &) = delete;
    Tracer &operator=(const Tracer &) = delete;

    // Calls that begin from now on are given to `decide`. The process is one that runs.
    void attach(pid_t process, Decide decide);
    // The same for a child that was started with `stopsAtExec`, from its first call on.
    void follow(pid_t child, Decide decide);
    // The process goes on by itself. When this returns it has left the tracer's hands, or ended.
    void detach();
    bool attached() const { return process_ > 0; }

private:
    void stopped(pid_t process, int status);
    void atCall();
    void enter(long number, unsigned long long firstArgument);
    void resume(int signal = 0);

    pid_t process_ = -1;
    Decide decide_;
    Fate pending_; // of the call that the process is in
    bool leaving_ = false;
    bool starting_ = false;
};

// Which errors a call can give here, and its name; null for one that cannot fail in a way worth trying.
struct Failures {
    long number;
    const char *name;
    // Error numbers for files and for sockets (or without a descriptor), ended by 0.
    const int *ofFile;
    const int *ofSocket;
};
const Failures *failuresOf(long number);
// "openat", or "call 318".
std::string nameOfCall(long number);
long numberOfCall(const std::string &name);
// "EIO".
std::string nameOfError(int error);
int numberOfError(const std::string &name);

} // namespace faults

#endif
