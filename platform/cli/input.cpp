#include "cli/input.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "cli/session.h"
#include "mavo/rmi-protocol.h"

namespace cli {
namespace {

std::string readAll(std::istream &stream, const std::string &name) {
    std::string text;
    for (std::istreambuf_iterator<char> at(stream); at != std::istreambuf_iterator<char>(); ++at) {
        if (text.size() == mavo::rmi::kBodyLimitBytes)
            throw Exit(kNotCarriedOut, name + " is longer than " + std::to_string(text.size()) + " bytes");
        text += *at;
    }
    if (stream.bad())
        throw Exit(kNotCarriedOut, "cannot read " + name);
    return text;
}

std::string readFile(const std::string &name) {
    std::ifstream file(name, std::ios::binary);
    // A directory opens, but gives nothing.
    if (!file || (file.peek() == std::ifstream::traits_type::eof() && file.bad()))
        throw Exit(kNotCarriedOut, "cannot read " + name + ": " + std::strerror(errno));
    return readAll(file, name);
}

} // namespace

std::string dataFrom(const std::string &argument, bool raw, std::istream &standardInput) {
    std::string data;
    if (argument == "-")
        data = readAll(standardInput, "standard input");
    else if (argument == "@")
        throw Exit(kNotCarriedOut, "\"@\" names no file: @FILE takes the data from FILE, - from standard input");
    else if (argument.substr(0, 1) == "@")
        data = readFile(argument.substr(1));
    else
        return argument;
    if (!raw && !data.empty() && data.back() == '\n')
        data.pop_back();
    return data;
}

std::string nameOfSource(const std::string &argument) {
    if (argument == "-")
        return "standard input";
    return argument.substr(0, 1) == "@" ? argument.substr(1) : "the data";
}

} // namespace cli
