// The data argument of a command.
#ifndef PLATFORM_CLI_INPUT_H
#define PLATFORM_CLI_INPUT_H

#include <istream>
#include <string>

namespace cli {

// "@FILE" is the content of the file, "-" that of `standardInput`, anything else is itself. The last line break of what
// was read is taken off unless `raw`. Throws Exit when the file cannot be read or holds more
// than a request can.
std::string dataFrom(const std::string &argument, bool raw, std::istream &standardInput);

// What that argument is to be called in a message: "FILE", "standard input", or "the data".
std::string nameOfSource(const std::string &argument);

} // namespace cli

#endif
