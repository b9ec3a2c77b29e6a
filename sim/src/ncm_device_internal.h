// What the parts of the simulated NCM function share: limits, the depth of
// bus calls on this thread (port calls other than CompleteControl wait until
// the outermost bus call has returned) and small helpers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace ethsim {
namespace detail {

inline constexpr size_t kRequestLogLimit = 4096;
inline constexpr size_t kViolationLogLimit = 1024;
inline constexpr size_t kNotificationLimit = 256;
inline constexpr uint64_t kTicksPerMs = 10000;  // the port clock counts 100 ns
inline constexpr size_t kOutTransferCap = 4u << 20;

// Depth of bus calls into any device on this thread: port calls other than
// CompleteControl must not be made from inside one.
inline thread_local int tBusCallDepth = 0;

struct BusCall {
    BusCall() { ++tBusCallDepth; }
    ~BusCall() { --tBusCallDepth; }
    BusCall(const BusCall&) = delete;
    BusCall& operator=(const BusCall&) = delete;
};

inline bool IsBroadcast(const uint8_t* mac)
{
    return std::all_of(mac, mac + 6, [](uint8_t b) { return b == 0xFF; });
}

}  // namespace detail
}  // namespace ethsim
