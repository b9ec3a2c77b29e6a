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
// Passes the IRP down with a completion routine of its own.
PDEVICE_OBJECT gLowerOfMiddle = nullptr;
NTSTATUS MiddleWithRoutine(PDEVICE_OBJECT, PIRP irp) {
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, UpperRoutine, (PVOID) "middle", TRUE, TRUE, TRUE);
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

}  // namespace
