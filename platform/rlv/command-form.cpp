#include "rlv/command-form.h"

#include <algorithm>

#include "rlv/number-words.h"
#include "rlv/rule.h"

namespace rlv {

namespace {

std::string_view firstWord(std::string_view text) { return text.substr(0, text.find(' ')); }

// The words of a text, from the front. All of it goes into the form, but for the values.
class Words {
public:
    Words(std::string_view text, std::string &form) : rest_(text), form_(form) {}

    std::string_view peek() const { return firstWord(rest_); }
    void pass() { pass(peek().size()); }
    std::string_view takeValue() {
        const std::string_view value = peek();
        rest_.remove_prefix(value.size());
        pass(0);
        return value;
    }
    void passRest() { form_ += rest_; }

private:
    // With the blank behind, if there is one.
    void pass(std::size_t size) {
        size = std::min(size + 1, rest_.size());
        form_ += rest_.substr(0, size);
        rest_.remove_prefix(size);
    }

    std::string_view rest_;
    std::string &form_;
};

// Takes the value of an option: into the form where the answer depends on it, else only if the service takes it.

bool take(Words &words, std::optional<std::uint8_t> Rule::*) {
    words.pass();
    return true;
}

bool take(Words &words, std::optional<Network> Rule::*) { return parseNetwork(words.takeValue()).has_value(); }

bool take(Words &words, std::optional<PortRange> Rule::*) { return parsePorts(words.takeValue()).has_value(); }

enum class Taking { done, refused, otherOption };

template <typename Value> Taking takeIf(Words &words, const RuleField<Value> &field) {
    if (words.peek() != field.option)
        return Taking::otherOption;
    words.pass();
    return take(words, field.member) ? Taking::done : Taking::refused;
}

// The next word's field, whichever it is.
Taking takeField(Words &words) {
    Taking taking = Taking::otherOption;
    std::apply([&](const auto &...field) { ((taking = takeIf(words, field), taking != Taking::otherOption) || ...); },
               kMatchFields);
    return taking;
}

} // namespace

bool isRemoving(std::string_view options) {
    const std::string_view word = firstWord(options);
    return word == "-F" || word == "-D" || word == "-X";
}

bool isAppending(std::string_view options) { return firstWord(options) == "-A"; }

bool formOf(std::string_view options, std::string &form) {
    form.clear();
    if (options.size() > kMaxCommandLength || !isAppending(options))
        return false;
    Words words(options, form);
    words.pass(); // -A
    words.pass(); // the chain
    Taking taking = takeField(words);
    while (taking == Taking::done)
        taking = takeField(words);
    if (taking == Taking::refused)
        return false;
    words.passRest();
    return true;
}

} // namespace rlv
