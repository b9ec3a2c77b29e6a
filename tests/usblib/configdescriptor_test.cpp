// KnUsbConfigDescriptor: the two-stage read and the bounded walks.
#include "knusbconfigdescriptor.h"

#include "usblib_fixture.h"

namespace usblibtest {
namespace {

class ConfigDescriptorTest : public UsbLibTest {
protected:
    NTSTATUS Load() { return mDesc.Load(&mDevice, 0, NonPagedPool, 500); }

    KnUsbConfigDescriptor mDesc;
};

TEST_F(ConfigDescriptorTest, TotalLength9LoadsAndHasNoInterface) {
    mPdo.configDescriptor = ConfigHeader(9, 0);
    ASSERT_EQ(STATUS_SUCCESS, Load());
    EXPECT_TRUE(mDesc.IsValid());
    EXPECT_EQ(9u, mDesc.GetConfigDescLength());
    EXPECT_EQ((std::vector<ULONG>{9, 9}), mPdo.DescriptorReadLengths());
    EXPECT_EQ(nullptr, mDesc.FindInterfaceDescriptor(nullptr, -1, -1, -1, -1, -1));
    EXPECT_EQ(1u, LiveTag(KN_POOL_TAG_USB_CONFIG));
    mDesc.Free();
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG));
}

TEST_F(ConfigDescriptorTest, TotalLength4096Loads) {
    Bytes d = ConfigHeader(4096, 0);
    while (d.size() < 4096) {
        Bytes filler = {0xFF, 0x24};  // class-specific padding
        filler.resize(std::min<size_t>(0xFF, 4096 - d.size()), 0);
        if (filler.size() < 2) filler = Bytes(2, 0);
        filler[0] = (uint8_t)filler.size();
        filler[1] = 0x24;
        d.insert(d.end(), filler.begin(), filler.end());
    }
    ASSERT_EQ(4096u, d.size());
    mPdo.configDescriptor = d;
    ASSERT_EQ(STATUS_SUCCESS, Load());
    EXPECT_EQ(4096u, mDesc.GetConfigDescLength());
    EXPECT_EQ((std::vector<ULONG>{9, 4096}), mPdo.DescriptorReadLengths());
}

TEST_F(ConfigDescriptorTest, TotalLengthOutOfRangeIsRefusedWithoutSecondRead) {
    for (uint16_t total : {(uint16_t)4097, (uint16_t)8}) {
        mPdo.configDescriptor = ConfigHeader(total, 0);
        EXPECT_EQ(STATUS_INVALID_PARAMETER, Load()) << total;
        EXPECT_FALSE(mDesc.IsValid());
        EXPECT_TRUE(Traced("ethbrg:KnUsbConfigDescriptor::Load: invalid wTotalLength " + std::to_string(total) + "\n"));
    }
    EXPECT_EQ((std::vector<ULONG>{9, 9}), mPdo.DescriptorReadLengths());
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG));
}

TEST_F(ConfigDescriptorTest, ShortBaseReadIsInvalidBlockLength) {
    mPdo.configDescriptor = NcmConfig();
    mPdo.baseConfigReadLength = 5;
    EXPECT_EQ(STATUS_INVALID_BLOCK_LENGTH, Load());
    EXPECT_TRUE(Traced("KnUsbConfigDescriptor::Load: GetConfigurationDescriptor(base) size mismatch, EXP 9 GOT 5\n"));
    EXPECT_FALSE(mDesc.IsValid());
}

TEST_F(ConfigDescriptorTest, FailedReadsPassTheirStatusOnAndLeaveNothing) {
    mPdo.configDescriptor = NcmConfig();
    mPdo.descriptorIrpStatus = STATUS_DEVICE_NOT_CONNECTED;
    EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, Load());
    EXPECT_TRUE(Traced("KnUsbConfigDescriptor::Load: GetConfigurationDescriptor(base) failed, st=0xC000009D"));
    EXPECT_TRUE(Traced("KnPnPLowerDeviceUsb::GetConfigurationDescriptor: GetDescriptor failed, st=0xC000009D"));

    // The full read fails: the block allocated for it is freed again.
    mPdo.descriptorIrpStatus = STATUS_SUCCESS;
    mPdo.rule = [](PURB urb) {
        return urb->UrbControlDescriptorRequest.TransferBufferLength > 9 ? Answer::FailIrpOnly : Answer::Complete;
    };
    mPdo.failIrpStatus = STATUS_UNSUCCESSFUL;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, Load());
    EXPECT_TRUE(Traced("KnUsbConfigDescriptor::Load: GetConfigurationDescriptor(full) failed, st = 0xC0000001"));
    EXPECT_FALSE(mDesc.IsValid());
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG));
}

TEST_F(ConfigDescriptorTest, ShortFullReadIsUsedAsFarAsItGoes) {
    // The last endpoint descriptor (7 bytes) loses its last 5 bytes.
    mPdo.configDescriptor = NcmConfig();
    const ULONG total = (ULONG)mPdo.configDescriptor.size();
    mPdo.shortenFullConfigReadBy = 5;
    ASSERT_EQ(STATUS_SUCCESS, Load());
    EXPECT_EQ(total - 5, mDesc.GetConfigDescLength());
    EXPECT_TRUE(Traced("KnUsbConfigDescriptor::Load: GetConfigurationDescriptor(full) size mismatch, wTotalLength=" +
                       std::to_string(total) + ", GOT " + std::to_string(total - 5) + "\n"));
    EXPECT_TRUE(Traced("0000: 09 02 ")) << "hex dump of the block";

    // Walks find the bulk IN endpoint but stop before the cut one.
    PUSB_COMMON_DESCRIPTOR ep = mDesc.FindDescriptor(mDesc.FindInterfaceDescriptor(nullptr, 1, 1, -1, -1, -1),
                                                     USB_ENDPOINT_DESCRIPTOR_TYPE);
    ASSERT_NE(nullptr, ep);
    EXPECT_EQ(0x82, ((PUSB_ENDPOINT_DESCRIPTOR)ep)->bEndpointAddress);
    EXPECT_EQ(nullptr, mDesc.NextDescriptor(ep));
    EXPECT_TRUE(Traced("KnUsbConfigDescriptor::IsDescriptorValid: incomplete desc\n"));
}

TEST_F(ConfigDescriptorTest, ZeroBLengthEndsEveryWalk) {
    mPdo.configDescriptor = Config({ConfigHeader(0, 1), InterfaceDesc(0, 0, 1, 0xFF, 0, 0), {0, 0x24, 0, 0},
                                    EndpointDesc(0x81, 3, 8)});
    ASSERT_EQ(STATUS_SUCCESS, Load());
    EXPECT_NE(nullptr, mDesc.FindInterfaceDescriptor(nullptr, -1, -1, -1, -1, -1));
    EXPECT_EQ(nullptr, mDesc.FindDescriptor(nullptr, USB_ENDPOINT_DESCRIPTOR_TYPE));
    EXPECT_TRUE(Traced("KnUsbConfigDescriptor::IsDescriptorValid: currentDesc->bLength = 0, min. is 2\n"));
    mCapture.Take();
    EXPECT_EQ(nullptr, mDesc.FindInterfaceDescriptor(nullptr, 1, -1, -1, -1, -1));
    EXPECT_TRUE(Traced("currentDesc->bLength = 0, min. is 2"));
}

TEST_F(ConfigDescriptorTest, LastDescriptorEndingAtTheEndIsFoundAndNextIsQuietlyNone) {
    mPdo.configDescriptor = NcmConfig();
    ASSERT_EQ(STATUS_SUCCESS, Load());
    PUSB_COMMON_DESCRIPTOR in = mDesc.FindDescriptor(mDesc.FindInterfaceDescriptor(nullptr, 1, 1, -1, -1, -1),
                                                     USB_ENDPOINT_DESCRIPTOR_TYPE);
    ASSERT_NE(nullptr, in);
    PUSB_COMMON_DESCRIPTOR d = mDesc.FindDescriptor(mDesc.NextDescriptor(in), USB_ENDPOINT_DESCRIPTOR_TYPE);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(0x03, ((PUSB_ENDPOINT_DESCRIPTOR)d)->bEndpointAddress);
    EXPECT_EQ((PUCHAR)mDesc.GetConfigDesc() + mDesc.GetConfigDescLength(), (PUCHAR)d + d->bLength);
    mCapture.Take();
    EXPECT_EQ(nullptr, mDesc.NextDescriptor(d));
    EXPECT_EQ("", mCapture.Text());
}

TEST_F(ConfigDescriptorTest, SearchesIncludeTheirStart) {
    mPdo.configDescriptor = NcmConfig();
    ASSERT_EQ(STATUS_SUCCESS, Load());
    PUSB_INTERFACE_DESCRIPTOR comm = mDesc.FindInterfaceDescriptor(nullptr, -1, -1, 2, 13, -1);
    ASSERT_NE(nullptr, comm);
    EXPECT_EQ((PVOID)comm, (PVOID)mDesc.FindDescriptor(comm, USB_INTERFACE_DESCRIPTOR_TYPE));
    EXPECT_EQ(comm, mDesc.FindInterfaceDescriptor(comm, 0, 0, -1, -1, -1));
    EXPECT_EQ((PVOID)mDesc.GetConfigDesc(), (PVOID)mDesc.FindDescriptor(nullptr, USB_CONFIGURATION_DESCRIPTOR_TYPE));

    // Going on behind a hit: the next interface descriptor, wherever it is.
    PUSB_INTERFACE_DESCRIPTOR data0 = mDesc.FindInterfaceDescriptor(mDesc.NextDescriptor(comm), -1, -1, -1, -1, -1);
    ASSERT_NE(nullptr, data0);
    EXPECT_EQ(1, data0->bInterfaceNumber);
    EXPECT_EQ(0, data0->bAlternateSetting);
    PUSB_INTERFACE_DESCRIPTOR data1 = mDesc.FindInterfaceDescriptor(nullptr, 1, 1, 0x0A, 0, 1);
    ASSERT_NE(nullptr, data1);
    EXPECT_EQ(2, data1->bNumEndpoints);
    EXPECT_EQ(nullptr, mDesc.FindInterfaceDescriptor(nullptr, 1, 2, -1, -1, -1));
    EXPECT_EQ(nullptr, mDesc.FindInterfaceDescriptor(nullptr, -1, -1, 2, 13, 1));

    // A class-specific search from the first interface finds the CDC header.
    PUSB_COMMON_DESCRIPTOR cs = mDesc.FindDescriptor(comm, 0x24);
    ASSERT_NE(nullptr, cs);
    EXPECT_EQ(5, cs->bLength);
}

TEST_F(ConfigDescriptorTest, LoadAgainReplacesTheBlock) {
    mPdo.configDescriptor = NcmConfig();
    ASSERT_EQ(STATUS_SUCCESS, Load());
    mPdo.configDescriptor = ConfigHeader(9, 0);
    ASSERT_EQ(STATUS_SUCCESS, Load());
    EXPECT_EQ(9u, mDesc.GetConfigDescLength());
    EXPECT_EQ(1u, LiveTag(KN_POOL_TAG_USB_CONFIG));
    // A failing load leaves the object empty, not with the old block.
    mPdo.configDescriptor = ConfigHeader(8, 0);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Load());
    EXPECT_FALSE(mDesc.IsValid());
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_USB_CONFIG));
}

}  // namespace
}  // namespace usblibtest
