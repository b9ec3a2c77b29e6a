// The adapter's data path: the transmit queue with its watchdog and the
// copy of each packet into the NTB under construction; the receive queue,
// indicated from a zero-delay timer, with the VLAN filter and tag removal.
//
// Nothing here allocates: queued packets are linked through their
// MiniportReserved area, received datagrams are the device control's own
// records, and each frame is copied once (packet into NTB) or not at all
// (received frames are indicated in place).
#include "devicecontncm.h"
#include "knnames.h"
#include "kntrace.h"
#include "mpadapter.h"
#include "usbbuf.h"

#define MPDATAPATH_TX_DUMP_BYTES 64
#define MPDATAPATH_RX_DUMP_BYTES 32
#define MPDATAPATH_VLAN_ETHERTYPE 0x8100
#define MPDATAPATH_MIN_RX_FRAME 19

// Staging for the hex dump of sent packets (trace bit KN_TRACE_TX only).
static UCHAR gTxDumpBuffer[2048];

// ---------------------------------------------------------------------------
// Packet buffers
// ---------------------------------------------------------------------------
ULONG MpAdapter::CopyPacketBytes(PNDIS_PACKET packet, ULONG packetOffset, PUCHAR flat, ULONG count, bool toPacket)
{
    PNDIS_BUFFER buffer = NULL;
    NdisQueryPacket(packet, NULL, NULL, &buffer, NULL);
    ULONG copied = 0;
    while (buffer != NULL && copied < count) {
        PVOID address = NULL;
        UINT length = 0;
        NdisQueryBufferSafe(buffer, &address, &length, NormalPagePriority);
        if (address != NULL && length != 0) {
            if (packetOffset >= length) {
                packetOffset -= length;
            } else {
                ULONG n = length - packetOffset;
                if (n > count - copied) {
                    n = count - copied;
                }
                PUCHAR inPacket = static_cast<PUCHAR>(address) + packetOffset;
                if (toPacket) {
                    RtlCopyMemory(inPacket, flat + copied, n);
                } else {
                    RtlCopyMemory(flat + copied, inPacket, n);
                }
                copied += n;
                packetOffset = 0;
            }
        }
        NdisGetNextBuffer(buffer, &buffer);
    }
    return copied;
}

ULONG MpAdapter::CopyPacketToBuffer(PUCHAR destination, ULONG destinationSize, PNDIS_PACKET packet,
                                    ULONG packetOffset, ULONG count)
{
    KN_ASSERT(count!=0);
    return CopyPacketBytes(packet, packetOffset, destination, count < destinationSize ? count : destinationSize, false);
}

ULONG MpAdapter::CopyBufferToPacket(PNDIS_PACKET packet, ULONG packetOffset, const UCHAR* source, ULONG count)
{
    // The walk writes only into the packet in this direction.
    return CopyPacketBytes(packet, packetOffset, const_cast<PUCHAR>(source), count, true);
}

// ---------------------------------------------------------------------------
// Transmit
// ---------------------------------------------------------------------------
void MpAdapter::SendPackets(PPNDIS_PACKET packets, UINT count)
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_TX, "%P: [MpAdapter::SendPackets\n");
    mLock.Lock();
    for (UINT i = 0; i < count; i++) {
        PNDIS_PACKET packet = packets[i];
        if (packet == NULL) {
            continue;
        }
        if (KnGetTraceMask() & KN_TRACE_TX) {
            UINT total = 0;
            NdisQueryPacket(packet, NULL, NULL, NULL, &total);
            KnPrint("%P: MpAdapter::SendPackets: TX Ethernet packet: %u bytes\n", total);
            ULONG n = total < MPDATAPATH_TX_DUMP_BYTES ? total : MPDATAPATH_TX_DUMP_BYTES;
            if (n != 0) {
                n = CopyPacketToBuffer(gTxDumpBuffer, sizeof(gTxDumpBuffer), packet, 0, n);
            }
            KnHexDump(gTxDumpBuffer, n);
        }
        if (IsTxQueueEmpty() && mConfig.TxTimeout != 0) {
            ArmTimer(&mTxWatchdogTimer, mConfig.TxTimeout);
        }
        InsertTailList(&mTxPacketQueue, PacketLink(packet));
        // R1: the count of queued packets, read without the lock by the
        // watchdog steering (A1 in TxQueueLooksEmpty).
        __atomic_store_n(&mTxQueuedCount, mTxQueuedCount + 1, __ATOMIC_RELEASE);
        KN_TRACE(KN_TRACE_TX, "%P: MpAdapter::SendPackets: packet %p queued\n", packet);
    }
    if (mTxEnabled) {
        mLock.Unlock();
        mDeviceCont->ProcessTxPackets();
        mLock.Lock();
    } else {
        CleanupTxQueue();
    }
    KN_TRACE(KN_TRACE_TX, "%P: ]MpAdapter::SendPackets\n");
    mLock.Unlock();
}

PNDIS_PACKET MpAdapter::DequeueTxPacket()
{
    PNDIS_PACKET packet = PacketOfLink(RemoveHeadList(&mTxPacketQueue));
    InitializeListHead(PacketLink(packet));
    // R1 (see SendPackets).
    __atomic_store_n(&mTxQueuedCount, mTxQueuedCount - 1, __ATOMIC_RELEASE);
    return packet;
}

bool MpAdapter::TxQueueLooksEmpty() const
{
    // A1: pairs with R1; only steers the watchdog, so a stale answer is fine.
    return __atomic_load_n(&mTxQueuedCount, __ATOMIC_ACQUIRE) == 0;
}

ULONG MpAdapter::SubmitTxPackets(UCHAR* destination, ULONG maxLength)
{
    IRQL_LTEQ_DISPATCH();
    mLock.Lock();
    if (IsTxQueueEmpty()) {
        if (mDeviceCont->IsTxPathIdle()) {
            CancelTimer(&mTxWatchdogTimer);
        }
        mLock.Unlock();
        return 0;
    }
    PNDIS_PACKET packet = DequeueTxPacket();
    KN_TRACE(KN_TRACE_TX, "%P:MpAdapter::SubmitTxPackets: packet %p unqueued\n", packet);
    ULONG n;
    if (mConfig.VlanEnabled == 0 || mConfig.VlanID == 0) {
        n = CopyPacketToBuffer(destination, maxLength, packet, 0, maxLength);
    } else {
        n = CopyPacketToBuffer(destination, maxLength, packet, 0, 12);
        destination[12] = 0x81;
        destination[13] = 0x00;
        destination[14] = (UCHAR)(mConfig.VlanID >> 8);
        destination[15] = (UCHAR)mConfig.VlanID;
        n = 12 + MPADAPTER_VLAN_TAG_SIZE;
        if (maxLength > 16) {
            n += CopyPacketToBuffer(destination + 16, maxLength - 16, packet, 12, maxLength - 16);
        }
    }
    mLock.Unlock();
    SendComplete(packet, NDIS_STATUS_SUCCESS);
    __atomic_fetch_add(&mTxFramesOk, 1, __ATOMIC_RELAXED);
    return n;
}

void MpAdapter::SendComplete(PNDIS_PACKET packet, NDIS_STATUS status)
{
    IRQL_LTEQ_DISPATCH();
    if (TxQueueLooksEmpty() && mDeviceCont->IsTxPathIdle()) {
        CancelTimer(&mTxWatchdogTimer);
    } else if (mConfig.TxTimeout != 0) {
        ArmTimer(&mTxWatchdogTimer, mConfig.TxTimeout);
    }
    KN_TRACE(KN_TRACE_TX, "%P:MpAdapter::SendComplete: completing packet %p with status %D\n", packet, status);
    NdisMSendComplete(mAdapterHandle, packet, status);
}

void MpAdapter::CleanupTxQueue()
{
    KN_ASSERT(mLock.IsLocked());
    KN_TRACE(KN_TRACE_TX, "%P: [MpAdapter::CleanupTxQueue\n");
    while (!IsTxQueueEmpty()) {
        PNDIS_PACKET packet = DequeueTxPacket();
        mLock.Unlock();
        SendComplete(packet, NDIS_STATUS_ADAPTER_NOT_FOUND);
        mLock.Lock();
    }
    KN_TRACE(KN_TRACE_TX, "%P: ]MpAdapter::CleanupTxQueue\n");
}

void NTAPI MpAdapter::TxTimerFunction(PVOID, PVOID context, PVOID, PVOID)
{
    MpAdapter* adapter = static_cast<MpAdapter*>(context);
    if (!IsValid(adapter)) {
        KnAssertFailed("PTRVALID(This,MpAdapter)", __FILE__, __LINE__);
        return;
    }
    adapter->TxTimer();
}

void MpAdapter::TxTimer()
{
    IRQL_EQ_DISPATCH();
    bool queueEmpty = TxQueueLooksEmpty();
    bool pathIdle = mDeviceCont->IsTxPathIdle();
    if (queueEmpty && pathIdle) {
        return;
    }
    KN_TRACE(KN_TRACE_ERROR, "%P: MpAdapter::TxTimer TX hangs! mTxPacketQueue is %s, IsTxPathIdle:%s \n",
             queueEmpty ? "empty" : "not empty", pathIdle ? "idle" : "not idle");
    WriteErrorLog(MPADAPTER_ERRLOG_TX_HANG, 1, 1);
    mTxHangDetected = true;
}

// ---------------------------------------------------------------------------
// Receive
// ---------------------------------------------------------------------------
void MpAdapter::ProcessReceivedData(UsbBuf* datagram)
{
    KN_ASSERT(datagram!=NULL);
    KN_ASSERT(mLock.IsLocked());
    KN_TRACE(KN_TRACE_RX_PATH, "%P:MpAdapter::ProcessReceivedData\n");
    mRxBufferQueue.InsertTail(datagram);
    if (mRxEnabled) {
        ArmTimer(&mRxTimer, 0);
    }
    KN_TRACE(KN_TRACE_RX_PATH, "%P:MpAdapter::ProcessReceivedData\n");
}

void NTAPI MpAdapter::RxTimerFunction(PVOID, PVOID context, PVOID, PVOID)
{
    MpAdapter* adapter = static_cast<MpAdapter*>(context);
    if (!IsValid(adapter)) {
        KnAssertFailed("PTRVALID(This,MpAdapter)", __FILE__, __LINE__);
        return;
    }
    adapter->RxDpc();
}

void MpAdapter::RxDpc()
{
    IRQL_EQ_DISPATCH();
    KN_TRACE(KN_TRACE_RX_PATH, "%P: [MpAdapter::RxDpc\n");
    mLock.Lock();
    for (UsbBuf* datagram = mRxBufferQueue.RemoveHead(); datagram != NULL; datagram = mRxBufferQueue.RemoveHead()) {
        ULReceiveIndication(datagram);
    }
    mDeviceCont->SubmitRxBuffers();
    KN_TRACE(KN_TRACE_RX_PATH, "%P: ]MpAdapter::RxDpc\n");
    mLock.Unlock();
}

void MpAdapter::ULReceiveIndication(UsbBuf* datagram)
{
    KN_ASSERT(datagram != NULL);
    KN_ASSERT(datagram->mCurrentBuffer != NULL);
    PUCHAR frame = datagram->mCurrentBuffer;
    ULONG length = datagram->mLength;
    if (length < MPDATAPATH_MIN_RX_FRAME) {
        KN_TRACE(KN_TRACE_WARNING, "%P:ULReceiveIndication: invalid frame length: %u\n", length);
        mRxFrameErrors++;
        mDeviceCont->ReturnRxBuffer(datagram);
        return;
    }
    ULONG etherType = (ULONG)frame[12] << 8 | frame[13];
    ULONG vlanId = ((ULONG)frame[14] << 8 | frame[15]) & 0x0FFF;
    PUCHAR data;
    ULONG dataLength;
    if (etherType == MPDATAPATH_VLAN_ETHERTYPE && mConfig.VlanEnabled != 0) {
        if (mConfig.VlanID != 0 && mConfig.VlanID != vlanId) {
            KN_TRACE(KN_TRACE_VLAN, "%P:ULReceiveIndication: wrong VLAN ID: %d\n", vlanId);
            mDeviceCont->ReturnRxBuffer(datagram);
            return;
        }
        frame[12] = frame[16];
        frame[13] = frame[17];
        data = frame + MPADAPTER_ETH_HEADER_SIZE + MPADAPTER_VLAN_TAG_SIZE;
        dataLength = length - MPADAPTER_ETH_HEADER_SIZE - MPADAPTER_VLAN_TAG_SIZE;
    } else {
        data = frame + MPADAPTER_ETH_HEADER_SIZE;
        dataLength = length - MPADAPTER_ETH_HEADER_SIZE;
    }
    KN_TRACE(KN_TRACE_VLAN, "%P:ULReceiveIndication: indicating packet: %d bytes\n", length);
    if (KnGetTraceMask() & KN_TRACE_RX_DUMP) {
        KnPrint("%P: RxFrame:\n");
        KnHexDump(frame, length < MPDATAPATH_RX_DUMP_BYTES ? length : MPDATAPATH_RX_DUMP_BYTES);
    }
    mLock.Unlock();
    NdisMEthIndicateReceive(mAdapterHandle, data, (PCHAR)frame, MPADAPTER_ETH_HEADER_SIZE, data, dataLength,
                            dataLength);
    NdisMEthIndicateReceiveComplete(mAdapterHandle);
    mLock.Lock();
    mRxFramesOk++;
    mDeviceCont->ReturnRxBuffer(datagram);
}

NDIS_STATUS MpAdapter::TransferData(PNDIS_PACKET packet, PUINT bytesTransferred, NDIS_HANDLE receiveContext,
                                    UINT byteOffset, UINT bytesToTransfer)
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_RX_PATH, "%P: [MPTransferData\n");
    NDIS_STATUS status;
    ULONGLONG end = (ULONGLONG)byteOffset + bytesToTransfer;
    if (end > mMtu) {
        KN_TRACE(KN_TRACE_ERROR, "%P: MPTransferData: FATAL ByteOffset+BytesToTransfer > MaxPacketSize  %u %u\n",
                 (ULONG)end, mMtu);
        *bytesTransferred = 0;
        status = NDIS_STATUS_FAILURE;
    } else {
        *bytesTransferred =
            CopyBufferToPacket(packet, 0, static_cast<const UCHAR*>(receiveContext) + byteOffset, bytesToTransfer);
        status = NDIS_STATUS_SUCCESS;
    }
    KN_TRACE(KN_TRACE_RX_PATH, "%P: ]MPTransferData %D\n", status);
    return status;
}
