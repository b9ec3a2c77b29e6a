#include "ethsim/bytes.h"

#include <array>

namespace ethsim {

namespace {

std::array<uint32_t, 256> MakeCrcTable()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) {
            c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        }
        table[i] = c;
    }
    return table;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

uint32_t EthernetCrc(const uint8_t* data, size_t length)
{
    static const std::array<uint32_t, 256> table = MakeCrcTable();
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < length; ++i) {
        crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    }
    return crc ^ 0xFFFFFFFFu;
}

bool ParseHex(const std::string& text, Bytes* out)
{
    Bytes result;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == ':' || c == '-' || c == '\n' || c == '\t') {
            continue;
        }
        int d = HexDigit(c);
        if (d < 0) {
            return false;
        }
        if (high < 0) {
            high = d;
        } else {
            result.push_back(static_cast<uint8_t>(high << 4 | d));
            high = -1;
        }
    }
    if (high >= 0) {
        return false;
    }
    *out = std::move(result);
    return true;
}

std::string ToHex(const uint8_t* data, size_t length)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(length * 3);
    for (size_t i = 0; i < length; ++i) {
        if (i != 0) {
            s.push_back(' ');
        }
        s.push_back(digits[data[i] >> 4]);
        s.push_back(digits[data[i] & 0xF]);
    }
    return s;
}

}  // namespace ethsim
