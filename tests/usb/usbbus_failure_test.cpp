// The bus when things go wrong: cancel, abort, stall, removal and URBs a
// real bus driver refuses.
#include "usb_fixture.h"

namespace usbtest {
namespace {

class UsbBusFailure : public BusTest {
protected:
    void SetUp() override {
        BusTest::SetUp();
        ConfigureAll();
    }
    Request& PendingRead(Bytes& buf) {
        Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(),
                                 (ULONG)buf.size());
        Send(r);
        kplat::RunUntilIdle();
        EXPECT_FALSE(r.done());
        return r;
    }
};

// ---------------------------------------------------------------------------
// Cancel and abort
// ---------------------------------------------------------------------------
class UsbBusCancel : public UsbBusFailure {};

TEST_F(UsbBusCancel, CancelCompletesAPendingTransferOnce) {
    Bytes buf(512);
    Request& r = PendingRead(buf);
    EXPECT_TRUE(IoCancelIrp(r.irp));
    EXPECT_EQ(r.completions, 1);  // the cancel routine completes it at once
    EXPECT_EQ(r.status, STATUS_CANCELLED);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_CANCELED);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 0u);
    kplat::RunUntilIdle();
    EXPECT_EQ(r.completions, 1);
    EXPECT_EQ(bus->PendingRequests(), 0u);
    ASSERT_EQ(dev.aborted.size(), 1u);  // the device had seen the transfer
    EXPECT_EQ(dev.aborted[0], kBulkIn);
    EXPECT_FALSE(IoCancelIrp(r.irp));  // nothing to cancel any more
    EXPECT_EQ(r.completions, 1);
    // The pipe is usable afterwards.
    dev.QueueIn(kBulkIn, Pattern(3));
    Request& next = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 512);
    EXPECT_EQ(SendAndRun(next), STATUS_SUCCESS);
}

TEST_F(UsbBusCancel, ControlTransferAnsweredAndCancelledBeforeTheBusSawTheAnswer) {
    dev.deferControl = true;
    dev.classIn[0x80] = Pattern(28);
    uint8_t buf[28];
    Request& ctl = ClassRequest(0x80, 0, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf, 28);
    Send(ctl);
    kplat::RunUntilIdle();
    ASSERT_EQ(dev.pendingControl.size(), 1u);
    // While the bus is busy completing a write (its completion routine runs
    // inside the bus's DPC), the device answers and the driver cancels: the
    // bus only sees the answer afterwards.
    Bytes data = Pattern(4);
    Request& w = BulkRequest(bulkOut, 0, data.data(), 4);
    w.onComplete = [&](Request&) {
        dev.AnswerDeferred();
        EXPECT_TRUE(IoCancelIrp(ctl.irp));
    };
    SendAndRun(w);
    EXPECT_EQ(ctl.completions, 1);
    EXPECT_EQ(ctl.status, STATUS_CANCELLED);
    EXPECT_EQ(bus->PendingRequests(), 0u);
}

TEST_F(UsbBusCancel, CancelWhileTheDeviceHandlesAPacket) {
    // The cancel comes while the bus is inside the device's call for the
    // transfer (the device answers Nak): the bus completes it right after.
    Bytes buf(512);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 512);
    bool cancelled = false;
    dev.onIn = [&] {
        if (!cancelled) cancelled = IoCancelIrp(r.irp);
        EXPECT_FALSE(r.done());  // not from inside the device's call
    };
    SendAndRun(r);
    EXPECT_TRUE(cancelled);
    ASSERT_EQ(r.completions, 1);
    EXPECT_EQ(r.status, STATUS_CANCELLED);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_CANCELED);
    ASSERT_EQ(dev.aborted.size(), 1u);
    EXPECT_EQ(dev.aborted[0], kBulkIn);
    EXPECT_EQ(bus->PendingRequests(), 0u);
}

TEST_F(UsbBusCancel, CancelDuringTheLastPacketStillDeliversTheData) {
    // The packet that ends the transfer was taken: the data is the driver's,
    // so the transfer completes normally despite the cancel.
    dev.QueueIn(kBulkIn, Pattern(30));
    Bytes buf(512);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 512);
    dev.onIn = [&] { IoCancelIrp(r.irp); };
    SendAndRun(r);
    ASSERT_EQ(r.completions, 1);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 30u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 30), Pattern(30));
}

TEST_F(UsbBusCancel, CancelWhileTheDeviceTakesAControlTransfer) {
    dev.deferControl = true;
    uint8_t buf[28];
    Request& r = ClassRequest(0x80, 0, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf, 28);
    dev.onControl = [&] { EXPECT_TRUE(IoCancelIrp(r.irp)); };
    SendAndRun(r);
    ASSERT_EQ(r.completions, 1);
    EXPECT_EQ(r.status, STATUS_CANCELLED);
    ASSERT_EQ(dev.aborted.size(), 1u);
    EXPECT_EQ(dev.aborted[0], 0x00);
    dev.onControl = nullptr;
    dev.AnswerDeferred();  // too late: dropped
    kplat::RunUntilIdle();
    EXPECT_EQ(r.completions, 1);
    dev.deferControl = false;
    uint8_t dd[18];
    Request& next = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, dd, sizeof(dd));
    EXPECT_EQ(SendAndRun(next), STATUS_SUCCESS);
}

TEST_F(UsbBusCancel, CancelOneOfSeveralKeepsTheOthersInOrder) {
    std::vector<Bytes> bufs(3, Bytes(64));
    std::vector<Request*> rs;
    for (auto& b : bufs) {
        rs.push_back(&BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, b.data(), 64));
        Send(*rs.back());
    }
    kplat::RunUntilIdle();
    EXPECT_TRUE(IoCancelIrp(rs[1]->irp));
    EXPECT_EQ(rs[1]->status, STATUS_CANCELLED);
    dev.QueueIn(kBulkIn, Pattern(1, 1));
    dev.QueueIn(kBulkIn, Pattern(2, 2));
    dev.port->EndpointReady(kBulkIn);
    kplat::RunUntilIdle();
    EXPECT_EQ(rs[0]->status, STATUS_SUCCESS);
    EXPECT_EQ(rs[0]->urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 1u);
    EXPECT_EQ(rs[2]->status, STATUS_SUCCESS);
    EXPECT_EQ(rs[2]->urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 2u);
}

TEST_F(UsbBusCancel, AbortPipeCompletesEveryPendingTransfer) {
    Bytes b1(512), b2(512);
    Request& r1 = PendingRead(b1);
    Request& r2 = PendingRead(b2);
    std::vector<int> order;
    std::mutex m;
    r1.onComplete = [&](Request&) {
        std::lock_guard<std::mutex> lk(m);
        order.push_back(1);
    };
    r2.onComplete = [&](Request&) {
        std::lock_guard<std::mutex> lk(m);
        order.push_back(2);
    };
    Request& abort = PipeRequest(URB_FUNCTION_ABORT_PIPE, bulkIn);
    abort.onComplete = [&](Request&) {
        std::lock_guard<std::mutex> lk(m);
        order.push_back(3);
    };
    EXPECT_EQ(SendAndRun(abort), STATUS_SUCCESS);
    EXPECT_EQ(abort.urb()->UrbHeader.Status, USBD_STATUS_SUCCESS);
    EXPECT_EQ(r1.status, STATUS_CANCELLED);
    EXPECT_EQ(r2.status, STATUS_CANCELLED);
    EXPECT_EQ(r1.urb()->UrbHeader.Status, USBD_STATUS_CANCELED);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));  // the abort completes last
    EXPECT_EQ(bus->PendingRequests(), 0u);
    ASSERT_FALSE(dev.aborted.empty());
    EXPECT_EQ(dev.aborted.back(), kBulkIn);
    // Other pipes are untouched, and the aborted pipe works again.
    Bytes data = Pattern(20);
    Request& w = BulkRequest(bulkOut, 0, data.data(), 20);
    EXPECT_EQ(SendAndRun(w), STATUS_SUCCESS);
    dev.QueueIn(kBulkIn, Pattern(9));
    Request& again = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, b1.data(), 512);
    EXPECT_EQ(SendAndRun(again), STATUS_SUCCESS);
}

TEST_F(UsbBusCancel, ASlowAbortGivesItsTransfersBackLater) {
    Bytes b(512);
    Request& r = PendingRead(b);
    bus->HoldAbortedTransfers(kBulkIn, 100);
    EXPECT_EQ(SendAndRun(PipeRequest(URB_FUNCTION_ABORT_PIPE, bulkIn)), STATUS_SUCCESS);
    IoCancelIrp(r.irp);
    kplat::AdvanceTime(99);
    EXPECT_EQ(r.completions, 0);
    kplat::AdvanceTime(1);
    EXPECT_EQ(r.completions, 1);
    EXPECT_EQ(r.status, STATUS_CANCELLED);
}

TEST_F(UsbBusCancel, CancelRacesWithCompletionFromAnotherThread) {
    // Reads complete on the DPC thread while this thread cancels them:
    // each must complete exactly once (a second completion is a check
    // failure that aborts the test).
    constexpr int kRounds = 200;
    Bytes buf(64);
    int cancelled = 0, succeeded = 0;
    for (int i = 0; i < kRounds; i++) {
        Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 64);
        Send(r);
        dev.QueueIn(kBulkIn, Pattern(4));
        dev.port->EndpointReady(kBulkIn);
        IoCancelIrp(r.irp);
        kplat::RunUntilIdle();
        ASSERT_EQ(r.completions, 1) << "round " << i;
        if (r.status == STATUS_CANCELLED) cancelled++;
        else if (r.status == STATUS_SUCCESS) succeeded++;
        // Whatever the read did not take is drained for the next round.
        while (dev.InQueued(kBulkIn)) {
            Request& d = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 64);
            ASSERT_EQ(SendAndRun(d), STATUS_SUCCESS);
        }
    }
    EXPECT_EQ(cancelled + succeeded, kRounds);
    EXPECT_EQ(bus->PendingRequests(), 0u);
}

// ---------------------------------------------------------------------------
// Stall
// ---------------------------------------------------------------------------
class UsbBusStall : public UsbBusFailure {};

TEST_F(UsbBusStall, StalledEndpointFailsUntilResetAndClearStall) {
    dev.Stall(kBulkIn, true);
    Bytes buf(512);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 512);
    EXPECT_EQ(SendAndRun(r), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_STALL_PID);
    EXPECT_TRUE(bus->IsEndpointHalted(kBulkIn));
    int calls = dev.inCalls;

    // Halted on the host side too: later transfers fail without the device.
    Request& again = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 512);
    EXPECT_EQ(SendAndRun(again), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(again.urb()->UrbHeader.Status, USBD_STATUS_STALL_PID);
    EXPECT_EQ(dev.inCalls, calls);

    Request& reset = PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, bulkIn);
    EXPECT_EQ(SendAndRun(reset), STATUS_SUCCESS);
    EXPECT_EQ(dev.setups.back().bmRequestType, 0x02);
    EXPECT_EQ(dev.setups.back().bRequest, USB_REQUEST_CLEAR_FEATURE);
    EXPECT_EQ(dev.setups.back().wValue, USB_FEATURE_ENDPOINT_STALL);
    EXPECT_EQ(dev.setups.back().wIndex, kBulkIn);
    EXPECT_FALSE(bus->IsEndpointHalted(kBulkIn));

    dev.QueueIn(kBulkIn, Pattern(12));
    Request& ok = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 512);
    EXPECT_EQ(SendAndRun(ok), STATUS_SUCCESS);
}

TEST_F(UsbBusStall, StallFailsEveryQueuedTransferOfThePipe) {
    Bytes b1(64), b2(64), b3(64);
    Request& r1 = PendingRead(b1);
    Request& r2 = PendingRead(b2);
    Request& r3 = PendingRead(b3);
    dev.Stall(kBulkIn, true);
    dev.port->EndpointReady(kBulkIn);
    kplat::RunUntilIdle();
    for (Request* r : {&r1, &r2, &r3}) {
        EXPECT_EQ(r->status, STATUS_UNSUCCESSFUL);
        EXPECT_EQ(r->urb()->UrbHeader.Status, USBD_STATUS_STALL_PID);
    }
    EXPECT_EQ(bus->Stats().stalls, 1u);
}

// ---------------------------------------------------------------------------
// Removal
// ---------------------------------------------------------------------------
class UsbBusRemoval : public UsbBusFailure {};

TEST_F(UsbBusRemoval, DisconnectCompletesEverythingPendingWithDeviceGone) {
    Bytes buf(512);
    Request& read = PendingRead(buf);
    dev.deferControl = true;
    uint8_t stat[4];
    Request& ctl = ClassRequest(0x44, 1, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, stat, 4);
    Request& queued = ClassRequest(0x44, 2, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, stat, 4);
    Send(ctl);
    Send(queued);
    kplat::RunUntilIdle();
    ASSERT_EQ(bus->PendingRequests(), 3u);

    dev.port->Disconnect();
    EXPECT_FALSE(bus->IsAttached());
    kplat::RunUntilIdle();
    for (Request* r : {&read, &ctl, &queued}) {
        ASSERT_EQ(r->completions, 1);
        EXPECT_EQ(r->status, STATUS_DEVICE_NOT_CONNECTED);
        EXPECT_EQ(r->urb()->UrbHeader.Status, USBD_STATUS_DEVICE_GONE);
        EXPECT_EQ(r->irql, DISPATCH_LEVEL);
    }
    EXPECT_EQ(dev.detached, 1);
    EXPECT_EQ(bus->PendingRequests(), 0u);
}

TEST_F(UsbBusRemoval, RequestsAfterRemovalFailAtOnce) {
    bus->Unplug();  // done when it returns
    EXPECT_EQ(dev.detached, 1);
    uint8_t dd[18];
    Request& r = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, dd, sizeof(dd));
    EXPECT_EQ(Send(r), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_TRUE(r.completedInCall);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_DEVICE_GONE);
    Bytes data = Pattern(4);
    Request& w = BulkRequest(bulkOut, 0, data.data(), 4);
    EXPECT_EQ(Send(w), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(dev.calls, (int)dev.setups.size());  // no data packet reached the device

    PIRP irp = IoAllocateIrp(bus->Pdo()->StackSize, FALSE);
    ULONG port = 0xFF;
    PIO_STACK_LOCATION s = IoGetNextIrpStackLocation(irp);
    s->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    s->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_GET_PORT_STATUS;
    s->Parameters.Others.Argument1 = &port;
    EXPECT_EQ(IoCallDriver(bus->Pdo(), irp), STATUS_SUCCESS);
    EXPECT_EQ(port, 0u);
    IoFreeIrp(irp);
}

TEST_F(UsbBusRemoval, DestroyingTheBusCompletesWhatItHolds) {
    Bytes buf(64);
    Request& r = PendingRead(buf);
    bus.reset();
    EXPECT_EQ(r.completions, 1);
    EXPECT_EQ(r.status, STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(dev.detached, 1);
}

// ---------------------------------------------------------------------------
// URBs the bus refuses
// ---------------------------------------------------------------------------
class UsbBusBadUrb : public UsbBusFailure {
protected:
    // Submits and checks the synchronous refusal.
    void ExpectRefused(Request& r, USBD_STATUS usbd, NTSTATUS irp = STATUS_INVALID_PARAMETER) {
        EXPECT_EQ(Send(r), irp);
        EXPECT_EQ(r.completions, 1);
        EXPECT_TRUE(r.completedInCall);
        EXPECT_EQ(r.status, irp);
        EXPECT_EQ(r.urb()->UrbHeader.Status, usbd);
        kplat::RunUntilIdle();
        EXPECT_EQ(r.completions, 1);
    }
};

TEST_F(UsbBusBadUrb, RefusedAtOnce) {
    Bytes data = Pattern(64);
    uint8_t dd[18];
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 100, kplat::MakeTag("UTst"));
    PMDL mdl = IoAllocateMdl(block, 100, FALSE, FALSE, NULL);
    MmBuildMdlForNonPagedPool(mdl);
    const ULONG in = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    auto withLength = [](Request& r, USHORT length) -> Request& {
        r.urb()->UrbHeader.Length = length;
        return r;
    };
    auto function = [&](USHORT f, USHORT length) -> Request& {
        Request& r = NewRequest();
        r.urb()->UrbHeader.Length = length;
        r.urb()->UrbHeader.Function = f;
        return r;
    };
    struct Case {
        const char* name;
        Request& r;
        USBD_STATUS usbd;
        NTSTATUS irp;
    } cases[] = {
        {"bulk header too short", withLength(BulkRequest(bulkOut, 0, data.data(), 16), 100),
         USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
        {"descriptor header too short",
         withLength(DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, dd, sizeof(dd)), 24),
         USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
        {"pipe request header too short", withLength(PipeRequest(URB_FUNCTION_ABORT_PIPE, bulkIn), 32),
         USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
        {"class request of 8 bytes", function(URB_FUNCTION_CLASS_INTERFACE, 8), USBD_STATUS_INVALID_PARAMETER,
         STATUS_INVALID_PARAMETER},
        {"unknown function", function(0x7777, sizeof(URB)), USBD_STATUS_INVALID_URB_FUNCTION,
         STATUS_INVALID_PARAMETER},
        {"isochronous", function(URB_FUNCTION_ISOCH_TRANSFER, sizeof(URB)), USBD_STATUS_NOT_SUPPORTED,
         STATUS_NOT_SUPPORTED},
        {"foreign pipe handle", BulkRequest((USBD_PIPE_HANDLE)0x1234, 0, data.data(), 16),
         USBD_STATUS_INVALID_PIPE_HANDLE, STATUS_INVALID_PARAMETER},
        {"null pipe handle", BulkRequest(nullptr, 0, data.data(), 16), USBD_STATUS_INVALID_PIPE_HANDLE,
         STATUS_INVALID_PARAMETER},
        {"reset of a foreign pipe",
         PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, (USBD_PIPE_HANDLE)0x1234),
         USBD_STATUS_INVALID_PIPE_HANDLE, STATUS_INVALID_PARAMETER},
        {"IN on the OUT pipe", BulkRequest(bulkOut, in, data.data(), 64), USBD_STATUS_INVALID_PARAMETER,
         STATUS_INVALID_PARAMETER},
        {"OUT on the IN pipe", BulkRequest(bulkIn, 0, data.data(), 64), USBD_STATUS_INVALID_PARAMETER,
         STATUS_INVALID_PARAMETER},
        {"unknown flags", BulkRequest(bulkOut, 0x100, data.data(), 64), USBD_STATUS_INVALID_PARAMETER,
         STATUS_INVALID_PARAMETER},
        {"length without buffer", BulkRequest(bulkOut, 0, nullptr, 64), USBD_STATUS_INVALID_PARAMETER,
         STATUS_INVALID_PARAMETER},
        {"class length without buffer", ClassRequest(0x80, 0, USBD_TRANSFER_DIRECTION_IN, nullptr, 28),
         USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
        {"MDL shorter than the transfer", BulkRequest(bulkOut, 0, nullptr, 200, mdl),
         USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        ExpectRefused(c.r, c.usbd, c.irp);
    }
    EXPECT_EQ(dev.inCalls, 0);
    EXPECT_TRUE(dev.outPackets.empty());
    IoFreeMdl(mdl);
    ExFreePoolWithTag(block, 0);
}

TEST_F(UsbBusBadUrb, BadSelections) {
    Bytes cfg = ConfigurationDescriptor();
    auto* cd = (PUSB_CONFIGURATION_DESCRIPTOR)cfg.data();
    USBD_INTERFACE_LIST_ENTRY list[3] = {};
    list[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1);
    list[1].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 1, 0, -1, -1, -1);
    PURB pool = USBD_CreateConfigurationRequestEx(cd, list);
    Bytes good((uint8_t*)pool, (uint8_t*)pool + pool->UrbHeader.Length);
    ExFreePoolWithTag(pool, 0);
    auto fresh = [&]() -> Request& {
        Request& r = NewRequest(good.size());
        memcpy(r.urb(), good.data(), good.size());
        r.urb()->UrbSelectConfiguration.ConfigurationDescriptor = cd;
        return r;
    };

    cfg[1] = USB_DEVICE_DESCRIPTOR_TYPE;  // not a configuration descriptor
    ExpectRefused(fresh(), USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR);
    cfg[1] = USB_CONFIGURATION_DESCRIPTOR_TYPE;
    cfg[9 + 9 + 5] = 0;  // a descriptor of length 0 inside the block
    ExpectRefused(fresh(), USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR);
    cfg[9 + 9 + 5] = 5;

    Request& noAlt = fresh();
    auto* i1 = (PUSBD_INTERFACE_INFORMATION)((uint8_t*)noAlt.urb() + 40 + 48);
    i1->AlternateSetting = 5;
    ExpectRefused(noAlt, USBD_STATUS_INTERFACE_NOT_FOUND);

    Request& truncated = fresh();
    truncated.urb()->UrbHeader.Length = 40 + 48;  // the second record is missing
    ExpectRefused(truncated, USBD_STATUS_INVALID_PARAMETER);

    Request& si = NewRequest(GET_SELECT_INTERFACE_REQUEST_SIZE(2));
    UsbBuildSelectInterfaceRequest(si.urb(), (USHORT)GET_SELECT_INTERFACE_REQUEST_SIZE(2), (PVOID)0x5678, 1, 1);
    ExpectRefused(si, USBD_STATUS_INVALID_PARAMETER);  // not the configuration handle
    Request& si3 = NewRequest(56);
    UsbBuildSelectInterfaceRequest(si3.urb(), 56, configHandle, 1, 1);  // two pipes, room for none
    ExpectRefused(si3, USBD_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(bus->ConfigurationValue(), 1);  // nothing changed
}

TEST_F(UsbBusBadUrb, NotAUrbRequest) {
    uint8_t dd[18];
    Request& wrongCode = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, dd, sizeof(dd));
    EXPECT_EQ(Send(wrongCode, 0x220007 + 0x100), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(wrongCode.urb()->UrbHeader.Status, (USBD_STATUS)0xFFFFFFFF);  // untouched

    Request& noUrb = NewRequest();
    noUrb.irp = IoAllocateIrp(bus->Pdo()->StackSize, FALSE);
    PIO_STACK_LOCATION s = IoGetNextIrpStackLocation(noUrb.irp);
    s->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    s->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    s->Parameters.Others.Argument1 = nullptr;
    IoSetCompletionRoutine(noUrb.irp, CompletionRoutine, &noUrb, TRUE, TRUE, TRUE);
    EXPECT_EQ(IoCallDriver(bus->Pdo(), noUrb.irp), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(noUrb.completions, 1);
    EXPECT_EQ(bus->Stats().urbsRefused, 1u);
}

}  // namespace
}  // namespace usbtest
