// Fixture of the stream tests: the stand-in on its virtual clock, the
// simulated NCM function on the stand-in's USB bus with its data interface
// selected, recording stream clients, a filter device that can hold back
// the completion of bulk IN reads, and a blocker for the delayed work queue
// (where stream restarts run).
#pragma once

#include <ethsim/ncm_device.h>
#include <ethsim/ntb.h>
#include <ethsim/service_timer.h>
#include <gtest/gtest.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fixture_common.h"
#include "knpooltags.h"
#include "kntrace.h"
#include "knusbconfiguration.h"
#include "knusbpnplowerdevice.h"
#include "streamin.h"
#include "streamout.h"
#include "usbbuf.h"

namespace streamtest {

using ethsim::Bytes;

// Endpoints of the simulated function (default profile, high speed).
constexpr UCHAR kNotifyEp = 0x81;
constexpr UCHAR kBulkInEp = 0x82;
constexpr UCHAR kBulkOutEp = 0x02;
constexpr ULONG kBulkMaxPacket = 512;
constexpr UCHAR kUsbClearFeature = 0x01;

// Streams with their protected parts opened for the tests.
// Holding a stream's mutex makes a restart that has begun wait in its
// Stop (a thread blocked in a wait counts as idle for RunUntilIdle) while
// mRestartPending is still set.
class TestStreamIn : public StreamIn {
public:
    bool LockHeld() const { return mLock.IsLocked(); }
    void LockMutex() { mMutex.Lock(); }
    void UnlockMutex() { mMutex.Unlock(); }
};

class TestStreamOut : public StreamOut {
public:
    bool LockHeld() const { return mLock.IsLocked(); }
    void LockMutex() { mMutex.Lock(); }
    void UnlockMutex() { mMutex.Unlock(); }
};

// Holds a stream's mutex from construction to Release (or destruction);
// Release lets what waited for it run to the end.
template <class S>
class MutexHold {
public:
    explicit MutexHold(S* stream) : mStream(stream) { mStream->LockMutex(); }
    ~MutexHold() { Release(); }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;
    void Release()
    {
        if (mStream != nullptr) {
            mStream->UnlockMutex();
            mStream = nullptr;
            kplat::RunUntilIdle();
        }
    }

private:
    S* mStream;
};

// One call of a StreamInClient.
struct InEvent {
    bool received;       // BufferReceived (else IndicateError)
    Bytes data;          // received bytes
    ULONG index;         // pool index of the received buffer
    NTSTATUS status;     // IndicateError
    bool removed;        // IndicateError
    KIRQL irql;
    bool streamLocked;   // the stream's mLock was held during the call
};

// Records every call; by default gives each received buffer back and puts
// it on the pipe again, as the receive path does.
class InClient : public StreamInClient {
public:
    InClient() { KeInitializeEvent(&mRemovedEvent, NotificationEvent, FALSE); }

    void BufferReceived(UsbBuf* buffer) override
    {
        InEvent e{true, Bytes(), buffer->GetIndex(), STATUS_SUCCESS, false, KeGetCurrentIrql(),
                  mStream != nullptr && mStream->LockHeld()};
        const ULONG length = buffer->DataLength();
        const UCHAR* p = static_cast<const UCHAR*>(buffer->Buffer());
        e.data.assign(p, p + length);
        bool keep;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mEvents.push_back(e);
            keep = mKeep;
            if (keep) {
                mKept.push_back(buffer);
            }
        }
        if (!keep) {
            buffer->ReturnToPool();
            mStream->ResubmitReadBuffers();
        }
    }
    void IndicateError(NTSTATUS status, bool removed) override
    {
        InEvent e{false, Bytes(), 0, status, removed, KeGetCurrentIrql(), mStream != nullptr && mStream->LockHeld()};
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mEvents.push_back(e);
        }
        if (removed) {
            KeSetEvent(&mRemovedEvent, 0, FALSE);
        }
    }
    // Waits (on the stand-in's clock) until IndicateError reported removal:
    // for tests that cannot run the stand-in until idle.
    void WaitForRemovedError() { KeWaitForSingleObject(&mRemovedEvent, Executive, KernelMode, FALSE, nullptr); }

    std::vector<InEvent> Events()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }
    std::vector<InEvent> Received()
    {
        std::vector<InEvent> out;
        for (const InEvent& e : Events()) {
            if (e.received) out.push_back(e);
        }
        return out;
    }
    std::vector<InEvent> Errors()
    {
        std::vector<InEvent> out;
        for (const InEvent& e : Events()) {
            if (!e.received) out.push_back(e);
        }
        return out;
    }
    // Keep received buffers instead of returning them (set while idle).
    void SetKeep(bool keep)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mKeep = keep;
    }
    // Returns one kept buffer to its pool (without resubmitting).
    bool ReturnOneKept()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mKept.empty()) return false;
        mKept.front()->ReturnToPool();
        mKept.erase(mKept.begin());
        return true;
    }
    void ReturnAllKept()
    {
        while (ReturnOneKept()) {
        }
    }

    TestStreamIn* mStream = nullptr;

private:
    std::mutex mMutex;
    std::vector<InEvent> mEvents;
    bool mKeep = false;
    std::vector<UsbBuf*> mKept;
    KEVENT mRemovedEvent;  // set by the first IndicateError with removed
};

// One call of StreamOutClient::BufferSent.
struct SentEvent {
    NTSTATUS status;
    bool removed;
    KIRQL irql;
    bool streamLocked;
};

// Records every BufferSent; with a queue of blocks to send, it sends the
// next one from inside BufferSent whenever the stream hands out a buffer,
// as the transmit path does.
class OutClient : public StreamOutClient {
public:
    void BufferSent(NTSTATUS status, bool removed) override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mEvents.push_back({status, removed, KeGetCurrentIrql(), mStream != nullptr && mStream->LockHeld()});
        }
        SendQueued();
    }

    // Sends queued blocks while the stream hands out buffers.
    void SendQueued()
    {
        for (;;) {
            Bytes block;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                if (mQueue.empty()) return;
                block = mQueue.front();
            }
            UsbBuf* buffer = mStream->GetBuffer();
            if (buffer == nullptr) return;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                mQueue.erase(mQueue.begin());
            }
            if (!block.empty()) std::memcpy(buffer->Buffer(), block.data(), block.size());
            buffer->SetDataLength((ULONG)block.size());
            mStream->SubmitWriteBuffer(buffer);
        }
    }
    void Queue(Bytes block)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mQueue.push_back(std::move(block));
    }
    size_t Queued()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mQueue.size();
    }
    std::vector<SentEvent> Events()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents.size();
    }

    TestStreamOut* mStream = nullptr;

private:
    std::mutex mMutex;
    std::vector<SentEvent> mEvents;
    std::vector<Bytes> mQueue;
};

// A device object between the streams and the bus: passes every request
// down and, when told, keeps the completion of the next bulk IN reads from
// going up until the test releases them. So reads can reach the data pipe
// in another order than the bus completed them in.
class HoldFilter {
public:
    explicit HoldFilter(PDEVICE_OBJECT lower) : mLower(lower)
    {
        mDriver = kplat::CreateDriverObject(u"\\Driver\\streamtestfilter");
        mDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = Dispatch;
        EXPECT_EQ(STATUS_SUCCESS, IoCreateDevice(mDriver, sizeof(HoldFilter*), nullptr, FILE_DEVICE_UNKNOWN, 0,
                                                 FALSE, &mDevice));
        *static_cast<HoldFilter**>(mDevice->DeviceExtension) = this;
        mDevice->StackSize = (CCHAR)(lower->StackSize + 1);
    }
    ~HoldFilter()
    {
        EXPECT_EQ(0u, Held()) << "held completions must be released before the end";
        IoDeleteDevice(mDevice);
        kplat::DeleteDriverObject(mDriver);
    }
    HoldFilter(const HoldFilter&) = delete;
    HoldFilter& operator=(const HoldFilter&) = delete;

    PDEVICE_OBJECT Device() const { return mDevice; }

    // The completions of the next `count` bulk IN reads stay here.
    void HoldNextReads(int count)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mHoldCount = count;
    }
    size_t Held()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mHeld.size();
    }
    // Lets the held completions go on up, oldest first, at DISPATCH_LEVEL as
    // the bus's DPC would.
    void ReleaseAll()
    {
        std::vector<PIRP> held;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            held.swap(mHeld);
        }
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        for (PIRP irp : held) {
            IoCompleteRequest(irp, IO_NO_INCREMENT);
        }
        KeLowerIrql(oldIrql);
    }

private:
    static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp)
    {
        HoldFilter* self = *static_cast<HoldFilter**>(device->DeviceExtension);
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, OnCompletion, self, TRUE, TRUE, TRUE);
        return IoCallDriver(self->mLower, irp);
    }
    static NTSTATUS OnCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context)
    {
        (void)device;
        HoldFilter* self = static_cast<HoldFilter*>(context);
        if (irp->PendingReturned) {
            IoMarkIrpPending(irp);
        }
        PURB urb = static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
        const bool bulkIn = urb != nullptr && urb->UrbHeader.Function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER &&
                            (urb->UrbBulkOrInterruptTransfer.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
        std::lock_guard<std::mutex> lock(self->mMutex);
        if (bulkIn && self->mHoldCount > 0) {
            self->mHoldCount--;
            self->mHeld.push_back(irp);
            return STATUS_MORE_PROCESSING_REQUIRED;
        }
        return STATUS_SUCCESS;
    }

    PDEVICE_OBJECT mLower;
    PDRIVER_OBJECT mDriver = nullptr;
    PDEVICE_OBJECT mDevice = nullptr;
    std::mutex mMutex;  // guards mHoldCount and mHeld
    int mHoldCount = 0;
    std::vector<PIRP> mHeld;
};

using drvtest::DelayedQueueBlocker;

// A valid NTB16 of exactly `length` bytes carrying one Ethernet frame, for
// the default rules of the simulated function (divisor 4, remainder 0,
// alignment 4). Empty when no frame length gives that size.
inline Bytes MakeNtb(uint32_t length, uint16_t sequence)
{
    ethsim::InRules rules;
    rules.maxSize = 16384;
    for (uint32_t frame = 60; frame <= 1514; frame++) {
        if (ethsim::PackedLength({frame}, rules) != length) continue;
        Bytes f(frame, 0);
        for (uint32_t i = 0; i < frame; i++) f[i] = (uint8_t)(i * 7 + sequence);
        // Unicast destination, locally administered source.
        f[0] = 0x02;
        f[6] = 0x02;
        f[12] = 0x08;
        f[13] = 0x00;
        std::deque<Bytes> frames{f};
        Bytes out;
        if (ethsim::PackNtb(frames, rules, sequence, &out) == 1 && out.size() == length) return out;
    }
    return Bytes();
}

class StreamTest : public ::testing::Test {
protected:
    explicit StreamTest(ethsim::DeviceProfile profile = ethsim::DeviceProfile())
        : mDev(profile), mInStream(new TestStreamIn()), mOutStream(new TestStreamOut())
    {
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        EXPECT_TRUE(mBus.Attach(&mDev));
        mService = std::make_unique<ethsim::ServiceTimer>(mDev);
        mDevice.SetDeviceObject(mBus.Pdo());
        mDevice.SetPhysicalDeviceObject(mBus.Pdo());
        mIn.mStream = mInStream.get();
        mOut.mStream = mOutStream.get();
    }

    ~StreamTest() override
    {
        // Buffers a client kept go back before their stream goes; the
        // streams' destructors stop them.
        mIn.ReturnAllKept();
        if (mFilter) mFilter->ReleaseAll();
        mOutStream.reset();
        mInStream.reset();
        kplat::RunUntilIdle();
        if (mConfig.IsConfigured()) {
            (void)mConfig.Unconfigure(&mDevice, mBus.IsAttached(), 500);
        }
        mDevice.SetDeviceObject(nullptr);
        mDevice.SetPhysicalDeviceObject(nullptr);
        mFilter.reset();
        kplat::RunUntilIdle();
        EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_USB_BUFFER).liveCount) << "no stream buffer is left";
        kplat::ClearFaults();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
    }

    // Selects the configuration and the data interface's alternate setting 1.
    void SelectDataInterface()
    {
        ASSERT_EQ(STATUS_SUCCESS, mConfig.PrepareAndSelectConfiguration(&mDevice, 0, 5000, 4096));
        ASSERT_EQ(STATUS_SUCCESS, mConfig.PrepareSelectInterface(&mDevice, 1, 1, 4096));
        ASSERT_EQ(STATUS_SUCCESS, mConfig.SelectInterface(&mDevice, 500));
    }
    // Puts a HoldFilter between the streams and the bus (before Configure).
    void InsertFilter()
    {
        mFilter = std::make_unique<HoldFilter>(mBus.Pdo());
        mDevice.SetDeviceObject(mFilter->Device());
    }

    void ConfigureIn(ULONG count = 2, ULONG size = 2048, UCHAR ep = kBulkInEp)
    {
        ASSERT_EQ(STATUS_SUCCESS, mInStream->Configure(&mDevice, &mConfig, ep, mBus.Pdo(), &mIn, count, size));
    }
    void ConfigureOut(ULONG count = 2, ULONG size = 4096)
    {
        ASSERT_EQ(STATUS_SUCCESS,
                  mOutStream->Configure(&mDevice, &mConfig, kBulkOutEp, mBus.Pdo(), &mOut, count, size));
    }

    // Requests the bus holds now (pending reads and writes).
    size_t PendingOnBus() const { return mBus.PendingRequests(); }
    uint64_t Submitted() const { return mBus.Stats().urbsSubmitted; }

    // How often the text occurs in the trace output.
    size_t Count(const std::string& needle) const { return drvtest::CountOccurrences(mCapture.Text(), needle); }
    bool Traced(const std::string& needle) const { return mCapture.Contains(needle); }
    // CLEAR_FEATURE(ENDPOINT_HALT) requests the function saw for an endpoint.
    size_t ClearHalts(UCHAR ep)
    {
        size_t n = 0;
        for (const ethsim::ControlRecord& r : mDev.RequestLog()) {
            if (r.setup.bmRequestType == 0x02 && r.setup.bRequest == kUsbClearFeature && r.setup.wValue == 0 &&
                r.setup.wIndex == ep) {
                n++;
            }
        }
        return n;
    }
    // Writes one block on the OUT stream and lets it complete.
    void Write(const Bytes& block)
    {
        UsbBuf* buffer = mOutStream->GetBuffer();
        ASSERT_NE(nullptr, buffer);
        if (!block.empty()) std::memcpy(buffer->Buffer(), block.data(), block.size());
        buffer->SetDataLength((ULONG)block.size());
        mOutStream->SubmitWriteBuffer(buffer);
        kplat::RunUntilIdle();
    }

    kplat::Scope mScope;  // virtual clock
    kplat::DebugCapture mCapture;
    ethsim::NcmDevice mDev;
    kplat::UsbBus mBus;
    std::unique_ptr<ethsim::ServiceTimer> mService;
    std::unique_ptr<HoldFilter> mFilter;
    KnPnPLowerDeviceUsb mDevice;
    KnUsbConfiguration mConfig;
    InClient mIn;
    OutClient mOut;
    std::unique_ptr<TestStreamIn> mInStream;
    std::unique_ptr<TestStreamOut> mOutStream;
};

}  // namespace streamtest
