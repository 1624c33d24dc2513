// JSON documents as the plugin's parser reads them.
#ifndef PLATFORM_HOST_JSON_DOCUMENT_H
#define PLATFORM_HOST_JSON_DOCUMENT_H

#include <cstddef>
#include <string>

#include <json/json.h>

namespace host {

struct JsonDocument {
    // What the parser left: all of a sound document, a part of another.
    Json::Value root;
    // What the parser objects to, on one line with its place; empty for a sound document.
    std::string error;
    bool tooDeep = false; // where that is what it objects to
};

// Reads with the plugin's rules, and gives up where values are nested more deeply than `nesting`.
JsonDocument readJson(const std::string &text, int nesting = 999);

// One line without blanks, as the plugin writes it; empty for null.
std::string writeJson(const Json::Value &value);

struct JsonShape {
    std::size_t values = 0; // objects and arrays count
    int nesting = 0;        // of objects and arrays
    bool hasNul = false;    // in a name or a text
};

JsonShape shapeOf(const Json::Value &value);

} // namespace host

#endif
