// compare-time PROGRAM WORD...: runs a program and prints the seconds from before its start until it is reaped.
// compare-time --each FILE PROGRAM WORD...: runs it once for each line of the file, with the line's words added, and
// prints the seconds of all runs together.
//
// The program's standard output is dropped, its standard error kept. The first run that fails ends it with status 1.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Words = std::vector<std::string>;

class WithoutOutput {
public:
    WithoutOutput() {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    ~WithoutOutput() { ::posix_spawn_file_actions_destroy(&actions_); }
    WithoutOutput(const WithoutOutput &) = delete;
    WithoutOutput &operator=(const WithoutOutput &) = delete;

    const posix_spawn_file_actions_t *get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

void run(Words words) {
    static const WithoutOutput actions;
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t child = 0;
    if (const int error = ::posix_spawnp(&child, arguments[0], actions.get(), nullptr, arguments.data(), environ))
        throw std::runtime_error(words[0] + ": " + std::strerror(error));
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0)
        throw std::runtime_error(words[0] + " failed");
}

std::vector<Words> readLines(const std::string &path) {
    std::ifstream file(path);
    std::vector<Words> lines;
    for (std::string line; std::getline(file, line);) {
        std::istringstream stream(line);
        lines.emplace_back();
        for (std::string word; stream >> word;)
            lines.back().push_back(word);
    }
    if (lines.empty())
        throw std::runtime_error(path + " holds no lines");
    return lines;
}

int measure(Words words) {
    std::vector<Words> additions(1);
    if (words.size() > 2 && words[0] == "--each") {
        additions = readLines(words[1]);
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.empty())
        throw std::runtime_error("which program?");
    const auto start = std::chrono::steady_clock::now();
    for (const Words &more : additions) {
        Words all = words;
        all.insert(all.end(), more.begin(), more.end());
        run(std::move(all));
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    std::printf("%.6f\n", taken.count());
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) try {
    return measure(Words(argv + 1, argv + argc));
} catch (const std::exception &error) {
    std::fprintf(stderr, "compare-time: %s\n", error.what());
    return EXIT_FAILURE;
}
