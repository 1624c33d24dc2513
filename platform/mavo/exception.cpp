#include "mavo/exception.h"

namespace mavo {

Exception::Exception(const std::string &text) : std::runtime_error(text) {}

Exception::~Exception() = default;

} // namespace mavo
