// KnTargetDevice and KnPnPLowerDeviceUsb: synchronous requests with time-out
// and cancel, class requests, descriptor and string reads.
#include "knusbpnplowerdevice.h"

#include "usblib_fixture.h"

namespace usblibtest {
namespace {

class LowerDeviceTest : public UsbLibTest {
protected:
    NTSTATUS ClassIn(ULONG length, ULONG* transferred, USBD_STATUS* urbStatus, ULONG timeoutMs = 500) {
        return mDevice.ControlVendorOrClassRequest(URB_FUNCTION_CLASS_INTERFACE, 0x80, 0x0102, 0x0003,
                                                   USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, mData, nullptr,
                                                   length, transferred, timeoutMs, urbStatus);
    }

    UCHAR mData[64] = {};
};

TEST_F(LowerDeviceTest, RequestThatNeverCompletesTimesOutAfter500Ms) {
    KnSetTraceMask(0x3);
    mPdo.rule = [](PURB) { return Answer::Hold; };
    const uint64_t start = kplat::NowMs();
    ULONG transferred = 99;
    USBD_STATUS urbStatus = 0;
    EXPECT_EQ(STATUS_IO_TIMEOUT, ClassIn(sizeof(mData), &transferred, &urbStatus));
    EXPECT_EQ(500u, kplat::NowMs() - start);
    EXPECT_EQ(0u, transferred);
    EXPECT_EQ(USBD_STATUS_CANCELED, urbStatus);
    EXPECT_EQ(0u, mPdo.HeldCount()) << "the request was cancelled";

    const std::string text = mCapture.Text();
    size_t timeout = text.find("ethbrg:KnTargetDevice::CallDriverAndWait: TIMEOUT after 500 ms, canceling IRP\n");
    size_t after = text.find("ethbrg:KnTargetDevice::CallDriverAndWait: IRP completed after cancel\n");
    ASSERT_NE(std::string::npos, timeout);
    ASSERT_NE(std::string::npos, after);
    EXPECT_LT(timeout, after);
    EXPECT_TRUE(Traced("KnPnPLowerDeviceUsb::SubmitUrbAndWait: CallDriverAndWait failed, st=0xC00000B5 "
                       "(STATUS_IO_TIMEOUT), UrbStatus=0xC0010000 (USBD_STATUS_CANCELED)\n"));
    EXPECT_EQ(0u, kplat::GetObjectCounts().irps);
}

TEST_F(LowerDeviceTest, ShortClassInAnswerReportsTheBytesMoved) {
    mPdo.classInData = {1, 2, 3, 4, 5};
    ULONG transferred = 0;
    USBD_STATUS urbStatus = -1;
    EXPECT_EQ(STATUS_SUCCESS, ClassIn(sizeof(mData), &transferred, &urbStatus));
    EXPECT_EQ(5u, transferred);
    EXPECT_EQ(USBD_STATUS_SUCCESS, urbStatus);
    EXPECT_EQ(5, mData[4]);

    Bytes raw = mPdo.LastUrb(URB_FUNCTION_CLASS_INTERFACE);
    auto* req = &((PURB)raw.data())->UrbControlVendorClassRequest;
    EXPECT_EQ((USBD_STATUS)0xFFFFFFFF, req->Hdr.Status) << "preset before submission";
    EXPECT_EQ(3u, req->TransferFlags);
    EXPECT_EQ("", mCapture.Text());
}

TEST_F(LowerDeviceTest, FailedUrbIsTracedAndReturned) {
    mPdo.classUrbStatus = USBD_STATUS_STALL_PID;
    ULONG transferred = 7;
    USBD_STATUS urbStatus = 0;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, ClassIn(8, &transferred, &urbStatus));
    EXPECT_EQ(0u, transferred) << "only a successful request reports a count";
    EXPECT_EQ(USBD_STATUS_STALL_PID, urbStatus);
    EXPECT_TRUE(Traced("ethbrg:KnPnPLowerDeviceUsb::ControlVendorOrClassRequest: SubmitUrbAndWait failed, "
                       "st=0xC0000001 (STATUS_UNSUCCESSFUL), UrbStatus=0xC0000004 (USBD_STATUS_STALL_PID)\n"));
    EXPECT_TRUE(Traced("ethbrg:KnPnPLowerDeviceUsb::ControlVendorOrClassRequest: Request failed, IRP "
                       "Status=0xC0000001 (STATUS_UNSUCCESSFUL) UrbStatus=0xC0000004 (USBD_STATUS_STALL_PID)\n"));
}

TEST_F(LowerDeviceTest, UrbStatusNeverWrittenIsNoRequestFailure) {
    mPdo.rule = [](PURB) { return Answer::FailIrpOnly; };
    USBD_STATUS urbStatus = 0;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, ClassIn(8, nullptr, &urbStatus));
    EXPECT_EQ((USBD_STATUS)0xFFFFFFFF, urbStatus);
    EXPECT_TRUE(Traced("ControlVendorOrClassRequest: SubmitUrbAndWait failed"));
    EXPECT_FALSE(Traced("Request failed"));
}

TEST_F(LowerDeviceTest, LongStringIsTruncated) {
    KnSetTraceMask(0x3);
    mPdo.strings[3] = StringDesc(29);  // 60 bytes
    WCHAR text[26];
    for (WCHAR& c : text) c = 0xFFFF;
    const uint64_t blocks = kplat::GetPoolTagStats(KN_POOL_TAG_DEFAULT).allocations;
    EXPECT_EQ(STATUS_SUCCESS, mDevice.GetStringDescriptorString(3, 0x0409, text, 26, 500));
    for (int i = 0; i < 25; i++) EXPECT_EQ((WCHAR)('A' + i), text[i]) << i;
    EXPECT_EQ(0, text[25]);
    EXPECT_TRUE(Traced("ethbrg:KnPnPLowerDeviceUsb::GetStringDescriptorString: buffer too small, string truncated, "
                       "numchars=29\n"));
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_DEFAULT));
    EXPECT_EQ(blocks + 1, kplat::GetPoolTagStats(KN_POOL_TAG_DEFAULT).allocations) << "one 256-byte buffer";
}

TEST_F(LowerDeviceTest, StringThatFitsAndEmptyStrings) {
    mPdo.strings[1] = StringDesc(12);
    WCHAR text[13];
    EXPECT_EQ(STATUS_SUCCESS, mDevice.GetStringDescriptorString(1, 0x0409, text, 13, 500));
    EXPECT_EQ((WCHAR)'L', text[11]);
    EXPECT_EQ(0, text[12]);
    EXPECT_EQ("", mCapture.Text());

    mPdo.strings[2] = {3, 3, 0x41};  // fewer than 4 bytes: no characters
    text[0] = 'x';
    EXPECT_EQ(STATUS_SUCCESS, mDevice.GetStringDescriptorString(2, 0x0409, text, 13, 500));
    EXPECT_EQ(0, text[0]);
}

TEST_F(LowerDeviceTest, StringReadRefusesTinyBuffersAndReportsFailures) {
    WCHAR text[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(STATUS_INVALID_PARAMETER, mDevice.GetStringDescriptorString(1, 0x0409, text, 1, 500));
    EXPECT_TRUE(Traced("ethbrg:KnPnPLowerDeviceUsb::GetStringDescriptorString: maxChars=1 not supported\n"));
    EXPECT_TRUE(mPdo.Functions().empty());
    EXPECT_EQ('x', text[0]);

    kplat::FailTag(KN_POOL_TAG_DEFAULT, 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mDevice.GetStringDescriptorString(1, 0x0409, text, 4, 500));
    EXPECT_TRUE(Traced("ethbrg:KnPnPLowerDeviceUsb::GetStringDescriptorString: failed to allocate desc buffer\n"));
    EXPECT_EQ(0, text[0]);

    EXPECT_EQ(STATUS_UNSUCCESSFUL, mDevice.GetStringDescriptorString(7, 0x0409, text, 4, 500));
    EXPECT_TRUE(Traced("ethbrg:KnPnPLowerDeviceUsb::GetStringDescriptorString: GetStringDescriptor failed, "
                       "st=0xC0000001"));
    EXPECT_EQ(0u, LiveTag(KN_POOL_TAG_DEFAULT));
}

TEST_F(LowerDeviceTest, LanguageIdList) {
    USHORT ids[10] = {};
    ULONG count = 99;
    mPdo.strings[0] = {2, 3};
    EXPECT_EQ(STATUS_SUCCESS, mDevice.GetLanguageIdList(ids, 10, &count, 500));
    EXPECT_EQ(0u, count);

    KnSetTraceMask(0x3);
    // 24 bytes: 11 IDs, the header's bLength notwithstanding.
    Bytes d = {0x10, 3};
    for (uint16_t i = 0; i < 11; i++) {
        d.push_back((uint8_t)(0x0400 + i));
        d.push_back((uint8_t)((0x0400 + i) >> 8));
    }
    mPdo.strings[0] = d;
    EXPECT_EQ(STATUS_SUCCESS, mDevice.GetLanguageIdList(ids, 10, &count, 500));
    EXPECT_EQ(10u, count);
    EXPECT_EQ(0x0400, ids[0]);
    EXPECT_EQ(0x0409, ids[9]);
    EXPECT_TRUE(Traced("ethbrg:KnPnPLowerDeviceUsb::GetLanguageIdList: buffer too small, numIDs=11\n"));
}

// The asynchronous submission calls the completion routine for every
// outcome, also when there is no device to send the request to.
TEST_F(LowerDeviceTest, SubmitUrbRunsTheCompletionRoutine) {
    struct Seen {
        int calls = 0;
        NTSTATUS status = 0;
    } seen;
    auto routine = [](PDEVICE_OBJECT, PIRP irp, PVOID ctx) -> NTSTATUS {
        ((Seen*)ctx)->calls++;
        ((Seen*)ctx)->status = irp->IoStatus.Status;
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    PIRP irp = IoAllocateIrp(mDevice.GetStackSize(), FALSE);
    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    urb.UrbHeader.Length = sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
    urb.UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    EXPECT_EQ(STATUS_SUCCESS, mDevice.SubmitUrb(&urb, irp, routine, &seen));
    EXPECT_EQ(1, seen.calls);
    EXPECT_EQ(STATUS_SUCCESS, seen.status);

    IoReuseIrp(irp, STATUS_UNSUCCESSFUL);
    mDevice.SetDeviceObject(nullptr);
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, mDevice.SubmitUrb(&urb, irp, routine, &seen));
    EXPECT_EQ(2, seen.calls);
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, seen.status);
    EXPECT_TRUE(Traced("KnTargetDevice::CallDriver: no device object"));
    IoFreeIrp(irp);
}

}  // namespace
}  // namespace usblibtest
