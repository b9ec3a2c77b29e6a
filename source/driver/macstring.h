// Conversion of the MAC address string of a CDC Ethernet function (the string
// descriptor named by iMACAddress) into the six address bytes.
#pragma once

#include <ntddk.h>

// Characters of a MAC address string: two hexadecimal digits per byte, high
// nibble first, the first pair being the first byte on the wire.
constexpr ULONG MAC_ADDRESS_STRING_LENGTH = 12;

// Converts text, a zero-terminated UTF-16 string, into mac. The string must
// be exactly 12 hexadecimal digits (either case); each pair of them is
// converted by RtlUnicodeStringToInteger with base 16 and its low byte
// stored.
//
// Returns false, with mac unchanged, when the length is not 12 or any
// character is not a hexadecimal digit, and when a pair does not convert
// (the bytes of the pairs before it are stored then). The group bit is left
// as the string gives it. Any IRQL; text must be resident.
bool ConvertMacAddressString(const WCHAR* text, UCHAR mac[6]);
