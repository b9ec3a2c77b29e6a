// Conversion of the MAC address string of a CDC Ethernet function (the string
// descriptor named by iMACAddress) into the six address bytes.
#pragma once

#include <ntddk.h>

// Characters of a MAC address string: two hexadecimal digits per byte, high
// nibble first, the first pair being the first byte on the wire.
constexpr ULONG MAC_ADDRESS_STRING_LENGTH = 12;

// Converts text, a zero-terminated UTF-16 string, into mac. The string must
// hold exactly 12 characters; each pair of them is converted by
// RtlUnicodeStringToInteger with base 16 and its low byte stored. Which pairs
// convert is that routine's decision (it stops at the first character that is
// not a digit); the conversion fails when it returns a failure status.
//
// Returns false when the length is not 12 (mac unchanged) or a pair does not
// convert (the bytes of the pairs before it are stored). The group bit is
// left as the string gives it. Any IRQL; text must be resident.
bool ConvertMacAddressString(const WCHAR* text, UCHAR mac[6]);
