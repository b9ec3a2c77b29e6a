// KnMdlMappedBuffer, KnUsbBufferBase and KnUsbBulkIntBuffer: allocation
// on both paths, failures that leave nothing behind, and the status mapping.
#include "KnUsbBulkIntBuffer.h"

#include "knmdlmappedbuffer.h"
#include "usblib_fixture.h"

namespace usblibtest {
namespace {

constexpr ULONG kBulkUrbSize = sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);

class BufferTest : public ::testing::Test {
protected:
    BufferTest() {
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        mBefore = kplat::GetObjectCounts();
    }
    ~BufferTest() override { kplat::ClearFaults(); }

    bool Traced(const std::string& text) const { return mCapture.Contains(text); }
    // Nothing of the buffer is left: no pool block, IRP or MDL more than at the start.
    void ExpectNothingAllocated() {
        kplat::ObjectCounts now = kplat::GetObjectCounts();
        EXPECT_EQ(mBefore.irps, now.irps);
        EXPECT_EQ(mBefore.mdls, now.mdls);
        EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_URB).liveCount);
        EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_MDL_BUFFER).liveCount);
        EXPECT_EQ(0u, kplat::GetPoolTagStats(kplat::MakeTag("Page")).liveCount);
    }
    // Sets the statuses a completed request would carry.
    void Complete(KnUsbBufferBase& buf, NTSTATUS irpStatus, USBD_STATUS urbStatus) {
        buf.Irp()->IoStatus.Status = irpStatus;
        buf.Urb()->UrbHeader.Status = urbStatus;
    }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
    kplat::ObjectCounts mBefore;
};

TEST_F(BufferTest, PagePathGivesZeroedMappedPages) {
    KnUsbBulkIntBuffer buf;
    ASSERT_EQ(STATUS_SUCCESS, buf.Allocate(2, kBulkUrbSize, 3000, true));
    ASSERT_NE(nullptr, buf.Buffer());
    EXPECT_EQ(3000u, buf.BufferSize());
    ASSERT_NE(nullptr, buf.Mdl());
    EXPECT_GE(MmGetMdlByteCount(buf.Mdl()), 3000u);
    EXPECT_EQ(buf.Buffer(), buf.Mdl()->MappedSystemVa);
    for (ULONG i = 0; i < 3000; i++) ASSERT_EQ(0, ((PUCHAR)buf.Buffer())[i]) << i;
    ASSERT_NE(nullptr, buf.Urb());
    EXPECT_EQ(kBulkUrbSize, buf.UrbSize());
    ASSERT_NE(nullptr, buf.Irp());
    EXPECT_EQ(2, buf.Irp()->StackCount);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, buf.Status());
    buf.Free();
    EXPECT_EQ(nullptr, buf.Buffer());
    EXPECT_EQ(0u, buf.UrbSize());
    ExpectNothingAllocated();
}

TEST_F(BufferTest, ShortenedPageAllocationFailsAndLeavesNothing) {
    KnUsbBulkIntBuffer buf;
    kplat::ShortenNextPageAllocation(4096);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, buf.Allocate(1, kBulkUrbSize, 8192, true));
    EXPECT_TRUE(Traced("ethbrg:KnMdlMappedBuffer::Allocate: buffer too small, req:8192 got:4096\n"));
    EXPECT_TRUE(Traced("ethbrg:KnUsbBufferBase::Allocate: MdlMappedBuffer Allocate failed (0xC000009A "
                       "(STATUS_INSUFFICIENT_RESOURCES))\n"));
    EXPECT_EQ(nullptr, buf.Buffer());
    EXPECT_EQ(nullptr, buf.Mdl());
    EXPECT_EQ(nullptr, buf.Urb());
    EXPECT_EQ(nullptr, buf.Irp());
    ExpectNothingAllocated();
    // Ready for another try.
    EXPECT_EQ(STATUS_SUCCESS, buf.Allocate(1, kBulkUrbSize, 8192, true));
}

TEST_F(BufferTest, EachFailedPartFreesTheOthers) {
    struct Case {
        ULONG tag;
        const char* trace;
    } cases[] = {
        {KN_POOL_TAG_MDL_BUFFER, "ethbrg:KnMdlMappedBuffer::Allocate: alloc buffer (512 bytes) failed\n"},
        {kplat::MakeTag("Mdl "), "ethbrg:KnMdlMappedBuffer::Allocate: alloc MDL failed\n"},
        {KN_POOL_TAG_URB, "ethbrg:KnUsbBufferBase::Allocate: alloc URB (128 bytes) failed\n"},
        {kplat::MakeTag("Irp "), "ethbrg:KnUsbBufferBase::Allocate: alloc IRP failed\n"},
    };
    for (const Case& c : cases) {
        KnUsbBulkIntBuffer buf;
        kplat::FailTag(c.tag, 1);
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, buf.Allocate(1, kBulkUrbSize, 512, false)) << c.trace;
        EXPECT_TRUE(Traced(c.trace)) << c.trace;
        EXPECT_EQ(nullptr, buf.Buffer());
        EXPECT_EQ(nullptr, buf.Urb());
        EXPECT_EQ(nullptr, buf.Irp());
        ExpectNothingAllocated();
        kplat::ClearFaults();
    }
}

TEST_F(BufferTest, CompletionStatusMapping) {
    KnUsbBulkIntBuffer buf;
    ASSERT_EQ(STATUS_SUCCESS, buf.Allocate(1, kBulkUrbSize, 0, false));
    struct Case {
        NTSTATUS irp;
        USBD_STATUS urb;
        NTSTATUS expected;
    } cases[] = {
        {STATUS_SUCCESS, USBD_STATUS_SUCCESS, STATUS_SUCCESS},
        {STATUS_SUCCESS, USBD_STATUS_DEVICE_GONE, STATUS_DEVICE_NOT_CONNECTED},
        {STATUS_SUCCESS, USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL},
        {STATUS_SUCCESS, USBD_STATUS_ERROR_SHORT_TRANSFER, STATUS_UNSUCCESSFUL},
        {STATUS_NO_SUCH_DEVICE, USBD_STATUS_SUCCESS, STATUS_DEVICE_NOT_CONNECTED},
        {STATUS_DEVICE_NOT_CONNECTED, USBD_STATUS_DEVICE_GONE, STATUS_DEVICE_NOT_CONNECTED},
        {STATUS_CANCELLED, USBD_STATUS_CANCELED, STATUS_CANCELLED},
        {STATUS_UNSUCCESSFUL, USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL},
        {STATUS_INVALID_PARAMETER, (USBD_STATUS)0xFFFFFFFF, STATUS_INVALID_PARAMETER},
    };
    for (const Case& c : cases) {
        Complete(buf, c.irp, c.urb);
        EXPECT_EQ(c.expected, buf.GetCompletionStatus()) << std::hex << c.irp << " " << c.urb;
        EXPECT_EQ(c.expected, buf.Status());
        EXPECT_EQ(c.irp, buf.IrpStatus());
        EXPECT_EQ(c.urb, buf.UrbStatus());
    }
    EXPECT_EQ("", mCapture.Text());
}

}  // namespace
}  // namespace usblibtest
