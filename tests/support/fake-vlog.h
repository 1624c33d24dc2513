// A log service that keeps its lines, for unit tests.
#ifndef TESTS_SUPPORT_FAKE_VLOG_H
#define TESTS_SUPPORT_FAKE_VLOG_H

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace fakevlog {

// One call of vlog_print.
struct Line {
    int logId = 0;
    int priority = 0;
    std::string tag;
    std::string text; // formatted, colour codes included
};

// The lines since the last clear(), oldest first.
const std::vector<Line> &lines();
void clear();
// Called with each line once it is kept; what it throws reaches the plugin. An empty function ends it.
void onLine(const std::function<void(const Line &line)> &callback);

// What stands between the place and the end of the colour: "NYR_FIREWALL: saveRecord: enter". Empty for a line that is
// not "file: function(number) > ", colour, text, colour reset, with the colour of its priority and its own tag first.
std::string message(const Line &line);
// The source file and the function that the line names: "config.cpp: update".
std::string place(const Line &line);
// The functions that the lines of one source file name, oldest first.
std::vector<std::string> functions(const std::string &file);

// All messages, each with "I " or "E " in front, after checking of each line that it went to the main log and is well
// formed; a line that is not stands as "malformed: …".
std::vector<std::string> messages();

} // namespace fakevlog

#endif
