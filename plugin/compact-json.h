// The one form in which the plugin writes JSON text.
#ifndef PLUGIN_COMPACT_JSON_H
#define PLUGIN_COMPACT_JSON_H

#include <string>

#include <json/json.h>

// One line without blanks, comments or a line break at its end; members in ascending order. Empty for null.
inline std::string compactJson(const Json::Value &value) {
    if (value.isNull())
        return {};
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

#endif
