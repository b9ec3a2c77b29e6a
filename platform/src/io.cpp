// I/O manager: driver and device objects, device stacks, IRPs, completion
// and cancellation.
//
// IRPs, device objects and their extensions are pool blocks with the
// stand-in's own tags, so that they count in the pool accounting and fault
// injection applies to them.
#include <kplat/ndis.h>
#include <kplat/platform.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

#include "internal.h"

using namespace kplat_internal;

namespace {

constexpr CSHORT kIoTypeDriver = 4;
constexpr CSHORT kIoTypeDevice = 3;
constexpr CSHORT kIoTypeIrp = 6;

constexpr ULONG kTagIrp = kplat::MakeTag("Irp ");
constexpr ULONG kTagDevice = kplat::MakeTag("Devi");

// The device object with what the I/O manager keeps about it: the device it
// is attached to. The device extension follows, 16-byte aligned.
struct DeviceBlock {
    DEVICE_OBJECT device;
    PDEVICE_OBJECT attachedTo;
};
constexpr size_t kExtensionOffset = (sizeof(DeviceBlock) + 15) & ~(size_t)15;

DeviceBlock* BlockOf(PDEVICE_OBJECT device) { return CONTAINING_RECORD(device, DeviceBlock, device); }

// Guards the device lists of driver objects and the attachment links.
std::mutex gDeviceMutex;

// The one cancel spin lock of the system.
KSPIN_LOCK gCancelSpinLock = 0;

struct DriverBlock {
    DRIVER_OBJECT driver;
    std::u16string name;
};

NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    (void)DeviceObject;
    Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    Irp->IoStatus.Information = 0;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

bool IrqlAtMostDispatch(const char* what, PIRP irp) {
    KIRQL irql = CurrentIrql();
    if (irql <= DISPATCH_LEVEL) return true;
    char text[120];
    snprintf(text, sizeof text, "%s at IRQL %u (at most DISPATCH_LEVEL)", what, irql);
    CheckFailed(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)irp, irql, DISPATCH_LEVEL, 0, text);
    return false;
}

void InitializeIrp(PIRP irp, USHORT size, CCHAR stackCount, UCHAR allocationFlags) {
    memset(irp, 0, size);
    irp->Type = kIoTypeIrp;
    irp->Size = size;
    irp->StackCount = stackCount;
    irp->CurrentLocation = (CHAR)(stackCount + 1);
    irp->AllocationFlags = allocationFlags;
    InitializeListHead(&irp->ThreadListEntry);
    irp->Tail.Overlay.CurrentStackLocation = (PIO_STACK_LOCATION)(irp + 1) + stackCount;
}

}  // namespace

// ---------------------------------------------------------------------------
// Driver objects (the stand-in creates them; the driver receives one)
// ---------------------------------------------------------------------------
namespace kplat {

PDRIVER_OBJECT CreateDriverObject(const char16_t* name) {
    auto* block = new DriverBlock();
    block->name = name != nullptr ? name : u"";
    PDRIVER_OBJECT driver = &block->driver;
    driver->Type = kIoTypeDriver;
    driver->Size = sizeof(DRIVER_OBJECT);
    driver->DriverName.Buffer = (PWSTR)block->name.c_str();
    driver->DriverName.Length = (USHORT)(block->name.size() * sizeof(WCHAR));
    driver->DriverName.MaximumLength = (USHORT)(driver->DriverName.Length + sizeof(WCHAR));
    for (auto& dispatch : driver->MajorFunction) dispatch = InvalidDeviceRequest;
    return driver;
}

// Device objects the driver did not delete stay allocated (and counted).
void DeleteDriverObject(PDRIVER_OBJECT driver) {
    if (driver == nullptr) return;
    {
        std::lock_guard<std::mutex> guard(gDeviceMutex);
        for (PDEVICE_OBJECT d = driver->DeviceObject; d != nullptr; d = d->NextDevice) d->DriverObject = nullptr;
    }
    delete CONTAINING_RECORD(driver, DriverBlock, driver);
}

ObjectCounts GetObjectCounts() {
    ObjectCounts c;
    c.irps = LiveObjects(ObjectKind::Irp);
    c.mdls = LiveObjects(ObjectKind::Mdl);
    c.workItems = LiveObjects(ObjectKind::WorkItem);
    c.deviceObjects = LiveObjects(ObjectKind::DeviceObject);
    c.keyHandles = LiveObjects(ObjectKind::KeyHandle);
    return c;
}

}  // namespace kplat

// ---------------------------------------------------------------------------
// Device objects and stacks. Not modelled: device names (the object name
// space), exclusive opens, deferred deletion of a device still attached.
// ---------------------------------------------------------------------------
NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        ULONG DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT* DeviceObject) {
    (void)DeviceName;
    (void)Exclusive;
    *DeviceObject = nullptr;
    size_t size = kExtensionOffset + DeviceExtensionSize;
    auto* block = (DeviceBlock*)ExAllocatePoolWithTag(NonPagedPool, size, kTagDevice);
    if (block == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    memset(block, 0, size);
    PDEVICE_OBJECT device = &block->device;
    device->Type = kIoTypeDevice;
    device->Size = (USHORT)(sizeof(DEVICE_OBJECT) + DeviceExtensionSize);
    device->DriverObject = DriverObject;
    device->Flags = DO_DEVICE_INITIALIZING;
    device->Characteristics = DeviceCharacteristics;
    device->DeviceExtension = DeviceExtensionSize != 0 ? (PCHAR)block + kExtensionOffset : nullptr;
    device->DeviceType = DeviceType;
    device->StackSize = 1;
    {
        std::lock_guard<std::mutex> guard(gDeviceMutex);
        device->NextDevice = DriverObject->DeviceObject;
        DriverObject->DeviceObject = device;
    }
    CountObject(ObjectKind::DeviceObject, +1);
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

void IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
    {
        std::lock_guard<std::mutex> guard(gDeviceMutex);
        PDRIVER_OBJECT driver = DeviceObject->DriverObject;
        if (driver != nullptr) {
            for (PDEVICE_OBJECT* link = &driver->DeviceObject; *link != nullptr; link = &(*link)->NextDevice) {
                if (*link == DeviceObject) {
                    *link = DeviceObject->NextDevice;
                    break;
                }
            }
        }
    }
    CountObject(ObjectKind::DeviceObject, -1);
    ExFreePoolWithTag(BlockOf(DeviceObject), kTagDevice);
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice) {
    std::lock_guard<std::mutex> guard(gDeviceMutex);
    PDEVICE_OBJECT top = TargetDevice;
    while (top->AttachedDevice != nullptr) top = top->AttachedDevice;
    top->AttachedDevice = SourceDevice;
    SourceDevice->StackSize = (CCHAR)(top->StackSize + 1);
    BlockOf(SourceDevice)->attachedTo = top;
    return top;
}

void IoDetachDevice(PDEVICE_OBJECT TargetDevice) {
    std::lock_guard<std::mutex> guard(gDeviceMutex);
    PDEVICE_OBJECT upper = TargetDevice->AttachedDevice;
    if (upper == nullptr) return;
    BlockOf(upper)->attachedTo = nullptr;
    TargetDevice->AttachedDevice = nullptr;
}

// ---------------------------------------------------------------------------
// IRPs. Not modelled: quota, IRP lookaside lists, associated IRPs, thread
// queuing and the user-mode completion APC (an IRP that completes past its
// top stack location only copies its status to UserIosb and sets UserEvent).
// ---------------------------------------------------------------------------
PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
    (void)ChargeQuota;
    if (StackSize < 0) return nullptr;
    if (!IrqlAtMostDispatch("IoAllocateIrp", nullptr)) return nullptr;
    USHORT size = (USHORT)(sizeof(IRP) + (size_t)StackSize * sizeof(IO_STACK_LOCATION));
    auto irp = (PIRP)ExAllocatePoolWithTag(NonPagedPool, size, kTagIrp);
    if (irp == nullptr) return nullptr;
    InitializeIrp(irp, size, StackSize, 0);
    CountObject(ObjectKind::Irp, +1);
    return irp;
}

void IoFreeIrp(PIRP Irp) {
    if (Irp->Type != kIoTypeIrp) {
        CheckFailed(MULTIPLE_IRP_COMPLETE_REQUESTS, (ULONG_PTR)Irp, Irp->Type, 0, 0,
                    "IoFreeIrp of something that is not an IRP");
        return;
    }
    Irp->Type = 0;
    CountObject(ObjectKind::Irp, -1);
    ExFreePoolWithTag(Irp, kTagIrp);
}

void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus) {
    InitializeIrp(Irp, Irp->Size, Irp->StackCount, Irp->AllocationFlags);
    Irp->IoStatus.Status = Iostatus;
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    if (!IrqlAtMostDispatch("IofCallDriver", Irp)) return STATUS_INVALID_PARAMETER;
    if (Irp->CurrentLocation <= 1) {
        CheckFailed(NO_MORE_IRP_STACK_LOCATIONS, (ULONG_PTR)Irp, (ULONG_PTR)DeviceObject, 0, 0,
                    "IofCallDriver: the IRP has no stack location left for the device");
        return STATUS_INVALID_PARAMETER;
    }
    IoSetNextIrpStackLocation(Irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    stack->DeviceObject = DeviceObject;
    PDRIVER_DISPATCH dispatch = stack->MajorFunction <= IRP_MJ_MAXIMUM_FUNCTION
                                    ? DeviceObject->DriverObject->MajorFunction[stack->MajorFunction]
                                    : InvalidDeviceRequest;
    return dispatch(DeviceObject, Irp);
}

// Completion walks the stack locations from the current one upwards. Each
// location's completion routine (set there by the driver above) runs with the
// device object of that driver, or NULL for the top location; a routine is
// called on success, on error or on cancel as its Control flags say, cancel
// meaning Irp->Cancel set and the status STATUS_CANCELLED.
void IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
    (void)PriorityBoost;
    if (!IrqlAtMostDispatch("IofCompleteRequest", Irp)) return;
    const CHAR top = (CHAR)(Irp->StackCount + 1);
    if (Irp->CurrentLocation > top || Irp->Type != kIoTypeIrp) {
        CheckFailed(MULTIPLE_IRP_COMPLETE_REQUESTS, (ULONG_PTR)Irp, (ULONG_PTR)Irp->CurrentLocation, 0, 0,
                    "IofCompleteRequest: the IRP was completed already");
        return;
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    // After each step CurrentLocation is the location of the driver that set
    // the routine of `stack`.
    for (IoSkipCurrentIrpStackLocation(Irp); Irp->CurrentLocation <= top;
         stack++, IoSkipCurrentIrpStackLocation(Irp)) {
        Irp->PendingReturned = (stack->Control & SL_PENDING_RETURNED) != 0;
        NTSTATUS status = Irp->IoStatus.Status;
        bool invoke = (NT_SUCCESS(status) && (stack->Control & SL_INVOKE_ON_SUCCESS)) ||
                      (!NT_SUCCESS(status) && (stack->Control & SL_INVOKE_ON_ERROR)) ||
                      (Irp->Cancel && status == STATUS_CANCELLED && (stack->Control & SL_INVOKE_ON_CANCEL));
        PIO_COMPLETION_ROUTINE routine = stack->CompletionRoutine;
        PVOID context = stack->Context;
        stack->MinorFunction = 0;
        stack->Flags = 0;
        stack->Control = 0;
        stack->Parameters.Others.Argument1 = stack->Parameters.Others.Argument2 = nullptr;
        stack->Parameters.Others.Argument3 = stack->Parameters.Others.Argument4 = nullptr;
        stack->FileObject = nullptr;
        stack->CompletionRoutine = nullptr;
        stack->Context = nullptr;
        if (invoke && routine != nullptr) {
            PDEVICE_OBJECT device =
                Irp->CurrentLocation == top ? nullptr : IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
            if (routine(device, Irp, context) == STATUS_MORE_PROCESSING_REQUIRED) return;
        } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
            IoMarkIrpPending(Irp);
        }
    }
    // Completed past the top location: the IRP now stands one past it, which
    // marks it as completed.
    if (Irp->UserIosb != nullptr) *Irp->UserIosb = Irp->IoStatus;
    if (Irp->UserEvent != nullptr) KeSetEvent(Irp->UserEvent, IO_NO_INCREMENT, FALSE);
}

BOOLEAN IoCancelIrp(PIRP Irp) {
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    // The routine releases the cancel spin lock.
    Irp->CancelIrql = irql;
    PDEVICE_OBJECT device =
        Irp->CurrentLocation <= Irp->StackCount ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
    routine(device, Irp);
    return TRUE;
}

void IoAcquireCancelSpinLock(PKIRQL Irql) { *Irql = KeAcquireSpinLockRaiseToDpc(&gCancelSpinLock); }

void IoReleaseCancelSpinLock(KIRQL Irql) { KeReleaseSpinLock(&gCancelSpinLock, Irql); }

// The stand-in is Windows 7 by default: WDM 6.1 (Vista was 6.0; earlier
// systems had major version 1). kplat::SetWdmVersion plays another system.
namespace {
std::atomic<unsigned> gWdmVersion{0x0601};  // major << 8 | minor
}

BOOLEAN IoIsWdmVersionAvailable(UCHAR MajorVersion, UCHAR MinorVersion) {
    return ((unsigned)MajorVersion << 8 | MinorVersion) <= gWdmVersion.load(std::memory_order_relaxed);
}

namespace kplat {
void SetWdmVersion(UCHAR major, UCHAR minor) { gWdmVersion.store((unsigned)major << 8 | minor); }
}  // namespace kplat
