// KnUsbPipe: binding to an endpoint, reset and abort.
#include "datapipe_fixture.h"

namespace usblibtest {
namespace {

using PipeTest = DataPipeTest;

TEST_F(PipeTest, ConnectCopiesThePipeRecord) {
    ASSERT_EQ(STATUS_SUCCESS, mPipe.Connect(&mDevice, &mConfig, 0x82));
    EXPECT_TRUE(mPipe.IsConnected());
    EXPECT_EQ(&mDevice, mPipe.GetLowerDevice());
    EXPECT_EQ(PipeHandle(0x82), mPipe.GetPipeHandle());
    EXPECT_EQ(0x82, mPipe.GetEndpointAddress());
    EXPECT_EQ(512, mPipe.GetMaximumPacketSize());
    EXPECT_EQ(4096u, mPipe.GetPipeInfo()->MaximumTransferSize);
    // Connecting again overwrites.
    ASSERT_EQ(STATUS_SUCCESS, mPipe.Connect(&mDevice, &mConfig, 0x81));
    EXPECT_EQ(16, mPipe.GetMaximumPacketSize());
    mPipe.Disconnect();
    EXPECT_FALSE(mPipe.IsConnected());
    EXPECT_EQ(nullptr, mPipe.GetPipeHandle());
}

TEST_F(PipeTest, ConnectToAnUnknownEndpointChangesNothing) {
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mPipe.Connect(&mDevice, &mConfig, 0x05));
    EXPECT_TRUE(Traced("ethbrg:KnUsbPipe::Connect: FATAL: endpoint 0x05 not found\n"));
    EXPECT_FALSE(mPipe.IsConnected());
}

TEST_F(PipeTest, ResetAndAbortNeedAConnection) {
    USBD_STATUS urbStatus = 7;
    EXPECT_EQ(STATUS_INTERNAL_ERROR, mPipe.ResetPipe(500, &urbStatus));
    EXPECT_TRUE(Traced("ethbrg:KnUsbPipe::ResetPipe: FATAL: pipe instance is not connected\n"));
    EXPECT_EQ(STATUS_INTERNAL_ERROR, mPipe.AbortPipe(500, &urbStatus));
    EXPECT_TRUE(Traced("ethbrg:KnUsbPipe::AbortPipe: FATAL: pipe instance is not connected\n"));
    EXPECT_EQ(7, urbStatus);
    EXPECT_EQ(0u, mPdo.CountFunction(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL));
}

TEST_F(PipeTest, FailedResetReportsBothStatuses) {
    ASSERT_EQ(STATUS_SUCCESS, mPipe.Connect(&mDevice, &mConfig, 0x03));
    mPdo.rule = [](PURB) { return Answer::Hold; };
    USBD_STATUS urbStatus = 7;
    EXPECT_EQ(STATUS_IO_TIMEOUT, mPipe.ResetPipe(500, &urbStatus));
    EXPECT_EQ(USBD_STATUS_CANCELED, urbStatus) << "stored on failure too";
    EXPECT_TRUE(Traced("ethbrg:KnUsbPipe::ResetPipe: SubmitUrbAndWait failed, st=0xC00000B5 (STATUS_IO_TIMEOUT), "
                       "UrbStatus=0xC0010000\n"));
}

TEST_F(PipeTest, SubmitOnAPipeThatIsNotConnectedStillCompletes) {
    struct Seen {
        int calls = 0;
        NTSTATUS status = 0;
    } seen;
    auto routine = [](PDEVICE_OBJECT, PIRP irp, PVOID ctx) -> NTSTATUS {
        ((Seen*)ctx)->calls++;
        ((Seen*)ctx)->status = irp->IoStatus.Status;
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    PIRP irp = IoAllocateIrp(1, FALSE);
    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    EXPECT_EQ(STATUS_INTERNAL_ERROR, mPipe.SubmitUrb(&urb, irp, routine, &seen));
    EXPECT_TRUE(Traced("ASSERTION FAILED: (IsConnected())"));
    EXPECT_EQ(1, seen.calls);
    EXPECT_EQ(STATUS_INTERNAL_ERROR, seen.status);
    IoFreeIrp(irp);
}

}  // namespace
}  // namespace usblibtest
