// Tests of the I/O and wait helpers: request completion, waits, event
// initialization and the IRP stack location accessors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <kplat/platform.h>

#include "knio.h"
#include "kntrace.h"

namespace {

class IoTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
    }
    void TearDown() override
    {
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
    ULONG mSavedMask = 0;
};

class KnIoWaitTest : public IoTest {};
class KnIoStackLocationTest : public IoTest {};
class KnCompleteRequestTest : public IoTest {};

TEST_F(KnIoWaitTest, InitializeEventSignalledOrNot)
{
    KEVENT on, off;
    KnInitializeEvent(&on, true);
    KnInitializeEvent(&off, false);
    EXPECT_NE(KeReadStateEvent(&on), 0);
    EXPECT_EQ(KeReadStateEvent(&off), 0);
    // A notification event stays signalled for every waiter.
    EXPECT_EQ(KnWaitWithTimeout(&on, 0), STATUS_SUCCESS);
    EXPECT_EQ(KnWaitWithTimeout(&on, 0), STATUS_SUCCESS);
    EXPECT_EQ(KnWait(&on), STATUS_SUCCESS);
}

TEST_F(KnIoWaitTest, WaitWithTimeoutReturnsTimeoutAfterTheMilliseconds)
{
    KEVENT event;
    KnInitializeEvent(&event, false);
    uint64_t start = kplat::NowMs();
    EXPECT_EQ(KnWaitWithTimeout(&event, 500), STATUS_TIMEOUT);
    EXPECT_EQ(kplat::NowMs() - start, 500u);
    EXPECT_EQ(KnWaitWithTimeout(&event, 0), STATUS_TIMEOUT);
    EXPECT_EQ(kplat::NowMs() - start, 500u) << "0 polls";
}

void SetEventDpc(PKDPC, PVOID context, PVOID, PVOID) { KeSetEvent(static_cast<PKEVENT>(context), 0, FALSE); }

TEST_F(KnIoWaitTest, WaitEndsWhenTheObjectIsSignalled)
{
    KEVENT event;
    KnInitializeEvent(&event, false);
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, SetEventDpc, &event);
    KeInitializeTimer(&timer);
    LARGE_INTEGER due;
    due.QuadPart = -200 * 10000;
    KeSetTimer(&timer, due, &dpc);
    uint64_t start = kplat::NowMs();
    EXPECT_EQ(KnWaitWithTimeout(&event, 5000), STATUS_SUCCESS);
    EXPECT_EQ(kplat::NowMs() - start, 200u);

    KeClearEvent(&event);
    KeSetTimer(&timer, due, &dpc);
    EXPECT_EQ(KnWait(&event), STATUS_SUCCESS);
    EXPECT_EQ(kplat::NowMs() - start, 400u);
}

TEST_F(KnIoWaitTest, TimedWaitAtDispatchAsserts)
{
    kplat::CheckRecorder checks;
    KEVENT event;
    KnInitializeEvent(&event, true);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(KnWaitWithTimeout(&event, 0), STATUS_SUCCESS) << "a poll is allowed at DISPATCH_LEVEL";
    EXPECT_EQ(mCapture.Text(), "");
    KnWaitWithTimeout(&event, 10);
    KeLowerIrql(old);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (IRQL_EQ_PASSIVE())\n  source/libkn/knio.cpp("));
}

// An IRP laid out by hand: the header followed by its stack locations.
struct FakeIrp {
    IRP irp;
    IO_STACK_LOCATION stack[3];
};

void InitFakeIrp(FakeIrp* f)
{
    memset(f, 0, sizeof(*f));
    f->irp.StackCount = 3;
    f->irp.CurrentLocation = 4;  // before the first IoCallDriver
    f->irp.Tail.Overlay.CurrentStackLocation = &f->stack[3 - 1] + 1;
}

TEST_F(KnIoStackLocationTest, AccessorsFollowTheCurrentLocation)
{
    FakeIrp f;
    InitFakeIrp(&f);
    EXPECT_EQ(KnGetNextIrpStackLocation(&f.irp), &f.stack[2]);
    IoSetNextIrpStackLocation(&f.irp);
    EXPECT_EQ(KnGetCurrentIrpStackLocation(&f.irp), &f.stack[2]);
    EXPECT_EQ(KnGetNextIrpStackLocation(&f.irp), &f.stack[1]);
    EXPECT_EQ(KnGetCurrentIrpStackLocation(&f.irp), IoGetCurrentIrpStackLocation(&f.irp));
    EXPECT_EQ(mCapture.Text(), "");
}

// Completion routine that records what the IRP carried.
struct Completion {
    int calls = 0;
    NTSTATUS status = 0;
    ULONG_PTR information = 0;
};

NTSTATUS RecordCompletion(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* c = static_cast<Completion*>(context);
    c->calls++;
    c->status = irp->IoStatus.Status;
    c->information = irp->IoStatus.Information;
    return STATUS_MORE_PROCESSING_REQUIRED;  // the test frees the IRP
}

TEST_F(KnCompleteRequestTest, StoresStatusAndInformationAndCompletes)
{
    PIRP irp = IoAllocateIrp(2, FALSE);
    ASSERT_NE(irp, nullptr);
    Completion completion;
    IoSetCompletionRoutine(irp, RecordCompletion, &completion, TRUE, TRUE, TRUE);
    IoSetNextIrpStackLocation(irp);  // as the caller of this driver would have
    EXPECT_EQ(KnCompleteRequest(irp, STATUS_INVALID_DEVICE_REQUEST, 42, IO_NO_INCREMENT),
              STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(completion.calls, 1);
    EXPECT_EQ(completion.status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(completion.information, 42u);
    IoFreeIrp(irp);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnCompleteRequestTest, PendingStatusAsserts)
{
    PIRP irp = IoAllocateIrp(2, FALSE);
    ASSERT_NE(irp, nullptr);
    Completion completion;
    IoSetCompletionRoutine(irp, RecordCompletion, &completion, TRUE, TRUE, TRUE);
    IoSetNextIrpStackLocation(irp);
    KnCompleteRequest(irp, STATUS_PENDING, 0, IO_NO_INCREMENT);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (status!=STATUS_PENDING)\n  source/libkn/knio.cpp("));
    IoFreeIrp(irp);
}

}  // namespace
