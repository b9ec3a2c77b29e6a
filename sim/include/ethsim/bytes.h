// Little-endian field access, the Ethernet CRC and hex text, shared by the
// simulated device, its profile and its tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ethsim {

using Bytes = std::vector<uint8_t>;

inline uint16_t Get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t Get32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline void Put16(uint8_t* p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
inline void Put32(uint8_t* p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}
inline void Append16(Bytes& b, uint16_t v)
{
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
}
inline void Append32(Bytes& b, uint32_t v)
{
    Append16(b, static_cast<uint16_t>(v));
    Append16(b, static_cast<uint16_t>(v >> 16));
}

// ((x + m - 1) / m) * m; m >= 1.
inline uint64_t RoundUp(uint64_t x, uint64_t m) { return (x + m - 1) / m * m; }

// The IEEE 802.3 frame check sequence (CRC-32, reflected, polynomial
// 0x04C11DB7). On the wire it follows the frame least significant byte first,
// that is as a little-endian u32.
uint32_t EthernetCrc(const uint8_t* data, size_t length);

// "12 01 00 02" or "12010002" (spaces, colons, dashes ignored) -> bytes.
// Returns false on an odd digit count or a character that is not a hex digit.
bool ParseHex(const std::string& text, Bytes* out);
// Bytes as "12 01 00 02".
std::string ToHex(const uint8_t* data, size_t length);
inline std::string ToHex(const Bytes& b) { return ToHex(b.data(), b.size()); }

}  // namespace ethsim
