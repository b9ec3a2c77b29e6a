// String helpers on zero-terminated strings of 8-bit and UTF-16 characters.
#include "qbstringutils.h"

#include <kntrace.h>

namespace {

// Contract: any IRQL.
template <typename D, typename S>
ULONG CopyString(D* dest, const S* src, ULONG maxChars)
{
    KN_ASSERT(maxChars>0);
    if (maxChars == 0) {
        return 0;
    }
    ULONG copied = 0;
    while (src[copied] != 0 && copied < maxChars - 1) {
        dest[copied] = (D)src[copied];
        copied++;
    }
    dest[copied] = 0;
    return copied;
}

}  // namespace

// Contract: any IRQL.
ULONG QbStringCopy(char* dest, const char* src, ULONG maxChars)
{
    return CopyString(dest, src, maxChars);
}

// Contract: any IRQL.
ULONG QbStringCopy(WCHAR* dest, const WCHAR* src, ULONG maxChars)
{
    return CopyString(dest, src, maxChars);
}

// Contract: any IRQL.
ULONG QbStringCopy(char* dest, const WCHAR* src, ULONG maxChars)
{
    return CopyString(dest, src, maxChars);
}

// Contract: any IRQL.
ULONG QbStringLength(const WCHAR* s)
{
    ULONG length = 0;
    while (s[length] != 0) {
        length++;
    }
    return length;
}
