// The plugin's persistent settings.
#ifndef PLUGIN_CONFIG_H
#define PLUGIN_CONFIG_H

#include <string>

#include <json/json.h>

// One JSON document in one file, /opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json, created from defaults
// when it is missing. Several objects, in several processes, share the file without a lock: each holds the document as
// it last read or wrote it, and the last writer wins. Mind that an object also writes when it ends.
//
// What the disk or the parser refuse is logged and gives false; what cannot be looked up or turned into text throws
// Json::LogicError.
class Config {
public:
    // Reads the file, whatever comes of it.
    Config();
    // Writes the document back as this object knows it, over what others may have written since.
    virtual ~Config();
    Config(const Config &) = delete;
    Config &operator=(const Config &) = delete;

    // Reads the file, or creates it. A file that does not parse is left alone; what the parser understood of it is
    // what this object then holds.
    bool readConfigFile();
    // Writes the default document over file and memory, creating the folder.
    bool createDefaultConfig();
    // Writes the document as one line. When the file has gone, the defaults are created instead, and the document held
    // here is lost.
    bool writeConfigFile();

    // The value at a dotted path as text, empty where there is none; with `reread` the file is read first.
    std::string get(const std::string &key, bool reread);
    // A copy of the value at a dotted path, null where there is none.
    Json::Value getChild(const std::string &key) const;

    // Sets every member of `changes` and writes the file. Where the document holds an object, the members of the change
    // are set at the top level, beside it.
    bool update(Json::Value &changes);
    // Sets one top-level member, whose name may hold dots, to a string and writes the file.
    bool update(const std::string &key, const std::string &value);

private:
    std::string configPath;
    Json::Value root;
    std::string defaultConfig;
};

#endif
