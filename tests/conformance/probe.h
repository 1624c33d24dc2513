// What the conformance suite can only learn from the maker of the platform: a program, named with its words in
// NYR_CONFORMANCE_PROBE, that is run by the shell with one word more:
//   start    makes ready whatever the libraries need (the traffic-control service above all), with no chain of ours in
//            the filter table, no line logged and no report handed over yet; returns when all of it can be used
//   stop     ends it again
//   log      prints the lines logged since "start", oldest first, each as "I text" or "E text" by its priority
//   rules    prints the filter table as iptables -S does
//   reports  prints the reports handed over since "start", oldest first, each as "type subtype body"
// It exits 0, or fails the test.
#ifndef TESTS_CONFORMANCE_PROBE_H
#define TESTS_CONFORMANCE_PROBE_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace conformance {

// The lines that the probe prints. Fails the test when the probe does.
std::vector<std::string> ask(const std::string &word);

// Waits until `holds` does; asks it every few milliseconds, for 20 s at most, or the seconds in
// NYR_CONFORMANCE_DEADLINE.
bool waitUntil(const std::function<bool()> &holds);

// Runs `body` in a child process and gives its exit status, or 128 + n when signal n ended it; 100 when it throws.
int inChild(const std::function<int()> &body);

// A test that needs the platform's services: they are started afresh for it. Skipped where there is no probe.
class WithServices : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The lines that the probe prints, when they are `count` or more; else those after the time is up.
    static std::vector<std::string> linesOf(const std::string &word, std::size_t count);

private:
    bool started_ = false;
};

// A test with a folder of its own, which is empty at first and goes with the test.
class WithFolder : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// That folder.
const std::string &folder();

} // namespace conformance

#endif
