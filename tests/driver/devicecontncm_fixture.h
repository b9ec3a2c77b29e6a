// Fixture of the DeviceContNcm tests: the stand-in on its virtual clock, the
// simulated NCM function on the stand-in's USB bus behind a recording
// wrapper (every bulk OUT transfer as it crossed the wire; the bulk OUT
// endpoint can be held back so that NTBs stay in flight; control transfers
// can be stalled or answered), and a test adapter playing MpAdapter: it
// queues packets for SubmitTxPackets under the adapter lock, and takes
// received datagrams under that lock, copies them and returns them from a
// DPC (or holds them until the test lets go).
#pragma once

#include <ethsim/descriptors.h>
#include <ethsim/ncm.h>
#include <ethsim/ncm_device.h>
#include <ethsim/network.h>
#include <ethsim/service_timer.h>
#include <gtest/gtest.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "devicecontncm.h"
#include "devicecontncm_peer.h"
#include "fixture_common.h"
#include "knpooltags.h"
#include "kntrace.h"
#include "ntb_reference.h"

namespace ncmtest {

using ethsim::Bytes;
using Peer = DeviceContNcmPeer;

// Endpoints of the simulated function (default profile).
constexpr uint8_t kBulkInEp = 0x82;
constexpr uint8_t kBulkOutEp = 0x02;

// A frame of `length` bytes: broadcast destination, a source address, an
// EtherType and a pattern from `seed`.
inline Bytes MakeFrame(size_t length, uint32_t seed)
{
    Bytes f(length);
    for (size_t i = 0; i < length; i++) {
        f[i] = (uint8_t)(seed * 31 + i * 7 + (i >> 8));
    }
    if (length >= 14) {
        std::fill(f.begin(), f.begin() + 6, 0xFF);
        f[6] = 0x02;
        f[12] = 0x88;
        f[13] = 0xB5;
    }
    return f;
}

// One datagram as the adapter got it.
struct RxFrame {
    Bytes data;          // mLength bytes from mCurrentBuffer
    ULONG size;          // mSize
    ULONG length;        // mLength
    bool viewConsistent; // mCurrentBuffer == mStart and mEnd == mStart + mSize
};

// The adapter side (DeviceNotify), as MpAdapter behaves towards the device
// control. Its state is guarded by the adapter lock (*mLock), as the real
// adapter's is; the test reads it while the stand-in is idle.
class TestAdapter : public DeviceNotify {
public:
    TestAdapter() { KeInitializeDpc(&mRxDpc, RxDpcRoutine, this); }

    void Attach(DeviceContNcm* cont, NdSpinlock* lock)
    {
        mCont = cont;
        mLock = lock;
    }

    // ---- DeviceNotify ----
    void NetworkStateChanged(bool) override {}
    void ConnectionSpeedChanged(ULONG, ULONG) override {}
    ULONG SubmitTxPackets(UCHAR* destination, ULONG maxLength) override
    {
        // As the adapter: takes its lock itself, so the builder must not hold it.
        EXPECT_FALSE(mLock->IsLocked() && mLock->GetOwnerThread() == PsGetCurrentThreadId())
            << "SubmitTxPackets called with the adapter lock held";
        if (onSubmit) {
            onSubmit();
        }
        NdSpinlockGuard guard(mLock);
        submitCalls++;
        maxLengths.push_back(maxLength);
        if (txQueue.empty()) {
            idleAnswers.push_back(mCont->IsTxPathIdle());
            return 0;
        }
        Bytes frame = std::move(txQueue.front());
        txQueue.pop_front();
        ULONG n = std::min<ULONG>(maxLength, (ULONG)frame.size());
        std::memcpy(destination, frame.data(), n);
        return n;
    }
    void ProcessReceivedData(UsbBuf* datagram) override
    {
        EXPECT_TRUE(mLock->IsLocked()) << "ProcessReceivedData without the adapter lock";
        if (outstanding != 0) {
            secondDatagramWhileOutstanding++;
        }
        outstanding++;
        RxFrame f;
        f.size = datagram->mSize;
        f.length = datagram->mLength;
        f.viewConsistent = datagram->mCurrentBuffer == datagram->mStart &&
                           datagram->mEnd == datagram->mStart + datagram->mSize;
        f.data.assign(datagram->mCurrentBuffer, datagram->mCurrentBuffer + datagram->mLength);
        received.push_back(std::move(f));
        idleRxBuffersAtCall.push_back(Peer::InStream(*mCont).GetBufPool()->GetCurrentCount());
        held.push_back(datagram);
        if (!hold) {
            KeInsertQueueDpc(&mRxDpc, NULL, NULL);
        }
    }
    void StartCompleted(NTSTATUS) override {}
    void StopCompleted() override {}
    ULONG GetMulticastList(ULONG, UCHAR*) override { return 0; }

    // ---- test side (PASSIVE_LEVEL, stand-in idle) ----
    void Queue(Bytes frame)
    {
        NdSpinlockGuard guard(mLock);
        txQueue.push_back(std::move(frame));
    }
    size_t QueuedTx()
    {
        NdSpinlockGuard guard(mLock);
        return txQueue.size();
    }
    // Hands the held datagrams back (the oldest `count`), as the receive DPC
    // would, without SubmitRxBuffers unless asked.
    void Release(size_t count = SIZE_MAX, bool submit = false)
    {
        NdSpinlockGuard guard(mLock);
        while (count-- > 0 && !held.empty()) {
            UsbBuf* d = held.front();
            held.pop_front();
            outstanding--;
            mCont->ReturnRxBuffer(d);
        }
        if (submit) {
            mCont->SubmitRxBuffers();
        }
    }
    // Frames received so far.
    std::vector<RxFrame> Received()
    {
        NdSpinlockGuard guard(mLock);
        return received;
    }
    std::vector<Bytes> ReceivedData()
    {
        std::vector<Bytes> out;
        for (const RxFrame& f : Received()) out.push_back(f.data);
        return out;
    }
    void ClearReceived()
    {
        NdSpinlockGuard guard(mLock);
        received.clear();
        idleRxBuffersAtCall.clear();
    }

    // ---- state: under *mLock ----
    std::deque<Bytes> txQueue;
    uint64_t submitCalls = 0;
    std::vector<ULONG> maxLengths;
    std::vector<bool> idleAnswers;  // IsTxPathIdle seen on an empty queue
    std::vector<RxFrame> received;
    std::vector<ULONG> idleRxBuffersAtCall;  // idle receive buffers when each datagram came
    std::deque<UsbBuf*> held;
    size_t outstanding = 0;
    size_t secondDatagramWhileOutstanding = 0;
    bool hold = false;  // keep datagrams until Release
    // Called at the start of every SubmitTxPackets, without the lock (set
    // while the stand-in is idle).
    std::function<void()> onSubmit;

private:
    // The adapter's receive DPC: every queued datagram back, then the idle
    // buffers back on the pipe.
    static void RxDpcRoutine(PKDPC, PVOID context, PVOID, PVOID)
    {
        TestAdapter* self = static_cast<TestAdapter*>(context);
        NdSpinlockGuard guard(self->mLock);
        while (!self->held.empty()) {
            UsbBuf* d = self->held.front();
            self->held.pop_front();
            self->outstanding--;
            self->mCont->ReturnRxBuffer(d);
        }
        self->mCont->SubmitRxBuffers();
    }

    DeviceContNcm* mCont = nullptr;
    NdSpinlock* mLock = nullptr;
    KDPC mRxDpc;
};

// One bulk OUT transfer as it crossed the wire.
struct OutTransfer {
    Bytes bytes;
    bool zlp;  // ended by a zero-length packet
};

// Sits between the bus and the simulated function: records bulk OUT
// transfers (a transfer ends with a short or zero-length packet), can hold
// the bulk OUT endpoint (every packet answered Nak until released), and
// stalls chosen control transfers.
class RecordingDevice : public drvtest::PassThroughDevice {
public:
    RecordingDevice(ethsim::NcmDevice* inner, uint32_t maxPacket) : PassThroughDevice(inner), mMaxPacket(maxPacket) {}

    kplat::UsbHandshake OutPacket(uint8_t ep, const uint8_t* data, uint32_t length) override
    {
        bool bulkOut = ep == (kBulkOutEp & 0x7F);
        if (bulkOut) {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mHoldOut) return kplat::UsbHandshake::Nak;
        }
        kplat::UsbHandshake h = mInner->OutPacket(ep, data, length);
        if (bulkOut && h == kplat::UsbHandshake::Ack) {
            std::lock_guard<std::mutex> lock(mMutex);
            mCurrent.insert(mCurrent.end(), data, data + length);
            if (length < mMaxPacket) {
                mTransfers.push_back({mCurrent, length == 0});
                mCurrent.clear();
            }
        }
        return h;
    }
    void EndpointAborted(uint8_t endpointAddress) override
    {
        if (endpointAddress == kBulkOutEp) {
            std::lock_guard<std::mutex> lock(mMutex);
            mCurrent.clear();
        }
        mInner->EndpointAborted(endpointAddress);
    }

    // Bulk OUT answers Nak from now on: NTBs stay in flight.
    void HoldOut()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mHoldOut = true;
    }
    // Lets the held transfers go (call outside the bus: from the test).
    void ReleaseOut()
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mHoldOut = false;
        }
        if (mPort != nullptr) mPort->EndpointReady(kBulkOutEp);
    }
    std::vector<OutTransfer> Transfers()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mTransfers;
    }
    void ClearTransfers()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mTransfers.clear();
    }
    // The transfers that carried an NTB (zero-length packets left out).
    std::vector<Bytes> Ntbs()
    {
        std::vector<Bytes> out;
        for (const OutTransfer& t : Transfers()) {
            if (!t.bytes.empty()) out.push_back(t.bytes);
        }
        return out;
    }
    // Class requests with this bRequest (and wValue, unless negative).
    size_t CountRequests(uint8_t bRequest, int wValue = -1)
    {
        size_t n = 0;
        for (const auto& s : Setups()) {
            if (s.bRequest == bRequest && (wValue < 0 || s.wValue == wValue) && (s.bmRequestType & 0x60) == 0x20) n++;
        }
        return n;
    }
    // Stalls the class or standard requests with this bRequest (and wValue,
    // unless negative).
    void StallRequest(uint8_t bRequest, int wValue = -1)
    {
        StallIf([=](const kplat::UsbSetupPacket& s) { return s.bRequest == bRequest && (wValue < 0 || s.wValue == wValue); });
    }

private:
    uint32_t mMaxPacket;
    bool mHoldOut = false;
    Bytes mCurrent;
    std::vector<OutTransfer> mTransfers;
};

// A datagram table entry of an NTB as the device's checker would read it.
struct ParsedNtb {
    bool ntb32 = false;
    uint16_t sequence = 0;
    uint32_t blockLength = 0;
    uint32_t ndpIndex = 0;
    uint32_t ndpLength = 0;
    uint32_t next = 0;
    uint32_t signature = 0;
    std::vector<ntbref::Entry> entries;
};

// Reads the header and the one NDP of an NTB the builder made.
inline ParsedNtb ParseBuiltNtb(const Bytes& b, bool ntb32)
{
    ParsedNtb p;
    p.ntb32 = ntb32;
    if (ntb32) {
        p.sequence = ethsim::Get16(&b[6]);
        p.blockLength = ethsim::Get32(&b[8]);
        p.ndpIndex = ethsim::Get32(&b[12]);
        p.signature = ethsim::Get32(&b[p.ndpIndex]);
        p.ndpLength = ethsim::Get16(&b[p.ndpIndex + 4]);
        p.next = ethsim::Get32(&b[p.ndpIndex + 8]);
        for (uint32_t e = p.ndpIndex + 16;; e += 8) {
            uint32_t index = ethsim::Get32(&b[e]), length = ethsim::Get32(&b[e + 4]);
            if (index == 0 && length == 0) break;
            p.entries.push_back({index, length});
        }
    } else {
        p.sequence = ethsim::Get16(&b[6]);
        p.blockLength = ethsim::Get16(&b[8]);
        p.ndpIndex = ethsim::Get16(&b[10]);
        p.signature = ethsim::Get32(&b[p.ndpIndex]);
        p.ndpLength = ethsim::Get16(&b[p.ndpIndex + 4]);
        p.next = ethsim::Get16(&b[p.ndpIndex + 6]);
        for (uint32_t e = p.ndpIndex + 8;; e += 4) {
            uint32_t index = ethsim::Get16(&b[e]), length = ethsim::Get16(&b[e + 2]);
            if (index == 0 && length == 0) break;
            p.entries.push_back({index, length});
        }
    }
    return p;
}

// The default profile with NTB32 switched off.
inline ethsim::DeviceProfile Ntb16Profile()
{
    ethsim::DeviceProfile p;
    p.ntb.bmNtbFormatsSupported = 0x0001;
    return p;
}

class NcmTest : public ::testing::Test {
protected:
    NcmTest()
    {
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_ERROR | KN_TRACE_WARNING | KN_TRACE_INFO);
        mDriver = kplat::CreateDriverObject(u"\\Driver\\ethbrg");
        EXPECT_EQ(STATUS_SUCCESS, IoCreateDevice(mDriver, 0, NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &mFdo));
    }
    ~NcmTest() override
    {
        Destroy();
        Unplug();
        IoDeleteDevice(mFdo);
        kplat::DeleteDriverObject(mDriver);
        kplat::ClearFaults();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
    }

    // Plugs a simulated function with this profile into a new bus.
    void Plug(const ethsim::DeviceProfile& profile = ethsim::DeviceProfile())
    {
        Unplug();
        mProfile = profile;
        mBus.reset(new kplat::UsbBus());
        mDevice.reset(new ethsim::NcmDevice(profile));
        mRecorder.reset(new RecordingDevice(mDevice.get(), profile.BulkMaxPacket()));
        mBus->Attach(mRecorder.get());
        mService.reset(new ethsim::ServiceTimer(*mDevice));
        mDevice->Connect(&mNetwork);
    }
    void Unplug()
    {
        kplat::RunUntilIdle();
        mService.reset();
        mBus.reset();
        mRecorder.reset();
        mDevice.reset();
    }
    // Plugs, creates and initialises the device control.
    NTSTATUS Create(const ethsim::DeviceProfile& profile = ethsim::DeviceProfile())
    {
        Plug(profile);
        return CreateOnly();
    }
    NTSTATUS CreateOnly()
    {
        mCont = new (NonPagedPool, KN_POOL_TAG_NCM) DeviceContNcm();
        EXPECT_NE(nullptr, mCont);
        mAdapter.Attach(mCont, &mAdapterLock);
        return mCont->Init(mFdo, mBus->Pdo(), mBus->Pdo(), &mAdapter, &mConfig, &mAdapterLock);
    }
    // Create and Start; the link notifications of the start are decoded.
    void CreateAndStart(const ethsim::DeviceProfile& profile = ethsim::DeviceProfile())
    {
        ASSERT_EQ(STATUS_SUCCESS, Create(profile));
        ASSERT_EQ(STATUS_SUCCESS, Start());
        kplat::RunUntilIdle();
    }
    NTSTATUS Start()
    {
        mStartCalled = true;
        return mCont->Start();
    }
    // Stop, Exit and delete.
    void Destroy()
    {
        if (mCont == nullptr) {
            return;
        }
        kplat::RunUntilIdle();
        mAdapter.hold = false;
        mAdapter.Release();
        if (mStartCalled) {
            mCont->Stop();
        }
        mStartCalled = false;
        mCont->Exit();
        kplat::RunUntilIdle();
        delete mCont;
        mCont = nullptr;
    }

    // Queues frames and asks for a transmit run, as MPSendPackets does.
    void Send(const std::vector<Bytes>& frames)
    {
        for (const Bytes& f : frames) mAdapter.Queue(f);
        mCont->ProcessTxPackets();
    }
    void Send(const Bytes& frame) { Send(std::vector<Bytes>{frame}); }

    // Frames from the network side for the host.
    void FromNetwork(const Bytes& frame) { mDevice->OnFrame(frame.data(), frame.size()); }

    bool Traced(const std::string& text) const { return mCapture.Contains(text); }
    size_t TraceCount(const std::string& text) const { return drvtest::CountOccurrences(mCapture.Text(), text); }
    // Every NTB the host sent passed the device's checks.
    void ExpectConformingNtbs()
    {
        EXPECT_EQ(0u, mDevice->TotalViolations()) << mDevice->ViolationReport();
    }

    kplat::Scope mScope;  // virtual clock; stopped last
    kplat::DebugCapture mCapture;
    PDRIVER_OBJECT mDriver = nullptr;
    PDEVICE_OBJECT mFdo = nullptr;
    ethsim::DeviceProfile mProfile;
    ethsim::FrameCapture mNetwork;  // frames the host sent, as the device passed them on
    std::unique_ptr<kplat::UsbBus> mBus;
    std::unique_ptr<ethsim::NcmDevice> mDevice;
    std::unique_ptr<RecordingDevice> mRecorder;
    std::unique_ptr<ethsim::ServiceTimer> mService;
    TestAdapter mAdapter;
    AdapterConfig mConfig;
    NdSpinlock mAdapterLock;
    DeviceContNcm* mCont = nullptr;
    bool mStartCalled = false;  // Stop before Exit
};

}  // namespace ncmtest
