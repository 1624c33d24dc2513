#include "extract-klogs.h"

#include <cstddef>
#include <cstring>
#include <sys/klog.h>
#include <utility>

#include <json/json.h>

#include "compact-json.h"
#include "log.h"

// The actions are those of syslog(2): SYSLOG_ACTION_READ_ALL and SYSLOG_ACTION_SIZE_BUFFER.
KLogExtractor::KLogExtractor(std::string filterText)
    : initialCapacity(1000), version("0.1"), readAction(3), sizeQueryAction(10), maxBufferSize(512 * 1024),
      filter(std::move(filterText)) {
    logs.reserve(initialCapacity);
}

int KLogExtractor::extractLogs() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogExtractor::extractLogs: enter");
    // Where the kernel's lines are not in the dialect that the parser reads, this and the reading below land in a
    // klogctl of the host's: a program's own symbols come before the C library's.
    int size = klogctl(sizeQueryAction, nullptr, 0);
    if (size < 1) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogExtractor::extractLogs: set buf size to MAX_KLOG_BUFFER_SIZE");
        size = maxBufferSize;
    }
    std::vector<char> buffer(static_cast<std::size_t>(size) + 1);
    const int length = klogctl(readAction, buffer.data(), size);
    if (length < 1) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogExtractor::extractLogs: exit: nothing to read or unknown error");
        return 0;
    }
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogExtractor::extractLogs: read %d chars from klog", length);
    keepMatchingLines(buffer.data(), length);
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogExtractor::extractLogs: exit: normal");
    return static_cast<int>(logs.size());
}

void KLogExtractor::keepMatchingLines(const char *text, int length) {
    const char *const end = text + length;
    const char *start = text;
    while (const void *found = std::memchr(start, '\n', static_cast<std::size_t>(end - start))) {
        const char *const lineFeed = static_cast<const char *>(found);
        const std::string line(start, lineFeed);
        if (line.find(filter) != std::string::npos)
            logs.push_back(line);
        start = lineFeed + 1;
    }
}

std::vector<std::string> KLogExtractor::updateLogs() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogExtractor::updateLogs");
    logs.clear();
    extractLogs();
    return logs;
}

std::vector<std::string> KLogExtractor::getLogs() {
    if (logs.empty())
        extractLogs();
    return logs;
}

std::string KLogExtractor::getAsJson() {
    getLogs();
    Json::Value document;
    document["v"] = version;
    for (const std::string &line : logs)
        document["data"].append(line);
    std::string text = compactJson(document);
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogExtractor::getAsJson: %s", text.c_str());
    return text;
}
