// Fuzz target: the conversion of the MAC address string of the device.
//
// Input: byte 0 holds the configuration; bit 0 set takes the rest as
// little-endian UTF-16 code units, clear takes each byte as one character
// (denser in hexadecimal digits). The text goes into a zero-filled buffer of
// 26 units as the string descriptor read leaves it (at most 25 characters).
//
// Checks: a string that is not 12 characters long is refused and leaves the
// address alone; 12 hexadecimal digits always convert to their bytes; any
// other accepted string converts pair by pair as the platform's string to
// integer routine reads two characters (blanks and control characters skipped,
// one optional sign, hexadecimal digits up to the first other character).
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

// The byte one pair of characters yields.
UCHAR ModelPair(WCHAR first, WCHAR second)
{
    const WCHAR c[2] = {first, second};
    size_t i = 0;
    while (i < 2 && c[i] <= u' ') i++;
    bool negative = false;
    if (i < 2 && (c[i] == u'-' || c[i] == u'+')) {
        negative = c[i] == u'-';
        i++;
    }
    unsigned value = 0;
    while (i < 2 && HexDigit(c[i]) >= 0) {
        value = value * 16 + (unsigned)HexDigit(c[i]);
        i++;
    }
    return (UCHAR)(negative ? (0x100 - value) & 0xFF : value);
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

    if (length != MAC_ADDRESS_STRING_LENGTH) {
        if (converted) abort();
        for (UCHAR b : mac) {
            if (b != 0xA5) abort();
        }
        return 0;
    }
    bool allHex = true;
    for (size_t i = 0; i < length; i++) {
        allHex = allHex && HexDigit(text[i]) >= 0;
    }
    if (allHex && !converted) abort();
    if (converted) {
        for (size_t i = 0; i < 6; i++) {
            if (mac[i] != ModelPair(text[2 * i], text[2 * i + 1])) abort();
            if (allHex && mac[i] != (UCHAR)(HexDigit(text[2 * i]) * 16 + HexDigit(text[2 * i + 1]))) abort();
        }
    }
    return 0;
}
