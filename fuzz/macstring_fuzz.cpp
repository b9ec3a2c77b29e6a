// Fuzz target: the conversion of the MAC address string of the device.
//
// Input: byte 0 holds the configuration; bit 0 set takes the rest as
// little-endian UTF-16 code units, clear takes each byte as one character
// (denser in hexadecimal digits). The text goes into a zero-filled buffer of
// 26 units as the string descriptor read leaves it (at most 25 characters).
//
// Checks: a string is accepted exactly when it is 12 hexadecimal digits, and
// then converts to their bytes; a refused string leaves the address alone.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <ntddk.h>

#include "macstring.h"

namespace {

constexpr size_t kMaxInputSize = 64;
constexpr size_t kTextUnits = 26;

int HexDigit(WCHAR c)
{
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > kMaxInputSize) {
        return 0;
    }
    const bool wide = (data[0] & 0x01) != 0;
    data++;
    size--;

    WCHAR text[kTextUnits] = {};
    size_t units = 0;
    if (wide) {
        for (; units < kTextUnits - 1 && 2 * units + 1 < size; units++) {
            text[units] = (WCHAR)(data[2 * units] | data[2 * units + 1] << 8);
        }
    } else {
        for (; units < kTextUnits - 1 && units < size; units++) {
            text[units] = data[units];
        }
    }
    size_t length = 0;
    while (text[length] != 0) length++;

    UCHAR mac[6];
    memset(mac, 0xA5, sizeof(mac));
    const bool converted = ConvertMacAddressString(text, mac);

    bool allHex = length == MAC_ADDRESS_STRING_LENGTH;
    for (size_t i = 0; i < length; i++) {
        allHex = allHex && HexDigit(text[i]) >= 0;
    }
    if (converted != allHex) abort();
    for (size_t i = 0; i < 6; i++) {
        const UCHAR expected = allHex ? (UCHAR)(HexDigit(text[2 * i]) * 16 + HexDigit(text[2 * i + 1])) : 0xA5;
        if (mac[i] != expected) abort();
    }
    return 0;
}
