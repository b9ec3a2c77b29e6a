// The bus carrying URBs to a device: descriptors, selections, control and
// bulk transfers, packets, Nak, completion context and pacing.
#include "usb_fixture.h"

#include <condition_variable>

namespace usbtest {
namespace {

// ---------------------------------------------------------------------------
// Descriptors and control requests
// ---------------------------------------------------------------------------
class UsbBusControl : public BusTest {};

TEST_F(UsbBusControl, ConfigurationDescriptorHeaderThenWhole) {
    Bytes whole = ConfigurationDescriptor();
    uint8_t head[9] = {};
    Request& r1 = DescriptorRequest(USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, head, sizeof(head));
    ASSERT_EQ(SendAndRun(r1), STATUS_SUCCESS);
    EXPECT_EQ(r1.urb()->UrbControlDescriptorRequest.TransferBufferLength, 9u);
    uint16_t total = (uint16_t)(head[2] | head[3] << 8);
    ASSERT_EQ(total, whole.size());
    Bytes buf(512);
    Request& r2 = DescriptorRequest(USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, buf.data(), (ULONG)buf.size());
    ASSERT_EQ(SendAndRun(r2), STATUS_SUCCESS);
    EXPECT_EQ(r2.urb()->UrbControlDescriptorRequest.TransferBufferLength, total);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + total), whole);
}

TEST_F(UsbBusControl, ShortClassAnswerNeedsShortTransferOk) {
    dev.classIn[0x44] = {1, 2};
    uint8_t value[4] = {};
    Request& ok = ClassRequest(0x44, 1, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, value, 4);
    ASSERT_EQ(SendAndRun(ok), STATUS_SUCCESS);
    EXPECT_EQ(ok.urb()->UrbControlVendorClassRequest.TransferBufferLength, 2u);

    Request& strict = ClassRequest(0x44, 1, USBD_TRANSFER_DIRECTION_IN, value, 4);
    EXPECT_EQ(SendAndRun(strict), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(strict.urb()->UrbHeader.Status, USBD_STATUS_ERROR_SHORT_TRANSFER);
    EXPECT_EQ(strict.urb()->UrbControlVendorClassRequest.TransferBufferLength, 2u);
}

// ---------------------------------------------------------------------------
// Configuration and interface selection
// ---------------------------------------------------------------------------
class UsbBusSelect : public BusTest {};

TEST_F(UsbBusSelect, SelectConfigurationFillsHandlesAndPipes) {
    config = ConfigurationDescriptor();
    auto* cd = (PUSB_CONFIGURATION_DESCRIPTOR)config.data();
    USBD_INTERFACE_LIST_ENTRY list[3] = {};
    list[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1);
    list[1].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 1, 0, -1, -1, -1);
    PURB urb = USBD_CreateConfigurationRequestEx(cd, list);
    ASSERT_NE(urb, nullptr);
    list[0].Interface->Pipes[0].MaximumTransferSize = 4096;
    list[0].Interface->Pipes[0].PipeFlags = 0;
    urb->UrbHeader.Status = (USBD_STATUS)0xFFFFFFFF;

    // Send the pool URB itself, as the driver does.
    Request& real = NewRequest();
    real.external = urb;
    EXPECT_EQ(Send(real), STATUS_PENDING);
    kplat::RunUntilIdle();
    ASSERT_EQ(real.status, STATUS_SUCCESS);
    EXPECT_EQ(urb->UrbHeader.Status, USBD_STATUS_SUCCESS);
    EXPECT_NE(urb->UrbSelectConfiguration.ConfigurationHandle, nullptr);
    EXPECT_EQ(dev.configuration, 1);
    EXPECT_EQ(dev.setups.back().bRequest, USB_REQUEST_SET_CONFIGURATION);
    EXPECT_EQ(dev.setups.back().wValue, 1);

    PUSBD_INTERFACE_INFORMATION i0 = list[0].Interface, i1 = list[1].Interface;
    EXPECT_EQ(i0->SubClass, 0x0D);
    ASSERT_EQ(i0->NumberOfPipes, 1u);
    EXPECT_EQ(i0->Pipes[0].EndpointAddress, kIntIn);
    EXPECT_EQ(i0->Pipes[0].PipeType, UsbdPipeTypeInterrupt);
    EXPECT_NE(i0->Pipes[0].PipeHandle, nullptr);
    EXPECT_EQ(i0->Pipes[0].MaximumTransferSize, 4096u);  // the caller's, untouched
    EXPECT_NE(i1->InterfaceHandle, i0->InterfaceHandle);
    EXPECT_EQ(i1->NumberOfPipes, 0u);
    ExFreePoolWithTag(urb, 0);
}

TEST_F(UsbBusSelect, SelectInterfaceOpensTheBulkPipes) {
    Configure();
    Request& r = NewRequest(GET_SELECT_INTERFACE_REQUEST_SIZE(2));
    UsbBuildSelectInterfaceRequest(r.urb(), (USHORT)GET_SELECT_INTERFACE_REQUEST_SIZE(2), configHandle, 1, 1);
    EXPECT_EQ(r.urb()->UrbSelectInterface.Interface.Length, 72);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(dev.setups.back().bRequest, USB_REQUEST_SET_INTERFACE);
    EXPECT_EQ(dev.alternate[1], 1);
    auto& info = r.urb()->UrbSelectInterface.Interface;
    ASSERT_EQ(info.NumberOfPipes, 2u);
    PUSBD_PIPE_INFORMATION pipes = info.Pipes;
    EXPECT_EQ(pipes[0].EndpointAddress, kBulkIn);
    EXPECT_EQ(pipes[1].EndpointAddress, kBulkOut);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(pipes[i].PipeType, UsbdPipeTypeBulk);
        EXPECT_EQ(pipes[i].MaximumPacketSize, kBulkPacket);
        EXPECT_NE(pipes[i].PipeHandle, nullptr);
    }
    EXPECT_NE(pipes[0].PipeHandle, pipes[1].PipeHandle);
    EXPECT_NE(pipes[0].PipeHandle, intPipe);
}

// ---------------------------------------------------------------------------
// Bulk and interrupt transfers
// ---------------------------------------------------------------------------
class UsbBusBulk : public BusTest {
protected:
    void SetUp() override {
        BusTest::SetUp();
        ConfigureAll();
    }
};

TEST_F(UsbBusBulk, OutTransferReachesTheDeviceAsPackets) {
    Bytes data = Pattern(1300);
    Request& r = BulkRequest(bulkOut, 0, data.data(), (ULONG)data.size());
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 1300u);
    ASSERT_EQ(dev.outPackets.size(), 3u);
    EXPECT_EQ(dev.outPackets[0].data.size(), 512u);
    EXPECT_EQ(dev.outPackets[1].data.size(), 512u);
    EXPECT_EQ(dev.outPackets[2].data.size(), 276u);
    EXPECT_EQ(dev.outPackets[0].ep, kBulkOut & 0x0F);
    ASSERT_EQ(dev.outTransfers.size(), 1u);
    EXPECT_EQ(dev.outTransfers[0], data);
}

// An IN transfer ends on a short packet, a zero-length packet or a full
// buffer; what the device still holds stays with it.
TEST_F(UsbBusBulk, InTransferEnds) {
    struct Case {
        const char* name;
        std::vector<size_t> packets;  // SIZE_MAX: none
        ULONG buffer;
        ULONG flags;
        ULONG expect;
        size_t left;
    } cases[] = {
        {"short packet", {512, 100}, 4096, USBD_SHORT_TRANSFER_OK, 612, 0},
        {"zero-length packet", {512, 0, 10}, 2048, USBD_SHORT_TRANSFER_OK, 512, 1},
        {"full buffer", {512, 512, 512}, 1024, 0, 1024, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes expect;
        for (size_t i = 0; i < c.packets.size(); i++) {
            Bytes p = Pattern(c.packets[i], (uint8_t)i);
            dev.QueueIn(kBulkIn, p);
            if (expect.size() < c.expect) expect.insert(expect.end(), p.begin(), p.end());
        }
        dev.maxLengths.clear();
        Bytes buf(c.buffer);
        Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | c.flags, buf.data(), c.buffer);
        ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
        EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, c.expect);
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + c.expect), expect);
        EXPECT_EQ(dev.InQueued(kBulkIn), c.left);
        for (uint32_t m : dev.maxLengths) EXPECT_EQ(m, kBulkPacket);  // whole packets are asked for
        while (dev.InQueued(kBulkIn)) {
            Request& d = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 512);
            SendAndRun(d);
        }
    }
}

// A device that takes runs of packets gets a whole transfer in one call, and
// every packet rule still holds: how a transfer ends, Nak and EndpointReady
// in the middle of a run, a stall after some packets.
TEST_F(UsbBusBulk, RunsKeepThePacketRules) {
    dev.runs = true;
    constexpr size_t kNak = SIZE_MAX;  // the device has nothing more (Nak) until the rest is queued
    constexpr size_t kStall = SIZE_MAX - 1;
    struct Case {
        const char* name;
        std::vector<size_t> packets;  // queued IN packets; empty: a write of `buffer` bytes
        ULONG buffer;
        ULONG flags;
        USBD_STATUS status;
        ULONG expect;
        int runs;  // device calls
    } cases[] = {
        {"out: whole packets and a short one", {}, 1300, 0, USBD_STATUS_SUCCESS, 1300, 1},
        {"out: zero-length packet", {}, 0, 0, USBD_STATUS_SUCCESS, 0, 1},
        {"in: short packet", {512, 512, 100}, 4096, USBD_SHORT_TRANSFER_OK, USBD_STATUS_SUCCESS, 1124, 1},
        {"in: zero-length packet", {512, 0}, 2048, USBD_SHORT_TRANSFER_OK, USBD_STATUS_SUCCESS, 512, 1},
        {"in: full buffer", {512, 512}, 1024, 0, USBD_STATUS_SUCCESS, 1024, 1},
        {"in: short without short ok", {512, 100}, 2048, 0, USBD_STATUS_ERROR_SHORT_TRANSFER, 612, 1},
        {"in: the last packet overruns", {512, 512}, 600, USBD_SHORT_TRANSFER_OK, USBD_STATUS_DATA_OVERRUN, 600, 2},
        {"in: nak, ready, rest", {512, kNak, 512, 7}, 2048, USBD_SHORT_TRANSFER_OK, USBD_STATUS_SUCCESS, 1031, 2},
        {"in: stall after a packet", {512, kStall}, 2048, USBD_SHORT_TRANSFER_OK, USBD_STATUS_STALL_PID, 512, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes out = Pattern(c.buffer), buf(c.buffer), expect;
        size_t later = c.packets.size();
        for (size_t i = 0; i < c.packets.size(); i++) {
            if (c.packets[i] == kNak) later = i + 1;
            if (c.packets[i] == kStall) dev.onIn = [this] {
                if (dev.InQueued(kBulkIn) == 0) dev.Stall(kBulkIn, true);
            };
            if (c.packets[i] >= kStall || i >= later) continue;
            dev.QueueIn(kBulkIn, Pattern(c.packets[i], (uint8_t)i));
        }
        int runsBefore = dev.runCalls;
        size_t transfersBefore = dev.outTransfers.size();
        bool in = !c.packets.empty();
        Request& r = in ? BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | c.flags, buf.data(), c.buffer)
                        : BulkRequest(bulkOut, c.flags, out.data(), c.buffer);
        Send(r);
        kplat::RunUntilIdle();
        for (size_t i = later; i < c.packets.size(); i++) dev.QueueIn(kBulkIn, Pattern(c.packets[i], (uint8_t)i));
        if (later < c.packets.size()) dev.port->EndpointReady(kBulkIn);
        kplat::RunUntilIdle();
        ASSERT_TRUE(r.done());
        EXPECT_EQ(r.urb()->UrbHeader.Status, c.status);
        EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, c.expect);
        EXPECT_EQ(dev.runCalls - runsBefore, c.runs);
        if (!in) {
            ASSERT_EQ(dev.outTransfers.size(), transfersBefore + 1);
            EXPECT_EQ(dev.outTransfers.back(), out);
        }
        dev.onIn = nullptr;
        if (bus->IsEndpointHalted(kBulkIn)) {
            dev.Stall(kBulkIn, false);
            SendAndRun(PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE, bulkIn));
        }
        while (dev.InQueued(kBulkIn)) {
            Request& d = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 512);
            SendAndRun(d);
        }
    }
}

// ---------------------------------------------------------------------------
// Nak
// ---------------------------------------------------------------------------
class UsbBusNak : public UsbBusBulk {};

// ---------------------------------------------------------------------------
// Where completion runs
// ---------------------------------------------------------------------------
class UsbBusCompletion : public UsbBusBulk {};

// As the bus's DPC on the submitting processor: held until the IRQL drops.
TEST_F(UsbBusCompletion, InlineCompletionAtDispatchLevelWaitsForTheIrqlToDrop) {
    bus->SetInlineCompletion(true);
    Bytes data = Pattern(100);
    Request& r = BulkRequest(bulkOut, 0, data.data(), 100);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(Send(r), STATUS_PENDING);
    EXPECT_FALSE(r.done());
    KeLowerIrql(old);
    ASSERT_TRUE(r.done());
    EXPECT_EQ(r.irql, DISPATCH_LEVEL);
    EXPECT_EQ(r.thread, std::this_thread::get_id());
    EXPECT_EQ(r.status, STATUS_SUCCESS);
}

// With inline completion every thread that feeds a pipe steps it: two
// threads feeding two pipes at once each complete their own transfers,
// inside their own submissions.
TEST_F(UsbBusCompletion, InlineCompletionRunsOnTheThreadThatFeedsThePipe) {
    bus->SetInlineCompletion(true);
    constexpr int kEach = 300;
    Bytes out = Pattern(100);
    std::vector<Bytes> inBuffers(kEach, Bytes(512));
    std::vector<Request*> outs, ins;
    for (int i = 0; i < kEach; i++) {
        dev.QueueIn(kBulkIn, Pattern(64, (uint8_t)i));
        outs.push_back(&BulkRequest(bulkOut, 0, out.data(), 100));
        ins.push_back(&BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK,
                                   inBuffers[i].data(), 512));
    }
    auto feed = [this](const std::vector<Request*>& list, std::thread::id* id) {
        kplat::EnterDriverThread();
        *id = std::this_thread::get_id();
        for (Request* r : list) Send(*r);
        kplat::LeaveDriverThread();
    };
    std::thread::id outThread, inThread;
    std::thread a(feed, std::cref(outs), &outThread), b(feed, std::cref(ins), &inThread);
    a.join();
    b.join();
    kplat::RunUntilIdle();
    for (int i = 0; i < kEach; i++) {
        SCOPED_TRACE(i);
        for (Request* r : {outs[i], ins[i]}) {
            ASSERT_TRUE(r->done());
            EXPECT_EQ(r->status, STATUS_SUCCESS);
            EXPECT_TRUE(r->completedInCall);
            EXPECT_EQ(r->thread, r == outs[i] ? outThread : inThread);
        }
        EXPECT_EQ(ins[i]->urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 64u);
        EXPECT_EQ(Bytes(inBuffers[i].begin(), inBuffers[i].begin() + 64), Pattern(64, (uint8_t)i));
    }
    EXPECT_EQ(dev.outTransfers.size(), (size_t)kEach);
}

// An abort of a pipe whose transfer is in the device on another thread
// waits for that call: the thread stepping the pipe completes the transfer,
// then runs the abort.
TEST_F(UsbBusCompletion, AbortWaitsForTheTransferInTheDeviceOnAnotherThread) {
    bus->SetInlineCompletion(true);
    dev.QueueIn(kBulkIn, Pattern(64));
    std::mutex m;
    std::condition_variable cv;
    bool entered = false, release = false;
    dev.onIn = [&] {
        std::unique_lock<std::mutex> lk(m);
        if (entered) return;
        entered = true;
        cv.notify_all();
        cv.wait(lk, [&] { return release; });
    };
    Bytes buffer(512);
    Request& in = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buffer.data(), 512);
    Request& abort = PipeRequest(URB_FUNCTION_ABORT_PIPE, bulkIn);
    std::thread stepper([&] {
        kplat::EnterDriverThread();
        Send(in);
        kplat::LeaveDriverThread();
    });
    {
        std::unique_lock<std::mutex> lk(m);
        cv.wait(lk, [&] { return entered; });
    }
    EXPECT_EQ(Send(abort), STATUS_PENDING);
    EXPECT_FALSE(abort.done());
    EXPECT_FALSE(in.done());
    {
        std::lock_guard<std::mutex> lk(m);
        release = true;
    }
    cv.notify_all();
    stepper.join();
    kplat::RunUntilIdle();
    dev.onIn = nullptr;
    ASSERT_TRUE(in.done());
    EXPECT_EQ(in.status, STATUS_SUCCESS);
    EXPECT_EQ(in.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 64u);
    ASSERT_TRUE(abort.done());
    EXPECT_EQ(abort.status, STATUS_SUCCESS);
    EXPECT_EQ(abort.thread, in.thread);
    EXPECT_EQ(dev.aborted, std::vector<uint8_t>{kBulkIn});
}

// ---------------------------------------------------------------------------
// Pacing
// ---------------------------------------------------------------------------
class UsbBusPacing : public UsbBusBulk {};

TEST_F(UsbBusPacing, TransfersTakeTheTimeOfTheLinkRate) {
    bus->SetLinkRate(kplat::UsbBus::LinkRate(kplat::UsbSpeed::High));
    // 512 packets of 512 bytes: (520 bytes x 8) / 480 Mbit/s = 8.67 us each,
    // 4.44 ms in all; the bus may run 125 us ahead of the clock. The same
    // whether the device takes packets one by one or in runs.
    for (bool runs : {false, true}) {
        SCOPED_TRACE(runs ? "runs" : "packets");
        dev.runs = runs;
        dev.outPackets.clear();
        Bytes data = Pattern(262144);
        Request& r = BulkRequest(bulkOut, 0, data.data(), (ULONG)data.size());
        uint64_t start = kplat::Now();
        Send(r);
        kplat::RunUntilIdle();
        EXPECT_FALSE(r.done());
        EXPECT_LE(dev.outPackets.size(), 16u);  // one microframe's worth
        EXPECT_GE(dev.outPackets.size(), 14u);
        kplat::AdvanceTime(2);
        EXPECT_GE(dev.outPackets.size(), 244u);  // (2 ms + 125 us) / 8.67 us
        EXPECT_LE(dev.outPackets.size(), 246u);
        kplat::AdvanceTime(2);
        EXPECT_FALSE(r.done());
        kplat::AdvanceTime(1);
        ASSERT_TRUE(r.done());
        EXPECT_EQ(r.status, STATUS_SUCCESS);
        EXPECT_EQ(dev.outPackets.size(), 512u);
        EXPECT_EQ(kplat::Now() - start, 50000u);
    }
}

}  // namespace
}  // namespace usbtest
