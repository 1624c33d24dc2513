// The statistics collector's process, watched: what it does between its fork and its end.
#ifndef TESTS_SUPPORT_COLLECTOR_H
#define TESTS_SUPPORT_COLLECTOR_H

#include <functional>
#include <string>
#include <vector>

#include <json/json.h>

namespace collector {

// Makes fakeprocess's orders, so that the time stands at 1700000000, 1000 seconds after boot, and goes on with each
// sleep, and so that a process forked from here on leaves an account of itself and ends at its `sleeps`th sleep.
// `asleep` is called in it at each sleep before.
void watch(int sleeps = 1, const std::function<void()> &asleep = {});

// Where a collector sleeps until it is woken. What it is given to watch() as: [&] { bedroom.sleep(); }.
class Bedroom {
public:
    // Throws std::runtime_error when there are no pipes to be had.
    Bedroom();
    ~Bedroom();
    Bedroom(const Bedroom &) = delete;
    Bedroom &operator=(const Bedroom &) = delete;

    // In the collector: returns when it is woken.
    void sleep() const;
    // In the test. Throw std::runtime_error when no collector has gone to sleep in half a minute, and when none can be
    // woken.
    void waitForOne() const;
    void wakeOne() const;

private:
    int asleep[2];
    int awake[2];
};

// Runs `call`. When it returns or throws in a process forked meanwhile, that process ends.
int run(const std::function<int()> &call);

// Waits for the end of all processes forked: they write the configuration too, and nothing orders that.
void awaitEnds();

// Waits for the same and gives their accounts in the order of the forks. Null for one that left
// none. Members:
//   "end"       "asleep", "returned N", "threw TEXT" or "exit N"
//   "status"    the exit status, 99 for those that were ended
//   "messages"  of the log, since the fork
//   "functions" that those of stat-daemon.cpp name
//   "trace"     of the database library, since the fork
//   "reports"   as "TYPE SUBTYPE BODY"
//   "sleeps"    their lengths
//   "opening"   at the first opening of a database: "open", the descriptors open of 0, 1, 2; "umask"; "leader", whether
//               it leads a session of its own
std::vector<Json::Value> accounts();

// The account of the only process forked.
Json::Value account();

// The strings of an array.
std::vector<std::string> strings(const Json::Value &array);

} // namespace collector

#endif
