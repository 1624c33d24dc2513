// How our programs take their command lines.
#ifndef PLATFORM_SUPPORT_COMMAND_LINE_H
#define PLATFORM_SUPPORT_COMMAND_LINE_H

#include <optional>

#include <CLI/CLI.hpp>

namespace support {

constexpr int kUsageError = 2;

// For an error of parsing: prints what CLI11 has to say, and gives the exit status, which is 0 after the help and the
// version and kUsageError otherwise. (CLI11's own are 100 and above.)
inline int explainParseError(const CLI::App &app, const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : kUsageError;
}

// Nothing when the program is to go on, else the status to exit with.
inline std::optional<int> parseCommandLine(CLI::App &app, int argc, char **argv) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError &error) {
        return explainParseError(app, error);
    }
}

} // namespace support

#endif
