// The file that the plugin keeps its configuration in.
//
// The plugin and its collector write it in place and look at no error: a kill, a power cut or a full disk leaves it
// empty or cut, and what somebody else puts there can keep the plugin from being constructed. So the host keeps a copy
// of the last one that was whole, and has it ready before each plugin is made.
#ifndef PLATFORM_HOST_CONFIG_FILE_H
#define PLATFORM_HOST_CONFIG_FILE_H

#include <string>

namespace host {

// What stands in the file, empty when it cannot be read.
std::string configText();

// To be called before a plugin is made. What cannot be the plugin's configuration, or is none any more, is renamed to
// "config.json.refused" (older ones to "….refused.1" and so on, ten in all); its place take the last good copy, else
// what could be understood of it, else nothing: the plugin then makes its defaults. A file that only cannot be read now
// is left as it is. Throws nothing: what fails is logged, and the rules come up all the same.
void healConfig();

// To be called after each plugin call that may have written the file, before it is answered. Syncs the file and its
// folder and renews the last good copy. Throws std::runtime_error with one line when what the plugin has written is not
// whole, or not on the disk.
void keepConfig();

// What stands in the file when it is made stands there again when it goes away, whatever was written meanwhile; should
// the host be killed in between, healConfig() sees to that. A file that is missing may be made meanwhile.
class ConfigRestorer {
public:
    ConfigRestorer();
    ~ConfigRestorer();
    ConfigRestorer(const ConfigRestorer &) = delete;
    ConfigRestorer &operator=(const ConfigRestorer &) = delete;

    // False when it will not: the file is not sound, or its copy cannot be written.
    bool isReady() const { return isReady_; }

private:
    bool isReady_ = false;
    bool copied_ = false;
};

// What was put aside and is still there, and what is wrong with the file now: one line, empty when there is nothing. It
// looks at what lies there, so it is true after a restart too.
std::string configRemark();

} // namespace host

#endif
