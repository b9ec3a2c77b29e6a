// Registry key with DWORD access.
#include "knregistrykey.h"

#include "kntrace.h"

namespace {

// Where the value query routine puts its outcome.
struct KnDwordQueryResult {
    ULONG expectedType;     // REG_DWORD
    PVOID destination;      // receives the first 4 bytes of the data
    ULONG destinationSize;  // 4
    NTSTATUS status;        // outcome of the query
};

// Contract: PASSIVE_LEVEL (called back from RtlQueryRegistryValues).
// Reports the outcome through EntryContext and always lets the query go on.
NTSTATUS KnQueryDwordRoutine(PWSTR ValueName, ULONG ValueType, PVOID ValueData, ULONG ValueLength, PVOID Context,
                             PVOID EntryContext)
{
    UNREFERENCED_PARAMETER(ValueName);
    UNREFERENCED_PARAMETER(Context);
    KnDwordQueryResult* result = static_cast<KnDwordQueryResult*>(EntryContext);
    if (ValueType != result->expectedType) {
        result->status = STATUS_OBJECT_TYPE_MISMATCH;
    } else if (ValueLength >= result->destinationSize) {
        RtlCopyMemory(result->destination, ValueData, result->destinationSize);
        result->status = STATUS_SUCCESS;
    } else {
        result->status = STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

}  // namespace

// Contract: PASSIVE_LEVEL.
KnRegistryKey::~KnRegistryKey()
{
    Close();
}

// Contract: PASSIVE_LEVEL.
NTSTATUS KnRegistryKey::OpenKey(PCWSTR path, ACCESS_MASK access)
{
    IRQL_EQ_PASSIVE();
    Close();

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);

    HANDLE handle = NULL;
    NTSTATUS status = ZwOpenKey(&handle, access, &attributes);
    if (NT_SUCCESS(status)) {
        mKeyHandle = handle;
    }
    return status;
}

// Contract: PASSIVE_LEVEL.
NTSTATUS KnRegistryKey::Close()
{
    IRQL_EQ_PASSIVE();
    if (mKeyHandle == NULL) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = ZwClose(mKeyHandle);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnRegistryKey::Close: ZwClose(%p) failed, stat=%N\n", mKeyHandle, status);
    }
    mKeyHandle = NULL;
    return status;
}

// Contract: PASSIVE_LEVEL; a key open.
NTSTATUS KnRegistryKey::SetDword(PCWSTR valueName, ULONG value)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(IsValid());
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, valueName);
    NTSTATUS status = ZwSetValueKey(mKeyHandle, &name, 0, REG_DWORD, &value, sizeof(value));
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnRegistryKey::SetDword: ZwSetValueKey(%S) failed, stat=%N\n", valueName, status);
    }
    return status;
}

// Contract: PASSIVE_LEVEL; a key open.
NTSTATUS KnRegistryKey::QueryDword(PCWSTR valueName, PULONG value)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(IsValid());

    ULONG data = 0;
    KnDwordQueryResult result;
    result.expectedType = REG_DWORD;
    result.destination = &data;
    result.destinationSize = sizeof(data);
    result.status = STATUS_UNSUCCESSFUL;

    RTL_QUERY_REGISTRY_TABLE table[2];
    RtlZeroMemory(table, sizeof(table));
    table[0].QueryRoutine = KnQueryDwordRoutine;
    table[0].Flags = RTL_QUERY_REGISTRY_REQUIRED;
    table[0].Name = const_cast<PWSTR>(valueName);
    table[0].EntryContext = &result;

    NTSTATUS status = RtlQueryRegistryValues(RTL_REGISTRY_HANDLE, (PCWSTR)mKeyHandle, table, NULL, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *value = data;
    return result.status;
}

// Contract: PASSIVE_LEVEL; a key open.
NTSTATUS KnRegistryKey::GetDwordValue(PCWSTR valueName, PULONG value, ULONG defaultValue)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(IsValid());
    NTSTATUS status = QueryDword(valueName, value);
    if (NT_SUCCESS(status)) {
        return status;
    }
    status = SetDword(valueName, defaultValue);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnRegistryKey::GetDwordValue: SetDword(%S) failed, stat=%N\n", valueName, status);
    }
    *value = defaultValue;
    return status;
}
