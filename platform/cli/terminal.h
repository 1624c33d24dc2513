// What a person at a terminal gets: lines that fit it.
#ifndef PLATFORM_CLI_TERMINAL_H
#define PLATFORM_CLI_TERMINAL_H

#include <cstddef>
#include <cstdio>
#include <string>

namespace cli {

constexpr std::size_t kColumns = 80;

// True when a person is at its other end.
bool isTerminal(std::FILE *stream);

// The lines of `text`, broken at spaces so that none has more than kColumns characters; what follows a break is moved
// in by `indent`. A word that is longer than a line is broken after commas, or stays whole.
std::string wrapped(const std::string &text, std::size_t indent);

// Writes whole lines: as they are, or wrapped where somebody looks.
void show(std::FILE *stream, const std::string &text, std::size_t indent);

// "vpkctl: " and one line, to standard error. Control characters are escaped.
void say(const std::string &line);

} // namespace cli

#endif
