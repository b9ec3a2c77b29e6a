// DeviceContNcm, transmit: one builder at a time pulls the adapter's packets
// into an NTB of an idle OUT buffer (one copy, by the adapter, straight to
// the datagram's place), assembles the NDP aside and puts it behind the last
// datagram, and submits the NTB when it is full, when nothing else is in
// flight, or when the transmit timer says so.
#include "devicecontncm.h"

#include "knio.h"
#include "kntrace.h"

// ===========================================================================
// send: entry points
// ===========================================================================

// Contract: IRQL <= DISPATCH_LEVEL; *mLock not held.
void DeviceContNcm::DoProcessTxPackets()
{
    IRQL_LTEQ_DISPATCH();
    ProcessTxBuffers(false);
}

// Contract: DISPATCH_LEVEL (DPC of mTxTimer); no lock held.
void DeviceContNcm::NcmTxTimer(PKDPC dpc, PVOID context, PVOID systemArgument1, PVOID systemArgument2)
{
    UNREFERENCED_PARAMETER(dpc);
    UNREFERENCED_PARAMETER(systemArgument1);
    UNREFERENCED_PARAMETER(systemArgument2);
    IRQL_EQ_DISPATCH();
    static_cast<DeviceContNcm*>(context)->ProcessTxBuffers(true);
}

// Contract: IRQL <= DISPATCH_LEVEL; no stream lock held, *mLock not held.
void DeviceContNcm::BufferSent(NTSTATUS status, bool removed)
{
    IRQL_LTEQ_DISPATCH();
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::BufferSent: %N, removed:%s\n", status,
                 removed ? "true" : "false");
        return;
    }
    KN_ASSERT(mDeviceNotify != NULL);
    if (mDeviceNotify == NULL) {
        return;  // not initialised: there is nobody to take packets from
    }
    // The completed buffer is back in its pool: a started NTB may now be
    // the only buffer out and leaves in this pass.
    ProcessTxBuffers(false);
}

// Contract: IRQL <= DISPATCH_LEVEL; no lock needed (a snapshot: the adapter
// steers its watchdog with it).
bool DeviceContNcm::IsTxPathIdle()
{
    IRQL_LTEQ_DISPATCH();
    ULONG out = mOutStream.GetPendingCount();
    if (out == 0) {
        return true;
    }
    if (out > 1) {
        return false;
    }
    // Exactly one out: idle only if it is the NTB under construction and
    // that is still empty; otherwise it is an NTB in flight.
    return CurrentTxBuffer() != NULL && TxDatagramCount() == 0;
}

// ===========================================================================
// send: the builder
// ===========================================================================

// Contract: IRQL <= DISPATCH_LEVEL; *mLock not held (the adapter's
// SubmitTxPackets takes it).
void DeviceContNcm::ProcessTxBuffers(bool timerExpired)
{
    IRQL_LTEQ_DISPATCH();
    {
        NdSpinlockGuard guard(mLock);
        if (mTxBusy) {
            mTxRerun = true;  // the running builder makes one more pass
            // A timer expiry met by a running pass makes that extra pass a
            // timer pass: its NTB would otherwise wait with no timer left.
            mTxRerunTimer = mTxRerunTimer || timerExpired;
            return;
        }
        mTxBusy = true;
    }
    for (;;) {
        while (PrepareTxBuffer()) {
            bool full = FillTxBuffer();
            bool timerBased = IsSendTimerBased();
            // Nothing in flight when the NTB under construction is the only
            // buffer out.
            bool sendNow = full || (timerExpired && timerBased) ||
                           (!timerBased && mOutStream.GetPendingCount() == 1);
            if (!sendNow || mTxDatagramCount == 0) {
                break;  // a started NTB waits in mCurrentTxBuffer
            }
            FinishTxBuffer();
            UsbBuf* buffer = mCurrentTxBuffer;
            SetCurrentTxBuffer(NULL);
            mOutStream.SubmitWriteBuffer(buffer);
        }
        NdSpinlockGuard guard(mLock);
        if (mTxRerun) {
            mTxRerun = false;
            timerExpired = mTxRerunTimer;
            mTxRerunTimer = false;
            continue;
        }
        mTxBusy = false;
        if (mTxStopWaiting) {
            KeSetEvent(&mTxIdleEvent, IO_NO_INCREMENT, FALSE);
        }
        return;
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; holder of mTxBusy.
bool DeviceContNcm::PrepareTxBuffer()
{
    if (mCurrentTxBuffer != NULL) {
        return true;
    }
    UsbBuf* buffer = mOutStream.GetBuffer();
    if (buffer == NULL) {
        return false;  // all in flight, or the stream does not run
    }
    buffer->InitView();
    mTxNdpEntry = mTxNdp + (mUse32BitHeaders ? NDP32_HEADER_LENGTH : NDP16_HEADER_LENGTH);
    mTxOffset = mUse32BitHeaders ? NTH32_LENGTH : NTH16_LENGTH;
    SetTxDatagramCount(0);
    SetCurrentTxBuffer(buffer);
    return true;
}

// Contract: IRQL <= DISPATCH_LEVEL; holder of mTxBusy; *mLock not held.
bool DeviceContNcm::FillTxBuffer()
{
    UsbBuf* buffer = mCurrentTxBuffer;
    const ULONG divisor = mNtbParameters.wNdpOutDivisor;
    const ULONG remainder = mNtbParameters.wNdpOutPayloadRemainder;
    const ULONG alignment = mNtbParameters.wNdpOutAlignment;
    const ULONG entryLength = mUse32BitHeaders ? NDP32_ENTRY_LENGTH : NDP16_ENTRY_LENGTH;
    const ULONG ndpMinLength = mUse32BitHeaders ? NDP32_MIN_LENGTH : NDP16_MIN_LENGTH;
    const ULONG txPeriod = mParameters->NcmTxPeriod;
    // The descriptor does not change while the device control lives.
    const ULONG maxLength = GetMaxSegmentSize();

    for (;;) {
        ULONG count = mTxDatagramCount;
        ULONG offset = NtbDatagramOffset(mTxOffset, divisor, remainder);
        // Room for one more datagram of the largest size, the NDP with one
        // more entry, and the NDP's alignment.
        ULONG needed = offset + maxLength + entryLength * (count + 1) + ndpMinLength + alignment + 1;
        if (needed > buffer->mSize) {
            return true;
        }
        ULONG length = mDeviceNotify->SubmitTxPackets(buffer->mStart + offset, maxLength);
        if (length == 0) {
            if (count == 0) {
                mTxTimer.CancelTimer();
            }
            if (txPeriod != 0) {
                return false;
            }
            return count != 0;
        }
        KN_ASSERT(length<=maxLength);
        if (mUse32BitHeaders) {
            NtbStore32(mTxNdpEntry + offsetof(Ndp32Entry, dwDatagramIndex), offset);
            NtbStore32(mTxNdpEntry + offsetof(Ndp32Entry, dwDatagramLength), length);
        } else {
            NtbStore16(mTxNdpEntry + offsetof(Ndp16Entry, wDatagramIndex), (USHORT)offset);
            NtbStore16(mTxNdpEntry + offsetof(Ndp16Entry, wDatagramLength), (USHORT)length);
        }
        mTxNdpEntry += entryLength;
        count++;
        SetTxDatagramCount((USHORT)count);
        mTxOffset = offset + length;

        if (count == 1) {
            if (mOutStream.GetPendingCount() == 1) {
                return true;  // an idle pipe gets the packet at once
            }
            if (txPeriod != 0 && IsSendTimerBased()) {
                mTxTimer.SetTimer(txPeriod);
            }
        }
        if (count >= mMaxTxDatagrams) {
            mTxTimer.CancelTimer();
            return true;
        }
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; holder of mTxBusy; at least one datagram.
void DeviceContNcm::FinishTxBuffer()
{
    UsbBuf* buffer = mCurrentTxBuffer;
    PUCHAR ntb = buffer->mStart;
    const ULONG count = mTxDatagramCount;
    const ULONG ndpOffset = RoundUp(mTxOffset, mNtbParameters.wNdpOutAlignment);
    const USHORT sequence = mTxSequence++;
    ULONG ndpLength;

    if (mUse32BitHeaders) {
        ndpLength = Ndp32Length(count);
        Ndp32Header header;
        header.dwSignature = NDP32_SIGNATURE_NO_CRC;
        header.wLength = (USHORT)ndpLength;
        header.wReserved6 = 0;
        header.dwNextNdpIndex = 0;
        header.dwReserved12 = 0;
        NtbStore(mTxNdp, header);
        RtlZeroMemory(mTxNdpEntry, NDP32_ENTRY_LENGTH);
    } else {
        ndpLength = Ndp16Length(count);
        Ndp16Header header;
        header.dwSignature = NDP16_SIGNATURE_NO_CRC;
        header.wLength = (USHORT)ndpLength;
        header.wNextNdpIndex = 0;
        NtbStore(mTxNdp, header);
        RtlZeroMemory(mTxNdpEntry, NDP16_ENTRY_LENGTH);
    }
    RtlCopyMemory(ntb + ndpOffset, mTxNdp, ndpLength);

    ULONG blockLength = ndpOffset + ndpLength;
    // One-byte termination: a block that ends on a packet boundary gets a
    // short last packet instead of a zero-length packet, if there is room.
    ULONG maxPacket = mOutStream.GetMaximumPacketSize();
    if (mParameters->OneByteTermination != 0 && maxPacket != 0 && blockLength % maxPacket == 0 &&
        blockLength < buffer->mSize) {
        ntb[blockLength] = 0;
        blockLength++;
    }

    if (mUse32BitHeaders) {
        Nth32 header;
        header.dwSignature = NTH32_SIGNATURE;
        header.wHeaderLength = (USHORT)NTH32_LENGTH;
        header.wSequence = sequence;
        header.dwBlockLength = blockLength;
        header.dwNdpIndex = ndpOffset;
        NtbStore(ntb, header);
    } else {
        Nth16 header;
        header.dwSignature = NTH16_SIGNATURE;
        header.wHeaderLength = (USHORT)NTH16_LENGTH;
        header.wSequence = sequence;
        header.wBlockLength = (USHORT)blockLength;
        header.wNdpIndex = (USHORT)ndpOffset;
        NtbStore(ntb, header);
    }
    buffer->SetDataLength(blockLength);
}

// ===========================================================================
// send: taking the path away from the builder (Stop)
// ===========================================================================

// Contract: PASSIVE_LEVEL; *mLock not held.
void DeviceContNcm::AcquireTxPath()
{
    IRQL_EQ_PASSIVE();
    mLock->Lock();
    while (mTxBusy) {
        // The pass ends soon: it never waits for anything but *mLock.
        mTxStopWaiting = true;
        KeClearEvent(&mTxIdleEvent);
        mLock->Unlock();
        KnWait(&mTxIdleEvent);
        mLock->Lock();
    }
    mTxStopWaiting = false;
    mTxBusy = true;  // later callers only leave a request for another pass
    mLock->Unlock();
}

// Contract: IRQL <= DISPATCH_LEVEL; *mLock not held; AcquireTxPath done.
void DeviceContNcm::ReleaseTxPath()
{
    IRQL_LTEQ_DISPATCH();
    NdSpinlockGuard guard(mLock);
    KN_ASSERT(mTxBusy);
    mTxBusy = false;
    if (mTxStopWaiting) {
        KeSetEvent(&mTxIdleEvent, IO_NO_INCREMENT, FALSE);  // another Stop waits for the path
    }
    // Requests made while stopping are served by the BufferSent of the next
    // start of the OUT stream.
    mTxRerun = false;
    mTxRerunTimer = false;
}
