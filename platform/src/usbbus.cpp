// The stand-in's USB bus: the PDO that takes URBs and carries them to a
// kplat::UsbDevice. Behaviour is described in kplat/usbbus.h.
//
// Structure. Submission (the PDO's dispatch routine) checks a URB and turns
// it into a Transfer, queued on a pipe (bulk and interrupt), on the control
// queue (everything that goes over the default pipe) or on the operation
// queue (abort, host-side reset, frame number). The "run loop" does the work:
// it is entered by the bus's DPC, by its pacing timer's DPC, or by the
// submitting thread when inline completion is on; only one thread runs it at
// a time (mRunning), and it is the only code that calls the device (besides
// Attached, which Attach calls). It never holds mLock while calling the
// device or completing an IRP.
//
// IRP ownership. Every queued IRP carries CancelRoutine. Whoever wants to
// complete a Transfer first clears the cancel routine; if that fails, the
// cancel routine has been called (or is about to be) and completes it
// instead. While the run loop has a Transfer in a device call (inDevice),
// the cancel routine only marks it (cancelRequested) and the run loop
// completes it afterwards. So every IRP is completed exactly once.
#include <kplat/platform.h>
#include <kplat/usbbus.h>
#include <usbioctl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace kplat {

namespace {

std::atomic<uint16_t> gBusCount{0};

constexpr uint64_t kMicroframe100ns = 1250;  // 125 us: how far pacing may run ahead
constexpr uint32_t kPacketOverheadBytes = 8;
constexpr uint32_t kMaxPacket = 2048;          // wMaxPacketSize bits 0-10

enum class Kind { Bulk, Control, Abort, ResetHost, FrameNumber };
enum class Post { None, SetConfiguration, Unconfigure, SetInterface, ClearHalt };

struct Pipe;
struct Transfer;

// One interface record of a selection, checked at submission.
struct PlanEndpoint {
    uint8_t address;
    uint8_t attributes;
    uint16_t maxPacket;
    uint8_t interval;
};
struct PlanInterface {
    PUSBD_INTERFACE_INFORMATION info;  // in the caller's URB
    uint8_t number, alternate, cls, subClass, protocol;
    std::vector<PlanEndpoint> endpoints;
};

// A control transfer handed to the device. Owned by the bus; lives until the
// device answers it (or is detached), also when its URB was cancelled.
struct ControlRecord {
    UsbControlTransfer xfer;  // what the device sees
    std::vector<uint8_t> data;
    Transfer* transfer = nullptr;  // NULL once orphaned (its URB completed without the answer)
    bool answered = false;
    bool stalled = false;
};

struct Transfer {
    PIRP irp = nullptr;
    PURB urb = nullptr;
    Kind kind = Kind::Bulk;
    USHORT function = 0;
    Pipe* pipe = nullptr;  // bulk, abort, resets
    uint8_t* buffer = nullptr;
    uint32_t length = 0;
    uint32_t done = 0;
    bool in = false;
    bool shortOk = false;
    bool writesLength = true;  // the URB has a TransferBufferLength to report

    // Control.
    UsbSetupPacket setup = {};
    Post post = Post::None;
    ControlRecord* record = nullptr;
    std::vector<PlanInterface> plan;
    std::vector<uint8_t> configuration;  // copy of the selected descriptor
    uint8_t configurationValue = 0;

    // Where it is queued.
    std::list<Transfer*>* list = nullptr;
    std::list<Transfer*>::iterator link;

    // State, under mLock.
    bool inDevice = false;         // the run loop is in a device call for it
    bool cancelRequested = false;  // the cancel routine ran during that call (or while held)
    bool started = false;          // the device has seen part of it
    bool finished = false;         // has its final status
    USBD_STATUS status = USBD_STATUS_PENDING;

    // Capture.
    bool captured = false;
    uint8_t device = 0;  // the device's address when submitted
    uint8_t captureType = 2;
    uint8_t captureEndpoint = 0;
    int32_t captureInterval = 0;
};

struct Pipe {
    uintptr_t handle = 0;
    uint8_t address = 0;
    USBD_PIPE_TYPE type = UsbdPipeTypeBulk;
    uint16_t maxPacket = 0;  // wMaxPacketSize as in the descriptor
    uint8_t interval = 0;
    uint8_t interfaceNumber = 0;
    bool open = true;
    bool halted = false;
    bool nakWait = false;
    std::list<Transfer*> queue;

    uint32_t PacketSize() const { return maxPacket & 0x7FF; }
    bool IsIn() const { return (address & USB_ENDPOINT_DIRECTION_MASK) != 0; }
};

NTSTATUS IrpStatusFor(USBD_STATUS st) {
    switch (st) {
    case USBD_STATUS_SUCCESS: return STATUS_SUCCESS;
    case USBD_STATUS_CANCELED: return STATUS_CANCELLED;
    case USBD_STATUS_DEVICE_GONE: return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_INSUFFICIENT_RESOURCES: return STATUS_INSUFFICIENT_RESOURCES;
    case USBD_STATUS_NOT_SUPPORTED: return STATUS_NOT_SUPPORTED;
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PARAMETER:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
    case USBD_STATUS_BUFFER_TOO_SMALL:
    case USBD_STATUS_INTERFACE_NOT_FOUND:
    case USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR: return STATUS_INVALID_PARAMETER;
    default: return USBD_SUCCESS(st) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
    }
}

// Minimum URB length of the fixed-size functions; 0 for the variable ones.
ULONG MinimumLength(USHORT function) {
    switch (function) {
    case URB_FUNCTION_SELECT_CONFIGURATION: return FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface);
    case URB_FUNCTION_SELECT_INTERFACE:
        return FIELD_OFFSET(struct _URB_SELECT_INTERFACE, Interface) + FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes);
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
    case URB_FUNCTION_SYNC_RESET_PIPE:
    case URB_FUNCTION_SYNC_CLEAR_STALL: return sizeof(struct _URB_PIPE_REQUEST);
    case URB_FUNCTION_GET_CURRENT_FRAME_NUMBER: return sizeof(struct _URB_GET_CURRENT_FRAME_NUMBER);
    case URB_FUNCTION_CONTROL_TRANSFER: return sizeof(struct _URB_CONTROL_TRANSFER);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER: return sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT: return sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
    case URB_FUNCTION_SET_FEATURE_TO_DEVICE:
    case URB_FUNCTION_SET_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_SET_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_SET_FEATURE_TO_OTHER:
    case URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_CLEAR_FEATURE_TO_OTHER: return sizeof(struct _URB_CONTROL_FEATURE_REQUEST);
    case URB_FUNCTION_GET_STATUS_FROM_DEVICE:
    case URB_FUNCTION_GET_STATUS_FROM_INTERFACE:
    case URB_FUNCTION_GET_STATUS_FROM_ENDPOINT:
    case URB_FUNCTION_GET_STATUS_FROM_OTHER: return sizeof(struct _URB_CONTROL_GET_STATUS_REQUEST);
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_VENDOR_OTHER:
    case URB_FUNCTION_CLASS_DEVICE:
    case URB_FUNCTION_CLASS_INTERFACE:
    case URB_FUNCTION_CLASS_ENDPOINT:
    case URB_FUNCTION_CLASS_OTHER: return sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
    case URB_FUNCTION_GET_CONFIGURATION: return sizeof(struct _URB_CONTROL_GET_CONFIGURATION_REQUEST);
    case URB_FUNCTION_GET_INTERFACE: return sizeof(struct _URB_CONTROL_GET_INTERFACE_REQUEST);
    default: return sizeof(struct _URB_HEADER);
    }
}

// Recipient bits of the standard-request functions.
UCHAR Recipient(USHORT function) {
    switch (function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE:
    case URB_FUNCTION_SET_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_GET_STATUS_FROM_INTERFACE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_CLASS_INTERFACE: return BMREQUEST_TO_INTERFACE;
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT:
    case URB_FUNCTION_SET_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_GET_STATUS_FROM_ENDPOINT:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_CLASS_ENDPOINT: return BMREQUEST_TO_ENDPOINT;
    case URB_FUNCTION_SET_FEATURE_TO_OTHER:
    case URB_FUNCTION_CLEAR_FEATURE_TO_OTHER:
    case URB_FUNCTION_GET_STATUS_FROM_OTHER:
    case URB_FUNCTION_VENDOR_OTHER:
    case URB_FUNCTION_CLASS_OTHER: return BMREQUEST_TO_OTHER;
    default: return BMREQUEST_TO_DEVICE;
    }
}

// Length of an interface information record with n pipes: 24 + 24 n.
ULONG InterfaceInfoSize(ULONG pipes) {
    return FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes) + pipes * (ULONG)sizeof(USBD_PIPE_INFORMATION);
}

// Walks a configuration descriptor block. Returns false when a descriptor
// is shorter than 2 bytes or runs past the end.
bool DescriptorsWellFormed(const uint8_t* p, size_t total) {
    size_t off = 0;
    while (off < total) {
        if (total - off < 2) return false;
        uint8_t len = p[off];
        if (len < 2 || len > total - off) return false;
        off += len;
    }
    return true;
}

// Finds the interface descriptor (number, alternate) and its endpoints (up
// to the next interface descriptor). Returns false when it is missing.
bool FindInterface(const std::vector<uint8_t>& config, uint8_t number, uint8_t alternate,
                   const USB_INTERFACE_DESCRIPTOR** found, std::vector<PlanEndpoint>* endpoints) {
    size_t off = config.empty() ? 0 : config[0];
    const USB_INTERFACE_DESCRIPTOR* current = nullptr;
    while (off + 2 <= config.size()) {
        uint8_t len = config[off], type = config[off + 1];
        if (len < 2 || off + len > config.size()) break;
        if (type == USB_INTERFACE_DESCRIPTOR_TYPE && len >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
            if (current) break;  // the next interface: the endpoints of ours are all seen
            auto* d = (const USB_INTERFACE_DESCRIPTOR*)&config[off];
            if (d->bInterfaceNumber == number && d->bAlternateSetting == alternate) current = d;
        } else if (current && type == USB_ENDPOINT_DESCRIPTOR_TYPE && len >= sizeof(USB_ENDPOINT_DESCRIPTOR)) {
            const uint8_t* e = &config[off];
            PlanEndpoint ep;
            ep.address = e[2];
            ep.attributes = e[3];
            ep.maxPacket = (uint16_t)(e[4] | e[5] << 8);
            ep.interval = e[6];
            endpoints->push_back(ep);
        }
        off += len;
    }
    *found = current;
    return current != nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------
// The bus
// ---------------------------------------------------------------------------
struct UsbBus::Impl final : public UsbDevicePort {
    Impl();
    ~Impl() override;

    // UsbDevicePort
    void CompleteControl(UsbControlTransfer* transfer, bool stall) override;
    void EndpointReady(uint8_t endpointAddress) override;
    void Disconnect() override;
    uint64_t Now() const override { return kplat::Now(); }

    static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp);
    static void CancelRoutine(PDEVICE_OBJECT device, PIRP irp);
    static void DpcRoutine(PKDPC dpc, PVOID context, PVOID a1, PVOID a2);

    NTSTATUS Submit(PIRP irp, PURB urb);
    USBD_STATUS Build(PURB urb, Transfer* t);
    USBD_STATUS BuildControl(PURB urb, Transfer* t);
    USBD_STATUS BuildSelectConfiguration(PURB urb, Transfer* t);
    USBD_STATUS BuildSelectInterface(PURB urb, Transfer* t);
    Pipe* OpenPipe(USBD_PIPE_HANDLE handle);
    Pipe* OpenPipeByAddress(uint8_t address);
    void Enqueue(Transfer* t);
    void Unlink(Transfer* t);
    void OnCancel(PIRP irp);

    void Schedule();
    void RunAtDispatch();
    void Run();
    bool Step(std::unique_lock<std::mutex>& lk);
    bool ControlStep(std::unique_lock<std::mutex>& lk);
    bool PipeStep(std::unique_lock<std::mutex>& lk, Pipe* p);
    bool OperationStep(std::unique_lock<std::mutex>& lk);
    void NotifyAborted(std::unique_lock<std::mutex>& lk);
    void HandleDisconnect(std::unique_lock<std::mutex>& lk);
    void FinishControlLocked(Transfer* t);
    void ApplySelection(Transfer* t);
    void ClosePipes(bool all, uint8_t interfaceNumber);
    void CompleteLocked(Transfer* t, USBD_STATUS st);
    void FlushDone(std::unique_lock<std::mutex>& lk);
    void Finish(Transfer* t);
    void CaptureSubmission(const Transfer* t, char type, USBD_STATUS st);
    // Handles look like kernel addresses, are unique per bus and never reused.
    uintptr_t NewHandle() {
        return (uintptr_t)0xFFFFB00000000000ull + ((uintptr_t)mBusNumber << 32) + (++mHandleSeq << 4);
    }

    // Pacing.
    bool PaceAllows();
    void PaceCharge(uint32_t bytes);

    mutable std::mutex mLock;
    PDRIVER_OBJECT mDriver = nullptr;
    PDEVICE_OBJECT mPdo = nullptr;
    KDPC mDpc;
    KDPC mTimerDpc;
    KTIMER mTimer;
    KDPC mHoldDpc;     // runs the loop when held transfers fall due
    KTIMER mHoldTimer;
    uint16_t mBusNumber = 0;
    uint8_t mAddress = 1;

    UsbDevice* mDevice = nullptr;   // attached device, until the run loop detaches it
    bool mAttached = false;         // accepts URBs
    bool mDisconnectPending = false;
    bool mInline = false;
    uint64_t mLinkRate = 0;

    bool mRunning = false;
    bool mRunAgain = false;
    std::thread::id mRunner;

    std::vector<std::unique_ptr<Pipe>> mPipes;  // every pipe ever opened
    std::unordered_map<uintptr_t, Pipe*> mOpenPipes;
    uint64_t mReadySeq[256] = {};
    std::list<Transfer*> mControlQueue;
    Transfer* mControlActive = nullptr;
    std::list<Transfer*> mOperations;
    // Slow abort: the endpoint whose next abort holds its transfers, for how
    // long, and the transfers held until mHeldUntil.
    int mHoldAbortEndpoint = -1;
    uint64_t mHoldAbortMs = 0;
    std::list<Transfer*> mHeld;
    uint64_t mHeldUntil = 0;
    std::vector<uint8_t> mAbortNotices;
    std::unordered_map<PIRP, Transfer*> mLive;
    std::unordered_map<UsbControlTransfer*, ControlRecord*> mRecords;
    std::vector<Transfer*> mDone;
    std::vector<uint8_t> mBounce;

    uintptr_t mHandleSeq = 0;
    uintptr_t mConfigurationHandle = 0;
    uint8_t mConfigurationValue = 0;
    std::vector<uint8_t> mConfiguration;
    std::unordered_map<uint8_t, uintptr_t> mInterfaceHandles;

    bool mTimerArmed = false;
    uint64_t mPaceOrigin = 0;
    uint64_t mPaceBits = 0;

    std::shared_ptr<UsbCapture> mCapture;
    UsbBusStats mStats;
};

UsbBus::Impl::Impl() : mBounce(kMaxPacket) {
    mBusNumber = ++gBusCount;
    mDriver = CreateDriverObject(u"\\Driver\\usbbus");
    for (int i = 0; i <= IRP_MJ_MAXIMUM_FUNCTION; i++) mDriver->MajorFunction[i] = Dispatch;
    NTSTATUS st = IoCreateDevice(mDriver, sizeof(Impl*), NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &mPdo);
    if (!NT_SUCCESS(st) || !mPdo) {
        fprintf(stderr, "kplat::UsbBus: IoCreateDevice failed (0x%08X)\n", (unsigned)st);
        abort();
    }
    *(Impl**)mPdo->DeviceExtension = this;
    mPdo->Flags &= ~DO_DEVICE_INITIALIZING;
    KeInitializeDpc(&mDpc, DpcRoutine, this);
    KeInitializeDpc(&mTimerDpc, DpcRoutine, this);
    KeInitializeTimer(&mTimer);
    KeInitializeDpc(&mHoldDpc, DpcRoutine, this);
    KeInitializeTimer(&mHoldTimer);

    if (const char* env = getenv("ETHBRG_USB_CAPTURE")) {
        std::string path = env;
        size_t pos = path.find("%u");
        if (pos != std::string::npos) {
            path.replace(pos, 2, std::to_string(mBusNumber));
        } else if (mBusNumber > 1) {
            size_t dot = path.rfind('.');
            std::string suffix = "-" + std::to_string(mBusNumber);
            if (dot == std::string::npos || path.find('/', dot) != std::string::npos) path += suffix + ".pcap";
            else path.insert(dot, suffix);
        }
        std::string error;
        std::shared_ptr<UsbCapture> capture(UsbCapture::Open(path, &error).release());
        if (capture) mCapture = capture;
        else fprintf(stderr, "kplat::UsbBus: %s\n", error.c_str());
    }
}

UsbBus::Impl::~Impl() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mDevice) {
            mAttached = false;
            mDisconnectPending = true;
        }
    }
    RunAtDispatch();
    KeCancelTimer(&mTimer);
    KeCancelTimer(&mHoldTimer);
    if (IsStarted() && KeGetCurrentIrql() == PASSIVE_LEVEL) KeFlushQueuedDpcs();
    KeRemoveQueueDpc(&mDpc);
    KeRemoveQueueDpc(&mTimerDpc);
    KeRemoveQueueDpc(&mHoldDpc);
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mLive.empty())
            fprintf(stderr, "kplat::UsbBus: destroyed with %zu requests still held\n", mLive.size());
        for (auto& r : mRecords) delete r.second;
        mRecords.clear();
    }
    IoDeleteDevice(mPdo);
    DeleteDriverObject(mDriver);
}

// ---------------------------------------------------------------------------
// Dispatch
// ---------------------------------------------------------------------------
NTSTATUS UsbBus::Impl::Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    Impl* bus = *(Impl**)device->DeviceExtension;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS st;
    irp->IoStatus.Information = 0;
    switch (stack->MajorFunction) {
    case IRP_MJ_INTERNAL_DEVICE_CONTROL: {
        ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
        if (code == IOCTL_INTERNAL_USB_SUBMIT_URB) return bus->Submit(irp, (PURB)stack->Parameters.Others.Argument1);
        if (code == IOCTL_INTERNAL_USB_GET_PORT_STATUS && stack->Parameters.Others.Argument1) {
            std::lock_guard<std::mutex> lock(bus->mLock);
            *(PULONG)stack->Parameters.Others.Argument1 =
                bus->mAttached ? (USBD_PORT_ENABLED | USBD_PORT_CONNECTED) : 0;
            st = STATUS_SUCCESS;
        } else {
            st = STATUS_INVALID_DEVICE_REQUEST;
        }
        break;
    }
    case IRP_MJ_PNP:
        switch (stack->MinorFunction) {
        case IRP_MN_START_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_REMOVE_DEVICE:
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_SURPRISE_REMOVAL: st = STATUS_SUCCESS; break;
        default: st = irp->IoStatus.Status; break;  // a PDO leaves what it does not handle
        }
        break;
    case IRP_MJ_POWER:
    case IRP_MJ_CREATE:
    case IRP_MJ_CLOSE: st = STATUS_SUCCESS; break;
    case IRP_MJ_SYSTEM_CONTROL: st = irp->IoStatus.Status; break;
    default: st = STATUS_INVALID_DEVICE_REQUEST; break;
    }
    irp->IoStatus.Status = st;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return st;
}

NTSTATUS UsbBus::Impl::Submit(PIRP irp, PURB urb) {
    if (!urb) {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mStats.urbsSubmitted++;
            mStats.urbsRefused++;
            mStats.urbsCompleted++;
        }
        irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
        IofCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_INVALID_PARAMETER;
    }
    Transfer* t = new Transfer();
    t->irp = irp;
    t->urb = urb;
    t->function = urb->UrbHeader.Function;

    std::unique_lock<std::mutex> lk(mLock);
    mStats.urbsSubmitted++;
    t->device = mAddress;
    USBD_STATUS st = mAttached ? Build(urb, t) : USBD_STATUS_DEVICE_GONE;
    if (st != USBD_STATUS_SUCCESS) {
        mStats.urbsRefused++;
        mStats.urbsCompleted++;
        if (st == USBD_STATUS_CANCELED) mStats.urbsCancelled++;
        if (t->captured) CaptureSubmission(t, 'E', st);
        lk.unlock();
        delete t;
        urb->UrbHeader.Status = st;
        NTSTATUS status = IrpStatusFor(st);
        irp->IoStatus.Status = status;
        IofCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }

    urb->UrbHeader.Status = USBD_STATUS_PENDING;
    IoMarkIrpPending(irp);
    if (t->captured) CaptureSubmission(t, 'S', USBD_STATUS_PENDING);
    Enqueue(t);
    mLive[irp] = t;
    irp->Tail.Overlay.DriverContext[0] = t;
    IoSetCancelRoutine(irp, CancelRoutine);
    if (irp->Cancel && IoSetCancelRoutine(irp, NULL) != NULL) {
        // Cancelled before it got here; the cancel routine was never called
        // and the IRP is ours to complete. Only this one: the list of done
        // transfers is the run loop's to complete, in order.
        t->status = USBD_STATUS_CANCELED;
        t->finished = true;
        Unlink(t);
        mLive.erase(irp);
        lk.unlock();
        Finish(t);
        return STATUS_PENDING;
    }
    bool runHere = mInline;
    lk.unlock();
    if (runHere) RunAtDispatch();
    else Schedule();
    return STATUS_PENDING;
}

Pipe* UsbBus::Impl::OpenPipe(USBD_PIPE_HANDLE handle) {
    auto it = mOpenPipes.find((uintptr_t)handle);
    return it == mOpenPipes.end() ? nullptr : it->second;
}

Pipe* UsbBus::Impl::OpenPipeByAddress(uint8_t address) {
    for (auto& kv : mOpenPipes)
        if (kv.second->address == address) return kv.second;
    return nullptr;
}

// Resolves the data buffer of a transfer: the MDL's system address when
// there is an MDL, else the buffer pointer.
static USBD_STATUS ResolveBuffer(PVOID buffer, PMDL mdl, ULONG length, uint8_t** out) {
    *out = nullptr;
    if (mdl) {
        if (MmGetMdlByteCount(mdl) < length) return USBD_STATUS_INVALID_PARAMETER;
        PVOID va = MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority);
        if (!va) return USBD_STATUS_INSUFFICIENT_RESOURCES;
        *out = (uint8_t*)va;
        return USBD_STATUS_SUCCESS;
    }
    if (!buffer && length != 0) return USBD_STATUS_INVALID_PARAMETER;
    *out = (uint8_t*)buffer;
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS UsbBus::Impl::Build(PURB urb, Transfer* t) {
    USHORT function = urb->UrbHeader.Function;
    ULONG length = urb->UrbHeader.Length;
    if (length < sizeof(struct _URB_HEADER) || length < MinimumLength(function)) return USBD_STATUS_INVALID_PARAMETER;
    switch (function) {
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER: {
        auto& r = urb->UrbBulkOrInterruptTransfer;
        Pipe* p = OpenPipe(r.PipeHandle);
        if (!p) return USBD_STATUS_INVALID_PIPE_HANDLE;
        t->kind = Kind::Bulk;
        t->pipe = p;
        t->captured = true;
        t->captureType = p->type == UsbdPipeTypeInterrupt ? 1 : 3;
        t->captureEndpoint = p->address;
        t->captureInterval = p->type == UsbdPipeTypeInterrupt ? p->interval : 0;
        t->in = p->IsIn();
        t->length = r.TransferBufferLength;
        if (p->type != UsbdPipeTypeBulk && p->type != UsbdPipeTypeInterrupt) return USBD_STATUS_INVALID_PARAMETER;
        if (r.TransferFlags & ~(ULONG)VALID_TRANSFER_FLAGS_MASK) return USBD_STATUS_INVALID_PARAMETER;
        if (((r.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0) != p->IsIn()) return USBD_STATUS_INVALID_PARAMETER;
        t->shortOk = (r.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        return ResolveBuffer(r.TransferBuffer, r.TransferBufferMDL, r.TransferBufferLength, &t->buffer);
    }
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE: {
        Pipe* p = OpenPipe(urb->UrbPipeRequest.PipeHandle);
        if (!p) return USBD_STATUS_INVALID_PIPE_HANDLE;
        t->kind = function == URB_FUNCTION_ABORT_PIPE ? Kind::Abort : Kind::ResetHost;
        t->pipe = p;
        t->writesLength = false;
        return USBD_STATUS_SUCCESS;
    }
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
    case URB_FUNCTION_SYNC_CLEAR_STALL: {
        Pipe* p = OpenPipe(urb->UrbPipeRequest.PipeHandle);
        if (!p) return USBD_STATUS_INVALID_PIPE_HANDLE;
        t->kind = Kind::Control;
        t->pipe = p;
        t->writesLength = false;
        t->setup = {BMREQUEST_TO_ENDPOINT, USB_REQUEST_CLEAR_FEATURE, USB_FEATURE_ENDPOINT_STALL, p->address, 0};
        t->post = function == URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL ? Post::ClearHalt : Post::None;
        t->captured = true;
        return USBD_STATUS_SUCCESS;
    }
    case URB_FUNCTION_GET_CURRENT_FRAME_NUMBER:
        t->kind = Kind::FrameNumber;
        t->writesLength = false;
        return USBD_STATUS_SUCCESS;
    case URB_FUNCTION_SELECT_CONFIGURATION: return BuildSelectConfiguration(urb, t);
    case URB_FUNCTION_SELECT_INTERFACE: return BuildSelectInterface(urb, t);
    case URB_FUNCTION_ISOCH_TRANSFER:
    case URB_FUNCTION_TAKE_FRAME_LENGTH_CONTROL:
    case URB_FUNCTION_RELEASE_FRAME_LENGTH_CONTROL:
    case URB_FUNCTION_GET_FRAME_LENGTH:
    case URB_FUNCTION_SET_FRAME_LENGTH:
    case URB_FUNCTION_GET_MS_FEATURE_DESCRIPTOR: return USBD_STATUS_NOT_SUPPORTED;
    default: return BuildControl(urb, t);
    }
}

USBD_STATUS UsbBus::Impl::BuildControl(PURB urb, Transfer* t) {
    USHORT function = urb->UrbHeader.Function;
    UCHAR recipient = Recipient(function);
    t->kind = Kind::Control;
    // Every control URB with a data stage keeps its transfer fields at the
    // same offsets; they are read once the function is known (and with it
    // that the URB is long enough).
    auto& r = urb->UrbControlTransfer;
    bool hasData = true;
    switch (function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT: {
        auto& d = urb->UrbControlDescriptorRequest;
        bool get = function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE ||
                   function == URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE ||
                   function == URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT;
        t->in = get;
        t->shortOk = true;
        t->setup = {(uint8_t)((get ? 0x80 : 0) | recipient),
                    (uint8_t)(get ? USB_REQUEST_GET_DESCRIPTOR : USB_REQUEST_SET_DESCRIPTOR),
                    USB_DESCRIPTOR_MAKE_TYPE_AND_INDEX(d.DescriptorType, d.Index), d.LanguageId, 0};
        break;
    }
    case URB_FUNCTION_GET_STATUS_FROM_DEVICE:
    case URB_FUNCTION_GET_STATUS_FROM_INTERFACE:
    case URB_FUNCTION_GET_STATUS_FROM_ENDPOINT:
    case URB_FUNCTION_GET_STATUS_FROM_OTHER:
        t->in = true;
        t->shortOk = true;
        t->setup = {(uint8_t)(0x80 | recipient), USB_REQUEST_GET_STATUS, 0, urb->UrbControlGetStatusRequest.Index, 0};
        break;
    case URB_FUNCTION_SET_FEATURE_TO_DEVICE:
    case URB_FUNCTION_SET_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_SET_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_SET_FEATURE_TO_OTHER:
    case URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_CLEAR_FEATURE_TO_OTHER: {
        auto& f = urb->UrbControlFeatureRequest;
        bool set = function == URB_FUNCTION_SET_FEATURE_TO_DEVICE ||
                   function == URB_FUNCTION_SET_FEATURE_TO_INTERFACE ||
                   function == URB_FUNCTION_SET_FEATURE_TO_ENDPOINT || function == URB_FUNCTION_SET_FEATURE_TO_OTHER;
        t->setup = {recipient, (uint8_t)(set ? USB_REQUEST_SET_FEATURE : USB_REQUEST_CLEAR_FEATURE), f.FeatureSelector,
                    f.Index, 0};
        hasData = false;
        t->writesLength = false;
        break;
    }
    case URB_FUNCTION_GET_CONFIGURATION:
        t->in = true;
        t->shortOk = true;
        t->setup = {0x80, USB_REQUEST_GET_CONFIGURATION, 0, 0, 0};
        break;
    case URB_FUNCTION_GET_INTERFACE:
        t->in = true;
        t->shortOk = true;
        t->setup = {0x81, USB_REQUEST_GET_INTERFACE, 0, urb->UrbControlGetInterfaceRequest.Interface, 0};
        break;
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_VENDOR_OTHER:
    case URB_FUNCTION_CLASS_DEVICE:
    case URB_FUNCTION_CLASS_INTERFACE:
    case URB_FUNCTION_CLASS_ENDPOINT:
    case URB_FUNCTION_CLASS_OTHER: {
        auto& v = urb->UrbControlVendorClassRequest;
        bool vendor = function == URB_FUNCTION_VENDOR_DEVICE || function == URB_FUNCTION_VENDOR_INTERFACE ||
                      function == URB_FUNCTION_VENDOR_ENDPOINT || function == URB_FUNCTION_VENDOR_OTHER;
        if (v.TransferFlags & ~(ULONG)VALID_TRANSFER_FLAGS_MASK) return USBD_STATUS_INVALID_PARAMETER;
        t->in = (v.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
        t->shortOk = (v.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        t->setup = {(uint8_t)((t->in ? 0x80 : 0) | (vendor ? BMREQUEST_VENDOR : BMREQUEST_CLASS) << 5 | recipient |
                              v.RequestTypeReservedBits),
                    v.Request, v.Value, v.Index, 0};
        break;
    }
    case URB_FUNCTION_CONTROL_TRANSFER: {
        if (!(r.TransferFlags & USBD_DEFAULT_PIPE_TRANSFER) || r.PipeHandle) return USBD_STATUS_INVALID_PIPE_HANDLE;
        if (r.TransferFlags & ~(ULONG)VALID_TRANSFER_FLAGS_MASK) return USBD_STATUS_INVALID_PARAMETER;
        t->in = (r.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
        t->shortOk = (r.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        const UCHAR* s = r.SetupPacket;
        t->setup = {s[0], s[1], (uint16_t)(s[2] | s[3] << 8), (uint16_t)(s[4] | s[5] << 8), 0};
        if (r.TransferBufferLength != 0 && ((s[0] & 0x80) != 0) != t->in) return USBD_STATUS_INVALID_PARAMETER;
        break;
    }
    default: return USBD_STATUS_INVALID_URB_FUNCTION;
    }
    t->captured = true;
    t->captureType = 2;
    t->captureEndpoint = t->in ? 0x80 : 0x00;
    if (!hasData) return USBD_STATUS_SUCCESS;
    ULONG length = r.TransferBufferLength;
    if (length > 0xFFFF) return USBD_STATUS_INVALID_PARAMETER;
    t->length = length;
    t->setup.wLength = (uint16_t)length;
    return ResolveBuffer(r.TransferBuffer, r.TransferBufferMDL, length, &t->buffer);
}

USBD_STATUS UsbBus::Impl::BuildSelectConfiguration(PURB urb, Transfer* t) {
    auto& r = urb->UrbSelectConfiguration;
    t->kind = Kind::Control;
    t->writesLength = false;
    t->captured = true;
    PUSB_CONFIGURATION_DESCRIPTOR desc = r.ConfigurationDescriptor;
    if (!desc) {
        t->post = Post::Unconfigure;
        t->setup = {0x00, USB_REQUEST_SET_CONFIGURATION, 0, 0, 0};
        return USBD_STATUS_SUCCESS;
    }
    if (desc->bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE || desc->bLength < sizeof(*desc) ||
        desc->wTotalLength < desc->bLength)
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    t->configuration.assign((const uint8_t*)desc, (const uint8_t*)desc + desc->wTotalLength);
    if (!DescriptorsWellFormed(t->configuration.data(), t->configuration.size()))
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    t->configurationValue = desc->bConfigurationValue;
    ULONG offset = FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface);
    ULONG urbLength = urb->UrbHeader.Length;
    for (ULONG i = 0; i < desc->bNumInterfaces; i++) {
        if (urbLength < offset + FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes)) return USBD_STATUS_INVALID_PARAMETER;
        auto* info = (PUSBD_INTERFACE_INFORMATION)((uint8_t*)urb + offset);
        if (info->Length < FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes) || info->Length % 8 != 0 ||
            urbLength < offset + info->Length)
            return USBD_STATUS_INVALID_PARAMETER;
        for (const PlanInterface& other : t->plan)
            if (other.number == info->InterfaceNumber) return USBD_STATUS_INVALID_PARAMETER;
        PlanInterface plan;
        const USB_INTERFACE_DESCRIPTOR* d = nullptr;
        if (!FindInterface(t->configuration, info->InterfaceNumber, info->AlternateSetting, &d, &plan.endpoints))
            return USBD_STATUS_INTERFACE_NOT_FOUND;
        if (plan.endpoints.size() < d->bNumEndpoints) return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
        plan.endpoints.resize(d->bNumEndpoints);
        for (const PlanEndpoint& e : plan.endpoints)
            if ((e.maxPacket & 0x7FF) == 0 && (e.attributes & USB_ENDPOINT_TYPE_MASK) != USB_ENDPOINT_TYPE_ISOCHRONOUS)
                return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
        if (info->Length < InterfaceInfoSize(d->bNumEndpoints)) return USBD_STATUS_BUFFER_TOO_SMALL;
        plan.info = info;
        plan.number = d->bInterfaceNumber;
        plan.alternate = d->bAlternateSetting;
        plan.cls = d->bInterfaceClass;
        plan.subClass = d->bInterfaceSubClass;
        plan.protocol = d->bInterfaceProtocol;
        t->plan.push_back(std::move(plan));
        offset += info->Length;
    }
    t->post = Post::SetConfiguration;
    t->setup = {0x00, USB_REQUEST_SET_CONFIGURATION, desc->bConfigurationValue, 0, 0};
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS UsbBus::Impl::BuildSelectInterface(PURB urb, Transfer* t) {
    auto& r = urb->UrbSelectInterface;
    t->kind = Kind::Control;
    t->writesLength = false;
    PUSBD_INTERFACE_INFORMATION info = &r.Interface;
    if (info->Length < FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes) ||
        urb->UrbHeader.Length < FIELD_OFFSET(struct _URB_SELECT_INTERFACE, Interface) + info->Length)
        return USBD_STATUS_INVALID_PARAMETER;
    if (!mConfigurationValue || (uintptr_t)r.ConfigurationHandle != mConfigurationHandle)
        return USBD_STATUS_INVALID_PARAMETER;
    PlanInterface plan;
    const USB_INTERFACE_DESCRIPTOR* d = nullptr;
    if (!FindInterface(mConfiguration, info->InterfaceNumber, info->AlternateSetting, &d, &plan.endpoints))
        return USBD_STATUS_INTERFACE_NOT_FOUND;
    if (plan.endpoints.size() < d->bNumEndpoints) return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    plan.endpoints.resize(d->bNumEndpoints);
    for (const PlanEndpoint& e : plan.endpoints)
        if ((e.maxPacket & 0x7FF) == 0 && (e.attributes & USB_ENDPOINT_TYPE_MASK) != USB_ENDPOINT_TYPE_ISOCHRONOUS)
            return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    if (info->Length < InterfaceInfoSize(d->bNumEndpoints)) return USBD_STATUS_BUFFER_TOO_SMALL;
    plan.info = info;
    plan.number = d->bInterfaceNumber;
    plan.alternate = d->bAlternateSetting;
    plan.cls = d->bInterfaceClass;
    plan.subClass = d->bInterfaceSubClass;
    plan.protocol = d->bInterfaceProtocol;
    t->plan.push_back(std::move(plan));
    t->post = Post::SetInterface;
    t->setup = {BMREQUEST_TO_INTERFACE, USB_REQUEST_SET_INTERFACE, d->bAlternateSetting, d->bInterfaceNumber, 0};
    t->captured = true;
    return USBD_STATUS_SUCCESS;
}

void UsbBus::Impl::Enqueue(Transfer* t) {
    std::list<Transfer*>* list;
    switch (t->kind) {
    case Kind::Bulk: list = &t->pipe->queue; break;
    case Kind::Control: list = &mControlQueue; break;
    default: list = &mOperations; break;
    }
    t->list = list;
    t->link = list->insert(list->end(), t);
}

void UsbBus::Impl::Unlink(Transfer* t) {
    if (t == mControlActive) mControlActive = nullptr;
    if (t->list) {
        t->list->erase(t->link);
        t->list = nullptr;
    }
}

// ---------------------------------------------------------------------------
// Cancel
// ---------------------------------------------------------------------------
void UsbBus::Impl::CancelRoutine(PDEVICE_OBJECT device, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    (*(Impl**)device->DeviceExtension)->OnCancel(irp);
}

void UsbBus::Impl::OnCancel(PIRP irp) {
    std::unique_lock<std::mutex> lk(mLock);
    auto it = mLive.find(irp);
    if (it == mLive.end()) return;
    Transfer* t = it->second;
    if (t->inDevice || t->list == &mHeld) {
        t->cancelRequested = true;  // the run loop completes it after the device call / the hold
        return;
    }
    if (!t->finished) {
        if (t == mControlActive && t->record) {
            ControlRecord* rec = t->record;
            t->record = nullptr;
            if (rec->answered) {
                mRecords.erase(&rec->xfer);
                delete rec;
            } else {
                rec->transfer = nullptr;  // the device's answer, if it comes, is dropped
            }
            mAbortNotices.push_back(0x00);
        } else if (t->kind == Kind::Bulk && t->started) {
            mAbortNotices.push_back(t->pipe->address);
        }
        t->status = USBD_STATUS_CANCELED;
        t->finished = true;
    }
    Unlink(t);
    mLive.erase(it);
    lk.unlock();
    Finish(t);
    Schedule();  // the next control transfer, the device's abort notice
}

// ---------------------------------------------------------------------------
// Device port
// ---------------------------------------------------------------------------
void UsbBus::Impl::CompleteControl(UsbControlTransfer* transfer, bool stall) {
    bool schedule = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mRecords.find(transfer);
        if (it == mRecords.end() || it->second->answered) return;
        ControlRecord* rec = it->second;
        rec->answered = true;
        rec->stalled = stall;
        if (!rec->transfer) {
            mRecords.erase(it);
            delete rec;
            return;
        }
        schedule = !rec->transfer->inDevice;
    }
    if (schedule) Schedule();
}

void UsbBus::Impl::EndpointReady(uint8_t endpointAddress) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mReadySeq[endpointAddress]++;
        if (Pipe* p = OpenPipeByAddress(endpointAddress)) p->nakWait = false;
    }
    Schedule();
}

void UsbBus::Impl::Disconnect() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mDevice || mDisconnectPending) return;
        mAttached = false;
        mDisconnectPending = true;
    }
    Schedule();
}

// ---------------------------------------------------------------------------
// Run loop
// ---------------------------------------------------------------------------
void UsbBus::Impl::DpcRoutine(PKDPC dpc, PVOID context, PVOID, PVOID) {
    Impl* bus = (Impl*)context;
    if (dpc == &bus->mTimerDpc) {
        std::lock_guard<std::mutex> lock(bus->mLock);
        bus->mTimerArmed = false;
    }
    bus->Run();
}

void UsbBus::Impl::Schedule() { KeInsertQueueDpc(&mDpc, NULL, NULL); }

void UsbBus::Impl::RunAtDispatch() {
    KIRQL old = KeGetCurrentIrql();
    bool raise = old < DISPATCH_LEVEL;
    if (raise) KeRaiseIrql(DISPATCH_LEVEL, &old);
    Run();
    if (raise) KeLowerIrql(old);
}

void UsbBus::Impl::Run() {
    std::unique_lock<std::mutex> lk(mLock);
    if (mRunning) {
        mRunAgain = true;
        return;
    }
    mRunning = true;
    mRunner = std::this_thread::get_id();
    for (;;) {
        mRunAgain = false;
        bool progress = Step(lk);
        FlushDone(lk);
        if (!progress && !mRunAgain) break;
    }
    mRunning = false;
    mRunner = std::thread::id();
}

bool UsbBus::Impl::Step(std::unique_lock<std::mutex>& lk) {
    if (mDisconnectPending) {
        HandleDisconnect(lk);
        return true;
    }
    if (!mDevice) return false;
    bool progress = false;
    if (!mHeld.empty() && kplat::Now() >= mHeldUntil) {
        std::vector<Transfer*> held(mHeld.begin(), mHeld.end());
        for (Transfer* t : held) CompleteLocked(t, USBD_STATUS_CANCELED);
        progress = true;
    }
    if (!mAbortNotices.empty()) {
        NotifyAborted(lk);
        progress = true;
    }
    if (OperationStep(lk)) progress = true;
    if (mDisconnectPending) return true;
    if (ControlStep(lk)) progress = true;
    // One packet per pipe in turn. The list of open pipes may change while
    // the lock is dropped, so walk a snapshot and skip closed ones.
    std::vector<Pipe*> pipes;
    pipes.reserve(mOpenPipes.size());
    for (auto& p : mPipes)
        if (p->open && !p->queue.empty()) pipes.push_back(p.get());
    for (Pipe* p : pipes) {
        if (mDisconnectPending) return true;
        if (p->open && PipeStep(lk, p)) progress = true;
    }
    return progress;
}

void UsbBus::Impl::NotifyAborted(std::unique_lock<std::mutex>& lk) {
    std::vector<uint8_t> notices;
    notices.swap(mAbortNotices);
    UsbDevice* device = mDevice;
    lk.unlock();
    for (uint8_t ep : notices) device->EndpointAborted(ep);
    lk.lock();
}

bool UsbBus::Impl::OperationStep(std::unique_lock<std::mutex>& lk) {
    bool progress = false;
    while (!mOperations.empty()) {
        Transfer* t = nullptr;
        for (Transfer* x : mOperations)
            if (!x->finished) {
                t = x;
                break;
            }
        if (!t) break;
        progress = true;
        switch (t->kind) {
        case Kind::Abort: {
            Pipe* p = t->pipe;
            std::vector<Transfer*> victims;
            for (Transfer* x : p->queue)
                if (!x->finished) victims.push_back(x);
            if (mHoldAbortEndpoint == p->address) {
                // A slow abort: the victims come back when the hold ends.
                mHoldAbortEndpoint = -1;
                mHeldUntil = kplat::Now() + mHoldAbortMs * 10000;
                for (Transfer* x : victims) {
                    Unlink(x);
                    x->list = &mHeld;
                    x->link = mHeld.insert(mHeld.end(), x);
                }
                LARGE_INTEGER due;
                due.QuadPart = -(LONGLONG)(mHoldAbortMs * 10000);
                KeSetTimer(&mHoldTimer, due, &mHoldDpc);
                victims.clear();
            }
            for (Transfer* x : victims) CompleteLocked(x, USBD_STATUS_CANCELED);
            p->nakWait = false;
            // The device hears of it before the abort completes.
            t->inDevice = true;
            UsbDevice* device = mDevice;
            lk.unlock();
            device->EndpointAborted(p->address);
            lk.lock();
            t->inDevice = false;
            CompleteLocked(t, t->cancelRequested ? USBD_STATUS_CANCELED : USBD_STATUS_SUCCESS);
            break;
        }
        case Kind::ResetHost:
            t->pipe->halted = false;
            t->pipe->nakWait = false;
            CompleteLocked(t, USBD_STATUS_SUCCESS);
            break;
        case Kind::FrameNumber:
            t->urb->UrbGetCurrentFrameNumber.FrameNumber = (ULONG)(kplat::Now() / 10000);
            CompleteLocked(t, USBD_STATUS_SUCCESS);
            break;
        default: CompleteLocked(t, USBD_STATUS_INVALID_URB_FUNCTION); break;
        }
        if (mDisconnectPending) break;
    }
    return progress;
}

bool UsbBus::Impl::ControlStep(std::unique_lock<std::mutex>& lk) {
    if (mControlActive) {
        Transfer* t = mControlActive;
        if (t->record && t->record->answered && !t->inDevice) {
            FinishControlLocked(t);
            return true;
        }
        return false;
    }
    Transfer* t = nullptr;
    for (Transfer* x : mControlQueue)
        if (!x->finished) {
            t = x;
            break;
        }
    if (!t) return false;
    Unlink(t);
    mControlActive = t;
    auto* rec = new ControlRecord();
    rec->data.resize(t->length ? t->length : 1);
    if (!t->in && t->length) memcpy(rec->data.data(), t->buffer, t->length);
    rec->xfer.setup = t->setup;
    rec->xfer.data = rec->data.data();
    rec->xfer.actual = 0;
    rec->xfer.busContext = rec;
    rec->transfer = t;
    t->record = rec;
    mRecords[&rec->xfer] = rec;
    t->inDevice = true;
    t->started = true;
    mStats.controlTransfers++;
    UsbDevice* device = mDevice;
    lk.unlock();
    device->ControlTransfer(&rec->xfer);
    lk.lock();
    t->inDevice = false;
    if (rec->answered) {
        FinishControlLocked(t);
    } else if (t->cancelRequested) {
        rec->transfer = nullptr;
        t->record = nullptr;
        mAbortNotices.push_back(0x00);
        CompleteLocked(t, USBD_STATUS_CANCELED);
    }
    return true;
}

void UsbBus::Impl::FinishControlLocked(Transfer* t) {
    ControlRecord* rec = t->record;
    USBD_STATUS st;
    if (rec->stalled) {
        mStats.stalls++;
        st = USBD_STATUS_STALL_PID;
    } else {
        uint32_t actual = t->length;
        if (t->in) {
            actual = std::min<uint32_t>(rec->xfer.actual, t->length);
            if (actual) memcpy(t->buffer, rec->data.data(), actual);
        }
        t->done = actual;
        st = (t->in && actual < t->length && !t->shortOk) ? USBD_STATUS_ERROR_SHORT_TRANSFER : USBD_STATUS_SUCCESS;
    }
    mRecords.erase(&rec->xfer);
    delete rec;
    t->record = nullptr;
    if (st == USBD_STATUS_SUCCESS) ApplySelection(t);  // the device has switched: follow it
    CompleteLocked(t, st);
}

void UsbBus::Impl::ClosePipes(bool all, uint8_t interfaceNumber) {
    for (auto it = mOpenPipes.begin(); it != mOpenPipes.end();) {
        Pipe* p = it->second;
        if (!all && p->interfaceNumber != interfaceNumber) {
            ++it;
            continue;
        }
        p->open = false;
        std::vector<Transfer*> victims;
        for (Transfer* x : p->queue)
            if (!x->finished) victims.push_back(x);
        for (Transfer* x : victims) CompleteLocked(x, USBD_STATUS_CANCELED);
        it = mOpenPipes.erase(it);
    }
}

void UsbBus::Impl::ApplySelection(Transfer* t) {
    switch (t->post) {
    case Post::Unconfigure:
        ClosePipes(true, 0);
        mConfigurationHandle = 0;
        mConfigurationValue = 0;
        mConfiguration.clear();
        mInterfaceHandles.clear();
        return;
    case Post::ClearHalt:
        if (t->pipe->open) {
            t->pipe->halted = false;
            t->pipe->nakWait = false;
        }
        return;
    case Post::SetConfiguration:
        ClosePipes(true, 0);
        mInterfaceHandles.clear();
        mConfiguration = std::move(t->configuration);
        mConfigurationValue = t->configurationValue;
        mConfigurationHandle = NewHandle();
        t->urb->UrbSelectConfiguration.ConfigurationHandle = (USBD_CONFIGURATION_HANDLE)mConfigurationHandle;
        break;
    case Post::SetInterface: ClosePipes(false, t->plan[0].number); break;
    case Post::None: return;
    }
    for (const PlanInterface& plan : t->plan) {
        PUSBD_INTERFACE_INFORMATION info = plan.info;
        uintptr_t& ifHandle = mInterfaceHandles[plan.number];
        if (!ifHandle) ifHandle = NewHandle();
        info->Class = plan.cls;
        info->SubClass = plan.subClass;
        info->Protocol = plan.protocol;
        info->InterfaceHandle = (USBD_INTERFACE_HANDLE)ifHandle;
        info->NumberOfPipes = (ULONG)plan.endpoints.size();
        PUSBD_PIPE_INFORMATION pipes = info->Pipes;  // NumberOfPipes records follow
        for (size_t i = 0; i < plan.endpoints.size(); i++) {
            const PlanEndpoint& e = plan.endpoints[i];
            auto p = std::make_unique<Pipe>();
            p->handle = NewHandle();
            p->address = e.address;
            p->type = (USBD_PIPE_TYPE)(e.attributes & USB_ENDPOINT_TYPE_MASK);
            p->maxPacket = e.maxPacket;
            p->interval = e.interval;
            p->interfaceNumber = plan.number;
            pipes[i].MaximumPacketSize = e.maxPacket;
            pipes[i].EndpointAddress = e.address;
            pipes[i].Interval = e.interval;
            pipes[i].PipeType = p->type;
            pipes[i].PipeHandle = (USBD_PIPE_HANDLE)p->handle;
            mOpenPipes[p->handle] = p.get();
            mPipes.push_back(std::move(p));
        }
    }
}

bool UsbBus::Impl::PaceAllows() {
    if (!mLinkRate) return true;
    uint64_t now = kplat::Now();
    uint64_t busFree = mPaceOrigin + (uint64_t)(((unsigned __int128)mPaceBits * 10000000u + mLinkRate - 1) / mLinkRate);
    if (busFree <= now + kMicroframe100ns) return true;
    if (!mTimerArmed) {
        mTimerArmed = true;
        LARGE_INTEGER due;
        due.QuadPart = -(LONGLONG)(busFree - kMicroframe100ns - now);
        KeSetTimer(&mTimer, due, &mTimerDpc);
    }
    return false;
}

void UsbBus::Impl::PaceCharge(uint32_t bytes) {
    if (!mLinkRate) return;
    uint64_t now = kplat::Now();
    uint64_t busFree = mPaceOrigin + (uint64_t)(((unsigned __int128)mPaceBits * 10000000u + mLinkRate - 1) / mLinkRate);
    if (busFree < now) {
        mPaceOrigin = now;
        mPaceBits = 0;
    }
    mPaceBits += (uint64_t)(bytes + kPacketOverheadBytes) * 8;
}

bool UsbBus::Impl::PipeStep(std::unique_lock<std::mutex>& lk, Pipe* p) {
    Transfer* t = nullptr;
    for (Transfer* x : p->queue)
        if (!x->finished) {
            t = x;
            break;
        }
    if (!t) return false;
    if (p->halted) {
        CompleteLocked(t, USBD_STATUS_STALL_PID);
        return true;
    }
    if (p->nakWait || !PaceAllows()) return false;

    uint32_t packet = p->PacketSize();
    uint8_t ep = p->address & USB_ENDPOINT_ADDRESS_MASK;
    uint64_t seq = mReadySeq[p->address];
    UsbDevice* device = mDevice;
    t->inDevice = true;
    t->started = true;
    UsbHandshake hs;
    uint32_t moved = 0;
    bool ended = false;
    USBD_STATUS result = USBD_STATUS_SUCCESS;
    if (!t->in) {
        uint32_t n = std::min(packet, t->length - t->done);
        const uint8_t* data = t->buffer ? t->buffer + t->done : nullptr;
        lk.unlock();
        hs = device->OutPacket(ep, data, n);
        lk.lock();
        if (hs == UsbHandshake::Ack) {
            moved = n;
            t->done += n;
            mStats.packetsOut++;
            mStats.bytesOut += n;
            ended = t->done == t->length;
        }
    } else {
        uint32_t got = 0;
        lk.unlock();
        hs = device->InPacket(ep, mBounce.data(), packet, &got);
        lk.lock();
        if (hs == UsbHandshake::Ack) {
            bool babble = got > packet;
            if (babble) got = packet;
            uint32_t room = t->length - t->done;
            uint32_t copy = std::min(got, room);
            if (copy) memcpy(t->buffer + t->done, mBounce.data(), copy);
            t->done += copy;
            moved = got;
            mStats.packetsIn++;
            mStats.bytesIn += copy;
            if (babble || got > room) {
                ended = true;
                result = USBD_STATUS_DATA_OVERRUN;
            } else if (got < packet) {
                ended = true;
                if (t->done < t->length && !t->shortOk) result = USBD_STATUS_ERROR_SHORT_TRANSFER;
            } else {
                ended = t->done == t->length;
            }
        }
    }
    t->inDevice = false;
    bool progress = true;
    switch (hs) {
    case UsbHandshake::Ack:
        PaceCharge(moved);
        if (ended) CompleteLocked(t, result);
        break;
    case UsbHandshake::Nak:
        mStats.naks++;
        if (mReadySeq[p->address] == seq) {
            p->nakWait = true;
            progress = false;
        }
        break;
    case UsbHandshake::Stall:
        mStats.stalls++;
        p->halted = true;
        CompleteLocked(t, USBD_STATUS_STALL_PID);
        break;
    }
    if (!t->finished && t->cancelRequested) {
        mAbortNotices.push_back(p->address);
        CompleteLocked(t, USBD_STATUS_CANCELED);
        progress = true;
    }
    return progress;
}

void UsbBus::Impl::HandleDisconnect(std::unique_lock<std::mutex>& lk) {
    mDisconnectPending = false;
    mAttached = false;
    std::vector<Transfer*> victims;
    for (auto& kv : mLive)
        if (!kv.second->finished && !kv.second->inDevice) victims.push_back(kv.second);
    for (Transfer* t : victims) {
        if (t->record) {
            t->record->transfer = nullptr;
            t->record = nullptr;
        }
        CompleteLocked(t, USBD_STATUS_DEVICE_GONE);
    }
    mControlActive = nullptr;
    ClosePipes(true, 0);
    mConfigurationHandle = 0;
    mConfigurationValue = 0;
    mConfiguration.clear();
    mInterfaceHandles.clear();
    mAbortNotices.clear();
    UsbDevice* device = mDevice;
    FlushDone(lk);
    if (device) {
        lk.unlock();
        device->Detached();
        lk.lock();
    }
    mDevice = nullptr;
    // The device no longer touches its control transfers.
    for (auto& r : mRecords) delete r.second;
    mRecords.clear();
}

// ---------------------------------------------------------------------------
// Completion
// ---------------------------------------------------------------------------
void UsbBus::Impl::CompleteLocked(Transfer* t, USBD_STATUS st) {
    if (t->finished) return;
    t->status = st;
    t->finished = true;
    // With cancelRequested the cancel routine has already left the IRP to
    // us; otherwise we own it only if we can take the cancel routine back.
    if (!t->cancelRequested && IoSetCancelRoutine(t->irp, NULL) == NULL) return;  // OnCancel completes it
    Unlink(t);
    mLive.erase(t->irp);
    mDone.push_back(t);
}

void UsbBus::Impl::FlushDone(std::unique_lock<std::mutex>& lk) {
    while (!mDone.empty()) {
        std::vector<Transfer*> done;
        done.swap(mDone);
        lk.unlock();
        for (Transfer* t : done) Finish(t);
        lk.lock();
    }
}

void UsbBus::Impl::CaptureSubmission(const Transfer* t, char type, USBD_STATUS st) {
    if (!mCapture) return;
    UsbCaptureEvent e;
    e.id = (uint64_t)(uintptr_t)t->urb;
    e.type = type;
    e.transferType = t->captureType;
    e.endpoint = t->captureEndpoint;
    e.device = t->device;
    e.bus = mBusNumber;
    e.hasSetup = t->kind == Kind::Control && type == 'S';
    e.setup = t->setup;
    e.status = type == 'S' ? UsbCapture::kInProgress : UsbCapture::LinuxStatus(st);
    e.length = t->length;
    if (!t->in && t->buffer && type == 'S') {
        e.data = t->buffer;
        e.dataLength = t->length;
    }
    e.interval = t->captureInterval;
    e.transferFlags = (t->in ? 0x200u : 0u) | (t->shortOk ? 0u : 0x1u);
    e.time100ns = kplat::Now();
    mCapture->Record(e);
}

void UsbBus::Impl::Finish(Transfer* t) {
    USBD_STATUS st = t->status;
    PURB urb = t->urb;
    PIRP irp = t->irp;
    if (t->writesLength) urb->UrbBulkOrInterruptTransfer.TransferBufferLength = t->done;
    urb->UrbHeader.Status = st;
    std::shared_ptr<UsbCapture> capture;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mStats.urbsCompleted++;
        if (st == USBD_STATUS_CANCELED) mStats.urbsCancelled++;
        if (t->captured) capture = mCapture;
    }
    if (capture) {
        UsbCaptureEvent e;
        e.id = (uint64_t)(uintptr_t)urb;
        e.type = 'C';
        e.transferType = t->captureType;
        e.endpoint = t->captureEndpoint;
        e.device = t->device;
        e.bus = mBusNumber;
        e.status = UsbCapture::LinuxStatus(st);
        e.length = t->done;
        if (t->in && t->buffer && t->done) {
            e.data = t->buffer;
            e.dataLength = t->done;
        }
        e.interval = t->captureInterval;
        e.transferFlags = (t->in ? 0x200u : 0u) | (t->shortOk ? 0u : 0x1u);
        e.time100ns = kplat::Now();
        capture->Record(e);
    }
    delete t;
    irp->IoStatus.Status = IrpStatusFor(st);
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
}

// ---------------------------------------------------------------------------
// Public face
// ---------------------------------------------------------------------------
UsbBus::UsbBus() : mImpl(new Impl()) {}

UsbBus::~UsbBus() { delete mImpl; }

PDEVICE_OBJECT UsbBus::Pdo() const { return mImpl->mPdo; }

uint16_t UsbBus::BusNumber() const { return mImpl->mBusNumber; }

uint8_t UsbBus::DeviceAddress() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mAddress;
}

bool UsbBus::Attach(UsbDevice* device) {
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        if (mImpl->mDevice || !device) return false;
        mImpl->mDevice = device;
        mImpl->mAttached = true;
        mImpl->mAddress++;
        for (uint64_t& s : mImpl->mReadySeq) s = 0;
    }
    device->Attached(mImpl);
    return true;
}

void UsbBus::Unplug() {
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        if (!mImpl->mDevice || mImpl->mDisconnectPending) return;
        if (mImpl->mRunning && mImpl->mRunner == std::this_thread::get_id()) {
            // Called from inside the bus (a completion routine): the run
            // loop picks it up when the call returns.
            mImpl->mAttached = false;
            mImpl->mDisconnectPending = true;
            return;
        }
        mImpl->mAttached = false;
        mImpl->mDisconnectPending = true;
    }
    if (KeGetCurrentIrql() == PASSIVE_LEVEL) {
        mImpl->RunAtDispatch();
        if (IsStarted()) KeFlushQueuedDpcs();
    } else {
        mImpl->Schedule();
    }
}

bool UsbBus::IsAttached() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mAttached;
}

void UsbBus::SetInlineCompletion(bool on) {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    mImpl->mInline = on;
}

void UsbBus::HoldAbortedTransfers(uint8_t endpointAddress, uint32_t ms) {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    mImpl->mHoldAbortEndpoint = endpointAddress;
    mImpl->mHoldAbortMs = ms;
}

void UsbBus::SetLinkRate(uint64_t bitsPerSecond) {
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        mImpl->mLinkRate = bitsPerSecond;
        mImpl->mPaceOrigin = kplat::Now();
        mImpl->mPaceBits = 0;
    }
    mImpl->Schedule();
}

uint64_t UsbBus::LinkRate(UsbSpeed speed) {
    switch (speed) {
    case UsbSpeed::Full: return 12000000ull;
    case UsbSpeed::High: return 480000000ull;
    case UsbSpeed::Super: return 5000000000ull;
    }
    return 0;
}

bool UsbBus::StartCapture(const std::string& path, std::string* error) {
    std::shared_ptr<UsbCapture> capture(UsbCapture::Open(path, error).release());
    if (!capture) return false;
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    mImpl->mCapture = capture;
    return true;
}

void UsbBus::StopCapture() {
    std::shared_ptr<UsbCapture> old;
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        old.swap(mImpl->mCapture);
    }
    // The file is closed when the last completion still using it is done.
}

UsbBusStats UsbBus::Stats() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mStats;
}

size_t UsbBus::PendingRequests() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mLive.size();
}

uint8_t UsbBus::ConfigurationValue() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mConfigurationValue;
}

bool UsbBus::IsEndpointHalted(uint8_t endpointAddress) const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    Pipe* p = mImpl->OpenPipeByAddress(endpointAddress);
    return p && p->halted;
}

}  // namespace kplat
