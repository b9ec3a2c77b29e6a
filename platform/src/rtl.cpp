// Counted strings: initialisation, conversion to ANSI and to an integer.
#include <kplat/platform.h>

namespace {

// Pool tag of the ANSI strings that RtlUnicodeStringToAnsiString allocates.
constexpr ULONG kTagAnsiString = kplat::MakeTag("RtlS");

}  // namespace

void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    DestinationString->Buffer = (PWSTR)SourceString;
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t bytes = std::char_traits<char16_t>::length(SourceString) * sizeof(WCHAR);
    if (bytes > 0xFFFC) bytes = 0xFFFC;  // the largest even length that leaves room for the terminator
    DestinationString->Length = (USHORT)bytes;
    DestinationString->MaximumLength = (USHORT)(bytes + sizeof(WCHAR));
}

void RtlInitAnsiString(PANSI_STRING DestinationString, PCSTR SourceString) {
    DestinationString->Buffer = (PCHAR)SourceString;
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t bytes = strlen(SourceString);
    if (bytes > 0xFFFE) bytes = 0xFFFE;
    DestinationString->Length = (USHORT)bytes;
    DestinationString->MaximumLength = (USHORT)(bytes + 1);
}

// The result is always terminated. When the caller's buffer is too small, as
// much as fits is converted and STATUS_BUFFER_OVERFLOW returned, as the
// platform does.
NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString) {
    size_t chars = SourceString->Length / sizeof(WCHAR);
    if (chars + 1 > 0xFFFF) return STATUS_INVALID_PARAMETER_2;
    NTSTATUS status = STATUS_SUCCESS;
    size_t length = chars;
    if (AllocateDestinationString) {
        DestinationString->Buffer = (PCHAR)ExAllocatePoolWithTag(PagedPool, chars + 1, kTagAnsiString);
        if (DestinationString->Buffer == nullptr) {
            DestinationString->Length = DestinationString->MaximumLength = 0;
            return STATUS_NO_MEMORY;
        }
        DestinationString->MaximumLength = (USHORT)(chars + 1);
    } else if (length >= DestinationString->MaximumLength) {
        if (DestinationString->MaximumLength == 0) return STATUS_BUFFER_OVERFLOW;
        status = STATUS_BUFFER_OVERFLOW;
        length = DestinationString->MaximumLength - 1u;
    }
    for (size_t i = 0; i < length; i++) {
        WCHAR c = SourceString->Buffer[i];
        DestinationString->Buffer[i] = c > 0x7F ? '?' : (CHAR)c;
    }
    DestinationString->Buffer[length] = '\0';
    DestinationString->Length = (USHORT)length;
    return status;
}

void RtlFreeAnsiString(PANSI_STRING AnsiString) {
    if (AnsiString->Buffer != nullptr) ExFreePoolWithTag(AnsiString->Buffer, kTagAnsiString);
    AnsiString->Buffer = nullptr;
    AnsiString->Length = AnsiString->MaximumLength = 0;
}

// Leading characters up to and including the blank are skipped; then an
// optional sign; Base 0 takes the base from a "0x", "0o" or "0b" prefix
// (lower case) and is 10 otherwise. Digits are read up to the first one that
// is not valid in the base; the value wraps around in 32 bits; a '-' negates
// it. An empty string, or one without digits, gives 0.
NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value) {
    if (Base != 0 && Base != 2 && Base != 8 && Base != 10 && Base != 16) return STATUS_INVALID_PARAMETER;
    const WCHAR* s = String->Buffer;
    const WCHAR* end = s + String->Length / sizeof(WCHAR);
    while (s < end && *s <= u' ') s++;
    bool negative = false;
    if (s < end && (*s == u'-' || *s == u'+')) negative = *s++ == u'-';
    if (Base == 0) {
        Base = 10;
        if (s + 1 < end && s[0] == u'0') {
            switch (s[1]) {
            case u'x': Base = 16; s += 2; break;
            case u'o': Base = 8; s += 2; break;
            case u'b': Base = 2; s += 2; break;
            default: break;
            }
        }
    }
    ULONG result = 0;
    for (; s < end; s++) {
        WCHAR c = *s;
        ULONG digit;
        if (c >= u'0' && c <= u'9')
            digit = c - u'0';
        else if (c >= u'a' && c <= u'f')
            digit = c - u'a' + 10;
        else if (c >= u'A' && c <= u'F')
            digit = c - u'A' + 10;
        else
            break;
        if (digit >= Base) break;
        result = result * Base + digit;
    }
    *Value = negative ? (ULONG)(0u - result) : result;
    return STATUS_SUCCESS;
}
