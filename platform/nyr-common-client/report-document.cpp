#include "nyr-common-client/report-document.h"

#include <exception>
#include <json/json.h>
#include <memory>

namespace nyr {
namespace {

std::optional<Json::Value> parse(const std::string &text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, nullptr) || !root.isObject())
            return std::nullopt;
    } catch (const std::exception &) { // nested too deeply
        return std::nullopt;
    }
    return root;
}

} // namespace

std::string toDocument(const Report &report) {
    Json::Value root(Json::objectValue);
    root["type"] = report.type;
    root["subtype"] = report.subtype;
    root["time"] = static_cast<Json::Int64>(report.time);
    root["body"] = report.body;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, root) + '\n';
}

std::optional<Report> fromDocument(const std::string &text) {
    const std::optional<Json::Value> root = parse(text);
    if (!root || !(*root)["type"].isInt() || !(*root)["subtype"].isInt() || !(*root)["time"].isInt64() ||
        !(*root)["body"].isString())
        return std::nullopt;
    Report report;
    report.type = (*root)["type"].asInt();
    report.subtype = (*root)["subtype"].asInt();
    report.time = (*root)["time"].asInt64();
    report.body = (*root)["body"].asString();
    return report;
}

} // namespace nyr
