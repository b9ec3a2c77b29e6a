// The bus carrying URBs to a device: descriptors, selections, control and
// bulk transfers, packets, Nak, completion context and pacing.
#include "usb_fixture.h"

namespace usbtest {
namespace {

// ---------------------------------------------------------------------------
// Descriptors and control requests
// ---------------------------------------------------------------------------
class UsbBusControl : public BusTest {};

TEST_F(UsbBusControl, DeviceDescriptorReadCompletesFromTheBusDpc) {
    uint8_t buf[64] = {};
    Request& r = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, buf, sizeof(buf));
    EXPECT_EQ(Send(r), STATUS_PENDING);
    kplat::RunUntilIdle();
    ASSERT_EQ(r.completions, 1);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_SUCCESS);
    EXPECT_EQ(r.irql, DISPATCH_LEVEL);
    EXPECT_NE(r.thread, std::this_thread::get_id());  // the bus's DPC, not the submitter
    EXPECT_EQ(r.urb()->UrbControlDescriptorRequest.TransferBufferLength, 18u);
    EXPECT_EQ(Bytes(buf, buf + 18), DeviceDescriptor());
    ASSERT_EQ(dev.setups.size(), 1u);
    EXPECT_EQ(dev.setups[0].bmRequestType, 0x80);
    EXPECT_EQ(dev.setups[0].bRequest, USB_REQUEST_GET_DESCRIPTOR);
    EXPECT_EQ(dev.setups[0].wValue, 0x0100);
    EXPECT_EQ(dev.setups[0].wIndex, 0);
    EXPECT_EQ(dev.setups[0].wLength, 64);
}

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

TEST_F(UsbBusControl, StringDescriptorCarriesIndexAndLanguage) {
    uint8_t buf[255] = {};
    Request& r = DescriptorRequest(USB_STRING_DESCRIPTOR_TYPE, 3, buf, sizeof(buf), 0x0409);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbControlDescriptorRequest.TransferBufferLength, 6u);
    EXPECT_EQ(dev.setups.back().wValue, 0x0303);
    EXPECT_EQ(dev.setups.back().wIndex, 0x0409);
}

TEST_F(UsbBusControl, ClassRequestsToTheInterface) {
    dev.classIn[0x80] = Pattern(28);
    uint8_t params[28] = {};
    Request& in = ClassRequest(0x80, 0, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, params, 28, 0);
    ASSERT_EQ(SendAndRun(in), STATUS_SUCCESS);
    EXPECT_EQ(in.urb()->UrbControlVendorClassRequest.TransferBufferLength, 28u);
    EXPECT_EQ(Bytes(params, params + 28), Pattern(28));
    EXPECT_EQ(dev.setups.back().bmRequestType, 0xA1);
    EXPECT_EQ(dev.setups.back().bRequest, 0x80);
    EXPECT_EQ(dev.setups.back().wIndex, 0);
    EXPECT_EQ(dev.setups.back().wLength, 28);

    uint8_t size[4] = {0x00, 0x40, 0x00, 0x00};
    Request& out = ClassRequest(0x86, 0, 0, size, 4, 0);
    ASSERT_EQ(SendAndRun(out), STATUS_SUCCESS);
    EXPECT_EQ(dev.setups.back().bmRequestType, 0x21);
    EXPECT_EQ(dev.setups.back().bRequest, 0x86);
    ASSERT_FALSE(dev.controlOut.empty());
    EXPECT_EQ(dev.controlOut.back(), Bytes(size, size + 4));
    EXPECT_EQ(out.urb()->UrbControlVendorClassRequest.TransferBufferLength, 4u);

    Request& none = ClassRequest(0x84, 1, 0, nullptr, 0, 0);
    ASSERT_EQ(SendAndRun(none), STATUS_SUCCESS);
    EXPECT_EQ(dev.setups.back().wValue, 1);
    EXPECT_EQ(dev.setups.back().wLength, 0);
}

TEST_F(UsbBusControl, RequestTypeFollowsTheFunction) {
    struct Case {
        USHORT function;
        ULONG flags;
        uint8_t expect;
    } cases[] = {
        {URB_FUNCTION_CLASS_DEVICE, 0, 0x20},   {URB_FUNCTION_CLASS_ENDPOINT, 0, 0x22},
        {URB_FUNCTION_CLASS_OTHER, 0, 0x23},    {URB_FUNCTION_VENDOR_DEVICE, 0, 0x40},
        {URB_FUNCTION_VENDOR_INTERFACE, 1, 0xC1},
    };
    for (const Case& c : cases) {
        dev.classIn[0x01] = {};
        Request& r = NewRequest();
        UsbBuildVendorRequest(r.urb(), c.function, (USHORT)sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                              c.flags | USBD_SHORT_TRANSFER_OK, 0, 0x01, 0x1234, 0x5678, nullptr, NULL, 0, NULL);
        SendAndRun(r);
        EXPECT_EQ(dev.setups.back().bmRequestType, c.expect) << "function " << c.function;
        EXPECT_EQ(dev.setups.back().wValue, 0x1234);
        EXPECT_EQ(dev.setups.back().wIndex, 0x5678);
    }
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

TEST_F(UsbBusControl, StalledRequestFailsAndTheDefaultPipeGoesOn) {
    dev.stallRequests.insert(0x8A);
    Request& r = ClassRequest(0x8A, 0, 0, nullptr, 0);
    EXPECT_EQ(SendAndRun(r), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_STALL_PID);
    uint8_t buf[18];
    Request& next = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, buf, sizeof(buf));
    EXPECT_EQ(SendAndRun(next), STATUS_SUCCESS);
}

TEST_F(UsbBusControl, ControlTransfersReachTheDeviceOneAtATimeInOrder) {
    dev.deferControl = true;
    uint8_t a[18], b[9];
    Request& r1 = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, a, sizeof(a));
    Request& r2 = DescriptorRequest(USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, b, sizeof(b));
    Send(r1);
    Send(r2);
    kplat::RunUntilIdle();
    ASSERT_EQ(dev.pendingControl.size(), 1u);  // the second waits for the first
    EXPECT_EQ(dev.setups[0].wValue, 0x0100);
    dev.AnswerDeferred();
    kplat::RunUntilIdle();
    EXPECT_TRUE(r1.done());
    EXPECT_FALSE(r2.done());
    ASSERT_EQ(dev.pendingControl.size(), 1u);
    EXPECT_EQ(dev.setups[1].wValue, 0x0200);
    dev.AnswerDeferred();
    kplat::RunUntilIdle();
    EXPECT_EQ(r2.status, STATUS_SUCCESS);
    EXPECT_EQ(r2.urb()->UrbControlDescriptorRequest.TransferBufferLength, 9u);
}

TEST_F(UsbBusControl, DeviceAnsweringInsideItsCallCompletesAlike) {
    // The fake device answers inside ControlTransfer unless deferred; the
    // deferred path answers from the test thread. Both give the same result.
    uint8_t a[18] = {}, b[18] = {};
    Request& r1 = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, a, sizeof(a));
    ASSERT_EQ(SendAndRun(r1), STATUS_SUCCESS);
    dev.deferControl = true;
    Request& r2 = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, b, sizeof(b));
    Send(r2);
    kplat::RunUntilIdle();
    dev.AnswerDeferred();
    kplat::RunUntilIdle();
    EXPECT_EQ(r2.status, STATUS_SUCCESS);
    EXPECT_EQ(Bytes(a, a + 18), Bytes(b, b + 18));
}

TEST_F(UsbBusControl, FeatureStatusAndFrameNumber) {
    Request& f = NewRequest();
    UsbBuildFeatureRequest(f.urb(), URB_FUNCTION_SET_FEATURE_TO_DEVICE, USB_FEATURE_REMOTE_WAKEUP, 0, NULL);
    SendAndRun(f);
    EXPECT_EQ(dev.setups.back().bmRequestType, 0x00);
    EXPECT_EQ(dev.setups.back().bRequest, USB_REQUEST_SET_FEATURE);
    EXPECT_EQ(dev.setups.back().wValue, USB_FEATURE_REMOTE_WAKEUP);

    USHORT status = 0xFFFF;
    Request& g = NewRequest();
    g.urb()->UrbHeader.Length = sizeof(struct _URB_CONTROL_GET_STATUS_REQUEST);
    g.urb()->UrbHeader.Function = URB_FUNCTION_GET_STATUS_FROM_DEVICE;
    g.urb()->UrbControlGetStatusRequest.TransferBuffer = &status;
    g.urb()->UrbControlGetStatusRequest.TransferBufferLength = 2;
    ASSERT_EQ(SendAndRun(g), STATUS_SUCCESS);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(dev.setups.back().bmRequestType, 0x80);

    kplat::AdvanceTime(1234);
    Request& n = NewRequest();
    n.urb()->UrbHeader.Length = sizeof(struct _URB_GET_CURRENT_FRAME_NUMBER);
    n.urb()->UrbHeader.Function = URB_FUNCTION_GET_CURRENT_FRAME_NUMBER;
    ASSERT_EQ(SendAndRun(n), STATUS_SUCCESS);
    EXPECT_EQ(n.urb()->UrbGetCurrentFrameNumber.FrameNumber, 1234u);
}

TEST_F(UsbBusControl, PortStatusAndPlugAndPlayRequests) {
    PIRP irp = IoAllocateIrp(bus->Pdo()->StackSize, FALSE);
    ULONG port = 0;
    PIO_STACK_LOCATION s = IoGetNextIrpStackLocation(irp);
    s->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    s->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_GET_PORT_STATUS;
    s->Parameters.Others.Argument1 = &port;
    EXPECT_EQ(IoCallDriver(bus->Pdo(), irp), STATUS_SUCCESS);
    EXPECT_EQ(port, (ULONG)(USBD_PORT_ENABLED | USBD_PORT_CONNECTED));

    IoReuseIrp(irp, STATUS_NOT_SUPPORTED);
    s = IoGetNextIrpStackLocation(irp);
    s->MajorFunction = IRP_MJ_PNP;
    s->MinorFunction = IRP_MN_START_DEVICE;
    EXPECT_EQ(IoCallDriver(bus->Pdo(), irp), STATUS_SUCCESS);

    IoReuseIrp(irp, STATUS_NOT_SUPPORTED);
    s = IoGetNextIrpStackLocation(irp);
    s->MajorFunction = IRP_MJ_PNP;
    s->MinorFunction = 0x09;  // a query the PDO does not answer keeps its status
    EXPECT_EQ(IoCallDriver(bus->Pdo(), irp), STATUS_NOT_SUPPORTED);
    IoFreeIrp(irp);
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
    EXPECT_EQ(bus->ConfigurationValue(), 1);
    ASSERT_FALSE(dev.setups.empty());
    EXPECT_EQ(dev.setups.back().bmRequestType, 0x00);
    EXPECT_EQ(dev.setups.back().bRequest, USB_REQUEST_SET_CONFIGURATION);
    EXPECT_EQ(dev.setups.back().wValue, 1);

    PUSBD_INTERFACE_INFORMATION i0 = list[0].Interface, i1 = list[1].Interface;
    EXPECT_EQ(i0->Class, 0x02);
    EXPECT_EQ(i0->SubClass, 0x0D);
    EXPECT_EQ(i0->Protocol, 0x00);
    EXPECT_NE(i0->InterfaceHandle, nullptr);
    ASSERT_EQ(i0->NumberOfPipes, 1u);
    EXPECT_EQ(i0->Pipes[0].EndpointAddress, kIntIn);
    EXPECT_EQ(i0->Pipes[0].MaximumPacketSize, kIntPacket);
    EXPECT_EQ(i0->Pipes[0].Interval, 9);
    EXPECT_EQ(i0->Pipes[0].PipeType, UsbdPipeTypeInterrupt);
    EXPECT_NE(i0->Pipes[0].PipeHandle, nullptr);
    EXPECT_EQ(i0->Pipes[0].MaximumTransferSize, 4096u);  // the caller's, untouched
    EXPECT_EQ(i1->Class, 0x0A);
    EXPECT_EQ(i1->Protocol, 0x01);
    EXPECT_NE(i1->InterfaceHandle, nullptr);
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
    EXPECT_EQ(dev.setups.back().bmRequestType, 0x01);
    EXPECT_EQ(dev.setups.back().bRequest, USB_REQUEST_SET_INTERFACE);
    EXPECT_EQ(dev.setups.back().wValue, 1);
    EXPECT_EQ(dev.setups.back().wIndex, 1);
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

TEST_F(UsbBusSelect, SelectInterfaceWithoutPipesUsesTheShortRecord) {
    ConfigureAll();
    // 56 bytes exactly: header, handle and a pipe-less interface record.
    Request& r = NewRequest(56);
    UsbBuildSelectInterfaceRequest(r.urb(), 56, configHandle, 1, 0);
    EXPECT_EQ(r.urb()->UrbSelectInterface.Interface.Length, 24);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbSelectInterface.Interface.NumberOfPipes, 0u);
    // The bulk pipes of alternate setting 1 are closed now.
    uint8_t b[8];
    Request& old = BulkRequest(bulkOut, 0, b, 8);
    EXPECT_EQ(Send(old), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(old.urb()->UrbHeader.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
    // The interrupt pipe of the other interface is still open.
    Request& notify = BulkRequest(intPipe, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, b, 8);
    EXPECT_EQ(Send(notify), STATUS_PENDING);
}

TEST_F(UsbBusSelect, ReselectingGivesNewHandlesAndRefusesTheOldOnes) {
    ConfigureAll();
    USBD_PIPE_HANDLE oldOut = bulkOut;
    SelectData();
    EXPECT_NE(bulkOut, oldOut);
    Bytes data = Pattern(10);
    Request& stale = BulkRequest(oldOut, 0, data.data(), 10);
    EXPECT_EQ(Send(stale), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(stale.urb()->UrbHeader.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
    Request& fresh = BulkRequest(bulkOut, 0, data.data(), 10);
    EXPECT_EQ(SendAndRun(fresh), STATUS_SUCCESS);
}

TEST_F(UsbBusSelect, UnconfigureClosesEverything) {
    ConfigureAll();
    uint8_t b[64];
    Request& pending = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, b, sizeof(b));
    Send(pending);
    kplat::RunUntilIdle();
    EXPECT_FALSE(pending.done());  // the device has nothing: Nak

    Request& r = NewRequest(sizeof(struct _URB_SELECT_CONFIGURATION));
    r.urb()->UrbHeader.Length = 88;
    r.urb()->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(dev.setups.back().bRequest, USB_REQUEST_SET_CONFIGURATION);
    EXPECT_EQ(dev.setups.back().wValue, 0);
    EXPECT_EQ(bus->ConfigurationValue(), 0);
    EXPECT_EQ(pending.status, STATUS_CANCELLED);
    EXPECT_EQ(pending.urb()->UrbHeader.Status, USBD_STATUS_CANCELED);

    Request& after = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN, b, sizeof(b));
    EXPECT_EQ(Send(after), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(after.urb()->UrbHeader.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
    Request& si = NewRequest(GET_SELECT_INTERFACE_REQUEST_SIZE(2));
    UsbBuildSelectInterfaceRequest(si.urb(), (USHORT)GET_SELECT_INTERFACE_REQUEST_SIZE(2), configHandle, 1, 1);
    EXPECT_EQ(Send(si), STATUS_INVALID_PARAMETER);
}

TEST_F(UsbBusSelect, StalledSetConfigurationChangesNothing) {
    dev.stallRequests.insert(USB_REQUEST_SET_CONFIGURATION);
    config = ConfigurationDescriptor();
    auto* cd = (PUSB_CONFIGURATION_DESCRIPTOR)config.data();
    USBD_INTERFACE_LIST_ENTRY list[3] = {};
    list[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1);
    list[1].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 1, 0, -1, -1, -1);
    PURB urb = USBD_CreateConfigurationRequestEx(cd, list);
    Request& r = NewRequest(urb->UrbHeader.Length);
    memcpy(r.urb(), urb, urb->UrbHeader.Length);
    ExFreePoolWithTag(urb, 0);
    EXPECT_EQ(SendAndRun(r), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_STALL_PID);
    EXPECT_EQ(r.urb()->UrbSelectConfiguration.ConfigurationHandle, nullptr);
    EXPECT_EQ(r.urb()->UrbSelectConfiguration.Interface.Pipes[0].PipeHandle, nullptr);
    EXPECT_EQ(bus->ConfigurationValue(), 0);
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

TEST_F(UsbBusBulk, TransfersOnAPacketBoundaryGetNoZeroLengthPacket) {
    // Two 1024-byte writes reach the device as one transfer: the bus adds no
    // zero-length packet; the driver's own zero-length write ends it.
    Bytes a = Pattern(1024, 1), b = Pattern(1024, 2);
    Request& r1 = BulkRequest(bulkOut, 0, a.data(), 1024);
    Request& r2 = BulkRequest(bulkOut, 0, b.data(), 1024);
    Send(r1);
    Send(r2);
    kplat::RunUntilIdle();
    EXPECT_EQ(r1.status, STATUS_SUCCESS);
    EXPECT_EQ(r2.status, STATUS_SUCCESS);
    EXPECT_EQ(dev.outPackets.size(), 4u);
    EXPECT_TRUE(dev.outTransfers.empty());

    uint8_t one = 0;
    Request& zlp = BulkRequest(bulkOut, 0, &one, 0);
    ASSERT_EQ(SendAndRun(zlp), STATUS_SUCCESS);
    EXPECT_EQ(zlp.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 0u);
    ASSERT_EQ(dev.outPackets.size(), 5u);
    EXPECT_TRUE(dev.outPackets[4].data.empty());
    ASSERT_EQ(dev.outTransfers.size(), 1u);
    Bytes both = a;
    both.insert(both.end(), b.begin(), b.end());
    EXPECT_EQ(dev.outTransfers[0], both);
}

TEST_F(UsbBusBulk, ZeroLengthWriteWithoutBufferIsOnePacket) {
    Request& r = BulkRequest(bulkOut, 0, nullptr, 0);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    ASSERT_EQ(dev.outPackets.size(), 1u);
    EXPECT_TRUE(dev.outPackets[0].data.empty());
}

TEST_F(UsbBusBulk, InCompletesOnAShortPacket) {
    Bytes p1 = Pattern(512, 3), p2 = Pattern(100, 4);
    dev.QueueIn(kBulkIn, p1);
    dev.QueueIn(kBulkIn, p2);
    Bytes buf(4096);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 4096);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 612u);
    Bytes expect = p1;
    expect.insert(expect.end(), p2.begin(), p2.end());
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 612), expect);
    for (uint32_t m : dev.maxLengths) EXPECT_EQ(m, kBulkPacket);  // the device is asked for whole packets
}

TEST_F(UsbBusBulk, InCompletesOnAZeroLengthPacket) {
    dev.QueueIn(kBulkIn, Pattern(512));
    dev.QueueIn(kBulkIn, {});
    dev.QueueIn(kBulkIn, Pattern(10, 9));
    Bytes buf(2048);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 2048);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 512u);
    EXPECT_EQ(dev.InQueued(kBulkIn), 1u);  // the next transfer's data stays with the device
}

TEST_F(UsbBusBulk, InCompletesWhenTheBufferIsFull) {
    for (int i = 0; i < 3; i++) dev.QueueIn(kBulkIn, Pattern(512, (uint8_t)i));
    Bytes buf(1024);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN, buf.data(), 1024);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 1024u);
    EXPECT_EQ(dev.InQueued(kBulkIn), 1u);
    EXPECT_EQ(dev.inCalls, 2);
}

TEST_F(UsbBusBulk, ShortTransferWithoutShortTransferOkFails) {
    dev.QueueIn(kBulkIn, Pattern(100));
    Bytes buf(1024);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN, buf.data(), 1024);
    EXPECT_EQ(SendAndRun(r), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_ERROR_SHORT_TRANSFER);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 100u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 100), Pattern(100));
    EXPECT_FALSE(bus->IsEndpointHalted(kBulkIn));  // the pipe goes on
    dev.QueueIn(kBulkIn, Pattern(7));
    Request& next = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 1024);
    EXPECT_EQ(SendAndRun(next), STATUS_SUCCESS);
}

TEST_F(UsbBusBulk, PacketLargerThanTheRoomLeftIsAnOverrun) {
    dev.QueueIn(kBulkIn, Pattern(512));
    Bytes buf(100, 0xEE);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 100);
    EXPECT_EQ(SendAndRun(r), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(r.urb()->UrbHeader.Status, USBD_STATUS_DATA_OVERRUN);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 100u);
    Bytes sent = Pattern(512);
    EXPECT_EQ(buf, Bytes(sent.begin(), sent.begin() + 100));
}

TEST_F(UsbBusBulk, MdlBufferIsUsedInsteadOfThePointer) {
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 2048, kplat::MakeTag("UTst"));
    PMDL mdl = IoAllocateMdl(block, 2048, FALSE, FALSE, NULL);
    MmBuildMdlForNonPagedPool(mdl);
    dev.QueueIn(kBulkIn, Pattern(300, 5));
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, nullptr, 2048, mdl);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(Bytes((uint8_t*)block, (uint8_t*)block + 300), Pattern(300, 5));
    IoFreeMdl(mdl);
    ExFreePoolWithTag(block, 0);
}

TEST_F(UsbBusBulk, TransfersOfAPipeCompleteInSubmissionOrder) {
    for (int i = 0; i < 4; i++) dev.QueueIn(kBulkIn, Pattern(10 + i, (uint8_t)i));
    std::vector<Bytes> bufs(4, Bytes(64));
    std::vector<int> order;
    std::mutex m;
    for (int i = 0; i < 4; i++) {
        Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, bufs[i].data(), 64);
        r.onComplete = [&order, &m, i](Request&) {
            std::lock_guard<std::mutex> lk(m);
            order.push_back(i);
        };
        Send(r);
    }
    kplat::RunUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(Bytes(bufs[i].begin(), bufs[i].begin() + 10 + i), Pattern(10 + i, (uint8_t)i));
    }
}

TEST_F(UsbBusBulk, PipesTakeTurnsPacketByPacket) {
    // Both transfers wait (Nak) until the device makes both endpoints ready
    // at once, from inside one of the bus's calls; from then on the bus
    // serves the two pipes a packet each in turn.
    dev.SetNakOut(true);
    Bytes out = Pattern(1536), in(4096);
    Request& w = BulkRequest(bulkOut, 0, out.data(), 1536);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, in.data(), 4096);
    Send(w);
    Send(r);
    kplat::RunUntilIdle();
    ASSERT_FALSE(w.done());
    ASSERT_FALSE(r.done());
    for (int i = 0; i < 3; i++) dev.QueueIn(kBulkIn, Pattern(512));
    dev.QueueIn(kBulkIn, {});
    dev.SetNakOut(false);
    dev.onControl = [this] {
        dev.port->EndpointReady(kBulkOut);
        dev.port->EndpointReady(kBulkIn);
    };
    size_t start = dev.callLog.size();
    Request& c = ClassRequest(0x84, 0, 0, nullptr, 0);
    SendAndRun(c);
    EXPECT_EQ(w.status, STATUS_SUCCESS);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    Bytes seen(dev.callLog.begin() + start, dev.callLog.end());
    EXPECT_EQ(seen, (Bytes{kBulkIn, kBulkOut, kBulkIn, kBulkOut, kBulkIn, kBulkOut, kBulkIn}));
}

TEST_F(UsbBusBulk, InterruptPipeCarriesNotifications) {
    Bytes note = {0xA1, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00};
    dev.QueueIn(kIntIn, note);
    Bytes buf(16);
    Request& r = BulkRequest(intPipe, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 16);
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 8u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 8), note);
    for (uint32_t m : dev.maxLengths) EXPECT_EQ(m, kIntPacket);
}

// ---------------------------------------------------------------------------
// Nak
// ---------------------------------------------------------------------------
class UsbBusNak : public UsbBusBulk {};

TEST_F(UsbBusNak, InStaysPendingUntilTheEndpointIsReady) {
    Bytes buf(2048);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 2048);
    Send(r);
    kplat::RunUntilIdle();
    EXPECT_FALSE(r.done());
    int polled = dev.inCalls;
    kplat::AdvanceTime(5000);
    EXPECT_FALSE(r.done());
    EXPECT_EQ(dev.inCalls, polled);  // no busy polling after a Nak
    EXPECT_EQ(bus->PendingRequests(), 1u);
    dev.QueueIn(kBulkIn, Pattern(40));
    dev.port->EndpointReady(kBulkIn);
    kplat::RunUntilIdle();
    ASSERT_TRUE(r.done());
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 40u);
    EXPECT_GE(bus->Stats().naks, 1u);
}

TEST_F(UsbBusNak, ReadyForAnotherEndpointDoesNotWakeThePipe) {
    Bytes buf(64);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 64);
    Send(r);
    kplat::RunUntilIdle();
    int polled = dev.inCalls;
    dev.port->EndpointReady(kIntIn);
    kplat::RunUntilIdle();
    EXPECT_EQ(dev.inCalls, polled);
    EXPECT_FALSE(r.done());
}

TEST_F(UsbBusNak, ReadySignalledDuringTheNakIsNotLost) {
    dev.readyDuringNak = true;
    dev.readyDuringNakPacket = Pattern(33);
    Bytes buf(64);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 64);
    Send(r);
    kplat::RunUntilIdle();
    ASSERT_TRUE(r.done());
    EXPECT_EQ(r.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 33u);
}

TEST_F(UsbBusNak, OutWaitsForBufferSpaceAndResumesMidTransfer) {
    Bytes data = Pattern(1200);
    dev.SetNakOut(true);
    Request& r = BulkRequest(bulkOut, 0, data.data(), 1200);
    Send(r);
    kplat::RunUntilIdle();
    EXPECT_FALSE(r.done());
    EXPECT_TRUE(dev.outPackets.empty());
    dev.SetNakOut(false);
    dev.port->EndpointReady(kBulkOut);
    kplat::RunUntilIdle();
    ASSERT_EQ(r.status, STATUS_SUCCESS);
    ASSERT_EQ(dev.outTransfers.size(), 1u);
    EXPECT_EQ(dev.outTransfers[0], data);
}

TEST_F(UsbBusNak, ANakedPipeDoesNotHoldUpTheOthers) {
    Bytes in(64), out = Pattern(100);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, in.data(), 64);
    Request& w = BulkRequest(bulkOut, 0, out.data(), 100);
    Send(r);
    Send(w);
    kplat::RunUntilIdle();
    EXPECT_FALSE(r.done());
    EXPECT_EQ(w.status, STATUS_SUCCESS);
}

// ---------------------------------------------------------------------------
// Where completion runs
// ---------------------------------------------------------------------------
class UsbBusCompletion : public UsbBusBulk {};

TEST_F(UsbBusCompletion, InlineCompletionRunsInsideTheSubmittingCall) {
    bus->SetInlineCompletion(true);
    Bytes data = Pattern(100);
    Request& r = BulkRequest(bulkOut, 0, data.data(), 100);
    EXPECT_EQ(Send(r), STATUS_PENDING);  // still pending by the protocol
    ASSERT_TRUE(r.done());
    EXPECT_TRUE(r.completedInCall);
    EXPECT_EQ(r.irql, DISPATCH_LEVEL);
    EXPECT_EQ(r.thread, std::this_thread::get_id());
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);  // given back to the caller
    EXPECT_EQ(r.status, STATUS_SUCCESS);
}

TEST_F(UsbBusCompletion, InlineModeStillPendsWhatTheDeviceCannotDoYet) {
    bus->SetInlineCompletion(true);
    Bytes buf(64);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 64);
    EXPECT_EQ(Send(r), STATUS_PENDING);
    EXPECT_FALSE(r.done());
    dev.QueueIn(kBulkIn, Pattern(5));
    dev.port->EndpointReady(kBulkIn);
    kplat::RunUntilIdle();
    ASSERT_TRUE(r.done());
    EXPECT_FALSE(r.completedInCall);
    EXPECT_EQ(r.irql, DISPATCH_LEVEL);
}

TEST_F(UsbBusCompletion, ResubmittingFromTheCompletionRoutineDoesNotRecurse) {
    bus->SetInlineCompletion(true);
    for (int i = 0; i < 50; i++) dev.QueueIn(kBulkIn, Pattern(20, (uint8_t)i));
    Bytes buf(64);
    Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, buf.data(), 64);
    int depth = 0, maxDepth = 0, rounds = 0;
    r.onComplete = [&](Request& req) {
        depth++;
        maxDepth = std::max(maxDepth, depth);
        if (++rounds < 50) {
            req.urb()->UrbBulkOrInterruptTransfer.TransferBufferLength = 64;
            Send(req);
        }
        depth--;
    };
    Send(r);
    kplat::RunUntilIdle();
    EXPECT_EQ(rounds, 50);
    EXPECT_EQ(maxDepth, 1);
    EXPECT_EQ(dev.InQueued(kBulkIn), 0u);
}

TEST_F(UsbBusCompletion, SubmissionAtDispatchLevelIsAccepted) {
    Bytes data = Pattern(10);
    Request& r = BulkRequest(bulkOut, 0, data.data(), 10);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(Send(r), STATUS_PENDING);
    KeLowerIrql(old);
    kplat::RunUntilIdle();
    EXPECT_EQ(r.status, STATUS_SUCCESS);
}

// ---------------------------------------------------------------------------
// Pacing
// ---------------------------------------------------------------------------
class UsbBusPacing : public UsbBusBulk {};

TEST_F(UsbBusPacing, TransfersTakeTheTimeOfTheLinkRate) {
    bus->SetLinkRate(kplat::UsbBus::LinkRate(kplat::UsbSpeed::High));
    // 512 packets of 512 bytes: (520 bytes x 8) / 480 Mbit/s = 8.67 us each,
    // 4.44 ms in all; the bus may run 125 us ahead of the clock.
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

TEST_F(UsbBusPacing, OffByDefaultAndSwitchable) {
    Bytes data = Pattern(1 << 20);
    Request& r = BulkRequest(bulkOut, 0, data.data(), (ULONG)data.size());
    ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);  // unpaced: no time passes
    bus->SetLinkRate(kplat::UsbBus::LinkRate(kplat::UsbSpeed::Super));
    // 2048 packets at 5 Gbit/s: 0.832 us each, 1.7 ms in all.
    Request& r2 = BulkRequest(bulkOut, 0, data.data(), (ULONG)data.size());
    Send(r2);
    kplat::RunUntilIdle();
    EXPECT_FALSE(r2.done());
    kplat::AdvanceTime(2);
    EXPECT_TRUE(r2.done());
    bus->SetLinkRate(0);
    Request& r3 = BulkRequest(bulkOut, 0, data.data(), (ULONG)data.size());
    EXPECT_EQ(SendAndRun(r3), STATUS_SUCCESS);
}

}  // namespace
}  // namespace usbtest
