// The kernel's message ring buffer, filtered.
#ifndef PLUGIN_EXTRACT_KLOGS_H
#define PLUGIN_EXTRACT_KLOGS_H

#include <string>
#include <vector>

// Reads the kernel log and keeps the lines that hold a text. Reading takes nothing out of the kernel: every reading
// sees all lines that the kernel still has. Without the privilege for klogctl(2) there are none.
class KLogExtractor {
public:
    // Reads nothing yet.
    explicit KLogExtractor(std::string filterText);

    // Adds the lines of one reading to those already held; returns how many are held then, 0 when nothing was read. A
    // last line without a line feed does not count as one.
    int extractLogs();
    // The lines of a fresh reading.
    std::vector<std::string> updateLogs();
    // The lines held, of a fresh reading when there are none.
    std::vector<std::string> getLogs();
    // The lines held, of a fresh reading when there are none, as {"data":[line, …],"v":"0.1"}.
    std::string getAsJson();

private:
    void keepMatchingLines(const char *text, int length);

    std::vector<std::string> logs;
    unsigned int initialCapacity;
    std::string version;
    int readAction;
    int sizeQueryAction;
    int maxBufferSize;
    std::string filter;
};

#endif
