// Entries of the history as JSON: what is kept of a call, and what is shown.
#ifndef PLATFORM_HOST_HISTORY_DOCUMENT_H
#define PLATFORM_HOST_HISTORY_DOCUMENT_H

#include <string>

#include <json/json.h>

#include "host/history-file.h"
#include "mavo/rmi-protocol.h"
#include "mavo/rmi-server.h"

namespace host {

// The details of an entry, an object:
//   "kind"      "call"; "found", where the rules were not what they were left as; "began", the first of a file;
//   "several",
//               entries drawn together that could not be written, whose number is "entries"
//   "what"      of "found" and "began": a line for people
//   "notes"     lines: of "found" what is known of damaged databases, of a call what was not in force, and the like
// and of a call:
//   "account", "process"  who the kernel says the caller is; "accountName", empty where it has none
//   "programAsGiven"      what the caller's program calls itself: nobody has checked it
//   "method", "arguments" texts and numbers as texts, of each the first 1,024 bytes; "argumentsCut" true when there was
//                         more
//   "result"    "done"; "failed", as the plugin says, with its "answer"; "refused", "exception", both with "error";
//               "unfinished", where the host was interrupted in the middle
Json::Value detailsOfCall(const mavo::rmi::Caller &caller, const std::string &method, const std::string &body);
void addResult(const mavo::rmi::Reply &reply, Json::Value &details);
Json::Value detailsOfFinding(const char *kind, const std::string &what);
void addAccountName(Json::Value &details);

// The details, with "number" (0 for what is not written yet), "time" (seconds since the epoch), "boot" and "uptimeMs",
// "addedCount", "removedCount", and the first 100 of each as "added" and "removed".
Json::Value entryAsJson(const HistoryEntry &entry);

// {"entries":[…], oldest first, "oldest","newest" (numbers of what is kept), "problem"}
std::string historyDocument(const HistoryFile::Kept &kept, const std::string &problem);

// {"since" the number of the last entry before, "added":[…],"removed":[…],"problem"}; throws std::length_error where
// that would be too long.
std::string differenceDocument(std::int64_t since, const std::string &difference, const std::string &problem);

} // namespace host

#endif
