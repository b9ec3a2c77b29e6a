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

TEST_F(DataPipeTest, DispatchModeDeliversAtDispatchLevelWhateverLevelTheBusCompletesAt) {
    HoldTransfers();
    ConnectAndEnable();
    Submit();
    Submit();
    mPdo.CompleteHeld(1, STATUS_SUCCESS, USBD_STATUS_SUCCESS, -1, false);
    mPdo.CompleteHeld(0, STATUS_SUCCESS, USBD_STATUS_SUCCESS, -1, false);
    ASSERT_EQ(2u, mPipe.Deliveries().size());
    for (const Delivery& d : mPipe.Deliveries()) EXPECT_EQ(DISPATCH_LEVEL, d.irql);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql()) << "the completing thread gets its level back";
}

TEST_F(DataPipeTest, ManyCompletionsInAScrambledOrderStayInOrder) {
    HoldTransfers();
    ConnectAndEnable();
    std::vector<ULONG> submitted;
    for (ULONG i = 0; i < kBuffers; i++) submitted.push_back(Submit()->GetIndex());
    // Complete in the order 3, 5, 0, 4, 1, 2 (positions among the held ones).
    const ULONG order[kBuffers] = {3, 5, 0, 4, 1, 2};
    std::vector<ULONG> held(submitted);
    for (ULONG k = 0; k < kBuffers; k++) {
        auto pos = std::find(held.begin(), held.end(), submitted[order[k]]) - held.begin();
        mPdo.CompleteHeld((size_t)pos);
        held.erase(held.begin() + pos);
        std::vector<ULONG> delivered = mPipe.Order();
        // Whatever has been delivered is a prefix of the submission order.
        ASSERT_LE(delivered.size(), submitted.size());
        EXPECT_TRUE(std::equal(delivered.begin(), delivered.end(), submitted.begin()));
    }
    EXPECT_EQ(submitted, mPipe.Order());
    EXPECT_EQ(1, mPipe.MaxDepth());
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

TEST_F(DataPipeTest, AbortAndWaitWithNothingOutstanding) {
    ConnectAndEnable();
    const uint64_t start = kplat::NowMs();
    EXPECT_EQ(STATUS_SUCCESS, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
    EXPECT_EQ(start, kplat::NowMs());
    EXPECT_FALSE(mPipe.IsEnabled());
    EXPECT_EQ(0u, mPdo.CountFunction(URB_FUNCTION_ABORT_PIPE));
    EXPECT_EQ("", mCapture.Text());
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

TEST_F(DataPipeTest, FailedAbortIsTracedAndTheDrainGoesOn) {
    KnSetTraceMask(0x3);
    HoldTransfers(Answer::Hold);
    mPdo.rule = [](PURB urb) {
        if (urb->UrbHeader.Function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER) return Answer::Hold;
        if (urb->UrbHeader.Function == URB_FUNCTION_ABORT_PIPE) return Answer::FailIrpOnly;
        return Answer::Complete;
    };
    ConnectAndEnable();
    Submit();
    const uint64_t start = kplat::NowMs();
    EXPECT_EQ(STATUS_SUCCESS, mPipe.AbortAndWaitForOutstandingBuffers(1000, 500));
    EXPECT_EQ(1000u, kplat::NowMs() - start);
    EXPECT_EQ(2u, mPdo.CountFunction(URB_FUNCTION_ABORT_PIPE));
    EXPECT_TRUE(Traced("ethbrg:KnUsbPipe::AbortPipe: SubmitUrbAndWait failed, PipeHandle:0000000091be0082 "
                       "st=0xC000000D (STATUS_INVALID_PARAMETER), UrbStatus=0xFFFFFFFF\n"));
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(in ): AbortPipe failed, st=0xC000000D"));
    EXPECT_TRUE(Traced("Abort FAILED after 1000 ms"));
}

TEST_F(DataPipeTest, AbortAndWaitOnANeverConnectedPipe) {
    const uint64_t start = kplat::NowMs();
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mPipe.AbortAndWaitForOutstandingBuffers(5000, 5000));
    EXPECT_EQ(start, kplat::NowMs());
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(in ): FATAL: pipe is not connected\n"));
    EXPECT_TRUE(mPdo.Functions().size() > 0);
    EXPECT_EQ(0u, mPdo.CountFunction(URB_FUNCTION_ABORT_PIPE));
}

TEST_F(DataPipeTest, EnableNeedsAConnection) {
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mPipe.EnablePipe());
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::EnablePipe(in ): FATAL: pipe is not connected\n"));
    EXPECT_FALSE(mPipe.IsEnabled());
}

TEST_F(DataPipeTest, CompletionModeIsSetOnlyWhileDisabled) {
    EXPECT_EQ(STATUS_INVALID_PARAMETER, mPipe.SetBufferCompletionMode(true, nullptr));
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::SetBufferCompletionMode(in ): FATAL: no valid device object for work "
                       "item\n"));
    ConnectAndEnable();
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mPipe.SetBufferCompletionMode(true, mPdo.Device()));
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::SetBufferCompletionMode(in ): FATAL: pipe is enabled\n"));
    EXPECT_FALSE(mPipe.IsCompleteAtPassiveLevel());
    mPipe.DisablePipe();
    EXPECT_EQ(STATUS_SUCCESS, mPipe.SetBufferCompletionMode(true, mPdo.Device()));
    EXPECT_TRUE(mPipe.IsCompleteAtPassiveLevel());
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

TEST_F(DataPipeTest, CleanupTracesBuffersTheBusDriverStillHas) {
    HoldTransfers(Answer::HoldStuck);
    ConnectAndEnable();
    KnUsbBulkIntBuffer* a = Submit();
    KnUsbBulkIntBuffer* b = Submit();
    mPipe.DisablePipe();
    mPipe.CleanupPendingBufferList();
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::CleanupPendingBufferList(in ): FATAL: Buffer 0x"));
    EXPECT_TRUE(Traced("(index=" + std::to_string(b->GetIndex()) + ") not completed by bus driver\n"));
    EXPECT_TRUE(mPipe.IsPendingListEmpty());
    EXPECT_EQ(kBuffers, mPool.GetCurrentCount());

    // The fake bus still holds both IRPs. Before it lets go of them, take
    // their buffers out of the pool again, as their owner would have to:
    // the late completions find them in no list and give them back.
    std::vector<KnPoolItemBase*> others;
    for (ULONG i = 0; i < kBuffers; i++) {
        KnPoolItemBase* item = mPool.GetItem();
        if (item != a && item != b) others.push_back(item);
    }
    for (KnPoolItemBase* item : others) item->ReturnToPool();
    mPdo.CompleteHeld(0, STATUS_CANCELLED, USBD_STATUS_CANCELED);
    mPdo.CompleteHeld(0, STATUS_CANCELLED, USBD_STATUS_CANCELED);
    EXPECT_TRUE(Traced("ASSERTION FAILED: (buf->mListEntry.IsLinked())"));
    EXPECT_EQ(kBuffers, mPool.GetCurrentCount());
    EXPECT_TRUE(mPipe.Deliveries().empty());
}

TEST_F(DataPipeTest, OutPipeNamesItselfOut) {
    RecordingPipe out(false);
    EXPECT_STREQ("out", out.GetName());
    EXPECT_STREQ("in ", mPipe.GetName());
    EXPECT_EQ(STATUS_UNSUCCESSFUL, out.EnablePipe());
    EXPECT_TRUE(Traced("EnablePipe(out): FATAL: pipe is not connected\n"));
}

}  // namespace
}  // namespace usblibtest
