// A harness that runs the receive parser of DeviceContNcm without a device:
// received transfers are copied into UsbBufs of a pool of its own and fed to
// BufferReceived; the harness plays the adapter, taking each datagram under
// the adapter lock and giving it back at once (from a loop, not from inside
// ProcessReceivedData, as the adapter's DPC does). For the tests, the
// fuzzers and the benchmarks. The stand-in must be started (kplat::Start).
#pragma once

#include <cstring>
#include <vector>

#include "devicecontncm.h"
#include "devicecontncm_peer.h"
#include "knpooltags.h"
#include "kntrace.h"

class NcmRxHarness final : public DeviceNotify {
public:
    struct Datagram {
        std::vector<UCHAR> payload;  // mLength bytes from mCurrentBuffer
        ULONG offset;                // mStart - start of the transfer
        ULONG size;                  // mSize
        ULONG length;                // mLength
        bool viewConsistent;         // mCurrentBuffer == mStart, mEnd == mStart + mSize
    };

    // Contract: PASSIVE_LEVEL. bufferCount buffers of bufferSize bytes.
    NcmRxHarness(bool ntb32, ULONG bufferSize, ULONG bufferCount = 4, bool record = true)
        : mRecord(record), mBufferSize(bufferSize)
    {
        mCont = new (NonPagedPool, KN_POOL_TAG_NCM) DeviceContNcm();
        DeviceContNcmPeer::SetUpParser(*mCont, &mLock, this, &mConfig, ntb32);
        mAllocateStatus = mPool.Allocate(bufferCount, bufferSize, 1);
    }
    ~NcmRxHarness()
    {
        Drain();
        // Its streams were never configured: their stops would only say so.
        ULONG mask = KnGetTraceMask();
        KnSetTraceMask(0);
        delete mCont;
        KnSetTraceMask(mask);
        mPool.FreeAll();
    }
    NcmRxHarness(const NcmRxHarness&) = delete;
    NcmRxHarness& operator=(const NcmRxHarness&) = delete;

    NTSTATUS AllocateStatus() const { return mAllocateStatus; }
    DeviceContNcm& Cont() { return *mCont; }
    UsbBufPool& Pool() { return mPool; }
    ULONG BufferSize() const { return mBufferSize; }

    // Contract: PASSIVE_LEVEL. Feeds one received transfer (at most the
    // buffer size) and lets the adapter take every datagram it releases.
    // False when no buffer of the pool is idle.
    bool Feed(const UCHAR* data, ULONG length)
    {
        if (length > mBufferSize) {
            return false;
        }
        UsbBuf* buffer = mPool.GetBuffer();
        if (buffer == NULL) {
            return false;
        }
        if (length != 0) {
            std::memcpy(buffer->Buffer(), data, length);
        }
        buffer->SetDataLength(length);
        mTransferStart = static_cast<const UCHAR*>(buffer->Buffer());
        mTransferLength = length;
        mCont->BufferReceived(buffer);
        Drain();
        return true;
    }
    // Feeds a transfer whose bytes are already in a buffer taken from Pool()
    // (the benchmark fills its buffers once); the data length is set here.
    void FeedBuffer(UsbBuf* buffer, ULONG length)
    {
        buffer->SetDataLength(length);
        mTransferStart = static_cast<const UCHAR*>(buffer->Buffer());
        mTransferLength = length;
        mCont->BufferReceived(buffer);
        Drain();
    }

    // Contract: PASSIVE_LEVEL. Gives every datagram back as it comes.
    void Drain()
    {
        NdSpinlockGuard guard(mLock);
        while (mPending != NULL) {
            UsbBuf* datagram = mPending;
            mPending = NULL;
            DeviceContNcmPeer::ReturnRxBuffer(*mCont, datagram);
        }
    }

    // ---- what the adapter got ----
    std::vector<Datagram> datagrams;  // with record
    ULONGLONG datagramCount = 0;
    ULONGLONG payloadBytes = 0;
    ULONGLONG outsideTransfer = 0;    // datagrams not wholly inside the transfer fed
    ULONGLONG secondWhileOutstanding = 0;

    // ---- DeviceNotify ----
    void NetworkStateChanged(bool) override {}
    void ConnectionSpeedChanged(ULONG, ULONG) override {}
    ULONG SubmitTxPackets(UCHAR*, ULONG) override { return 0; }
    void ProcessReceivedData(UsbBuf* datagram) override
    {
        if (mPending != NULL) {
            secondWhileOutstanding++;
        }
        mPending = datagram;
        datagramCount++;
        payloadBytes += datagram->mLength;
        const UCHAR* start = datagram->mStart;
        if (start < mTransferStart || start + datagram->mSize > mTransferStart + mTransferLength ||
            datagram->mLength > datagram->mSize) {
            outsideTransfer++;
        }
        if (mRecord) {
            Datagram d;
            d.payload.assign(datagram->mCurrentBuffer, datagram->mCurrentBuffer + datagram->mLength);
            d.offset = (ULONG)(start - mTransferStart);
            d.size = datagram->mSize;
            d.length = datagram->mLength;
            d.viewConsistent =
                datagram->mCurrentBuffer == datagram->mStart && datagram->mEnd == datagram->mStart + datagram->mSize;
            datagrams.push_back(std::move(d));
        }
    }
    void StartCompleted(NTSTATUS) override {}
    void StopCompleted() override {}
    ULONG GetMulticastList(ULONG, UCHAR*) override { return 0; }

private:
    bool mRecord;
    ULONG mBufferSize;
    NTSTATUS mAllocateStatus;
    NdSpinlock mLock;
    AdapterConfig mConfig;
    UsbBufPool mPool;
    DeviceContNcm* mCont = NULL;
    UsbBuf* mPending = NULL;
    const UCHAR* mTransferStart = NULL;  // the transfer the datagrams must lie in
    ULONG mTransferLength = 0;
};
