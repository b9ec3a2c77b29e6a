// String helpers on zero-terminated strings of 8-bit and UTF-16 characters.
#pragma once

#include <ntddk.h>

// Copies characters while the source character is not 0 and fewer than
// maxChars - 1 have been copied, then writes a terminating 0. Returns the
// number of characters copied. maxChars must be at least 1 (nothing is
// written when it is 0); dest must hold maxChars characters.
// Contract for all helpers: any IRQL; the strings must be resident.
ULONG QbStringCopy(char* dest, const char* src, ULONG maxChars);
ULONG QbStringCopy(WCHAR* dest, const WCHAR* src, ULONG maxChars);
// UTF-16 to 8-bit: each character becomes the low byte of its code unit.
ULONG QbStringCopy(char* dest, const WCHAR* src, ULONG maxChars);

// Number of code units before the terminating 0.
ULONG QbStringLength(const WCHAR* s);
