#include "cli/progress.h"

#include <cstdio>
#include <utility>

#include "cli/printable.h"
#include "cli/terminal.h"

namespace cli {

Progress::Progress(std::string work) : work_(std::move(work)), onTerminal_(isTerminal(stderr)) {}

Progress::~Progress() {
    if (drawn_ > 0) {
        draw("");
        std::fputc('\r', stderr);
    }
}

std::chrono::milliseconds Progress::interval() const { return std::chrono::milliseconds(onTerminal_ ? 1'000 : 2'000); }

void Progress::goOn() {
    ++calls_;
    if (onTerminal_)
        draw("vpkctl: " + std::to_string(calls_) + " s, at work: " + printable(work_));
    else if (calls_ == 1)
        say("the host is at work; waiting for the end of the call ...");
}

// Over what was drawn before, without any order to the terminal but to go to the line's beginning.
void Progress::draw(const std::string &line) {
    const std::string shown = line.substr(0, kColumns - 1);
    std::fprintf(stderr, "\r%-*s", static_cast<int>(drawn_), shown.c_str());
    drawn_ = shown.size();
}

} // namespace cli
