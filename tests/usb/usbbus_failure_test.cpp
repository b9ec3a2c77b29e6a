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

// ---------------------------------------------------------------------------
// Removal
// ---------------------------------------------------------------------------
class UsbBusRemoval : public UsbBusFailure {};

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

}  // namespace
}  // namespace usbtest
