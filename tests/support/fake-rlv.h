// A traffic-control service that keeps what it is told and answers as it is told, for unit tests.
#ifndef TESTS_SUPPORT_FAKE_RLV_H
#define TESTS_SUPPORT_FAKE_RLV_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fakerlv {

// What one commit gives back.
struct Answer {
    int result = 0;
    int errorCode = 0;
    std::optional<std::string> message; // handed over in memory of malloc
};

// Back to a service that accepts everything, with no calls on record. The numbers of the handles go on.
void reset();

// From now on rlv_initialize (rlv_deinitialize) returns this code; 0 ends it. A failed rlv_initialize stores 0.
void failInitialize(int code);
void failDeinitialize(int code);
// From now on a command of this text is answered so. Whatever is sent on a handle that is not open, 0 above all, is
// refused with code 4 and "no connection".
void answer(const std::string &options, const Answer &answer);
// Called with each call as it goes on record; an empty function ends it.
void onCall(const std::function<void(const std::string &call)> &callback);

// All calls since reset(): "initialize", "commit -F VPK-ALLOW", "deinitialize". A call that failed has " failed" at its
// end; a handle that is not the one last opened has " on N" at its end.
const std::vector<std::string> &calls();
// The texts of the commits alone, refused ones included.
std::vector<std::string> commands();
// The handle last opened, 0 after it was closed.
std::uint32_t openHandle();

} // namespace fakerlv

#endif
