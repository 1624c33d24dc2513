// The names of journals, which are durable once.
#ifndef PLATFORM_MAVO_JOURNAL_NAMES_H
#define PLATFORM_MAVO_JOURNAL_NAMES_H

namespace mavo {
namespace database {

// From now on SQLite does not synchronise the folder of a journal that is the very file for which it has done so before
// in this process. It would with each connection that writes, since it takes every journal for a new one, and that is a
// fifth of what a transaction costs. To be called before the first file is opened; thread-safe, and does it once in a
// process.
void rememberJournalNames();

} // namespace database
} // namespace mavo

#endif
