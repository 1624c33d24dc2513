// Kernel log lines of dropped packets, parsed.
#ifndef PLUGIN_PARSER_KLOGS_H
#define PLUGIN_PARSER_KLOGS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "firewall-stat-storage.h"
#include "log.h"

// Reads lines such as "<4>[0-  513.605353] IPTables-Dropped:IN= OUT=eth0 SRC=10.0.0.2 DST=10.0.0.1 LEN=60 SPT=5353
// DPT=53": the time stands between the first hyphen and a point, the four fields after it, in this order.
class KLogParser {
public:
    // Appends one record for each line that has everything; other lines are passed over. Throws std::invalid_argument
    // for a time or a port that is no number and std::out_of_range for one beyond int; `output` then holds the records
    // of the lines before.
    static void parse(const std::vector<std::string> &input, std::vector<DbLogRecord> &output) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogParser::parse");
        if (!output.empty())
            NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogParser::parse warning: \"output\" is not empty");
        for (const std::string &line : input) {
            NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogParser::parse origin:%s", line.c_str());
            DbLogRecord record{};
            if (!parseLine(line, record))
                continue;
            NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogParser::parse: record parsed: src=%s:%d\tdst=%s:%d",
                         record.sip.c_str(), record.sport, record.dip.c_str(), record.dport);
            output.push_back(record);
        }
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "KLogParser::parse final output size: %d", static_cast<int>(output.size()));
    }

private:
    static bool parseLine(const std::string &line, DbLogRecord &record) {
        std::size_t position = 0;
        return takeTime(line, position, record.ts) && takeText(line, "SRC=", position, record.sip) &&
               takeText(line, "DST=", position, record.dip) && takePort(line, "SPT=", position, record.sport) &&
               takePort(line, "DPT=", position, record.dport);
    }

    // Each of these searches from `position` on and leaves it at the end of what it took, npos being the line's end,
    // where the next search finds nothing.

    static bool takeTime(const std::string &line, std::size_t &position, std::uint32_t &ts) {
        const std::size_t hyphen = line.find('-', position);
        if (hyphen == std::string::npos)
            return false;
        const std::string text = takeUntil(line, '.', hyphen + 1, position);
        if (text.empty())
            return false;
        ts = static_cast<std::uint32_t>(std::stoi(text));
        return true;
    }

    static bool takeText(const std::string &line, const std::string &key, std::size_t &position, std::string &text) {
        const std::size_t found = line.find(key, position);
        if (found == std::string::npos)
            return false;
        text = takeUntil(line, ' ', found + key.size(), position);
        return true;
    }

    static bool takePort(const std::string &line, const std::string &key, std::size_t &position, std::int32_t &port) {
        std::string text;
        if (!takeText(line, key, position, text) || text.empty())
            return false;
        port = std::stoi(text);
        return true;
    }

    static std::string takeUntil(const std::string &line, char stop, std::size_t start, std::size_t &position) {
        position = line.find(stop, start);
        return line.substr(start, position == std::string::npos ? position : position - start);
    }
};

#endif
