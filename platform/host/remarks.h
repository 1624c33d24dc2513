// What the host says to the caller of a method beside its result.
#ifndef PLATFORM_HOST_REMARKS_H
#define PLATFORM_HOST_REMARKS_H

#include <string>
#include <vector>

namespace host {

struct Remarks {
    // ERROR lines logged during the call, uncoloured, from the tag on; without those that say what `notes` say, or that
    // a command had nothing to do.
    std::vector<std::string> errorLines;
    // For people, one line each: what is not in force, or not known to be, and what the host does about it. None when
    // all is in force that the call was about.
    std::vector<std::string> notes;

    bool isEmpty() const { return errorLines.empty() && notes.empty(); }
};

// As a reply carries them: an int, the number of lines, then these as mavo::rmi::Message writes strings; the same for
// the notes. Nothing for none.
std::string encode(const Remarks &remarks);
// Of another form: a note that says so.
Remarks decodeRemarks(const std::string &text);

} // namespace host

#endif
