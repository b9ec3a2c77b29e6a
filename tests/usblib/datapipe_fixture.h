// Fixture of the pipe tests: the NCM-like configuration selected with the
// bulk pipes of the data interface, a pool of transfer buffers, and a data
// pipe that records what it delivers.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "KnUsbBulkIntBuffer.h"
#include "knpoolbase.h"
#include "knusbconfiguration.h"
#include "knusbdatapipebase.h"
#include "usblib_fixture.h"

namespace usblibtest {

// Set while the test thread is inside SubmitBuffer.
inline thread_local bool tInSubmitBuffer = false;

struct Delivery {
    ULONG index;
    KIRQL irql;
    bool insideSubmit;
    std::thread::id thread;
    NTSTATUS status;
    ULONG length;
};

class RecordingPipe : public KnUsbDataPipeBase {
public:
    explicit RecordingPipe(bool isIn) : KnUsbDataPipeBase(isIn) {}

    void OnBufferCompletion(KnUsbBufferBase* buf) override {
        auto* bulk = static_cast<KnUsbBulkIntBuffer*>(buf);
        Delivery d{buf->GetIndex(), KeGetCurrentIrql(), tInSubmitBuffer, std::this_thread::get_id(),
                   buf->GetCompletionStatus(), bulk->UpdateDataLength()};
        int depth = ++mDepth;
        {
            std::lock_guard<std::mutex> guard(mMutex);
            mDeliveries.push_back(d);
            if (depth > mMaxDepth) mMaxDepth = depth;
        }
        if (onDelivery) {
            onDelivery(buf);
        } else {
            buf->ReturnToPool();
        }
        --mDepth;
    }

    std::vector<Delivery> Deliveries() {
        std::lock_guard<std::mutex> guard(mMutex);
        return mDeliveries;
    }
    std::vector<ULONG> Order() {
        std::vector<ULONG> order;
        for (const Delivery& d : Deliveries()) order.push_back(d.index);
        return order;
    }
    int MaxDepth() {
        std::lock_guard<std::mutex> guard(mMutex);
        return mMaxDepth;
    }

    // Replaces the default hand-back to the pool.
    std::function<void(KnUsbBufferBase*)> onDelivery;

private:
    std::mutex mMutex;
    std::vector<Delivery> mDeliveries;
    std::atomic<int> mDepth{0};
    int mMaxDepth = 0;
};

class DataPipeTest : public UsbLibTest {
protected:
    static constexpr ULONG kBuffers = 6;
    static constexpr ULONG kBufferSize = 1024;

    DataPipeTest() : mPipe(true) {
        mPdo.configDescriptor = NcmConfig();
        EXPECT_EQ(STATUS_SUCCESS, mConfig.PrepareAndSelectConfiguration(&mDevice, 0, 5000, 4096));
        EXPECT_EQ(STATUS_SUCCESS, mConfig.PrepareSelectInterface(&mDevice, 1, 1, 4096));
        EXPECT_EQ(STATUS_SUCCESS, mConfig.SelectInterface(&mDevice, 500));
        for (ULONG i = 0; i < kBuffers; i++) {
            auto* buf = new (NonPagedPool, KN_POOL_TAG_USB_BUFFER) KnUsbBulkIntBuffer();
            EXPECT_EQ(STATUS_SUCCESS, buf->Allocate(mDevice.GetStackSize(), sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER),
                                                    kBufferSize, false));
            mPool.AddItem(buf);
        }
    }

    ~DataPipeTest() override {
        if (mPipe.IsConnected()) {
            if (!mPipe.IsPendingListEmpty() || mPipe.IsEnabled()) {
                EXPECT_EQ(STATUS_SUCCESS, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
            }
            mPipe.Disconnect();
        }
        kplat::RunUntilIdle();
        EXPECT_EQ(kBuffers, mPool.GetCurrentCount()) << "every buffer is back in its pool";
        mPool.FreeAllItems();
        EXPECT_EQ(STATUS_SUCCESS, mConfig.Unconfigure(&mDevice, false, 500));
    }

    void ConnectAndEnable(UCHAR endpoint = 0x82) {
        ASSERT_EQ(STATUS_SUCCESS, mPipe.Connect(&mDevice, &mConfig, endpoint));
        ASSERT_EQ(STATUS_SUCCESS, mPipe.EnablePipe());
    }

    // Takes an idle buffer, fills its URB for a read on the pipe and submits it.
    KnUsbBulkIntBuffer* Submit(bool* submitted = nullptr) {
        auto* buf = static_cast<KnUsbBulkIntBuffer*>(mPool.GetItem());
        EXPECT_NE(nullptr, buf);
        if (buf == nullptr) return nullptr;
        Prepare(buf);
        tInSubmitBuffer = true;
        bool ok = mPipe.SubmitBuffer(buf);
        tInSubmitBuffer = false;
        if (submitted != nullptr) *submitted = ok;
        return buf;
    }

    void Prepare(KnUsbBulkIntBuffer* buf) {
        buf->ZeroUrb();
        UsbBuildInterruptOrBulkTransferRequest(buf->Urb(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER),
                                               mPipe.GetPipeHandle(), nullptr, buf->Mdl(), buf->BufferSize(),
                                               USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, nullptr);
    }

    // Holds every transfer in the fake bus (cancellable, or stuck).
    void HoldTransfers(Answer how = Answer::Hold) {
        mPdo.rule = [how](PURB urb) {
            return urb->UrbHeader.Function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER ? how : Answer::Complete;
        };
    }

    KnUsbConfiguration mConfig;
    KnPoolBase mPool;
    RecordingPipe mPipe;
};

}  // namespace usblibtest
