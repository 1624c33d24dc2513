#include "host/remarks.h"

#include "mavo/exception.h"
#include "mavo/rmi.h"

namespace host {
namespace {

void write(const std::vector<std::string> &lines, mavo::rmi::Message &message) {
    message.write(static_cast<int>(lines.size()));
    for (const auto &line : lines)
        message.write(line);
}

// Nothing is reserved by the count: it is the other side's word.
std::vector<std::string> readLines(mavo::rmi::Message &message) {
    int count = 0;
    message.read(count);
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        std::string line;
        message.read(line);
        lines.push_back(std::move(line));
    }
    return lines;
}

} // namespace

std::string encode(const Remarks &remarks) {
    if (remarks.isEmpty())
        return {};
    mavo::rmi::Message message;
    write(remarks.errorLines, message);
    write(remarks.notes, message);
    return message.body();
}

Remarks decodeRemarks(const std::string &text) try {
    Remarks remarks;
    if (text.empty())
        return remarks;
    mavo::rmi::Message message(text);
    remarks.errorLines = readLines(message);
    remarks.notes = readLines(message);
    if (!message.atEnd())
        throw mavo::rmi::BadArguments("more than was expected");
    return remarks;
} catch (const mavo::Exception &error) {
    return {{}, {"what the policy host says beside the result cannot be read: " + std::string(error.what())}};
}

} // namespace host
