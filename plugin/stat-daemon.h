// The traffic statistics collector: its switch, and the process that collects.
#ifndef PLUGIN_STAT_DAEMON_H
#define PLUGIN_STAT_DAEMON_H

#include <string>

#include "config.h"

// Switches the collector on and off. The collector is a process forked from the caller's, which reads the kernel log
// once per report interval and sends a report when one is due. It is started once: the POSIX shared-memory object
// "/nyr_firewall_sd" marks that it was, until the collector is switched off; whether it still lives is not looked at.
// Switched off, it ends at its next iteration. All objects, in all processes, act on the same collector.
//
// Mind that enable() and startStatDaemon() return, or throw, in the forked process too, once the collector there has
// come to its end.
class StatDaemon {
public:
    // Switch on, and start the collector when none is marked. Returns 0, or -1 when the fork failed.
    int enable();
    // Switch off and remove the marker. Returns 0.
    int disable();
    // Whether a collector is marked. If not, it is afterwards.
    bool isDaemonWorking();
    // Forks the collector when the configuration, as last read, has it switched on. Returns 0, or -1 when the fork
    // failed.
    int startStatDaemon();
    // Removes the marker. Returns 0.
    int stopStatDaemon();
    // Merges a JSON document into the configuration, whatever is wrong with it. Returns 0.
    int handleStatCollectorPolicy(std::string &input);

private:
    Config config;
    std::string logPrefix = "IPTables-Dropped:";
};

#endif
