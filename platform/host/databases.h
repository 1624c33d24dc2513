// The databases of the host and its plugin: what becomes of damaged ones, and what is said of it.
#ifndef PLATFORM_HOST_DATABASES_H
#define PLATFORM_HOST_DATABASES_H

#include <string>
#include <vector>

#include "support/event-loop.h"

namespace host {

// Says which file is the backup of the rules, and that statistics, statuses and history may be started anew. From then
// on the log tells, as an error, what was done about a damaged database, by this process or the collector. Once, before
// any database is opened.
void watchOverDatabases();

// Makes the backup equal to the rules: a host that was killed may have left it behind or torn, and the plugin, which
// copies the file after each change, looks at no error of that. Brings the backup back where the rules are damaged.
// Does nothing when nothing was changed since the two were equal, and makes none before there are rules. What keeps it
// from that is told as an error in the log and, until it has been done, in the status; where a loop was given, it is
// tried again and again, with pauses as between rebuilds, and longer ones where an attempt itself takes long.
void refreshRuleBackup() noexcept;

// What could not be done for the backup is tried again in this loop from now on; null ends it. It must outlive all
// calls.
void retryRuleBackupIn(support::EventLoop *loop);

// The next refreshRuleBackup() looks at both files, whether something was changed here or not.
void distrustRuleBackup() noexcept;

// What is different about the backup of the rules, in words that say what to do; empty when it is equal to them, or not
// needed as there are none. Throws mavo::Exception or mavo::database::Unavailable when that cannot be told. No
// connection to either database may be open.
std::string ruleBackupDifference();

// One line each: the files that lie aside, what this process found changed by others, and a backup that is behind. For
// `status`.
std::vector<std::string> databaseRemarks();

// Whether the file may be deleted. The rules and their backup may not: damaged ones have been put aside already, and
// who wants to delete what lies there has failed for another reason.
bool mayBeDeleted(const char *path);

} // namespace host

#endif
