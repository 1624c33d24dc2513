#include "rlv/shape/chain-names.h"

#include <algorithm>

namespace rlv::shape {

namespace {

constexpr std::string_view kDigits = "0123456789abcdefghijklmnopqrstuvwxyz";
constexpr std::size_t kMaxDigits = 7;

std::string numbered(const std::string &chain, std::uint64_t number) {
    std::string digits;
    for (; number > 0; number /= kDigits.size())
        digits.insert(digits.begin(), kDigits[number % kDigits.size()]);
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

std::string ChainNames::take() {
    for (;;) {
        std::string name = numbered(chain_, next_++);
        if (taken_.insert(name).second)
            return name;
    }
}

void ChainNames::release(const std::string &name) {
    taken_.erase(name);
    next_ = std::min(next_, numberOf(std::string_view(name).substr(chain_.size() + 1)));
}

} // namespace rlv::shape
