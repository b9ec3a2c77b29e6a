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

TEST_F(BufferTest, PoolPathDescribesAPoolBlock) {
    KnUsbBulkIntBuffer buf;
    ASSERT_EQ(STATUS_SUCCESS, buf.Allocate(1, kBulkUrbSize, 100, false));
    EXPECT_EQ(1u, kplat::GetPoolTagStats(KN_POOL_TAG_MDL_BUFFER).liveCount);
    EXPECT_EQ(1u, kplat::GetPoolTagStats(KN_POOL_TAG_URB).liveCount);
    ASSERT_NE(nullptr, buf.Mdl());
    EXPECT_EQ(100u, MmGetMdlByteCount(buf.Mdl()));
    EXPECT_EQ(buf.Buffer(), MmGetMdlVirtualAddress(buf.Mdl()));
    EXPECT_TRUE(buf.Mdl()->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL);
    buf.Free();
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

TEST_F(BufferTest, PageAllocationFailure) {
    KnMdlMappedBuffer mem;
    kplat::FailTag(kplat::MakeTag("Page"), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, mem.Allocate(4096, true));
    EXPECT_TRUE(Traced("ethbrg:KnMdlMappedBuffer::Allocate: MmAllocatePagesForMdl(4096) failed\n"));
    EXPECT_FALSE(mem.IsValid());
    ExpectNothingAllocated();
}

TEST_F(BufferTest, SizeZeroSkipsThatPart) {
    KnUsbBulkIntBuffer buf;
    ASSERT_EQ(STATUS_SUCCESS, buf.Allocate(1, kBulkUrbSize, 0, true));
    EXPECT_EQ(nullptr, buf.Buffer());
    EXPECT_EQ(0u, buf.BufferSize());
    EXPECT_EQ(nullptr, buf.Mdl());
    EXPECT_NE(nullptr, buf.Urb());
    EXPECT_NE(nullptr, buf.Irp());

    KnUsbBulkIntBuffer bare;
    ASSERT_EQ(STATUS_SUCCESS, bare.Allocate(0, 0, 64, false));
    EXPECT_EQ(nullptr, bare.Urb());
    EXPECT_EQ(nullptr, bare.Irp());
    EXPECT_NE(nullptr, bare.Buffer());
}

TEST_F(BufferTest, FreeOfAnEmptyBufferDoesNothing) {
    KnUsbBulkIntBuffer buf;
    buf.Free();
    KnMdlMappedBuffer mem;
    mem.Free();
    EXPECT_EQ("", mCapture.Text());
    ExpectNothingAllocated();
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

TEST_F(BufferTest, DataLength) {
    KnUsbBulkIntBuffer buf;
    ASSERT_EQ(STATUS_SUCCESS, buf.Allocate(1, kBulkUrbSize, 64, false));
    buf.SetDataLength(64);
    EXPECT_EQ(64u, buf.DataLength());
    EXPECT_EQ("", mCapture.Text());
    buf.SetDataLength(65);
    EXPECT_TRUE(Traced("ASSERTION FAILED: (mDataLength<=BufferSize())"));

    buf.Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength = 17;
    EXPECT_EQ(17u, buf.UpdateDataLength());
    EXPECT_EQ(17u, buf.DataLength());

    buf.Urb()->UrbHeader.Length = 99;
    buf.ZeroUrb();
    EXPECT_EQ(0, buf.Urb()->UrbHeader.Length);
}

TEST_F(BufferTest, AccessorsWithoutUrbOrIrpAssert) {
    KnUsbBulkIntBuffer buf;
    buf.ZeroUrb();
    EXPECT_TRUE(Traced("ASSERTION FAILED: (mUrb!=NULL)"));
    (void)buf.IrpStatus();
    EXPECT_TRUE(Traced("ASSERTION FAILED: (mIrp!=NULL)"));
    EXPECT_EQ(0u, buf.UpdateDataLength());
    EXPECT_TRUE(Traced("ASSERTION FAILED: (urb!=NULL)"));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, buf.GetCompletionStatus());
    EXPECT_TRUE(Traced("ASSERTION FAILED: (irp!=NULL)"));
}

}  // namespace
}  // namespace usblibtest
