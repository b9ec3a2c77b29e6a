// The library against the stand-in's USB bus (kplat::UsbBus) and a small
// device: descriptors and selections as the bus answers them, a request the
// device never answers, and a read stream whose completions come from the
// bus's own DPC while the pipe resubmits.
#include <gtest/gtest.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "datapipe_fixture.h"
#include "knusbconfigdescriptor.h"

namespace usblibtest {
namespace {

// Serves the NCM-like descriptors, acknowledges standard requests, keeps
// class requests unanswered, answers every IN packet on 0x82 with a short
// packet carrying a running number and has never anything for 0x81.
class StreamDevice : public kplat::UsbDevice {
public:
    void Attached(kplat::UsbDevicePort* p) override { mPort = p; }
    void Detached() override { mPort = nullptr; }
    kplat::UsbSpeed Speed() const override { return kplat::UsbSpeed::High; }

    void ControlTransfer(kplat::UsbControlTransfer* t) override {
        const kplat::UsbSetupPacket& s = t->setup;
        if ((s.bmRequestType & 0x60) == 0x20) {
            // A class request: never answered (the host gives up and cancels).
            std::lock_guard<std::mutex> guard(mMutex);
            mUnanswered++;
            return;
        }
        t->actual = 0;
        if (s.bRequest == USB_REQUEST_GET_DESCRIPTOR && (s.wValue >> 8) == USB_CONFIGURATION_DESCRIPTOR_TYPE) {
            Bytes d = NcmConfig();
            t->actual = std::min<uint32_t>(s.wLength, (uint32_t)d.size());
            memcpy(t->data, d.data(), t->actual);
        }
        mPort->CompleteControl(t, false);
    }

    kplat::UsbHandshake OutPacket(uint8_t, const uint8_t*, uint32_t) override { return kplat::UsbHandshake::Ack; }

    kplat::UsbHandshake InPacket(uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length) override {
        if (ep == 1) return kplat::UsbHandshake::Nak;  // no notification, ever
        if (ep != 2 || maxLength < 8) return kplat::UsbHandshake::Stall;
        uint32_t n = mNext.fetch_add(1);
        memset(buffer, 0, 8);
        memcpy(buffer, &n, sizeof(n));
        *length = 8;
        return kplat::UsbHandshake::Ack;
    }

    int Unanswered() {
        std::lock_guard<std::mutex> guard(mMutex);
        return mUnanswered;
    }

private:
    kplat::UsbDevicePort* mPort = nullptr;
    std::atomic<uint32_t> mNext{0};
    std::mutex mMutex;
    int mUnanswered = 0;
};

class UsbBusTest : public ::testing::Test {
protected:
    UsbBusTest() : mPipe(true) {
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        mBus.Attach(&mUsbDevice);
        mDevice.SetDeviceObject(mBus.Pdo());
        mDevice.SetPhysicalDeviceObject(mBus.Pdo());
    }
    ~UsbBusTest() override {
        if (mPipe.IsConnected()) {
            EXPECT_EQ(STATUS_SUCCESS, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
            mPipe.Disconnect();
        }
        kplat::RunUntilIdle();
        mPool.FreeAllItems();
        if (mConfig.IsConfigured()) {
            EXPECT_EQ(STATUS_SUCCESS, mConfig.Unconfigure(&mDevice, true, 500));
            EXPECT_EQ(0, mBus.ConfigurationValue());
        }
        mDevice.SetDeviceObject(nullptr);
        mDevice.SetPhysicalDeviceObject(nullptr);
    }

    void SelectDataInterface() {
        ASSERT_EQ(STATUS_SUCCESS, mConfig.PrepareAndSelectConfiguration(&mDevice, 0, 5000, 4096));
        ASSERT_EQ(STATUS_SUCCESS, mConfig.PrepareSelectInterface(&mDevice, 1, 1, 4096));
        ASSERT_EQ(STATUS_SUCCESS, mConfig.SelectInterface(&mDevice, 500));
    }

    void AddBuffers(ULONG count) {
        for (ULONG i = 0; i < count; i++) {
            auto* buf = new (NonPagedPool, KN_POOL_TAG_USB_BUFFER) KnUsbBulkIntBuffer();
            ASSERT_EQ(STATUS_SUCCESS, buf->Allocate(mDevice.GetStackSize(),
                                                    sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER), 512, true));
            mPool.AddItem(buf);
        }
    }

    bool SubmitRead(KnUsbBufferBase* buf) {
        buf->ZeroUrb();
        UsbBuildInterruptOrBulkTransferRequest(buf->Urb(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER),
                                               mPipe.GetPipeHandle(), nullptr, buf->Mdl(), buf->BufferSize(),
                                               USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, nullptr);
        return mPipe.SubmitBuffer(buf);
    }

    // Runs `total` reads through `buffers` buffers, each delivery resubmitting
    // its buffer until enough were submitted; returns the numbers read.
    std::vector<uint32_t> Stream(ULONG buffers, int total) {
        std::mutex mutex;
        std::vector<uint32_t> numbers;
        std::atomic<int> submitted{0};
        mPipe.onDelivery = [&](KnUsbBufferBase* buf) {
            EXPECT_EQ(STATUS_SUCCESS, buf->Status());
            {
                std::lock_guard<std::mutex> guard(mutex);
                uint32_t n;
                memcpy(&n, buf->Buffer(), sizeof(n));
                numbers.push_back(n);
            }
            if (submitted.fetch_add(1) < total - (int)buffers) {
                EXPECT_TRUE(SubmitRead(buf));
            } else {
                buf->ReturnToPool();
            }
        };
        for (ULONG i = 0; i < buffers; i++) EXPECT_TRUE(SubmitRead(static_cast<KnUsbBufferBase*>(mPool.GetItem())));
        kplat::RunUntilIdle();
        mPipe.onDelivery = nullptr;
        std::lock_guard<std::mutex> guard(mutex);
        return numbers;
    }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
    StreamDevice mUsbDevice;
    kplat::UsbBus mBus;
    KnPnPLowerDeviceUsb mDevice;
    KnUsbConfiguration mConfig;
    KnPoolBase mPool;
    RecordingPipe mPipe;
};

TEST_F(UsbBusTest, DescriptorAndSelectionsGoThroughTheBus) {
    KnUsbConfigDescriptor desc;
    ASSERT_EQ(STATUS_SUCCESS, desc.Load(&mDevice, 0, NonPagedPool, 500));
    EXPECT_EQ(NcmConfig().size(), desc.GetConfigDescLength());
    EXPECT_NE(nullptr, desc.FindInterfaceDescriptor(nullptr, -1, -1, 2, 13, -1));

    SelectDataInterface();
    EXPECT_EQ(1, mBus.ConfigurationValue());
    PUSBD_PIPE_INFORMATION in = mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, true, -1, -1);
    ASSERT_NE(nullptr, in);
    EXPECT_NE(nullptr, in->PipeHandle);
    EXPECT_EQ(4096u, in->MaximumTransferSize);
    EXPECT_EQ(512, in->MaximumPacketSize);
    EXPECT_NE(nullptr, mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeInterrupt, true, -1, -1)->PipeHandle);
}

// 0: dispatch-level delivery, 1: the bus completes inline, 2: passive level.
class UsbBusStreamTest : public UsbBusTest, public ::testing::WithParamInterface<int> {};

TEST_P(UsbBusStreamTest, ReadStreamIsDeliveredInOrder) {
    const int mode = GetParam();
    SelectDataInterface();
    AddBuffers(4);
    mBus.SetInlineCompletion(mode == 1);
    if (mode == 2) {
        ASSERT_EQ(STATUS_SUCCESS, mPipe.SetBufferCompletionMode(true, mBus.Pdo()));
    }
    ASSERT_EQ(STATUS_SUCCESS, mPipe.Connect(&mDevice, &mConfig, 0x82));
    ASSERT_EQ(STATUS_SUCCESS, mPipe.EnablePipe());
    std::vector<uint32_t> numbers = Stream(4, 200);
    ASSERT_EQ(200u, numbers.size());
    for (uint32_t i = 0; i < numbers.size(); i++) ASSERT_EQ(i, numbers[i]);
    if (mode != 2) {
        EXPECT_EQ(1, mPipe.MaxDepth());
    }
    EXPECT_EQ(4u, mPool.GetCurrentCount());
    for (const Delivery& d : mPipe.Deliveries()) {
        ASSERT_FALSE(d.insideSubmit);
        ASSERT_EQ(mode == 2 ? PASSIVE_LEVEL : DISPATCH_LEVEL, d.irql);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, UsbBusStreamTest, ::testing::Values(0, 1, 2));

TEST_F(UsbBusTest, AbortDrainsReadsTheDeviceHasNoDataFor) {
    SelectDataInterface();
    AddBuffers(4);
    ASSERT_EQ(STATUS_SUCCESS, mPipe.Connect(&mDevice, &mConfig, 0x81));
    ASSERT_EQ(STATUS_SUCCESS, mPipe.EnablePipe());
    for (int i = 0; i < 4; i++) ASSERT_TRUE(SubmitRead(static_cast<KnUsbBufferBase*>(mPool.GetItem())));
    kplat::RunUntilIdle();
    EXPECT_EQ(4u, mBus.PendingRequests());
    EXPECT_EQ(4u, mPipe.GetNumberOfBuffersOutstanding());
    const uint64_t start = kplat::NowMs();
    EXPECT_EQ(STATUS_SUCCESS, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
    EXPECT_EQ(start, kplat::NowMs());
    EXPECT_EQ(0u, mBus.PendingRequests());
    EXPECT_TRUE(mPipe.Deliveries().empty());
    EXPECT_EQ(4u, mPool.GetCurrentCount());
    EXPECT_EQ("", mCapture.Text());
}

}  // namespace
}  // namespace usblibtest
