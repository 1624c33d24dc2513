#include "nyr-common-client/report-document.h"

#include <array>
#include <exception>
#include <json/json.h>
#include <memory>
#include <string_view>

namespace nyr {
namespace {

constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

unsigned byteAt(std::string_view text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

// What the second byte of a UTF-8 character may be, by its first: neither overlong forms nor surrogates nor numbers
// above 10FFFF (RFC 3629, 4).
struct Utf8Row {
    unsigned first;
    unsigned last;
    std::size_t length;
    unsigned secondFirst;
    unsigned secondLast;
};
constexpr std::array<Utf8Row, 9> kUtf8Rows{{
    {0x00, 0x7f, 1, 0, 0},
    {0xc2, 0xdf, 2, 0x80, 0xbf},
    {0xe0, 0xe0, 3, 0xa0, 0xbf},
    {0xe1, 0xec, 3, 0x80, 0xbf},
    {0xed, 0xed, 3, 0x80, 0x9f},
    {0xee, 0xef, 3, 0x80, 0xbf},
    {0xf0, 0xf0, 4, 0x90, 0xbf},
    {0xf1, 0xf3, 4, 0x80, 0xbf},
    {0xf4, 0xf4, 4, 0x80, 0x8f},
}};

// The length of the character at the beginning of `text`; 0 when it is none.
std::size_t characterLength(std::string_view text) {
    for (const Utf8Row &row : kUtf8Rows) {
        if (byteAt(text, 0) < row.first || byteAt(text, 0) > row.last)
            continue;
        if (text.size() < row.length)
            return 0;
        if (row.length > 1 && (byteAt(text, 1) < row.secondFirst || byteAt(text, 1) > row.secondLast))
            return 0;
        for (std::size_t at = 2; at < row.length; ++at) {
            if ((byteAt(text, at) & 0xc0U) != 0x80)
                return 0;
        }
        return row.length;
    }
    return 0;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = characterLength(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string toBase64(std::string_view bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        unsigned group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8U | (i < count ? byteAt(bytes, at + i) : 0);
        for (std::size_t i = 0; i < 4; ++i)
            text += i <= count ? kDigits[group >> (18 - 6 * i) & 0x3fU] : '=';
    }
    return text;
}

std::optional<std::string> fromBase64(std::string_view text) {
    if (text.size() % 4 != 0)
        return std::nullopt;
    std::string bytes;
    unsigned bits = 0;
    unsigned count = 0;
    const std::size_t end = text.find_last_not_of('=') + 1;
    if (text.size() - end > 2)
        return std::nullopt;
    for (const char digit : text.substr(0, end)) {
        const std::size_t value = kDigits.find(digit);
        if (value == std::string_view::npos)
            return std::nullopt;
        bits = bits << 6U | static_cast<unsigned>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count & 0xffU);
        }
    }
    return bytes;
}

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

std::optional<std::string> bodyOf(const Json::Value &root) {
    if (!root["body"].isString())
        return std::nullopt;
    if (!root.isMember("encoding"))
        return root["body"].asString();
    if (root["encoding"] != "base64")
        return std::nullopt;
    return fromBase64(root["body"].asString());
}

} // namespace

std::string toDocument(const Report &report) {
    Json::Value root(Json::objectValue);
    root["type"] = report.type;
    root["subtype"] = report.subtype;
    root["time"] = static_cast<Json::Int64>(report.time);
    if (isUtf8(report.body)) {
        root["body"] = report.body;
    } else {
        root["encoding"] = "base64";
        root["body"] = toBase64(report.body);
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, root) + '\n';
}

std::optional<Report> fromDocument(const std::string &text) {
    const std::optional<Json::Value> root = parse(text);
    if (!root || !(*root)["type"].isInt() || !(*root)["subtype"].isInt() || !(*root)["time"].isInt64())
        return std::nullopt;
    const std::optional<std::string> body = bodyOf(*root);
    if (!body)
        return std::nullopt;
    Report report;
    report.type = (*root)["type"].asInt();
    report.subtype = (*root)["subtype"].asInt();
    report.time = (*root)["time"].asInt64();
    report.body = *body;
    return report;
}

} // namespace nyr
