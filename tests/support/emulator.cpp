#include "support/emulator.h"

#include <cerrno>
#include <sstream>
#include <unistd.h>

#ifndef NYR_EMULATOR
#define NYR_EMULATOR "" // built by somebody else's hand: none
#endif

namespace emulator {
namespace {

// The emulator's own words, which have a bar between them.
std::vector<std::string> ownWords() {
    std::vector<std::string> words;
    std::istringstream all(NYR_EMULATOR);
    for (std::string word; std::getline(all, word, '|');)
        words.push_back(word);
    return words;
}

std::vector<char *> pointersTo(const std::vector<std::string> &words) {
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (const auto &word : words)
        pointers.push_back(const_cast<char *>(word.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

void execute(const std::vector<std::string> &arguments) {
    const auto pointers = pointersTo(arguments);
    if (arguments[0].find('/') == std::string::npos) {
        ::execvp(pointers[0], pointers.data());
        return;
    }
    ::execv(pointers[0], pointers.data());
    auto words = ownWords();
    if (errno != ENOEXEC || words.empty())
        return;
    words.insert(words.end(), arguments.begin(), arguments.end());
    const auto emulated = pointersTo(words);
    ::execvp(emulated[0], emulated.data());
}

} // namespace emulator
