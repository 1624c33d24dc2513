// A report client that keeps what it is given, for unit tests.
#ifndef TESTS_SUPPORT_FAKE_NYR_H
#define TESTS_SUPPORT_FAKE_NYR_H

#include <functional>
#include <string>
#include <vector>

namespace fakenyr {

struct Report {
    int type = 0;
    int subtype = 0;
    std::string body;
};

extern std::vector<Report> reports;
// What sendReport returns.
extern int result;
// Called for each report; may be empty.
extern std::function<void()> onSend;

} // namespace fakenyr

#endif
