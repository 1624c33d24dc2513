#include "rlv/shape/chain-names.h"

#include <algorithm>

namespace rlv::shape {

namespace {

constexpr std::string_view kDigits = "0123456789abcdefghijklmnopqrstuvwxyz";
constexpr std::size_t kMaxDigits = 7;
// So that a copy is small, as the numbers that are given out are.
constexpr std::uint64_t kSmall = 65'536;

std::string numbered(const std::string &chain, std::uint64_t number) {
    std::string digits;
    for (; number > 0; number /= kDigits.size())
        digits.insert(digits.begin(), kDigits[static_cast<std::size_t>(number % kDigits.size())]);
    return chain + "." + digits;
}

// 0 where it is no number.
std::uint64_t numberOf(std::string_view digits) {
    std::uint64_t number = 0;
    for (const char digit : digits)
        number = number * kDigits.size() + kDigits.find(digit);
    return number;
}

} // namespace

std::string_view treeOf(std::string_view subChain) {
    const std::size_t dot = subChain.find('.');
    if (dot == std::string_view::npos || dot == 0 || dot > kMaxTreeNameLength)
        return {};
    const std::string_view digits = subChain.substr(dot + 1);
    const bool isNumber = !digits.empty() && digits.size() <= kMaxDigits && digits.front() != '0' &&
                          digits.find_first_not_of(kDigits) == std::string_view::npos;
    return isNumber ? subChain.substr(0, dot) : std::string_view();
}

void ChainNames::reserve(const std::string &name) {
    if (treeOf(name) == chain_)
        take(numberOf(std::string_view(name).substr(chain_.size() + 1)));
}

// False where it was taken before.
bool ChainNames::take(std::uint64_t number) {
    if (number >= kSmall)
        return takenLarge_.insert(number).second;
    if (number >= taken_.size())
        taken_.resize(number + 1);
    const bool wasTaken = taken_[number];
    taken_[number] = true;
    return !wasTaken;
}

std::string ChainNames::take() {
    while (!take(next_++)) {
    }
    return numbered(chain_, next_ - 1);
}

void ChainNames::release(const std::string &name) {
    const std::uint64_t number = numberOf(std::string_view(name).substr(chain_.size() + 1));
    if (number < taken_.size())
        taken_[number] = false;
    takenLarge_.erase(number);
    next_ = std::min(next_, number);
}

} // namespace rlv::shape
