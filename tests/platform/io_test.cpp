// The I/O manager of the stand-in: device stacks, IRP completion with its
// routines, cancellation, and the checks of IRP misuse.
#include <gtest/gtest.h>
#include <kplat/platform.h>

#include <vector>

namespace {

// What the routines of a test saw, in call order.
struct Seen {
    const char* who;
    PDEVICE_OBJECT device;
    NTSTATUS status;
    BOOLEAN pendingReturned;
    CHAR currentLocation;
};
std::vector<Seen> gSeen;
NTSTATUS gRoutineResult = STATUS_SUCCESS;  // what the "Owner" routine returns

NTSTATUS OwnerRoutine(PDEVICE_OBJECT device, PIRP irp, PVOID) {
    gSeen.push_back({"owner", device, irp->IoStatus.Status, irp->PendingReturned, irp->CurrentLocation});
    return gRoutineResult;
}

NTSTATUS UpperRoutine(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
    gSeen.push_back({(const char*)context, device, irp->IoStatus.Status, irp->PendingReturned, irp->CurrentLocation});
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_SUCCESS;
}

// Completes at once with the status in Parameters.Others.Argument1.
NTSTATUS BottomCompletes(PDEVICE_OBJECT, PIRP irp) {
    NTSTATUS status = (NTSTATUS)(intptr_t)IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1;
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// Keeps the IRP pending; the test completes it.
PIRP gHeld = nullptr;
NTSTATUS BottomPends(PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    gHeld = irp;
    return STATUS_PENDING;
}

// Passes the IRP down with a completion routine of its own.
PDEVICE_OBJECT gLowerOfMiddle = nullptr;
NTSTATUS MiddleWithRoutine(PDEVICE_OBJECT, PIRP irp) {
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, UpperRoutine, (PVOID) "middle", TRUE, TRUE, TRUE);
    return IoCallDriver(gLowerOfMiddle, irp);
}

// Passes the IRP down without a routine.
NTSTATUS MiddlePassesThrough(PDEVICE_OBJECT, PIRP irp) {
    IoCopyCurrentIrpStackLocationToNext(irp);
    return IoCallDriver(gLowerOfMiddle, irp);
}

// A bus device (bottom) with a function device attached on top of it.
class IoStack : public ::testing::Test {
protected:
    void SetUp() override {
        gSeen.clear();
        gRoutineResult = STATUS_SUCCESS;
        gHeld = nullptr;
        mCountsBefore = kplat::GetObjectCounts();
        mBusDriver = kplat::CreateDriverObject(u"\\Driver\\bus");
        mFunctionDriver = kplat::CreateDriverObject(u"\\Driver\\function");
        ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(mBusDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &mPdo));
        ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(mFunctionDriver, 64, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &mFdo));
        ASSERT_EQ(mPdo, IoAttachDeviceToDeviceStack(mFdo, mPdo));
        gLowerOfMiddle = mPdo;
        mBusDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = BottomCompletes;
        mFunctionDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = MiddleWithRoutine;
    }
    void TearDown() override {
        IoDetachDevice(mPdo);
        IoDeleteDevice(mFdo);
        IoDeleteDevice(mPdo);
        kplat::DeleteDriverObject(mFunctionDriver);
        kplat::DeleteDriverObject(mBusDriver);
        kplat::ObjectCounts after = kplat::GetObjectCounts();
        EXPECT_EQ(mCountsBefore.irps, after.irps);
        EXPECT_EQ(mCountsBefore.deviceObjects, after.deviceObjects);
    }

    // An IRP for the top of the stack, sent by an owner that has no stack
    // location of its own, with the owner's completion routine.
    PIRP NewIrp(NTSTATUS bottomStatus) {
        PIRP irp = IoAllocateIrp(mFdo->StackSize, FALSE);
        EXPECT_NE(nullptr, irp);
        PrepareIrp(irp, bottomStatus);
        return irp;
    }
    void PrepareIrp(PIRP irp, NTSTATUS bottomStatus) {
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.Others.Argument1 = (PVOID)(intptr_t)bottomStatus;
        IoSetCompletionRoutine(irp, OwnerRoutine, nullptr, TRUE, TRUE, TRUE);
    }

    PDRIVER_OBJECT mBusDriver = nullptr;
    PDRIVER_OBJECT mFunctionDriver = nullptr;
    PDEVICE_OBJECT mPdo = nullptr;
    PDEVICE_OBJECT mFdo = nullptr;
    kplat::ObjectCounts mCountsBefore;
};

// ---------------------------------------------------------------------------
// Devices and stacks
// ---------------------------------------------------------------------------
TEST_F(IoStack, AttachingStacksDevicesAndSizesTheirStacks) {
    EXPECT_EQ(1, mPdo->StackSize);
    EXPECT_EQ(2, mFdo->StackSize);
    EXPECT_EQ(mFdo, mPdo->AttachedDevice);
    // A third device attaches to the top of the stack, whatever it is given.
    PDEVICE_OBJECT filter;
    ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(mFunctionDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &filter));
    EXPECT_EQ(nullptr, filter->DeviceExtension);
    EXPECT_EQ(mFdo, IoAttachDeviceToDeviceStack(filter, mPdo));
    EXPECT_EQ(3, filter->StackSize);
    EXPECT_EQ(filter, mFdo->AttachedDevice);
    EXPECT_EQ(filter, mFunctionDriver->DeviceObject);

    IoDetachDevice(mFdo);
    EXPECT_EQ(nullptr, mFdo->AttachedDevice);
    IoDeleteDevice(filter);
    EXPECT_EQ(mFdo, mFunctionDriver->DeviceObject);
    EXPECT_EQ(nullptr, mFdo->NextDevice);
}

TEST_F(IoStack, CompletionRoutinesRunBottomUpWithTheirDriversDevice) {
    PIRP irp = NewIrp(STATUS_SUCCESS);
    EXPECT_EQ(STATUS_SUCCESS, IoCallDriver(mFdo, irp));
    ASSERT_EQ(2u, gSeen.size());
    // The middle driver's routine was set by the function driver, in the
    // location of the bus device; it runs with the function device.
    EXPECT_STREQ("middle", gSeen[0].who);
    EXPECT_EQ(mFdo, gSeen[0].device);
    EXPECT_EQ(2, gSeen[0].currentLocation);
    EXPECT_FALSE(gSeen[0].pendingReturned);  // completed synchronously
    // The owner has no location of its own: NULL device.
    EXPECT_STREQ("owner", gSeen[1].who);
    EXPECT_EQ(nullptr, gSeen[1].device);
    EXPECT_EQ(3, gSeen[1].currentLocation);
    EXPECT_EQ(STATUS_SUCCESS, irp->IoStatus.Status);
    IoFreeIrp(irp);
}

struct FlagCase {
    bool onSuccess, onError, onCancel;
    NTSTATUS status;
    bool cancel;
    bool invoked;
};

TEST_F(IoStack, RoutineRunsOnlyForTheOutcomesItAskedFor) {
    const FlagCase cases[] = {
        {true, false, false, STATUS_SUCCESS, false, true},
        {true, false, false, STATUS_UNSUCCESSFUL, false, false},
        {false, true, false, STATUS_UNSUCCESSFUL, false, true},
        {false, true, false, STATUS_SUCCESS, false, false},
        {false, false, true, STATUS_CANCELLED, true, true},
        {false, false, true, STATUS_CANCELLED, false, false},  // not cancelled: an error
        {false, false, true, STATUS_SUCCESS, true, false},     // cancelled but it succeeded
        {false, true, false, STATUS_CANCELLED, true, true},    // a cancelled IRP failed too
        {true, false, false, STATUS_BUFFER_OVERFLOW, false, false},  // a warning is not a success
    };
    for (const FlagCase& c : cases) {
        gSeen.clear();
        PIRP irp = IoAllocateIrp(1, FALSE);
        IoSetCompletionRoutine(irp, OwnerRoutine, nullptr, c.onSuccess, c.onError, c.onCancel);
        IoGetNextIrpStackLocation(irp)->Parameters.Others.Argument1 = (PVOID)(intptr_t)c.status;
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        irp->Cancel = c.cancel;
        IoCallDriver(mPdo, irp);
        EXPECT_EQ(c.invoked ? 1u : 0u, gSeen.size())
            << "success " << c.onSuccess << " error " << c.onError << " cancel " << c.onCancel << " status 0x"
            << std::hex << c.status << " Cancel " << c.cancel;
        IoFreeIrp(irp);
    }
}

TEST_F(IoStack, PendingReturnedReachesTheRoutinesAboveThroughLocationsWithoutOne) {
    mBusDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = BottomPends;
    mFunctionDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = MiddlePassesThrough;
    PIRP irp = NewIrp(STATUS_SUCCESS);
    EXPECT_EQ(STATUS_PENDING, IoCallDriver(mFdo, irp));
    EXPECT_TRUE(gSeen.empty());
    ASSERT_EQ(irp, gHeld);
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ASSERT_EQ(1u, gSeen.size());
    EXPECT_TRUE(gSeen[0].pendingReturned);
    IoFreeIrp(irp);
}

TEST_F(IoStack, MoreProcessingRequiredKeepsTheIrpAndReuseMakesItNew) {
    gRoutineResult = STATUS_MORE_PROCESSING_REQUIRED;
    PIRP irp = NewIrp(STATUS_UNSUCCESSFUL);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, IoCallDriver(mFdo, irp));
    ASSERT_EQ(2u, gSeen.size());
    EXPECT_EQ(STATUS_UNSUCCESSFUL, irp->IoStatus.Status);
    EXPECT_EQ(irp->StackCount + 1, irp->CurrentLocation);

    for (int round = 0; round < 3; round++) {
        irp->Cancel = TRUE;
        irp->PendingReturned = TRUE;
        IoReuseIrp(irp, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(STATUS_NOT_SUPPORTED, irp->IoStatus.Status);
        EXPECT_EQ(irp->StackCount + 1, irp->CurrentLocation);
        EXPECT_EQ((PIO_STACK_LOCATION)(irp + 1) + irp->StackCount, IoGetCurrentIrpStackLocation(irp));
        EXPECT_FALSE(irp->Cancel);
        EXPECT_FALSE(irp->PendingReturned);
        EXPECT_EQ(nullptr, IoGetNextIrpStackLocation(irp)->CompletionRoutine);

        gSeen.clear();
        uint64_t allocations = kplat::PoolAllocationCount();
        PrepareIrp(irp, STATUS_SUCCESS);
        EXPECT_EQ(STATUS_SUCCESS, IoCallDriver(mFdo, irp));
        EXPECT_EQ(allocations, kplat::PoolAllocationCount());
        ASSERT_EQ(2u, gSeen.size());
        EXPECT_EQ(STATUS_SUCCESS, gSeen[1].status);
    }
    IoFreeIrp(irp);
}

// The forward-and-wait pattern: a driver stops completion in its routine,
// then completes the IRP again itself, which goes on to the routines above.
NTSTATUS StopInMiddle(PDEVICE_OBJECT device, PIRP irp, PVOID) {
    gSeen.push_back({"middle-stop", device, irp->IoStatus.Status, irp->PendingReturned, irp->CurrentLocation});
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(IoStack, DriverThatStoppedCompletionCompletesAgainUpwards) {
    mFunctionDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, StopInMiddle, nullptr, TRUE, TRUE, TRUE);
        NTSTATUS status = IoCallDriver(gLowerOfMiddle, irp);
        // Completed below and stopped in our routine: the IRP is ours again.
        irp->IoStatus.Status = STATUS_DEVICE_NOT_CONNECTED;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    };
    PIRP irp = NewIrp(STATUS_SUCCESS);
    IoCallDriver(mFdo, irp);
    ASSERT_EQ(2u, gSeen.size());
    EXPECT_STREQ("middle-stop", gSeen[0].who);
    EXPECT_EQ(mFdo, gSeen[0].device);
    EXPECT_STREQ("owner", gSeen[1].who);
    EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, gSeen[1].status);
    IoFreeIrp(irp);
}

// ---------------------------------------------------------------------------
// Checks of IRP misuse
// ---------------------------------------------------------------------------
TEST_F(IoStack, CompletingTwiceIsACheckFailure) {
    PIRP irp = NewIrp(STATUS_SUCCESS);
    IoCallDriver(mFdo, irp);
    ASSERT_EQ(2u, gSeen.size());
    {
        kplat::CheckRecorder recorder;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        std::vector<kplat::CheckFailure> failures = recorder.Take();
        ASSERT_EQ(1u, failures.size());
        EXPECT_EQ((ULONG)MULTIPLE_IRP_COMPLETE_REQUESTS, failures[0].code);
        EXPECT_EQ((ULONG_PTR)irp, failures[0].p1);
    }
    EXPECT_EQ(2u, gSeen.size());  // no routine ran again
    IoFreeIrp(irp);
}

TEST_F(IoStack, SendingWithoutAStackLocationLeftIsACheckFailure) {
    static int sBottomCalls;
    sBottomCalls = 0;
    mBusDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = [](PDEVICE_OBJECT d, PIRP irp) {
        sBottomCalls++;
        return BottomCompletes(d, irp);
    };
    mFunctionDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = MiddlePassesThrough;
    kplat::CheckRecorder recorder;
    PIRP irp = IoAllocateIrp(1, FALSE);  // one location short for the stack
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    IoCallDriver(mFdo, irp);
    std::vector<kplat::CheckFailure> failures = recorder.Take();
    ASSERT_EQ(1u, failures.size());
    EXPECT_EQ((ULONG)NO_MORE_IRP_STACK_LOCATIONS, failures[0].code);
    EXPECT_EQ(0, sBottomCalls);
    IoFreeIrp(irp);
}

// ---------------------------------------------------------------------------
// Cancellation
// ---------------------------------------------------------------------------
int gCancelCalls = 0;
PDEVICE_OBJECT gCancelDevice = nullptr;
KIRQL gCancelRunIrql = 0;

void CancelPending(PDEVICE_OBJECT device, PIRP irp) {
    gCancelCalls++;
    gCancelDevice = device;
    gCancelRunIrql = KeGetCurrentIrql();
    EXPECT_TRUE(irp->Cancel);
    EXPECT_EQ(nullptr, irp->CancelRoutine);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    irp->IoStatus.Status = STATUS_CANCELLED;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

NTSTATUS BottomPendsCancelable(PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    IoSetCancelRoutine(irp, CancelPending);
    gHeld = irp;
    return STATUS_PENDING;
}

TEST_F(IoStack, CancelOfPendingIrpRunsItsCancelRoutineOnce) {
    gCancelCalls = 0;
    mBusDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = BottomPendsCancelable;
    gRoutineResult = STATUS_MORE_PROCESSING_REQUIRED;
    PIRP irp = NewIrp(STATUS_SUCCESS);
    EXPECT_EQ(STATUS_PENDING, IoCallDriver(mFdo, irp));

    EXPECT_TRUE(IoCancelIrp(irp));
    EXPECT_EQ(1, gCancelCalls);
    EXPECT_EQ(mPdo, gCancelDevice);
    EXPECT_EQ(DISPATCH_LEVEL, gCancelRunIrql);  // called with the cancel spin lock held
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    EXPECT_EQ(PASSIVE_LEVEL, irp->CancelIrql);
    ASSERT_EQ(2u, gSeen.size());
    EXPECT_EQ(STATUS_CANCELLED, gSeen[1].status);
    EXPECT_TRUE(gSeen[1].pendingReturned);

    // The IRP is the owner's again (its routine kept it); a second cancel
    // finds no routine.
    EXPECT_FALSE(IoCancelIrp(irp));
    EXPECT_EQ(1, gCancelCalls);
    IoFreeIrp(irp);
}

TEST_F(IoStack, CancelWithoutCancelRoutineOnlyMarksTheIrp) {
    mBusDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = BottomPends;
    PIRP irp = NewIrp(STATUS_SUCCESS);
    IoCallDriver(mFdo, irp);
    EXPECT_FALSE(IoCancelIrp(irp));
    EXPECT_TRUE(irp->Cancel);
    EXPECT_TRUE(gSeen.empty());
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    // The driver that holds it sees Cancel and completes it as cancelled.
    irp->IoStatus.Status = STATUS_CANCELLED;
    IoCompleteRequest(gHeld, IO_NO_INCREMENT);
    ASSERT_EQ(2u, gSeen.size());
    EXPECT_EQ(STATUS_CANCELLED, gSeen[1].status);
    IoFreeIrp(irp);
}

TEST_F(IoStack, CancelRoutineClearedBeforeCompletionIsNotCalled) {
    gCancelCalls = 0;
    mBusDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = BottomPendsCancelable;
    gRoutineResult = STATUS_MORE_PROCESSING_REQUIRED;
    PIRP irp = NewIrp(STATUS_SUCCESS);
    IoCallDriver(mFdo, irp);
    // The bus completes it: it takes its cancel routine back first.
    ASSERT_EQ(CancelPending, IoSetCancelRoutine(gHeld, nullptr));
    gHeld->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(gHeld, IO_NO_INCREMENT);
    EXPECT_FALSE(IoCancelIrp(irp));
    EXPECT_EQ(0, gCancelCalls);
    IoFreeIrp(irp);
}

}  // namespace
