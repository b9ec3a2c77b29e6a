// DeviceContNcm, receive: queues the NTBs of the bulk IN stream, validates
// each one, walks its chain of NDPs and hands the datagrams to the adapter
// one at a time, in place. Everything here runs under *mLock.
#include "devicecontncm.h"

#include "kntrace.h"

// Contract: any IRQL. p + offset as an address: the sum is formed as an
// integer, so an offset read from an untrusted NTB never makes an
// out-of-range pointer expression; the callers compare before they read.
static inline PUCHAR OffsetPointer(PUCHAR p, ULONGLONG offset)
{
    return (PUCHAR)((ULONG_PTR)p + (ULONG_PTR)offset);
}

// Contract: any IRQL. Hex dump of an NDP that failed a check, under the
// check's trace bit.
static inline void DumpNdp(PUCHAR ndp, ULONG length)
{
    if (KnGetTraceMask() & KN_TRACE_ERROR) {
        KnHexDump(ndp, length);
    }
}

// ===========================================================================
// receive: entry points
// ===========================================================================

// Contract: IRQL <= DISPATCH_LEVEL (receive stream completion); *mLock and
// the stream's lock not held.
void DeviceContNcm::BufferReceived(UsbBuf* buffer)
{
    IRQL_LTEQ_DISPATCH();
    NdSpinlockGuard guard(mLock);
    buffer->InitView();
    if (buffer->mLength == 0) {
        RecycleRxBuffer(buffer);
        return;
    }
    mRxBufferList.InsertTail(buffer);
    ProcessRxBuffers();
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held.
void DeviceContNcm::ReturnRxBuffer(UsbBuf* datagram)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(datagram == &mRxDatagram);
    mDatagramPending = false;
    ProcessRxBuffers();
}

// Contract: IRQL <= DISPATCH_LEVEL; no stream lock held (*mLock may be).
void DeviceContNcm::SubmitRxBuffers()
{
    IRQL_LTEQ_DISPATCH();
    mInStream.ResubmitReadBuffers();
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held; stream locks not held.
void DeviceContNcm::RecycleRxBuffer(UsbBuf* buffer)
{
    buffer->ReturnToPool();
    mInStream.ResubmitReadBuffers();
}

// ===========================================================================
// receive: the walk
// ===========================================================================

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held.
void DeviceContNcm::ProcessRxBuffers()
{
    IRQL_EQ_DISPATCH();
    KN_ASSERT(mLock->IsLocked());
    if (mDatagramPending) {
        return;  // the adapter still has the previous datagram
    }
    if (mCurrentRxBuffer != NULL && mNdpEnumerator.mExhausted) {
        // Its last datagram has come back: the memory is free again.
        UsbBuf* done = mCurrentRxBuffer;
        mCurrentRxBuffer = NULL;
        done->ReturnToPool();
    }
    while (mCurrentRxBuffer == NULL) {
        UsbBuf* next = mRxBufferList.RemoveHead();
        if (next == NULL) {
            return;
        }
        bool valid = mUse32BitHeaders ? InitNdp32EnumeratorFromBuffer(next, &mNdpEnumerator)
                                      : InitNdp16EnumeratorFromBuffer(next, &mNdpEnumerator);
        if (!valid) {
            RecycleRxBuffer(next);  // the whole NTB is dropped
            continue;
        }
        mCurrentRxBuffer = next;
    }

    PUCHAR entry = mNdpEnumerator.mEntry;
    ULONG index;
    ULONG length;
    bool withCrc;
    if (mUse32BitHeaders) {
        index = NtbLoad32(entry + offsetof(Ndp32Entry, dwDatagramIndex));
        length = NtbLoad32(entry + offsetof(Ndp32Entry, dwDatagramLength));
        withCrc = NtbLoad32(mNdpEnumerator.mNdp) == NDP32_SIGNATURE_CRC;
    } else {
        index = NtbLoad16(entry + offsetof(Ndp16Entry, wDatagramIndex));
        length = NtbLoad16(entry + offsetof(Ndp16Entry, wDatagramLength));
        withCrc = NtbLoad32(mNdpEnumerator.mNdp) == NDP16_SIGNATURE_CRC;
    }

    ULONG payloadLength = length;
    if (withCrc && length > NTB_DATAGRAM_CRC_LENGTH) {
        if (mUse32BitHeaders) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:DeviceContNcm::ProcessRxBuffers: the device sends NDP32 with CRC but it is configured to "
                     "send without!\n");
        } else {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:DeviceContNcm::ProcessRxBuffers: the device sends NDP16 with CRC but it is configured to "
                     "send without!\n");
        }
        payloadLength = length - NTB_DATAGRAM_CRC_LENGTH;
    }

    // The checks put index + length inside the received bytes.
    PUCHAR start = mCurrentRxBuffer->mStart + index;
    mRxDatagram.mStart = start;
    mRxDatagram.mCurrentBuffer = start;
    mRxDatagram.mEnd = start + length;
    mRxDatagram.mSize = length;
    mRxDatagram.mLength = payloadLength;

    PUCHAR following = mUse32BitHeaders ? GetNextNdp32Entry(mCurrentRxBuffer, &mNdpEnumerator)
                                        : GetNextNdp16Entry(mCurrentRxBuffer, &mNdpEnumerator);
    if (following == NULL) {
        // The buffer stays current until this datagram is back.
        mNdpEnumerator.mExhausted = true;
    }

    // Saturates: a count that wrapped would read as a low bandwidth.
    mRxByteCount = payloadLength > 0xFFFFFFFFu - mRxByteCount ? 0xFFFFFFFFu : mRxByteCount + payloadLength;
    mDatagramPending = true;
    // The adapter queues the record under *mLock and returns it later.
    mDeviceNotify->ProcessReceivedData(&mRxDatagram);
}

// ===========================================================================
// receive: NTB16
// ===========================================================================

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held.
bool DeviceContNcm::InitNdp16EnumeratorFromBuffer(UsbBuf* buffer, NdpEnumerator* enumerator)
{
    ULONG received = buffer->mLength;
    if (received < NTB16_MIN_TRANSFER_LENGTH) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::InitNdp16EnumeratorFromBuffer: invalid length: 0x%x\n",
                 received);
        return false;
    }
    ULONG signature = NtbLoad32(buffer->mStart + offsetof(Nth16, dwSignature));
    if (signature != NTH16_SIGNATURE) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::InitNdp16EnumeratorFromBuffer: invalid NTH signature: 0x%x\n",
                 signature);
        return false;
    }
    PUCHAR ndp = OffsetPointer(buffer->mStart, NtbLoad16(buffer->mStart + offsetof(Nth16, wNdpIndex)));
    if (!IsNdp16Valid(ndp, buffer)) {
        return false;
    }
    InitNdp16Enumerator(ndp, enumerator);
    return true;
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held. The received length fits 16
// bits: NTB16 receive buffers hold at most 65535 bytes.
bool DeviceContNcm::IsNdp16Valid(PUCHAR ndp, UsbBuf* buffer)
{
    if (ndp == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp16Valid: ndp16 is NULL\n");
        return false;
    }
    const ULONG received = buffer->mLength;
    const ULONG_PTR start = (ULONG_PTR)buffer->mStart;
    const ULONG_PTR end = start + received;
    const ULONG_PTR at = (ULONG_PTR)ndp;
    if (at <= start || at + NDP16_MIN_LENGTH >= end) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp16Valid: ndp16 not in buffer\n");
        return false;
    }
    ULONG tableLength = NtbLoad16(ndp + offsetof(Ndp16Header, wLength));
    if (tableLength < NDP16_MIN_LENGTH) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp16Valid: invalid table len: 0x%x\n", tableLength);
        return false;
    }
    if (tableLength > received || at + tableLength > end) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:DeviceContNcm::IsNdp16Valid: NDP16 not complete in buffer: ndp.wLength:%u, bufferSize:%u\n",
                 tableLength, received);
        return false;
    }
    ULONG count = Ndp16EntryCount(tableLength);
    if (count == 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp16Valid: empty NTP16\n");
        return false;
    }
    PUCHAR entries = ndp + NDP16_HEADER_LENGTH;
    if (NtbLoad32(entries + count * NDP16_ENTRY_LENGTH) != 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp16Valid: NDP16 no zero termination\n");
        DumpNdp(ndp, tableLength);
        return false;
    }
    for (ULONG i = 0; i < count; i++) {
        PUCHAR entry = entries + i * NDP16_ENTRY_LENGTH;
        ULONG index = NtbLoad16(entry + offsetof(Ndp16Entry, wDatagramIndex));
        ULONG length = NtbLoad16(entry + offsetof(Ndp16Entry, wDatagramLength));
        if (index == 0 || length == 0) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp16Valid: NDP16 invalid content\n");
            DumpNdp(ndp, tableLength);
            return false;
        }
        if (index + length > received) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp16Valid: NDP16 datagram not in buffer\n");
            DumpNdp(ndp, tableLength);
            return false;
        }
    }
    return true;
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held; ndp checked.
void DeviceContNcm::InitNdp16Enumerator(PUCHAR ndp, NdpEnumerator* enumerator)
{
    ULONG tableLength = NtbLoad16(ndp + offsetof(Ndp16Header, wLength));
    enumerator->mNdp = ndp;
    enumerator->mEntry = ndp + NDP16_HEADER_LENGTH;
    enumerator->mEnd = enumerator->mEntry + NDP16_ENTRY_LENGTH * Ndp16EntryCount(tableLength);
    enumerator->mExhausted = false;
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held.
PUCHAR DeviceContNcm::GetNextNdp16Entry(UsbBuf* buffer, NdpEnumerator* enumerator)
{
    if (enumerator->mEntry == enumerator->mEnd) {
        return NULL;
    }
    enumerator->mEntry += NDP16_ENTRY_LENGTH;
    if (enumerator->mEntry == enumerator->mEnd) {
        ULONG nextIndex = NtbLoad16(enumerator->mNdp + offsetof(Ndp16Header, wNextNdpIndex));
        if (nextIndex == 0) {
            return NULL;
        }
        // A chain is followed forward only, so a loop cannot keep the walk going.
        ULONG currentIndex = (ULONG)(enumerator->mNdp - buffer->mStart);
        if (nextIndex <= currentIndex) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:DeviceContNcm::GetNextNdp16Entry: next NDP at 0x%x is not behind the NDP at 0x%x\n",
                     nextIndex, currentIndex);
            return NULL;
        }
        PUCHAR next = OffsetPointer(buffer->mStart, nextIndex);
        if (!IsNdp16Valid(next, buffer)) {
            return NULL;
        }
        InitNdp16Enumerator(next, enumerator);
    }
    return enumerator->mEntry;
}

// ===========================================================================
// receive: NTB32
// ===========================================================================

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held.
bool DeviceContNcm::InitNdp32EnumeratorFromBuffer(UsbBuf* buffer, NdpEnumerator* enumerator)
{
    ULONG received = buffer->mLength;
    if (received < NTB32_MIN_TRANSFER_LENGTH) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::InitNdp32EnumeratorFromBuffer: invalid length: 0x%x\n",
                 received);
        return false;
    }
    ULONG signature = NtbLoad32(buffer->mStart + offsetof(Nth32, dwSignature));
    if (signature != NTH32_SIGNATURE) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::InitNdp32EnumeratorFromBuffer: invalid NTH signature: 0x%x\n",
                 signature);
        return false;
    }
    PUCHAR ndp = OffsetPointer(buffer->mStart, NtbLoad32(buffer->mStart + offsetof(Nth32, dwNdpIndex)));
    if (!IsNdp32Valid(ndp, buffer)) {
        return false;
    }
    InitNdp32Enumerator(ndp, enumerator);
    return true;
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held.
bool DeviceContNcm::IsNdp32Valid(PUCHAR ndp, UsbBuf* buffer)
{
    if (ndp == NULL) {
        return false;
    }
    const ULONG received = buffer->mLength;
    const ULONG_PTR start = (ULONG_PTR)buffer->mStart;
    const ULONG_PTR end = start + received;
    const ULONG_PTR at = (ULONG_PTR)ndp;
    if (at <= start || at + NDP32_MIN_LENGTH >= end) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp32Valid: ndp32 not in buffer\n");
        return false;
    }
    ULONG tableLength = NtbLoad16(ndp + offsetof(Ndp32Header, wLength));
    if (tableLength < NDP32_MIN_LENGTH) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp32Valid: invalid table len: 0x%x\n", tableLength);
        return false;
    }
    if (tableLength > received || at + tableLength > end) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp32Valid: NDP32 not complete in buffer\n");
        return false;
    }
    ULONG count = Ndp32EntryCount(tableLength);
    if (count == 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp32Valid: empty NTP32\n");
        DumpNdp(ndp, tableLength);
        return false;
    }
    PUCHAR entries = ndp + NDP32_HEADER_LENGTH;
    PUCHAR terminator = entries + count * NDP32_ENTRY_LENGTH;
    if (NtbLoad32(terminator + offsetof(Ndp32Entry, dwDatagramIndex)) != 0 ||
        NtbLoad32(terminator + offsetof(Ndp32Entry, dwDatagramLength)) != 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp32Valid: NDP32 no zero termination\n");
        DumpNdp(ndp, tableLength);
        return false;
    }
    for (ULONG i = 0; i < count; i++) {
        PUCHAR entry = entries + i * NDP32_ENTRY_LENGTH;
        ULONG index = NtbLoad32(entry + offsetof(Ndp32Entry, dwDatagramIndex));
        ULONG length = NtbLoad32(entry + offsetof(Ndp32Entry, dwDatagramLength));
        if (index == 0 || length == 0) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp32Valid: NDP32 invalid content\n");
            DumpNdp(ndp, tableLength);
            return false;
        }
        if ((ULONGLONG)index + length > received) {  // 64-bit: no wrap-around
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IsNdp32Valid: NDP32 datagram not in buffer\n");
            DumpNdp(ndp, tableLength);
            return false;
        }
    }
    return true;
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held; ndp checked.
void DeviceContNcm::InitNdp32Enumerator(PUCHAR ndp, NdpEnumerator* enumerator)
{
    ULONG tableLength = NtbLoad16(ndp + offsetof(Ndp32Header, wLength));
    enumerator->mNdp = ndp;
    enumerator->mEntry = ndp + NDP32_HEADER_LENGTH;
    enumerator->mEnd = enumerator->mEntry + NDP32_ENTRY_LENGTH * Ndp32EntryCount(tableLength);
    enumerator->mExhausted = false;
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock held.
PUCHAR DeviceContNcm::GetNextNdp32Entry(UsbBuf* buffer, NdpEnumerator* enumerator)
{
    if (enumerator->mEntry == enumerator->mEnd) {
        return NULL;
    }
    enumerator->mEntry += NDP32_ENTRY_LENGTH;
    if (enumerator->mEntry == enumerator->mEnd) {
        ULONG nextIndex = NtbLoad32(enumerator->mNdp + offsetof(Ndp32Header, dwNextNdpIndex));
        if (nextIndex == 0) {
            return NULL;
        }
        // A chain is followed forward only, so a loop cannot keep the walk going.
        ULONG currentIndex = (ULONG)(enumerator->mNdp - buffer->mStart);
        if (nextIndex <= currentIndex) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:DeviceContNcm::GetNextNdp32Entry: next NDP at 0x%x is not behind the NDP at 0x%x\n",
                     nextIndex, currentIndex);
            return NULL;
        }
        PUCHAR next = OffsetPointer(buffer->mStart, nextIndex);
        if (!IsNdp32Valid(next, buffer)) {
            return NULL;
        }
        InitNdp32Enumerator(next, enumerator);
    }
    return enumerator->mEntry;
}
