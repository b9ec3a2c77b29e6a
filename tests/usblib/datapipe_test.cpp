// KnUsbDataPipeBase: in-order delivery, inline completions, disabled pipes,
// completion modes and the abort-and-wait drain.
#include "datapipe_fixture.h"

#include <algorithm>

namespace usblibtest {
namespace {

TEST_F(DataPipeTest, OutOfOrderCompletionsAreDeliveredInSubmissionOrder) {
    HoldTransfers();
    ConnectAndEnable();
    KnUsbBulkIntBuffer* a = Submit();
    KnUsbBulkIntBuffer* b = Submit();
    KnUsbBulkIntBuffer* c = Submit();
    ASSERT_EQ(3u, mPdo.HeldCount());
    EXPECT_EQ(3u, mPipe.GetNumberOfBuffersOutstanding());

    mPdo.CompleteHeld(2, STATUS_SUCCESS, USBD_STATUS_SUCCESS, 30);  // C
    EXPECT_TRUE(mPipe.Deliveries().empty()) << "C waits for A and B";
    mPdo.CompleteHeld(0, STATUS_SUCCESS, USBD_STATUS_SUCCESS, 10);  // A
    EXPECT_EQ((std::vector<ULONG>{a->GetIndex()}), mPipe.Order());
    mPdo.CompleteHeld(0, STATUS_SUCCESS, USBD_STATUS_SUCCESS, 20);  // B
    EXPECT_EQ((std::vector<ULONG>{a->GetIndex(), b->GetIndex(), c->GetIndex()}), mPipe.Order());

    for (const Delivery& d : mPipe.Deliveries()) {
        EXPECT_EQ(DISPATCH_LEVEL, d.irql);
        EXPECT_EQ(STATUS_SUCCESS, d.status);
    }
    EXPECT_EQ(10u, mPipe.Deliveries()[0].length);
    EXPECT_EQ(30u, mPipe.Deliveries()[2].length);
    EXPECT_EQ(0u, mPipe.GetNumberOfBuffersOutstanding());
    EXPECT_TRUE(mPipe.IsPendingListEmpty());
    EXPECT_EQ(0u, mPipe.GetOutstandingCallbackCount());
}

TEST_F(DataPipeTest, DeliveryIsAtDispatchLevelWhenTheBusCompletesAtPassive) {
    HoldTransfers();
    ConnectAndEnable();
    Submit();
    mPdo.CompleteHeld(0, STATUS_SUCCESS, USBD_STATUS_SUCCESS, -1, false);
    ASSERT_EQ(1u, mPipe.Deliveries().size());
    EXPECT_EQ(DISPATCH_LEVEL, mPipe.Deliveries()[0].irql);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql()) << "the completing thread gets its level back";
}

TEST_F(DataPipeTest, InlineCompletionIsDeliveredFromTheDpcNotFromSubmitBuffer) {
    ConnectAndEnable();  // the fake completes transfers inside the dispatch routine
    bool submitted = false;
    KnUsbBulkIntBuffer* a = Submit(&submitted);
    EXPECT_TRUE(submitted);
    kplat::RunUntilIdle();
    std::vector<Delivery> d = mPipe.Deliveries();
    ASSERT_EQ(1u, d.size());
    EXPECT_EQ(a->GetIndex(), d[0].index);
    EXPECT_FALSE(d[0].insideSubmit);
    EXPECT_NE(std::this_thread::get_id(), d[0].thread) << "delivered by the DPC";
    EXPECT_EQ(DISPATCH_LEVEL, d[0].irql);
    EXPECT_EQ(kBufferSize, d[0].length);
    EXPECT_EQ(0u, mPipe.GetOutstandingCallbackCount()) << "the DPC has finished";
}

TEST_F(DataPipeTest, ResubmittingFromTheDeliveryDoesNotRecurse) {
    ConnectAndEnable();
    std::atomic<int> left{20};
    mPipe.onDelivery = [&](KnUsbBufferBase* buf) {
        if (--left > 0) {
            Prepare(static_cast<KnUsbBulkIntBuffer*>(buf));
            EXPECT_TRUE(mPipe.SubmitBuffer(buf));
        } else {
            buf->ReturnToPool();
        }
    };
    Submit();
    kplat::RunUntilIdle();
    EXPECT_EQ(20u, mPipe.Deliveries().size());
    EXPECT_EQ(1, mPipe.MaxDepth());
}

TEST_F(DataPipeTest, SubmitOnADisabledPipeGivesTheBufferBack) {
    ASSERT_EQ(STATUS_SUCCESS, mPipe.Connect(&mDevice, &mConfig, 0x82));
    bool submitted = true;
    Submit(&submitted);
    EXPECT_FALSE(submitted);
    EXPECT_EQ(kBuffers, mPool.GetCurrentCount());
    EXPECT_TRUE(mPdo.Functions().size() > 0);
    EXPECT_EQ(0u, mPdo.CountFunction(URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER));
}

TEST_F(DataPipeTest, CompletionsAfterDisableAreNotDelivered) {
    HoldTransfers();
    ConnectAndEnable();
    Submit();
    Submit();
    mPipe.DisablePipe();
    mPdo.CompleteHeld(1);
    mPdo.CompleteHeld(0);
    EXPECT_TRUE(mPipe.Deliveries().empty());
    EXPECT_TRUE(mPipe.IsPendingListEmpty());
    EXPECT_EQ(kBuffers, mPool.GetCurrentCount());
    EXPECT_EQ(0u, mPipe.GetOutstandingCallbackCount());
}

TEST_F(DataPipeTest, InlineCompletionOnAPipeDisabledMeanwhileGoesBackToThePool) {
    ConnectAndEnable();
    // The bus completes inline, and the pipe is disabled inside the request.
    mPdo.rule = [this](PURB) {
        mPipe.DisablePipe();
        return Answer::Complete;
    };
    bool submitted = false;
    Submit(&submitted);
    EXPECT_TRUE(submitted);
    kplat::RunUntilIdle();
    EXPECT_TRUE(mPipe.Deliveries().empty());
    EXPECT_TRUE(mPipe.IsPendingListEmpty());
    EXPECT_EQ(kBuffers, mPool.GetCurrentCount());
}

TEST_F(DataPipeTest, FailedSubmissionStillCompletesThroughTheEngine) {
    KnSetTraceMask(0x3);
    ConnectAndEnable();
    mPdo.rule = [](PURB urb) {
        return urb->UrbHeader.Function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER ? Answer::FailIrpOnly
                                                                                   : Answer::Complete;
    };
    mPdo.failIrpStatus = STATUS_NO_SUCH_DEVICE;
    Submit();
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::SubmitBuffer(in ): SubmitUrb returned 0xC000000E (STATUS_NO_SUCH_DEVICE)\n"));
    std::vector<Delivery> d = mPipe.Deliveries();
    ASSERT_EQ(1u, d.size());
    EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, d[0].status);
}

TEST_F(DataPipeTest, AbortAndWaitDrainsThroughTheAbort) {
    HoldTransfers();
    ConnectAndEnable();
    Submit();
    Submit();
    const uint64_t start = kplat::NowMs();
    EXPECT_EQ(STATUS_SUCCESS, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
    EXPECT_EQ(start, kplat::NowMs());
    EXPECT_EQ(1u, mPdo.CountFunction(URB_FUNCTION_ABORT_PIPE));
    Bytes raw = mPdo.LastUrb(URB_FUNCTION_ABORT_PIPE);
    EXPECT_EQ(40, ((PURB)raw.data())->UrbHeader.Length);
    EXPECT_EQ(PipeHandle(0x82), ((PURB)raw.data())->UrbPipeRequest.PipeHandle);
    EXPECT_TRUE(mPipe.Deliveries().empty());
    EXPECT_EQ(kBuffers, mPool.GetCurrentCount());
    EXPECT_EQ("", mCapture.Text());
}

TEST_F(DataPipeTest, AbortAndWaitFallsBackToCancel) {
    HoldTransfers(Answer::Hold);
    mPdo.abortCompletesHeld = false;
    ConnectAndEnable();
    Submit();
    const uint64_t start = kplat::NowMs();
    EXPECT_EQ(STATUS_SUCCESS, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
    EXPECT_EQ(5000u, kplat::NowMs() - start);
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(in ): Abort FAILED after 5000 ms, "
                       "NumberOfBuffersOutstanding = 1 try Cancel\n"));
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::CancelPendingRequests(in ): try to cancel an IRP that was not aborted\n"));
    EXPECT_FALSE(Traced("Cancel FAILED"));
    EXPECT_EQ(kBuffers, mPool.GetCurrentCount());
}

TEST_F(DataPipeTest, AbortAndWaitGivesUpOnAStuckRequest) {
    HoldTransfers(Answer::HoldStuck);
    ConnectAndEnable();
    Submit();
    const uint64_t start = kplat::NowMs();
    EXPECT_EQ(STATUS_IO_TIMEOUT, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
    EXPECT_EQ(10000u, kplat::NowMs() - start) << "one abort, a 5 s step, the cancel and another 5 s";
    EXPECT_TRUE(Traced("AbortAndWaitForOutstandingBuffers(in ): Abort FAILED after 5000 ms, NumberOfBuffersOutstanding = 1 try Cancel\n"));
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(in ): Cancel FAILED after 5000 ms, "
                       "NumberOfBuffersOutstanding = 1 try Cancel\n"));
    EXPECT_FALSE(mPipe.IsPendingListEmpty()) << "the buffer is still the bus driver's";
    EXPECT_EQ(kBuffers - 1, mPool.GetCurrentCount());

    // When the bus driver finally lets go, the buffer goes back to its pool.
    mPdo.CompleteHeld(0, STATUS_CANCELLED, USBD_STATUS_CANCELED);
    EXPECT_TRUE(mPipe.IsPendingListEmpty());
    EXPECT_EQ(kBuffers, mPool.GetCurrentCount());
    EXPECT_TRUE(mPipe.Deliveries().empty());
}

TEST_F(DataPipeTest, AbortAndWaitOnANeverConnectedPipe) {
    const uint64_t start = kplat::NowMs();
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
    EXPECT_EQ(start, kplat::NowMs());
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(in ): FATAL: pipe is not connected\n"));
    EXPECT_TRUE(mPdo.Functions().size() > 0);
    EXPECT_EQ(0u, mPdo.CountFunction(URB_FUNCTION_ABORT_PIPE));
}

TEST_F(DataPipeTest, PassiveModeDeliversInOrderFromAWorkItem) {
    ASSERT_EQ(STATUS_SUCCESS, mPipe.SetBufferCompletionMode(true, mPdo.Device()));
    HoldTransfers();
    ConnectAndEnable();
    KnUsbBulkIntBuffer* a = Submit();
    KnUsbBulkIntBuffer* b = Submit();
    mPdo.CompleteHeld(1);
    mPdo.CompleteHeld(0);
    EXPECT_TRUE(mPipe.Deliveries().empty()) << "nothing is delivered inside the completion routine";
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<ULONG>{a->GetIndex(), b->GetIndex()}), mPipe.Order());
    for (const Delivery& d : mPipe.Deliveries()) {
        EXPECT_EQ(PASSIVE_LEVEL, d.irql);
        EXPECT_NE(std::this_thread::get_id(), d.thread);
    }

    // An inline completion goes through the work item as well.
    mPdo.rule = [](PURB) { return Answer::Complete; };
    Submit();
    kplat::RunUntilIdle();
    ASSERT_EQ(3u, mPipe.Deliveries().size());
    EXPECT_FALSE(mPipe.Deliveries()[2].insideSubmit);
    EXPECT_EQ(PASSIVE_LEVEL, mPipe.Deliveries()[2].irql);
}

}  // namespace
}  // namespace usblibtest
