// KnUsbConfiguration: configuration and interface selection, lookups.
#include "knusbconfiguration.h"

#include <cstring>

#include "usblib_fixture.h"

namespace usblibtest {
namespace {

class ConfigurationTest : public UsbLibTest {
protected:
    ~ConfigurationTest() override {
        if (mConfig.IsConfigured()) {
            EXPECT_EQ(STATUS_SUCCESS, mConfig.Unconfigure(&mDevice, false, 500));
        }
    }
    NTSTATUS Select() { return mConfig.PrepareAndSelectConfiguration(&mDevice, 0, 5000, 4096); }
    NTSTATUS SelectDataAlternate(uint8_t alternate) {
        NTSTATUS st = mConfig.PrepareSelectInterface(&mDevice, 1, alternate, 4096);
        return st != STATUS_SUCCESS ? st : mConfig.SelectInterface(&mDevice, 500);
    }

    KnUsbConfiguration mConfig;
};

TEST_F(ConfigurationTest, SelectsAlternateSettingZeroOfEveryInterface) {
    mPdo.configDescriptor = NcmConfig();
    ASSERT_EQ(STATUS_SUCCESS, Select());
    EXPECT_TRUE(mConfig.IsConfigured());
    EXPECT_EQ(ConfigurationHandle(), mConfig.GetConfigurationHandle());
    EXPECT_EQ(1, mConfig.GetConfigurationValue());

    // The request carried alternate setting 0 of both interfaces with the
    // default transfer limit.
    Bytes raw = mPdo.LastUrb(URB_FUNCTION_SELECT_CONFIGURATION);
    PURB urb = (PURB)raw.data();
    EXPECT_EQ(sizeof(struct _URB_SELECT_CONFIGURATION) + 24, urb->UrbHeader.Length);
    EXPECT_EQ(0, urb->UrbSelectConfiguration.Interface.InterfaceNumber);
    EXPECT_EQ(4096u, urb->UrbSelectConfiguration.Interface.Pipes[0].MaximumTransferSize);

    PUSBD_INTERFACE_INFORMATION comm = mConfig.LookupInterfaceInfo(0, 0, 2, 13, -1);
    ASSERT_NE(nullptr, comm);
    EXPECT_EQ(InterfaceHandle(0, 0), comm->InterfaceHandle);
    ASSERT_EQ(1u, comm->NumberOfPipes);
    EXPECT_EQ(PipeHandle(0x81), comm->Pipes[0].PipeHandle);

    PUSBD_PIPE_INFORMATION irq = mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeInterrupt, true, -1, -1);
    ASSERT_NE(nullptr, irq);
    EXPECT_EQ(0x81, irq->EndpointAddress);
    EXPECT_EQ(16, irq->MaximumPacketSize);
    EXPECT_EQ(9, irq->Interval);
    EXPECT_EQ(4096u, irq->MaximumTransferSize);

    // The data interface's alternate setting 0 has no pipes.
    PUSBD_INTERFACE_INFORMATION data = mConfig.LookupInterfaceInfo(1, -1, -1, -1, -1);
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(0, data->AlternateSetting);
    EXPECT_EQ(0u, data->NumberOfPipes);
    EXPECT_EQ(nullptr, mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, true, -1, -1));
    EXPECT_EQ(nullptr, mConfig.LookupPipeInfoByAddress(0x82));
}

TEST_F(ConfigurationTest, DataInterfaceAlternateOneBringsTheBulkPipes) {
    mPdo.configDescriptor = NcmConfig();
    ASSERT_EQ(STATUS_SUCCESS, Select());
    ASSERT_EQ(STATUS_SUCCESS, SelectDataAlternate(1));

    Bytes raw = mPdo.LastUrb(URB_FUNCTION_SELECT_INTERFACE);
    PURB urb = (PURB)raw.data();
    EXPECT_EQ(80u + 24u, urb->UrbHeader.Length);
    EXPECT_EQ(ConfigurationHandle(), urb->UrbSelectInterface.ConfigurationHandle);
    EXPECT_EQ(24u + 2u * 24u, urb->UrbSelectInterface.Interface.Length);
    EXPECT_EQ(2u, urb->UrbSelectInterface.Interface.NumberOfPipes);
    EXPECT_EQ(4096u, urb->UrbSelectInterface.Interface.Pipes[1].MaximumTransferSize);

    PUSBD_PIPE_INFORMATION in = mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, true, -1, -1);
    PUSBD_PIPE_INFORMATION out = mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, false, -1, -1);
    ASSERT_NE(nullptr, in);
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(0x82, in->EndpointAddress);
    EXPECT_EQ(0x03, out->EndpointAddress);
    EXPECT_EQ(512, in->MaximumPacketSize);
    EXPECT_EQ(4096u, in->MaximumTransferSize);
    EXPECT_EQ(4096u, out->MaximumTransferSize);
    EXPECT_EQ(PipeHandle(0x03), out->PipeHandle);
    EXPECT_EQ(out, mConfig.LookupPipeInfoByAddress(0x03));
    EXPECT_EQ(nullptr, mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, true, 1, 0));
    EXPECT_EQ(in, mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, true, 1, 1));
    // One record per interface: alternate 1 replaced alternate 0.
    EXPECT_EQ(nullptr, mConfig.LookupInterfaceInfo(1, 0, -1, -1, -1));
    EXPECT_NE(nullptr, mConfig.LookupInterfaceInfo(1, 1, 0x0A, 0, 1));

    // And back to 0: the bulk pipes are gone again.
    ASSERT_EQ(STATUS_SUCCESS, SelectDataAlternate(0));
    EXPECT_EQ(nullptr, mConfig.LookupPipeInfoByAddress(0x82));
    EXPECT_EQ(80u - 24u, ((PURB)mPdo.LastUrb(URB_FUNCTION_SELECT_INTERFACE).data())->UrbHeader.Length);
}

TEST_F(ConfigurationTest, TooManyInterfacesSelectsNothing) {
    mPdo.configDescriptor = Config({ConfigHeader(0, 2), InterfaceDesc(0, 0, 0, 0xFF, 0, 0),
                                    InterfaceDesc(1, 0, 0, 0xFF, 0, 0), InterfaceDesc(2, 0, 0, 0xFF, 0, 0)});
    EXPECT_EQ(STATUS_BAD_DESCRIPTOR_FORMAT, Select());
    EXPECT_TRUE(Traced("ethbrg:KnUsbConfiguration::PrepareSelectConfiguration: Too many interfaces\n"));
    EXPECT_TRUE(Traced("PrepareAndSelectConfiguration: PrepareSelectConfiguration failed, st=0xC00000E7 (STATUS_BAD_DESCRIPTOR_FORMAT)"));
    EXPECT_FALSE(mConfig.IsConfigured());
    EXPECT_EQ(0u, mPdo.CountFunction(URB_FUNCTION_SELECT_CONFIGURATION));
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG)) << "the whole preparation is released";
}

TEST_F(ConfigurationTest, TooFewInterfacesIsAnInvalidDescriptor) {
    mPdo.configDescriptor = Config({ConfigHeader(0, 2), InterfaceDesc(0, 0, 0, 0xFF, 0, 0),
                                    InterfaceDesc(0, 1, 0, 0xFF, 0, 0)});
    EXPECT_EQ(STATUS_BAD_DESCRIPTOR_FORMAT, Select());
    EXPECT_TRUE(Traced("KnUsbConfiguration::PrepareSelectConfiguration: Invalid configuration descriptor\n"));
    EXPECT_EQ(0u, mPdo.CountFunction(URB_FUNCTION_SELECT_CONFIGURATION));
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG));
}

TEST_F(ConfigurationTest, EndpointDescriptorMissingAtTheEnd) {
    mPdo.configDescriptor = Config({ConfigHeader(0, 1), InterfaceDesc(0, 0, 2, 0xFF, 0, 0), EndpointDesc(0x81, 2, 64)});
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Select());
    EXPECT_TRUE(Traced("KnUsbConfiguration::AddInterfaceInfo: FATAL: missing EP desc\n"));
    EXPECT_TRUE(Traced("KnUsbConfiguration::PrepareSelectConfiguration: AddInterfaceInfo failed\n"));
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG));
    EXPECT_EQ(0u, mPdo.CountFunction(URB_FUNCTION_SELECT_CONFIGURATION));
}

TEST_F(ConfigurationTest, NoEndpointDescriptorBehindTheLastOne) {
    mPdo.configDescriptor = Config({ConfigHeader(0, 1), InterfaceDesc(0, 0, 2, 0xFF, 0, 0), EndpointDesc(0x81, 2, 64),
                                    {4, 0x24, 0, 0}});
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Select());
    EXPECT_TRUE(Traced("KnUsbConfiguration::AddInterfaceInfo: FATAL: no EP desc for pipe 2\n"));
}

TEST_F(ConfigurationTest, ShortEndpointDescriptorAtTheEndIsRefusedNotReadPast) {
    // Type 5 with bLength 4 as the last bytes of the block: its
    // wMaxPacketSize and bInterval would lie past the block.
    mPdo.configDescriptor = Config({ConfigHeader(0, 1), InterfaceDesc(0, 0, 1, 0xFF, 0, 0), {4, 0x05, 0x81, 0x02}});
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Select());
    EXPECT_TRUE(Traced("KnUsbConfiguration::AddInterfaceInfo: FATAL: EP desc for pipe 1 too short (4)\n"));
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG));
}

TEST_F(ConfigurationTest, EndpointsAreTakenInDescriptorOrderAcrossInterfaces) {
    // Interface 0 claims two endpoints but lists one; the walk takes the
    // next interface's endpoint as its second pipe.
    mPdo.configDescriptor = Config({ConfigHeader(0, 2), InterfaceDesc(0, 0, 2, 0xFF, 0, 0),
                                    EndpointDesc(0x81, 3, 8), InterfaceDesc(1, 0, 1, 0xFF, 0, 0),
                                    EndpointDesc(0x02, 2, 64)});
    ASSERT_EQ(STATUS_SUCCESS, mConfig.PrepareSelectConfiguration(&mDevice, 0, 5000, 4096));
    PUSBD_INTERFACE_INFORMATION first = mConfig.LookupInterfaceInfo(0, 0, -1, -1, -1);
    ASSERT_NE(nullptr, first);
    ASSERT_EQ(2u, first->NumberOfPipes);
    EXPECT_EQ(0x02, first->Pipes[1].EndpointAddress);
    EXPECT_EQ(UsbdPipeTypeBulk, first->Pipes[1].PipeType);
    EXPECT_EQ(STATUS_SUCCESS, mConfig.Unconfigure(&mDevice, false, 500)) << "not configured: nothing to do";
}

TEST_F(ConfigurationTest, LookupSkipsEarlierPipesOfTheOtherDirection) {
    mPdo.configDescriptor = Config({ConfigHeader(0, 2), InterfaceDesc(0, 0, 1, 0xFF, 0, 0), EndpointDesc(0x01, 2, 64),
                                    InterfaceDesc(1, 0, 2, 0xFF, 0, 0), EndpointDesc(0x83, 3, 8),
                                    EndpointDesc(0x84, 2, 64)});
    ASSERT_EQ(STATUS_SUCCESS, Select());
    PUSBD_PIPE_INFORMATION in = mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, true, -1, -1);
    ASSERT_NE(nullptr, in);
    EXPECT_EQ(0x84, in->EndpointAddress);
    PUSBD_PIPE_INFORMATION out = mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, false, -1, -1);
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(0x01, out->EndpointAddress);
    EXPECT_EQ(nullptr, mConfig.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, false, 1, -1));
}

TEST_F(ConfigurationTest, FailedSelectionsStayPreparedForAnotherTry) {
    mPdo.configDescriptor = NcmConfig();
    mPdo.failIrpStatus = STATUS_UNSUCCESSFUL;
    mPdo.rule = [](PURB urb) {
        return urb->UrbHeader.Function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE ? Answer::Complete
                                                                                 : Answer::FailIrpOnly;
    };
    EXPECT_EQ(STATUS_UNSUCCESSFUL, Select());
    EXPECT_TRUE(Traced("KnUsbConfiguration::SelectConfiguration: SubmitUrbAndWait failed, st=0xC0000001"));
    EXPECT_TRUE(Traced("KnUsbConfiguration::PrepareAndSelectConfiguration: SelectConfiguration failed"));
    EXPECT_FALSE(mConfig.IsConfigured());

    mPdo.rule = [](PURB) { return Answer::Complete; };
    ASSERT_EQ(STATUS_SUCCESS, mConfig.SelectConfiguration(&mDevice, 5000));
    EXPECT_EQ(2u, mPdo.CountFunction(URB_FUNCTION_SELECT_CONFIGURATION));

    ASSERT_EQ(STATUS_SUCCESS, mConfig.PrepareSelectInterface(&mDevice, 1, 1, 4096));
    mPdo.rule = [](PURB) { return Answer::FailIrpOnly; };
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mConfig.SelectInterface(&mDevice, 500));
    EXPECT_TRUE(Traced("KnUsbConfiguration::SelectInterface: SubmitUrbAndWait failed, st=0xC0000001"));
    // The record of the new alternate setting is there, without handles.
    PUSBD_PIPE_INFORMATION in = mConfig.LookupPipeInfoByAddress(0x82);
    ASSERT_NE(nullptr, in);
    EXPECT_EQ(nullptr, in->PipeHandle);
    mPdo.rule = [](PURB) { return Answer::Complete; };
    ASSERT_EQ(STATUS_SUCCESS, mConfig.SelectInterface(&mDevice, 500));
    EXPECT_EQ(PipeHandle(0x82), mConfig.LookupPipeInfoByAddress(0x82)->PipeHandle);
}

TEST_F(ConfigurationTest, UnconfigureTwice) {
    KnSetTraceMask(0xF);
    mPdo.configDescriptor = NcmConfig();
    ASSERT_EQ(STATUS_SUCCESS, Select());
    mCapture.Take();
    EXPECT_EQ(STATUS_SUCCESS, mConfig.Unconfigure(&mDevice, true, 500));
    EXPECT_FALSE(mConfig.IsConfigured());
    EXPECT_EQ(nullptr, mConfig.LookupInterfaceInfo(-1, -1, -1, -1, -1));
    EXPECT_TRUE(mConfig.GetConfigDescriptor()->IsValid()) << "the descriptor stays loaded";
    Bytes raw = mPdo.LastUrb(URB_FUNCTION_SELECT_CONFIGURATION);
    EXPECT_EQ(88, ((PURB)raw.data())->UrbHeader.Length);
    EXPECT_EQ(nullptr, ((PURB)raw.data())->UrbSelectConfiguration.ConfigurationDescriptor);
    EXPECT_EQ("", mCapture.Text());

    EXPECT_EQ(STATUS_SUCCESS, mConfig.Unconfigure(&mDevice, true, 500));
    EXPECT_EQ("ethbrg:KnUsbConfiguration::Unconfigure: no current configuration selected\n", mCapture.Text());
    EXPECT_EQ(2u, mPdo.CountFunction(URB_FUNCTION_SELECT_CONFIGURATION)) << "the second sends nothing";
}

TEST_F(ConfigurationTest, RecordAllocationFailureReleasesThePreparation) {
    mPdo.configDescriptor = NcmConfig();
    mPdo.rule = [](PURB urb) {
        if (urb->UrbHeader.Function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE &&
            urb->UrbControlDescriptorRequest.TransferBufferLength > 9) {
            // After the full read come the interface list, the request of
            // USBD_CreateConfigurationRequestEx and the first record (32
            // bytes of its own and 48 of copy): fail the record.
            kplat::FailNthAllocation(3);
        }
        return Answer::Complete;
    };
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Select());
    EXPECT_TRUE(Traced("KnUsbConfiguration::AddInterfaceInfo: KnAllocateMemory(80) failed\n"));
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG));
    EXPECT_EQ(0u, kplat::GetPoolTagStats(USBD_POOL_TAG).liveCount);
}

}  // namespace
}  // namespace usblibtest
