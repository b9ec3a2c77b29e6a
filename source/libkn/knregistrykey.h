// A registry key handle with DWORD access, including a read that falls back
// to (and tries to store) a default.
#pragma once

#include <ntddk.h>

class KnRegistryKey {
public:
    // Contract: any IRQL. No key open.
    KnRegistryKey() : mKeyHandle(NULL) {}
    // Contract: PASSIVE_LEVEL. Closes a key still open.
    ~KnRegistryKey();
    KnRegistryKey(const KnRegistryKey&) = delete;
    KnRegistryKey& operator=(const KnRegistryKey&) = delete;

    // Contract for every operation: PASSIVE_LEVEL.

    // Opens an existing key by absolute path with the given access, closing a
    // key still open first. On failure no key is open. Does not trace.
    NTSTATUS OpenKey(PCWSTR path, ACCESS_MASK access);
    // Closes the key; success and nothing else when none is open.
    NTSTATUS Close();
    // Writes a REG_DWORD value.
    NTSTATUS SetDword(PCWSTR valueName, ULONG value);
    // Reads a REG_DWORD value of at least 4 bytes. *value is left alone when
    // the value cannot be read at all, and is 0 when it has the wrong type
    // or size (STATUS_OBJECT_TYPE_MISMATCH, STATUS_UNSUCCESSFUL).
    NTSTATUS QueryDword(PCWSTR valueName, PULONG value);
    // Reads a REG_DWORD value; when that fails, tries to store defaultValue
    // and returns it in *value with the status of that store.
    NTSTATUS GetDwordValue(PCWSTR valueName, PULONG value, ULONG defaultValue);

    // Contract: any IRQL. A key is open.
    bool IsValid() const { return mKeyHandle != NULL; }
    HANDLE GetHandle() const { return mKeyHandle; }

private:
    HANDLE mKeyHandle;  // NULL while no key is open
};
