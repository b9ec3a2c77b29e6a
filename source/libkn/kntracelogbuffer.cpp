// The trace log buffer: a ring of trace text in contiguous non-paged memory.
#include "kntracelogbuffer.h"

#include "kntrace.h"

// The driver-wide object. Set and cleared only by Create and Delete (driver
// entry and unload); the output sink reads it on any processor.
static KnTraceLogBuffer* gKnTraceLogBuffer = NULL;

static KN_TRACE_LOG_FREE_ROUTINE gKnTraceLogFreeRoutine = MmFreeContiguousMemory;

void KnTraceLogBufferSetFreeRoutine(KN_TRACE_LOG_FREE_ROUTINE routine)
{
    gKnTraceLogFreeRoutine = routine != NULL ? routine : MmFreeContiguousMemory;
}

KnTraceLogBuffer* KnTraceLogBuffer::Instance()
{
    return __atomic_load_n(&gKnTraceLogBuffer, __ATOMIC_ACQUIRE);
}

bool KnTraceLogBuffer::Create(ULONG sizeKb)
{
    KnTraceLogBuffer* logBuffer = Instance();
    bool created = false;
    if (logBuffer == NULL) {
        logBuffer = new (NonPagedPool, KN_TAG("KnTl")) KnTraceLogBuffer();
        if (logBuffer == NULL) return false;
        created = true;
    }
    if (!logBuffer->SetUp((ULONGLONG)sizeKb * 1024u)) {
        if (created) {
            delete logBuffer;
        } else {
            Delete();
        }
        return false;
    }
    if (created) __atomic_store_n(&gKnTraceLogBuffer, logBuffer, __ATOMIC_RELEASE);
    return true;
}

ULONG KnTraceLogBuffer::SizeKb()
{
    KnTraceLogBuffer* logBuffer = Instance();
    if (logBuffer == NULL || logBuffer->mMemory == NULL) return 0;
    return logBuffer->mSize / 1024u;
}

void KnTraceLogBuffer::Delete()
{
    KnTraceLogBuffer* logBuffer = __atomic_exchange_n(&gKnTraceLogBuffer, (KnTraceLogBuffer*)NULL, __ATOMIC_ACQ_REL);
    if (logBuffer != NULL) delete logBuffer;
}

KnTraceLogBuffer::KnTraceLogBuffer() : mControlBlock(NULL), mMemory(NULL), mSize(0), mLock(0)
{
    KeInitializeSpinLock(&mLock);
}

KnTraceLogBuffer::~KnTraceLogBuffer() { FreeBlock(); }

void KnTraceLogBuffer::FreeBlock()
{
    if (mMemory == NULL) return;
    // No stale signature may be found in the freed memory.
    RtlZeroMemory(mMemory, KN_TRACE_LOG_CONTROL_BLOCK_SIZE);
    gKnTraceLogFreeRoutine(mMemory);
    mMemory = NULL;
    mControlBlock = NULL;
    mSize = 0;
}

bool KnTraceLogBuffer::SetUp(ULONGLONG requestedBytes)
{
    FreeBlock();

    ULONGLONG size = requestedBytes < PAGE_SIZE ? PAGE_SIZE : requestedBytes;
    size = (size + PAGE_SIZE - 1) & ~(ULONGLONG)(PAGE_SIZE - 1);
    if (size > 0xFFFFF000u) return false;  // positions are 32-bit offsets

    PHYSICAL_ADDRESS highest;
    highest.QuadPart = -1;  // anywhere
    UCHAR* memory = static_cast<UCHAR*>(MmAllocateContiguousMemory((SIZE_T)size, highest));
    if (memory == NULL) return false;

    RtlZeroMemory(memory, (SIZE_T)size);
    KnTraceLogControlBlock* controlBlock = reinterpret_cast<KnTraceLogControlBlock*>(memory);
    RtlCopyMemory(controlBlock->mSignature, KN_TRACE_LOG_SIGNATURE, sizeof(controlBlock->mSignature));
    controlBlock->mControlBlockSize = KN_TRACE_LOG_CONTROL_BLOCK_SIZE;
    controlBlock->mVersion = KN_TRACE_LOG_VERSION;
    controlBlock->mRingStart = KN_TRACE_LOG_CONTROL_BLOCK_SIZE;
    controlBlock->mRingEnd = (ULONG)size;
    controlBlock->mWritePosition = KN_TRACE_LOG_CONTROL_BLOCK_SIZE;
    controlBlock->mLastEnd = KN_TRACE_LOG_CONTROL_BLOCK_SIZE;

    mMemory = memory;
    mControlBlock = controlBlock;
    mSize = (ULONG)size;
    return true;
}

void KnTraceLogBuffer::AddMessage(const char* text, const char* prefix)
{
    if (text == NULL || text[0] == 0) return;
    // Without a block there is nothing to write; asserting here would come
    // straight back through the output sink.
    if (mControlBlock == NULL) return;

    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&mLock);
    if (prefix != NULL) Write(prefix, true);
    Write(text, true);
    Write(KN_TRACE_LOG_END_MARKER, false);
    KeReleaseSpinLock(&mLock, oldIrql);
}

void KnTraceLogBuffer::Write(const char* text, bool commit)
{
    KN_ASSERT(mControlBlock!=NULL);
    if (mControlBlock == NULL) return;

    const ULONG ringStart = mControlBlock->mRingStart;
    const ULONG ringEnd = mControlBlock->mRingEnd;
    ULONG position = mControlBlock->mWritePosition;
    SIZE_T remaining = strlen(text);
    while (remaining > 0) {
        SIZE_T chunk = ringEnd - position;
        if (chunk > remaining) chunk = remaining;
        RtlCopyMemory(mMemory + position, text, chunk);
        text += chunk;
        position += (ULONG)chunk;
        if (position >= ringEnd) position = ringStart;
        remaining -= chunk;
    }
    mControlBlock->mLastEnd = position;
    if (commit) mControlBlock->mWritePosition = position;
}
