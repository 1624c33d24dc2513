// The files that the plugin opens by itself, as it likes: it would wait for a fifo and write through a link.
#ifndef PLATFORM_HOST_PLUGIN_FILES_H
#define PLATFORM_HOST_PLUGIN_FILES_H

#include <string>

namespace host {

// What lies in the place of a database, or of what SQLite opens beside it, and is no file of ours, in one line that
// names it. Empty when there is nothing. Opens nothing.
std::string databaseFilesProblem(const char *path);

// Why the plugin must not be called now: what lies in the place of one of its files and is no file of ours, in one line
// that names it. Empty when there is nothing. Opens nothing.
std::string pluginFilesProblem();

// Throws std::runtime_error with that line.
void requirePluginFiles();

// The same as pluginFilesProblem() for the files that only a collector opens.
std::string collectorFilesProblem();

} // namespace host

#endif
