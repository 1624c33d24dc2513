#include "host/json-document.h"

#include <algorithm>
#include <exception>
#include <memory>

namespace host {
namespace {

std::string onOneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte < ' '; }, ' ');
    return text;
}

bool hasNul(const std::string &text) { return text.find('\0') != std::string::npos; }

} // namespace

JsonDocument readJson(const std::string &text, int nesting) {
    JsonDocument document;
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["stackLimit"] = nesting + 1; // the value inside the last of them counts
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        std::string errors;
        if (!reader->parse(text.data(), text.data() + text.size(), &document.root, &errors))
            document.error = "is no complete JSON document: " + onOneLine(errors);
    } catch (const std::exception &) {
        document.error = "is nested more deeply than " + std::to_string(nesting);
        document.tooDeep = true;
    }
    return document;
}

std::string writeJson(const Json::Value &value) {
    if (value.isNull())
        return {};
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

JsonShape shapeOf(const Json::Value &value) {
    JsonShape shape;
    shape.values = 1;
    shape.hasNul = value.isString() && hasNul(value.asString());
    if (!value.isObject() && !value.isArray())
        return shape;
    for (auto member = value.begin(); member != value.end(); ++member) {
        const JsonShape inner = shapeOf(*member);
        shape.values += inner.values;
        shape.nesting = std::max(shape.nesting, inner.nesting);
        shape.hasNul = shape.hasNul || inner.hasNul || hasNul(member.name());
    }
    ++shape.nesting;
    return shape;
}

} // namespace host
