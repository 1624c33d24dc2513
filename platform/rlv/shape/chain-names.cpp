#include "rlv/shape/chain-names.h"

#include <algorithm>

namespace rlv::shape {

namespace {

constexpr std::string_view kDigits = "0123456789abcdefghijklmnopqrstuvwxyz";
constexpr std::size_t kMaxDigits = 4;
constexpr std::size_t kCodeDigits = 2;
// So that a copy is small, as the numbers that are given out are.
constexpr std::size_t kSmall = 65'536;

std::string digitsOf(std::size_t number) {
    std::string digits;
    for (; number > 0; number /= kDigits.size())
        digits.insert(digits.begin(), kDigits[static_cast<std::size_t>(number % kDigits.size())]);
    return digits;
}

// Of a name that is one.
std::size_t numberOf(std::string_view subChain) {
    std::size_t number = 0;
    for (const char digit : subChain.substr(subChain.find('/') + 1))
        number = number * kDigits.size() + kDigits.find(digit);
    return number;
}

bool areDigits(std::string_view text) { return text.find_first_not_of(kDigits) == std::string_view::npos; }

char letterOf(Target::Kind kind) {
    switch (kind) {
    case Target::Kind::accept:
        return 'a';
    case Target::Kind::drop:
        return 'd';
    case Target::Kind::jump:
        return 'j';
    case Target::Kind::log:
        return 'l';
    }
    return 0;
}

} // namespace

std::string_view treeOf(std::string_view subChain) {
    const std::size_t slash = subChain.find('/');
    if (slash == std::string_view::npos || slash < kCodeDigits + 2)
        return {};
    const std::size_t dot = slash - kCodeDigits - 1;
    const std::string_view number = subChain.substr(slash + 1);
    const bool isOne = dot <= kMaxTreeNameLength && subChain[dot] == '.' &&
                       areDigits(subChain.substr(dot + 1, kCodeDigits)) && areDigits(number) && !number.empty() &&
                       number.size() <= kMaxDigits && number.front() != '0';
    return isOne ? subChain.substr(0, dot) : std::string_view();
}

std::string_view targetCodeOf(std::string_view subChain) {
    const std::string_view tree = treeOf(subChain);
    return tree.empty() ? std::string_view() : subChain.substr(tree.size() + 1, kCodeDigits);
}

std::string targetCodeOf(const Target &target) {
    // FNV-1a: the same for every version of this program, since it finds the sub-chains of others again.
    std::uint32_t hash = 2'166'136'261U;
    for (const char c : target.text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16'777'619U;
    hash ^= hash >> 16;
    return {letterOf(target.kind), target.text.empty() ? '0' : kDigits[hash % kDigits.size()]};
}

void ChainNames::reserve(const std::string &name) {
    if (treeOf(name) == chain_)
        take(numberOf(name));
}

// False where it was taken before.
bool ChainNames::take(std::size_t number) {
    if (number >= kSmall)
        return takenLarge_.insert(number).second;
    if (number >= taken_.size())
        taken_.resize(number + 1);
    const bool wasTaken = taken_[number];
    taken_[number] = true;
    return !wasTaken;
}

std::string ChainNames::take(const Target &target) {
    while (!take(next_++)) {
    }
    return chain_ + "." + targetCodeOf(target) + "/" + digitsOf(next_ - 1);
}

void ChainNames::release(const std::string &name) {
    const std::size_t number = numberOf(name);
    if (number < taken_.size())
        taken_[number] = false;
    takenLarge_.erase(number);
    next_ = std::min(next_, number);
}

} // namespace rlv::shape
