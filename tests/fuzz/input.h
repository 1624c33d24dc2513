// The bytes of one input of a fuzzer, taken piece by piece.
#ifndef TESTS_FUZZ_INPUT_H
#define TESTS_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fuzz {

// What is not there any more reads as 0 and as empty.
class Input {
public:
    Input(const std::uint8_t *data, std::size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}

    bool atEnd() const { return rest_.empty(); }
    std::uint8_t byte() { return number<std::uint8_t>(); }
    // Little endian.
    template <typename Number> Number number() {
        Number value = 0;
        const std::string_view bytes = take(sizeof value);
        for (std::size_t i = bytes.size(); i > 0; --i)
            value = static_cast<Number>(std::uint64_t{value} << 8 | static_cast<unsigned char>(bytes[i - 1]));
        return value;
    }
    // Fewer where there are no more.
    std::string_view take(std::size_t bytes) {
        const std::string_view taken = rest_.substr(0, bytes);
        rest_.remove_prefix(taken.size());
        return taken;
    }
    // Up to a separator, which is taken too.
    std::string_view takeUntil(char separator) {
        const std::string_view taken = rest_.substr(0, rest_.find(separator));
        rest_.remove_prefix(std::min(taken.size() + 1, rest_.size()));
        return taken;
    }
    std::string_view rest() { return take(rest_.size()); }

private:
    std::string_view rest_;
};

} // namespace fuzz

#endif
