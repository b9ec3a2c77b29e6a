// The URB records, constants and the usbdlib routines.
#include "usb_fixture.h"

namespace usbtest {
namespace {

class UsbdLib : public ::testing::Test {
protected:
    void SetUp() override {
        config = ConfigurationDescriptor();
        cd = (PUSB_CONFIGURATION_DESCRIPTOR)config.data();
    }
    Bytes config;
    PUSB_CONFIGURATION_DESCRIPTOR cd = nullptr;
};

TEST_F(UsbdLib, ParseFindsInterfacesByCriteria) {
    PUSB_INTERFACE_DESCRIPTOR d = USBD_ParseConfigurationDescriptorEx(cd, cd, -1, -1, 0x0A, -1, -1);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->bInterfaceNumber, 1);
    EXPECT_EQ(d->bAlternateSetting, 0);
    d = USBD_ParseConfigurationDescriptorEx(cd, (PUCHAR)d + d->bLength, -1, -1, 0x0A, -1, -1);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->bAlternateSetting, 1);
    EXPECT_EQ(d->bNumEndpoints, 2);
    EXPECT_EQ(USBD_ParseConfigurationDescriptorEx(cd, cd, 1, 2, -1, -1, -1), nullptr);
}

TEST_F(UsbdLib, CreateConfigurationRequestFillsOneRecordPerEntry) {
    kplat::Scope scope;
    USBD_INTERFACE_LIST_ENTRY list[3] = {};
    list[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1);
    list[1].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 1, 0, -1, -1, -1);
    uint64_t before = kplat::GetPoolTagStats(USBD_POOL_TAG).liveCount;
    PURB urb = USBD_CreateConfigurationRequestEx(cd, list);
    ASSERT_NE(urb, nullptr);
    EXPECT_EQ(kplat::GetPoolTagStats(USBD_POOL_TAG).liveCount, before + 1);
    EXPECT_EQ(urb->UrbHeader.Function, URB_FUNCTION_SELECT_CONFIGURATION);
    EXPECT_EQ(urb->UrbHeader.Length, 40 + 48 + 24);
    EXPECT_EQ(urb->UrbSelectConfiguration.ConfigurationDescriptor, cd);
    EXPECT_EQ(urb->UrbSelectConfiguration.ConfigurationHandle, nullptr);

    PUSBD_INTERFACE_INFORMATION i0 = list[0].Interface, i1 = list[1].Interface;
    ASSERT_EQ(i0, &urb->UrbSelectConfiguration.Interface);
    ASSERT_EQ((PUCHAR)i1, (PUCHAR)i0 + 48);
    EXPECT_EQ(i0->Length, 48);
    EXPECT_EQ(i0->InterfaceNumber, 0);
    EXPECT_EQ(i0->AlternateSetting, 0);
    EXPECT_EQ(i0->NumberOfPipes, 1u);
    EXPECT_EQ(i0->Pipes[0].MaximumTransferSize, USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE);
    EXPECT_EQ(i0->Pipes[0].PipeHandle, nullptr);
    EXPECT_EQ(i1->Length, 24);
    EXPECT_EQ(i1->InterfaceNumber, 1);
    EXPECT_EQ(i1->NumberOfPipes, 0u);
    EXPECT_EQ(list[2].Interface, nullptr);

    ExFreePoolWithTag(urb, 0);  // as the driver frees it
    EXPECT_EQ(kplat::GetPoolTagStats(USBD_POOL_TAG).liveCount, before);
}

}  // namespace
}  // namespace usbtest
