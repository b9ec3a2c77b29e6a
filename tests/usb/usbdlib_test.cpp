// The URB records, constants and the usbdlib routines.
#include "usb_fixture.h"

namespace usbtest {
namespace {

// The sizes the driver computes by hand must be the records' sizes.
TEST(UsbHeaders, RecordSizesMatchTheDriversArithmetic) {
    for (ULONG n = 0; n < 5; n++) {
        EXPECT_EQ(GET_USBD_INTERFACE_SIZE(n), 24 + 24 * n);
        if (n > 0) {
            EXPECT_EQ(GET_SELECT_INTERFACE_REQUEST_SIZE(n), 80 + (n - 1) * 24);
        }
    }
    // Select interface with no pipes: header, handle and the 24-byte
    // interface header.
    EXPECT_EQ(FIELD_OFFSET(struct _URB_SELECT_INTERFACE, Interface) + GET_USBD_INTERFACE_SIZE(0), 56);
    EXPECT_EQ(sizeof(struct _URB_SELECT_CONFIGURATION), 88u);  // the unconfigure URB
    EXPECT_EQ(sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST), 136u);
    EXPECT_EQ(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST), 136u);
    EXPECT_EQ(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER), 128u);
    EXPECT_EQ(sizeof(struct _URB_PIPE_REQUEST), 40u);
    EXPECT_EQ(sizeof(USBD_INTERFACE_LIST_ENTRY), 16u);
    // Two interfaces, one with one pipe and one with none.
    EXPECT_EQ(GET_SELECT_CONFIGURATION_REQUEST_SIZE(2, 1), 40u + 48u + 24u);
}

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

TEST_F(UsbdLib, ParseDescriptorsStopsAtABrokenLength) {
    auto* e = (PUSB_ENDPOINT_DESCRIPTOR)USBD_ParseDescriptors(cd, cd->wTotalLength, cd, USB_ENDPOINT_DESCRIPTOR_TYPE);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->bEndpointAddress, kIntIn);
    config[9] = 0;  // the first interface descriptor claims length 0
    EXPECT_EQ(USBD_ParseDescriptors(cd, cd->wTotalLength, cd, USB_ENDPOINT_DESCRIPTOR_TYPE), nullptr);
    config[9] = 200;  // runs past the end
    EXPECT_EQ(USBD_ParseDescriptors(cd, cd->wTotalLength, cd, USB_ENDPOINT_DESCRIPTOR_TYPE), nullptr);
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

TEST_F(UsbdLib, CreateConfigurationRequestRefusesAnEmptyListAndFailedPool) {
    kplat::Scope scope;
    USBD_INTERFACE_LIST_ENTRY list[2] = {};
    EXPECT_EQ(USBD_CreateConfigurationRequestEx(cd, list), nullptr);
    list[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1);
    kplat::FailTag(USBD_POOL_TAG, 1);
    EXPECT_EQ(USBD_CreateConfigurationRequestEx(cd, list), nullptr);
    kplat::ClearFaults();
    EXPECT_EQ(list[0].Interface, nullptr);
}

}  // namespace
}  // namespace usbtest
