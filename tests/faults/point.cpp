#include "faults/point.h"

#include <stdexcept>
#include <sys/syscall.h>
#include <vector>

namespace faults {
namespace {

constexpr const char *kKinds[] = {"once", "for-good", "kill"};
constexpr const char *kMemory = "memory";

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (c == separator)
            pieces.emplace_back();
        else
            pieces.back() += c;
    }
    return pieces;
}

Point::Kind kindOf(const std::string &name) {
    for (int i = 0; i < 3; ++i) {
        if (name == kKinds[i])
            return static_cast<Point::Kind>(i);
    }
    throw std::invalid_argument("a fault is once, for-good or kill, not " + name);
}

// A descriptor is closed even when close(2) fails.
Fate failing(long call, int error) { return {call == SYS_close ? Fate::madeAndFails : Fate::fails, error}; }

} // namespace

std::string nameOf(const Point &point) {
    std::string name = point.operation + ":" + (point.program == Program::host ? "vpkd" : "rlvd") + ":" +
                       (point.memory ? kMemory : nameOfCall(point.call)) + "#" + std::to_string(point.occurrence);
    if (point.error != 0)
        name += "=" + nameOfError(point.error);
    name += std::string(":") + kKinds[static_cast<int>(point.kind)];
    return point.second > 0 ? name + "+" + std::to_string(point.second) : name;
}

Point pointOf(const std::string &name) {
    const auto parts = split(name, ':');
    if (parts.size() != 4 || split(parts[2], '#').size() != 2)
        throw std::invalid_argument("a point is OPERATION:PROGRAM:CALL#NUMBER[=ERROR]:KIND[+NUMBER], not " + name);
    Point point;
    point.operation = parts[0];
    point.program = parts[1] == "rlvd" ? Program::service : Program::host;
    const auto place = split(parts[2], '#');
    const auto number = split(place[1], '=');
    point.memory = place[0] == kMemory;
    point.call = point.memory ? 0 : numberOfCall(place[0]);
    point.occurrence = static_cast<unsigned>(std::stoul(number[0]));
    point.error = number.size() > 1 ? numberOfError(number[1]) : 0;
    const auto kind = split(parts[3], '+');
    point.kind = kindOf(kind[0]);
    point.second = kind.size() > 1 ? static_cast<unsigned>(std::stoul(kind[1])) : 0;
    return point;
}

Fate Fault::decide(const SystemCall &call) { return met_ ? decideSecond(call) : decideFirst(call); }

Fate Fault::decideFirst(const SystemCall &call) {
    if (call.number != point_.call || ++seen_ != point_.occurrence)
        return {};
    met_ = true;
    operand_ = call.operand;
    return point_.kind == Point::Kind::kill ? Fate{Fate::deadly, 0} : failing(call.number, point_.error);
}

Fate Fault::decideSecond(const SystemCall &call) {
    if (point_.kind == Point::Kind::forGood && call.number == point_.call && call.operand == operand_)
        return failing(call.number, point_.error);
    const Failures *known = failuresOf(call.number);
    if (point_.second == 0 || secondMet_ || known == nullptr || ++seenAfter_ != point_.second)
        return {};
    secondMet_ = true;
    return failing(call.number, (call.operand == Operand::file ? known->ofFile : known->ofSocket)[0]);
}

} // namespace faults
