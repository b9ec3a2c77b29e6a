// The trace log buffer: every trace message, with a time prefix, also goes
// into a ring of text in one block of contiguous non-paged memory, whether or
// not a debugger listens. One buffer for the whole driver.
//
// Block layout: a 256-byte control block (KnTraceLogControlBlock) followed by
// the ring. Each message in the ring is the time prefix, the text and the end
// marker "################\n"; the write position stays in front of the end
// marker, so the next message overwrites it and the ring always holds exactly
// one marker, right after the newest message. Nothing in the driver reads
// the ring back.
#pragma once

#include <ntddk.h>

#include "knmemory.h"

#define KN_TRACE_LOG_SIGNATURE "MORVALEN-*TRCLOGBUFFER*-MORVALEN"  // 32 characters, stored without terminator
#define KN_TRACE_LOG_CONTROL_BLOCK_SIZE 256
#define KN_TRACE_LOG_VERSION 1
#define KN_TRACE_LOG_END_MARKER "################\n"
#define KN_TRACE_LOG_DEFAULT_SIZE_KB 128

// The control block at the start of the memory block; all fields
// little-endian, offsets fixed.
struct KnTraceLogControlBlock {
    CHAR mSignature[32];      // KN_TRACE_LOG_SIGNATURE, no terminator
    ULONG mControlBlockSize;  // 256
    ULONG mVersion;           // 1
    ULONG mRingStart;         // 256: offset of the first byte of the ring
    ULONG mRingEnd;           // size of the block: the ring ends here, exclusive
    ULONG mWritePosition;     // where the next message goes (the end marker's offset)
    ULONG mLastEnd;           // just after the last bytes written, end marker included
    UCHAR mReserved[200];     // zero
};
static_assert(sizeof(KnTraceLogControlBlock) == KN_TRACE_LOG_CONTROL_BLOCK_SIZE, "control block layout");
static_assert(offsetof(KnTraceLogControlBlock, mControlBlockSize) == 32, "control block layout");
static_assert(offsetof(KnTraceLogControlBlock, mLastEnd) == 52, "control block layout");

// Test support: the routine that frees the memory block, MmFreeContiguousMemory
// unless replaced. NULL restores it.
typedef void (*KN_TRACE_LOG_FREE_ROUTINE)(PVOID baseAddress);
void KnTraceLogBufferSetFreeRoutine(KN_TRACE_LOG_FREE_ROUTINE routine);

class KnTraceLogBuffer : public KnObject {
public:
    // Creates the driver-wide object if there is none and sets up a block of
    // sizeKb * 1024 bytes (at least 4096, a multiple of 4096). On failure the
    // object is deleted again and false is returned; tracing then goes on
    // without the buffer. Called at PASSIVE_LEVEL.
    static bool Create(ULONG sizeKb);
    // Size of the existing block in KiB, 0 when there is none.
    static ULONG SizeKb();
    // Frees the block (its control block zeroed first) and the object; the
    // driver-wide pointer becomes NULL.
    static void Delete();
    // The driver-wide object, NULL while there is none.
    static KnTraceLogBuffer* Instance();

    // Appends one message: prefix (may be NULL), text, end marker. An empty
    // text adds nothing. Called at DISPATCH_LEVEL or below.
    void AddMessage(const char* text, const char* prefix);

    const KnTraceLogControlBlock* ControlBlock() const { return mControlBlock; }
    const UCHAR* Memory() const { return mMemory; }
    ULONG Size() const { return mSize; }

private:
    KnTraceLogBuffer();
    ~KnTraceLogBuffer();
    KnTraceLogBuffer(const KnTraceLogBuffer&) = delete;
    KnTraceLogBuffer& operator=(const KnTraceLogBuffer&) = delete;

    bool SetUp(ULONGLONG requestedBytes);
    void FreeBlock();
    // Copies a zero-terminated text into the ring at the write position;
    // with commit the write position moves past it.
    void Write(const char* text, bool commit);

    KnTraceLogControlBlock* mControlBlock;
    UCHAR* mMemory;
    ULONG mSize;
    KSPIN_LOCK mLock;
};
