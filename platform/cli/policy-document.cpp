#include "cli/policy-document.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <iterator>

#include <nlohmann/json.hpp>

#include "cli/policy.h"
#include "cli/suggestion.h"
#include "rules/rule-list.h"

namespace cli {
namespace {

using Json = nlohmann::json;

// Walks through a text and keeps in mind, for all its copies, how far they have come.
class CountingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    CountingIterator(const char *at, const char **furthest) : at_(at), furthest_(furthest) {}

    reference operator*() const { return *at_; }
    CountingIterator &operator++() {
        *furthest_ = ++at_;
        return *this;
    }
    CountingIterator operator++(int) {
        const CountingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const CountingIterator &other) const { return at_ == other.at_; }
    bool operator!=(const CountingIterator &other) const { return at_ != other.at_; }

private:
    const char *at_;
    const char **furthest_;
};

// Takes the events of the parser, each of which comes when its last byte has been read, with a number the byte behind
// it, too.
class Reader : public Json::json_sax_t {
public:
    Reader(const std::string &text, const std::string &source) : text_(text), source_(source), at_(text.data()) {}

    PolicyDocument read() {
        const char *const end = text_.data() + text_.size();
        Json::sax_parse(CountingIterator(at_, &at_), CountingIterator(end, &at_), this, Json::input_format_t::json,
                        true, true);
        findComment();
        return std::move(document_);
    }

    bool null() override { return word("null"); }
    bool boolean(bool isTrue) override { return word(isTrue ? "true" : "false"); }
    bool number_integer(number_integer_t number) override { return word(std::to_string(number)); }
    bool number_unsigned(number_unsigned_t number) override { return word(std::to_string(number)); }
    bool number_float(number_float_t, const string_t &text) override { return word(text); }
    bool binary(binary_t &) override { return true; } // JSON has none

    bool string(string_t &text) override {
        const std::size_t begin = beginOfString();
        if (!inEntries())
            refuseValue(text, begin);
        else if (list_ == List::allow)
            addRules(Json(text), begin);
        else
            add(FindingKind::ignored, begin + 1, text, "entries of \"DENY\" have no effect");
        return true;
    }

    bool key(string_t &name) override {
        if (depth_ != 1)
            return true;
        list_ = name == "ALLOW" ? List::allow : name == "DENY" ? List::deny : List::none;
        if (list_ == List::none)
            add(FindingKind::ignored, beginOfString(), name,
                rules::quoted(name) + " is no list of a policy and has no effect" +
                    didYouMean(name, {"ALLOW", "DENY"}));
        if (list_ == List::allow)
            document_.rules.clear(); // of two with one name, the last counts
        return true;
    }

    bool start_object(std::size_t) override {
        if (depth_ > 0)
            refuseValue("{", lastByte());
        return start();
    }
    bool end_object() override { return end(); }
    bool start_array(std::size_t) override {
        const bool isList = depth_ == 1 && list_ != List::none;
        if (!isList)
            refuseValue("[", lastByte());
        return start();
    }
    bool end_array() override { return end(); }

    bool parse_error(std::size_t byte, const std::string &, const nlohmann::detail::exception &) override {
        const std::size_t at = std::min(byte > 0 ? byte - 1 : 0, text_.size());
        refuse(at, at < text_.size() ? text_.substr(at, 1) : "", "from here on it is no JSON",
               "a whole document is, and of this one the plugin would apply what it can read");
        return false;
    }

private:
    enum class List { none, allow, deny };
    struct Offset {
        std::size_t offset = 0;
        std::size_t line = 1;
        std::size_t lineBegin = 0;
    };

    bool inEntries() const { return depth_ == 2 && list_ != List::none; }

    bool word(const std::string &shown) {
        refuseValue(shown, beginOfWord());
        return true;
    }

    // A value that has no place where it stands.
    void refuseValue(const std::string &shown, std::size_t offset) {
        if (depth_ == 0) {
            refuse(offset, shown, "it is no object", "{\"ALLOW\":[rules],\"DENY\":[rules]} is");
        } else if (depth_ == 1 && list_ != List::none) {
            refuse(offset, shown, "it is no list of rules", "an array such as [\"tcp:10.0.0.5:80\"] is");
            list_ = List::none;
        } else if (inEntries() && list_ == List::allow) {
            refuse(offset, shown, "an entry is no text", "a rule is one, such as \"tcp:10.0.0.5:80\"");
        }
    }

    bool start() {
        ++depth_;
        return true;
    }

    bool end() {
        --depth_;
        return true;
    }

    // That was read.
    std::size_t lastByte() const { return static_cast<std::size_t>(at_ - text_.data()) - (at_ > text_.data() ? 1 : 0); }

    // Of the number, or of null, true or false, that was read last.
    std::size_t beginOfWord() const {
        const auto isOfWord = [this](std::size_t at) {
            return std::isalnum(static_cast<unsigned char>(text_[at])) != 0 || text_[at] == '-' || text_[at] == '+' ||
                   text_[at] == '.';
        };
        std::size_t at = lastByte();
        if (at > 0 && !isOfWord(at))
            --at;
        while (at > 0 && isOfWord(at - 1))
            --at;
        return at;
    }

    // Of the text whose end was read last: inside it, each quote has a backslash before it.
    std::size_t beginOfString() const {
        std::size_t at = lastByte();
        for (;;) {
            at = text_.rfind('"', at - 1);
            std::size_t backslashes = 0;
            while (backslashes < at && text_[at - backslashes - 1] == '\\')
                ++backslashes;
            if (backslashes % 2 == 0)
                return at;
        }
    }

    // Mostly of one behind the last one that was asked for: only what lies between is looked at.
    Place placeOf(std::size_t offset) {
        if (offset < known_.offset)
            known_ = {};
        for (; known_.offset < offset; ++known_.offset) {
            if (text_[known_.offset] == '\n')
                known_ = {known_.offset, known_.line + 1, known_.offset + 1};
        }
        return {source_, known_.line, offset - known_.lineBegin + 1};
    }

    // The rules that the plugin makes of an entry. In one with escapes, all of them stand where it begins.
    void addRules(const Json &entry, std::size_t begin) {
        const std::string list = ruleTextOf(entry) + ";";
        const bool isPlain = text_.compare(begin + 1, list.size() - 1, list, 0, list.size() - 1) == 0;
        for (const auto &read : rules::readRules(list)) {
            const auto offset = static_cast<std::size_t>(read.text.data() - list.data());
            document_.rules.push_back({placeOf(begin + 1 + (isPlain ? offset : 0)), std::string(read.text), false});
        }
    }

    void add(FindingKind kind, std::size_t offset, const std::string &rule, const std::string &message) {
        document_.findings.push_back({kind, placeOf(offset), rule, {}, {}, message, {}});
    }

    void refuse(std::size_t offset, const std::string &refused, const std::string &complaint,
                const std::string &accepted) {
        document_.findings.push_back(
            {FindingKind::refused, placeOf(offset), {}, refused, accepted, complaint + "; " + accepted, {}});
    }

    // The first one.
    void findComment() {
        try {
            [[maybe_unused]] const bool whole = !Json::parse(text_, nullptr, true, false).is_discarded();
        } catch (const Json::parse_error &error) {
            const std::size_t at = std::min(error.byte > 0 ? error.byte - 1 : 0, text_.size());
            if (Json::accept(text_, true))
                add(FindingKind::comment, at, "", "a comment; beside a rule it becomes a rule, or a part of that rule");
        }
    }

    const std::string &text_;
    const std::string &source_;
    const char *at_; // how far the parser has read
    Offset known_;
    int depth_ = 0;
    List list_ = List::none; // in which of them it is, where it is in a member of the document
    PolicyDocument document_;
};

} // namespace

bool looksLikePolicy(const std::string &text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    return first != std::string::npos && (text[first] == '{' || text[first] == '/');
}

PolicyDocument readPolicyDocument(const std::string &text, const std::string &source) {
    return Reader(text, source).read();
}

} // namespace cli
