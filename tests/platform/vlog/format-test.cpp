// The log's own printf against that of the C library.
#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

class AFormat : public testing::Test {
protected:
    void SetUp() override {
        vlog::useFile({"/dev/null"});
        vlog::setObserver([this](const vlog::Line &line) { text_ = line.text; });
    }
    void TearDown() override { vlog::setObserver({}); }

    template <typename... Values> const std::string &textOf(const std::string &format, Values... values) {
        text_ = "nothing came";
        errno = ENOSPC;
        const int length = vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TAG", format.c_str(), values...);
        EXPECT_EQ(text_.size(), static_cast<std::size_t>(length));
        return text_;
    }

    std::string text_;
};

template <typename... Values> std::string printed(const std::string &conversion, Values... values) {
    const int length = std::snprintf(nullptr, 0, conversion.c_str(), values...);
    if (length < 0)
        return "(unprintable)";
    std::string text(static_cast<std::size_t>(length), '\0');
    std::snprintf(text.data(), text.size() + 1, conversion.c_str(), values...);
    return text;
}

std::string escaped(const std::string &text) {
    std::string out;
    for (const unsigned char byte : text) {
        std::array<char, 8> code{};
        std::snprintf(code.data(), code.size(), "\\x%02x", byte);
        const bool isControl = byte < 0x20 || byte == 0x7f;
        out += byte == '\n'   ? "\\n"
               : byte == '\r' ? "\\r"
               : byte == '\t' ? "\\t"
               : isControl    ? code.data()
                              : std::string(1, static_cast<char>(byte));
    }
    return out;
}

class RandomNumbers {
public:
    explicit RandomNumbers(unsigned seed) : engine_(seed) {}
    std::size_t below(std::size_t end) { return std::uniform_int_distribution<std::size_t>(0, end - 1)(engine_); }
    bool oneIn(std::size_t times) { return below(times) == 0; }
    template <typename Value> Value oneOf(const std::vector<Value> &values) { return values[below(values.size())]; }

    // Its limits, small numbers and large ones.
    template <typename Integer> Integer integer() {
        using Limits = std::numeric_limits<Integer>;
        std::uniform_int_distribution<Integer> any(Limits::min(), Limits::max());
        return oneOf<Integer>({0, 1, 9, 10, 255, static_cast<Integer>(-1), Limits::min(), Limits::max(), any(engine_)});
    }

    // Mostly printable, with a control character here and there, or none, of about all lengths up to 100 or a large
    // one.
    std::string text() {
        std::string made(oneIn(100) ? 70000 : below(100), '\0');
        const bool isClean = oneIn(3);
        for (char &character : made) {
            const std::size_t byte = !isClean && oneIn(20) ? 1 + below(255) : 0x20 + below(0x7f - 0x20);
            character = static_cast<char>(byte);
        }
        return made;
    }

private:
    std::mt19937 engine_;
};

// Puts a format together and what should come of it, conversion by conversion.
class Expectation {
public:
    explicit Expectation(RandomNumbers &random) : random_(random) {}

    template <typename Value> Value add(const std::vector<std::string> &types, Value value) {
        addLiteral();
        const std::string conversion = "%" + random_.oneOf(types);
        format += conversion;
        text += escaped(printed(conversion, value));
        return value;
    }

    void end() { format += random_.oneOf<std::string>({"", "\n"}); }

    std::string format;
    std::string text;

private:
    void addLiteral() {
        struct Literal {
            const char *format;
            const char *text;
        };
        const auto literal = random_.oneOf<Literal>({{"", ""},
                                                     {"x = ", "x = "},
                                                     {"\033[36m\t", "\033[36m\t"},
                                                     {"caf\xc3\xa9", "caf\xc3\xa9"},
                                                     {"one\ntwo", "one\\ntwo"},
                                                     {"\n\n", "\\n\\n"},
                                                     {"%%", "%"},
                                                     {"100%%\n", "100%\\n"}});
        format += literal.format;
        text += literal.text;
    }

    RandomNumbers &random_;
};

TEST_F(AFormat, GivesWhatPrintfMakesOfEachPlainConversionEscaped) {
    RandomNumbers random(20261121);
    for (int round = 0; round < 3000 && !HasFailure(); ++round) {
        Expectation expected(random);
        const std::string one = random.text();
        const std::string two = random.text();
        const char *maybeNull = random.oneIn(4) ? nullptr : one.c_str();
        const auto i = expected.add({"d", "i"}, random.integer<int>());
        const auto s = expected.add({"s"}, maybeNull);
        const auto u = expected.add({"u", "x"}, random.integer<unsigned>());
        const auto l = expected.add({"ld", "li", "zd", "zi"}, random.integer<long>());
        const auto ul = expected.add({"lu", "lx", "zu", "zx"}, random.integer<unsigned long>());
        const auto ll = expected.add({"lld", "lli"}, random.integer<long long>());
        const auto ull = expected.add({"llu", "llx"}, random.integer<unsigned long long>());
        const auto last = expected.add({"s"}, two.c_str());
        expected.end();
        EXPECT_EQ(expected.text, textOf(expected.format, i, s, u, l, ul, ll, ull, last))
            << "format " << expected.format;
    }
}

TEST_F(AFormat, IsEscapedWholeWhenAnyOtherConversionIsInIt) {
    for (const char *conversion : {"%5d", "%-5d", "%05d", "%+d", "%.3d", "%o", "%X", "%hhd", "%c", "%#x", "%2d%%"}) {
        const std::string format = std::string("\033[36m%s\t") + conversion + "\n|%s";
        const std::string expected = escaped(printed(format, "a\nb", 7, "c\177"));
        EXPECT_EQ(expected, textOf(format, "a\nb", 7, "c\177"));
        EXPECT_EQ(expected, textOf(format + '\n', "a\nb", 7, "c\177"));
    }
    for (const char *conversion : {"%f", "%.2f", "%e", "%8.3g", "%a"})
        EXPECT_EQ(printed(conversion, 3.14159), textOf(conversion, 3.14159));
    EXPECT_EQ("\\x1b[36mNo space left on device", textOf("\033[36m%m%s", ""));
    EXPECT_EQ("a\\n", textOf("%.2s", "a\nb"));
    EXPECT_EQ("   a\\n", textOf("%5s\n", "a\n"));
}

TEST_F(AFormat, SaysThatPrintfFailed) {
    EXPECT_EQ("(unprintable)", textOf("%d %lc", 7, wint_t{0x20ac})); // which the C locale cannot say
}

TEST_F(AFormat, EscapesEachControlCharacterWhereverItStands) {
    for (int byte = 1; byte < 256; ++byte) {
        for (const std::size_t before : {0U, 1U, 15U, 16U, 17U, 31U, 32U, 40U}) {
            const std::string text = std::string(before, 'a') + static_cast<char>(byte) + "b";
            EXPECT_EQ(escaped(text), textOf("%s", text.c_str())) << byte << " after " << before;
        }
        EXPECT_EQ(escaped({static_cast<char>(byte)}), textOf("%c", byte));
    }
    EXPECT_EQ("\\x00", textOf("%c", 0));
}

TEST_F(AFormat, ReadsNoFurtherThanThePrecisionSays) {
    const std::vector<char> open{'a', '\n', 'b'}; // nothing ends it
    EXPECT_EQ("a\\nb|a", textOf("%.3s|%.*s", open.data(), 1, open.data()));
}

} // namespace
