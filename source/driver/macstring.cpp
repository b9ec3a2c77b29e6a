// Conversion of the MAC address string into the six address bytes.
#include "macstring.h"

#include "qbstringutils.h"

bool ConvertMacAddressString(const WCHAR* text, UCHAR mac[6])
{
    if (QbStringLength(text) != MAC_ADDRESS_STRING_LENGTH) {
        return false;
    }
    // Only hexadecimal digits, checked before any conversion: the integer
    // conversion skips blanks, takes signs and stops early without failing.
    for (ULONG i = 0; i < MAC_ADDRESS_STRING_LENGTH; i++) {
        const WCHAR c = text[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) {
            return false;
        }
    }
    for (ULONG i = 0; i < MAC_ADDRESS_STRING_LENGTH / 2; i++) {
        WCHAR pair[3];
        QbStringCopy(pair, text + 2 * i, 3);
        UNICODE_STRING pairString;
        RtlInitUnicodeString(&pairString, pair);
        ULONG value = 0;
        NTSTATUS status = RtlUnicodeStringToInteger(&pairString, 16, &value);
        if (!NT_SUCCESS(status)) {
            return false;
        }
        mac[i] = (UCHAR)(value & 0xFF);
    }
    return true;
}
