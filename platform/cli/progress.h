// That a call is still under way, for whoever waits for it.
#ifndef PLATFORM_CLI_PROGRESS_H
#define PLATFORM_CLI_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <string>

namespace cli {

// On a terminal a line on standard error that counts the seconds, from the first one on, and goes away in the end;
// elsewhere one line, once.
class Progress {
public:
    // `work` is what takes so long, such as "ApplyDenyRules, 1000 rules".
    explicit Progress(std::string work);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // To be called whenever that much time has passed again.
    std::chrono::milliseconds interval() const;
    void goOn();

private:
    void draw(const std::string &line);

    std::string work_;
    bool onTerminal_;
    int calls_ = 0;
    std::size_t drawn_ = 0; // characters that stand on the terminal
};

} // namespace cli

#endif
