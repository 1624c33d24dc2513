// The statistics database: one record per dropped packet, until the next report.
#ifndef PLUGIN_FIREWALL_STAT_STORAGE_H
#define PLUGIN_FIREWALL_STAT_STORAGE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <mavo/database.h>

// One dropped packet. `ts` is in seconds: since boot as the kernel log gives it, since the epoch as the database does.
struct DbLogRecord {
    std::uint32_t ts;
    std::string sip;
    std::int32_t sport;
    std::string dip;
    std::int32_t dport;
};

// /opt/data/vpk/db/.firewall.stat.db, in a folder that exists. The time stamp alone is the key: of the packets of one
// second the last stays, which bounds the growth. For one thread of one process, and not across fork(2).
//
// Throws mavo::Exception when the database cannot be opened, a statement cannot be prepared or a row cannot be read.
class FirewallStatStorage {
public:
    // Opens the file, creating it where it is missing, and prepares the table.
    FirewallStatStorage();

    // Creates the table where it is missing.
    void prepareStorage();
    // Throws mavo::Exception "insert failure".
    void saveRecord(const DbLogRecord &record);
    // Saves one by one; those before a failure stay stored.
    void saveRecords(const std::vector<DbLogRecord> &records);
    // Deletes what is older than `until` (stored time), or everything when that is 0. A failing deletion goes
    // unnoticed.
    void flushUntil(unsigned int until);
    // Appends the records from `from` to `to` (stored time, both included; `to` 0 is no bound) in ascending order.
    // Returns how many.
    int getLogRecords(std::vector<DbLogRecord> &records, unsigned int from, unsigned int to);
    // Writes the report into `out`: the number of records per destination, the earliest and the latest time.
    void prepareStatistic(std::vector<DbLogRecord> &records, std::string &out);

    // Added to each record's time when it is stored: when the system was booted, for times counted from there.
    long long tsOffset;

private:
    std::unique_ptr<mavo::database::Connection> connection;
};

#endif
