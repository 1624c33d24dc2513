// Fields of the frames on our sockets: whole numbers with the least significant byte first, whatever the machine, and
// texts with their length in front.
#ifndef PLATFORM_SUPPORT_LITTLE_ENDIAN_H
#define PLATFORM_SUPPORT_LITTLE_ENDIAN_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace support {

// Appends the lowest `bytes` bytes of a number, 8 at most.
inline void appendLittleEndian(std::string &to, std::uint64_t number, std::size_t bytes) {
    std::array<char, sizeof number> raw; // not cleared: only what is set is used
    for (std::size_t i = 0; i < bytes; ++i)
        raw[i] = static_cast<char>((number >> (8 * i)) & 0xff);
    to.append(raw.data(), bytes);
}

// The number that 8 bytes at most are; 0 for none.
inline std::uint64_t fromLittleEndian(std::string_view raw) {
    std::uint64_t number = 0;
    for (std::size_t i = raw.size(); i > 0; --i)
        number = number << 8 | static_cast<unsigned char>(raw[i - 1]);
    return number;
}

// Of the length of a text and of the number of elements of a list.
constexpr std::size_t kCountBytes = 4;

// Writes fields one after another. A frame of some numbers alone needs no memory: it fits into the string itself.
class FieldWriter {
public:
    void reserve(std::size_t bytes) { out_.reserve(bytes); }
    void integer(std::uint64_t value, std::size_t bytes) { appendLittleEndian(out_, value, bytes); }
    void flag(bool value) { integer(value ? 1 : 0, 1); }
    // Its length, in kCountBytes, and the text.
    void text(std::string_view value) {
        integer(value.size(), kCountBytes);
        out_ += value;
    }
    // The number of elements, in as many bytes, then what `element` writes of each.
    template <class List, class Element> void list(const List &values, Element element) {
        integer(values.size(), kCountBytes);
        for (const auto &value : values)
            element(value);
    }
    // Without a length: it goes to the end of the frame.
    void rest(std::string_view value) { out_ += value; }
    std::string take() { return std::move(out_); }

private:
    std::string out_;
};

// Reads what was written so, from bytes that must outlive it. After a read beyond the end everything reads as 0 or
// empty, and good() is false.
class FieldReader {
public:
    explicit FieldReader(std::string_view in) : in_(in) {}
    std::uint64_t integer(std::size_t bytes) { return fromLittleEndian(take(bytes)); }
    std::uint32_t word() { return static_cast<std::uint32_t>(integer(4)); }
    bool flag() { return integer(1) != 0; }
    std::string text() { return std::string(take(word())); }
    // Calls `element` for each. Element by element: a count that lies ends at the end of the bytes, and nothing is
    // reserved for it before.
    template <class Element> void list(Element element) {
        for (auto left = word(); left > 0 && good_; --left)
            element();
    }
    // All that is left.
    std::string_view rest() { return take(in_.size()); }
    bool good() const { return good_; }
    // Whether every byte was read, and none beyond.
    bool complete() const { return good_ && in_.empty(); }

private:
    std::string_view take(std::size_t bytes) {
        good_ = good_ && bytes <= in_.size();
        const auto taken = in_.substr(0, good_ ? bytes : 0);
        in_.remove_prefix(taken.size());
        return taken;
    }

    std::string_view in_;
    bool good_ = true;
};

} // namespace support

#endif
