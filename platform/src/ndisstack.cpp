// NDIS as the tests and the program see it: the driver loaded and unloaded,
// devices arriving and leaving under it, OID requests, hang check and reset,
// and the verifier's deadlines on the stand-in's clock (the data path is in
// ndisdata.cpp).
//
// The FDO and the Plug and Play IRP are pool blocks of the stand-in's own
// tags, made outside fault injection.
#include "ndis_internal.h"

using namespace kplat_internal;

namespace kplat {

using namespace ndis;

namespace {

using Lock = std::lock_guard<std::mutex>;

void HangDpc(PKDPC, PVOID context, PVOID, PVOID);
void VerifierDpc(PKDPC, PVOID context, PVOID, PVOID);

}  // namespace

// ---------------------------------------------------------------------------
// Driver
// ---------------------------------------------------------------------------
NdisDriver::NdisDriver(DriverEntryRoutine entry, const std::string& serviceName) : mImpl(new Impl) {
    std::u16string name = u"\\Driver\\";
    for (char c : serviceName) name += (char16_t)(unsigned char)c;
    for (char c : ServiceKeyPath(serviceName)) mImpl->registryPath += (char16_t)(unsigned char)c;
    mImpl->registryPathString.Buffer = (PWSTR)mImpl->registryPath.c_str();
    mImpl->registryPathString.Length = (USHORT)(mImpl->registryPath.size() * sizeof(WCHAR));
    mImpl->registryPathString.MaximumLength = (USHORT)(mImpl->registryPathString.Length + sizeof(WCHAR));
    mImpl->driverObject = CreateDriverObject(name.c_str());
    mImpl->loaded = true;
    {
        std::lock_guard<std::shared_mutex> lock(G().mutex);
        G().drivers.insert(mImpl);
    }
    mImpl->entryStatus = entry(mImpl->driverObject, &mImpl->registryPathString);
    if (!NT_SUCCESS(mImpl->entryStatus)) {
        // A driver whose entry fails is unloaded without its unload routine.
        DeleteDriverObject(mImpl->driverObject);
        mImpl->driverObject = nullptr;
        mImpl->loaded = false;
        mImpl->registered = false;
    }
}

NdisDriver::~NdisDriver() {
    if (mImpl->loaded) Unload();
    {
        std::lock_guard<std::shared_mutex> lock(G().mutex);
        G().drivers.erase(mImpl);
    }
    delete mImpl;
}

NTSTATUS NdisDriver::EntryStatus() const { return mImpl->entryStatus; }
bool NdisDriver::IsRegistered() const { return mImpl->registered && mImpl->wrapperOpen; }
const NDIS51_MINIPORT_CHARACTERISTICS& NdisDriver::Characteristics() const { return mImpl->chars; }
UINT NdisDriver::CharacteristicsLength() const { return mImpl->charsLength; }
PDRIVER_OBJECT NdisDriver::DriverObject() const { return mImpl->driverObject; }
PDRIVER_DISPATCH NdisDriver::NdisPnPDispatch() const { return mImpl->registered ? PnPDispatch : nullptr; }
bool NdisDriver::IsLoaded() const { return mImpl->loaded; }

void NdisDriver::Unload() {
    if (!mImpl->loaded) return;
    std::vector<NDIS_HANDLE> live;
    {
        std::lock_guard<std::shared_mutex> lock(G().mutex);
        for (NdisAdapter::Impl* adapter : G().adapters) {
            Lock adapterLock(adapter->mutex);
            if (adapter->driver == mImpl && adapter->initialized) live.push_back(adapter->Handle());
        }
    }
    for (NDIS_HANDLE handle : live)
        VerifierFailed(handle, 0, 0, "driver unloaded while adapter %p is still initialized (no MPHalt)", handle);
    if (mImpl->unloadHandler != nullptr) mImpl->unloadHandler(mImpl->driverObject);
    DeleteDriverObject(mImpl->driverObject);
    mImpl->driverObject = nullptr;
    mImpl->loaded = false;
    mImpl->registered = false;
}

// ---------------------------------------------------------------------------
// Adapter arrival and removal
// ---------------------------------------------------------------------------
NdisAdapter::NdisAdapter(NdisDriver& driver, UsbBus& bus, const AdapterOptions& options)
    : mImpl(new Impl(driver.impl())) {
    Impl& a = *mImpl;
    a.bus = &bus;
    a.options = options;
    KeInitializeTimer(&a.hangTimer);
    KeInitializeTimer(&a.verifierTimer);
    KeInitializeDpc(&a.hangDpc, HangDpc, mImpl);
    KeInitializeDpc(&a.verifierDpc, VerifierDpc, mImpl);
    KeInitializeEvent(&a.resetDone, NotificationEvent, TRUE);
    KeInitializeEvent(&a.callsDone, NotificationEvent, TRUE);
    KeInitializeEvent(&a.setDone, NotificationEvent, TRUE);
    {
        std::lock_guard<std::shared_mutex> lock(G().mutex);
        unsigned ordinal = G().nextOrdinal++;
        a.parametersKey = options.parametersKey.empty() ? AdapterKeyPath(ordinal) : options.parametersKey;
    }
    if (!driver.IsRegistered()) {
        a.initStatus = NDIS_STATUS_ADAPTER_NOT_FOUND;
        return;
    }
    NTSTATUS created;
    {
        StandInAllocationScope standIn;
        created = IoCreateDevice(driver.DriverObject(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &a.fdo);
    }
    if (!NT_SUCCESS(created)) {
        a.initStatus = NDIS_STATUS_RESOURCES;
        return;
    }
    a.next = IoAttachDeviceToDeviceStack(a.fdo, bus.Pdo());
    a.fdo->Flags &= ~DO_DEVICE_INITIALIZING;
    {
        std::lock_guard<std::shared_mutex> lock(G().mutex);
        G().adapters.insert(mImpl);
        G().adaptersChanged.fetch_add(1, std::memory_order_release);
    }
    NDIS_STATUS openError = NDIS_STATUS_SUCCESS;
    UINT selected = 0;
    std::vector<NDIS_MEDIUM> media = options.media;
    NDIS_STATUS status = a.Chars().Ndis50Chars.Ndis40Chars.Ndis30Chars.InitializeHandler(
        &openError, &selected, media.data(), (UINT)media.size(), a.Handle(), &a.configContext);
    Lock lock(a.mutex);
    a.initStatus = status;
    a.openError = openError;
    a.selectedMedium = selected;
    a.initialized = status == NDIS_STATUS_SUCCESS;
    a.haltWaiting.store(false);
    if (a.initialized && options.hangCheck && a.Chars().Ndis50Chars.Ndis40Chars.Ndis30Chars.CheckForHangHandler) {
        UINT seconds = a.hangSeconds != 0 ? a.hangSeconds : 2;
        KeSetTimer(&a.hangTimer, RelativeDue(seconds * 1000 * kUnitsPerMs), &a.hangDpc);
    }
}

NdisAdapter::~NdisAdapter() {
    Impl& a = *mImpl;
    Halt();
    KeCancelTimer(&a.hangTimer);
    KeCancelTimer(&a.verifierTimer);
    KeFlushQueuedDpcs();
    {
        std::lock_guard<std::shared_mutex> lock(G().mutex);
        G().adapters.erase(mImpl);
        G().adaptersChanged.fetch_add(1, std::memory_order_release);
    }
    if (a.fdo != nullptr) {
        IoDetachDevice(a.next);
        IoDeleteDevice(a.fdo);
    }
    a.ReleaseHostMemory();
    delete mImpl;
}

void NdisAdapter::Impl::ReleaseHostMemory() {
    for (NdisConfiguration* configuration : configurations) FreeConfiguration(configuration);
    configurations.clear();
    for (HostPacket* host : packets) FreeHostPacket(host);
    packets.clear();
    pool.clear();
}

// NDIS stops the hang check first, and lets the calls of the stack under
// way return and a pending set and reset finish (each within its deadline)
// before the halt; the miniport must have completed every packet when MPHalt
// returns.
void NdisAdapter::Halt() {
    Impl& a = *mImpl;
    NDIS_HANDLE context;
    {
        Lock lock(a.mutex);
        if (!a.initialized) return;
        a.initialized = false;
        context = a.context;
        KeCancelTimer(&a.hangTimer);
        a.haltWaiting.store(true);
        if (a.callsInFlight.load() != 0) KeClearEvent(&a.callsDone);
    }
    KeFlushQueuedDpcs();
    KeWaitForSingleObject(&a.callsDone, Executive, KernelMode, FALSE, nullptr);
    LARGE_INTEGER limit = RelativeDue(kSetDeadline);
    KeWaitForSingleObject(&a.setDone, Executive, KernelMode, FALSE, &limit);
    limit = RelativeDue(kSendDeadline);
    KeWaitForSingleObject(&a.resetDone, Executive, KernelMode, FALSE, &limit);
    a.Chars().Ndis50Chars.Ndis40Chars.Ndis30Chars.HaltHandler(context);
    size_t owned;
    PNDIS_PACKET first = nullptr;
    {
        Lock lock(a.mutex);
        owned = a.owned.size();
        if (owned != 0) first = a.owned.begin()->first;
        a.owned.clear();
        a.ownedCount.store(0, std::memory_order_relaxed);
        a.setPending = false;
        a.verifierArmed = false;
        KeCancelTimer(&a.verifierTimer);
    }
    if (owned != 0)
        VerifierFailed(a.Handle(), owned, (ULONG_PTR)first,
                       "MPHalt returned while the miniport still owns %zu packet(s), %p among them", owned, first);
}

void NdisAdapter::SurpriseRemove() {
    Impl& a = *mImpl;
    a.bus->Unplug();
    if (a.fdo != nullptr && a.fdo->DriverObject != nullptr) {
        PIRP irp;
        {
            StandInAllocationScope standIn;
            irp = IoAllocateIrp(a.fdo->StackSize, FALSE);
        }
        KEVENT done;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        irp->UserEvent = &done;
        irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_PNP;
        stack->MinorFunction = IRP_MN_SURPRISE_REMOVAL;
        IoCallDriver(a.fdo, irp);
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        IoFreeIrp(irp);
    }
    Halt();
}

void NdisAdapter::PnPEventNotify(NDIS_DEVICE_PNP_EVENT event, PVOID buffer, ULONG length) {
    W_PNP_EVENT_NOTIFY_HANDLER notify = mImpl->Chars().PnPEventNotifyHandler;
    NDIS_HANDLE context = Context();
    if (notify != nullptr && context != nullptr) notify(context, event, buffer, length);
}

void NdisAdapter::Shutdown() {
    W_MINIPORT_SHUTDOWN_HANDLER shutdown = mImpl->Chars().AdapterShutdownHandler;
    NDIS_HANDLE context = Context();
    if (shutdown != nullptr && context != nullptr) shutdown(context);
}

NDIS_STATUS NdisAdapter::InitializeStatus() const { Lock l(mImpl->mutex); return mImpl->initStatus; }
NDIS_STATUS NdisAdapter::OpenErrorStatus() const { Lock l(mImpl->mutex); return mImpl->openError; }
UINT NdisAdapter::SelectedMediumIndex() const { Lock l(mImpl->mutex); return mImpl->selectedMedium; }
bool NdisAdapter::IsInitialized() const { Lock l(mImpl->mutex); return mImpl->initialized; }
NDIS_HANDLE NdisAdapter::Handle() const { return mImpl->Handle(); }
NDIS_HANDLE NdisAdapter::Context() const { Lock l(mImpl->mutex); return mImpl->context; }
UINT NdisAdapter::HangCheckSeconds() const { Lock l(mImpl->mutex); return mImpl->hangSeconds; }
ULONG NdisAdapter::AttributeFlags() const { Lock l(mImpl->mutex); return mImpl->attributeFlags; }
PDEVICE_OBJECT NdisAdapter::Fdo() const { return mImpl->fdo; }
const std::string& NdisAdapter::ParametersKey() const { return mImpl->parametersKey; }

// ---------------------------------------------------------------------------
// OID requests. A request to an adapter that is not initialized fails
// without reaching the miniport.
// ---------------------------------------------------------------------------
NDIS_STATUS NdisAdapter::Query(NDIS_OID oid, PVOID buffer, ULONG length, PULONG bytesWritten, PULONG bytesNeeded) {
    NDIS_HANDLE context;
    {
        Lock lock(mImpl->mutex);
        if (!mImpl->initialized) return NDIS_STATUS_ADAPTER_NOT_FOUND;
        mImpl->EnterCallLocked();
        context = mImpl->context;
    }
    NDIS_STATUS status;
    {
        AtDispatch raised;
        status = mImpl->Chars().Ndis50Chars.Ndis40Chars.Ndis30Chars.QueryInformationHandler(
            context, oid, buffer, length, bytesWritten, bytesNeeded);
    }
    mImpl->LeaveCall();
    return status;
}

// Calls begin only while initialized; the mutex and the event are touched
// at the end of a call only once a halt waits for the calls (haltWaiting),
// so a busy adapter takes neither for a call that ends.
void NdisAdapter::Impl::EnterCallLocked() { callsInFlight.fetch_add(1); }

void NdisAdapter::Impl::LeaveCall() {
    if (callsInFlight.fetch_sub(1) != 1 || !haltWaiting.load()) return;
    Lock lock(mutex);
    if (callsInFlight.load() == 0) KeSetEvent(&callsDone, IO_NO_INCREMENT, FALSE);
}

NDIS_STATUS NdisAdapter::Set(NDIS_OID oid, PVOID buffer, ULONG length, PULONG bytesRead, PULONG bytesNeeded) {
    Impl& a = *mImpl;
    NDIS_HANDLE context;
    {
        Lock lock(a.mutex);
        if (!a.initialized) return NDIS_STATUS_ADAPTER_NOT_FOUND;
        if (a.setPending) return NDIS_STATUS_FAILURE;  // NDIS holds a request back while one is pending
        a.setPending = true;
        KeClearEvent(&a.setDone);
        a.setReported = false;
        a.setInCall = true;
        a.setCompletedInCall = false;
        a.setOid = oid;
        a.setDeadline = Now() + kSetDeadline;
        a.ArmVerifierLocked(a.setDeadline);
        a.EnterCallLocked();
        context = a.context;
    }
    NDIS_STATUS status;
    {
        AtDispatch raised;
        status = a.Chars().Ndis50Chars.Ndis40Chars.Ndis30Chars.SetInformationHandler(context, oid, buffer, length,
                                                                                   bytesRead, bytesNeeded);
    }
    a.LeaveCall();
    bool completedAnyway;
    {
        Lock lock(a.mutex);
        a.setInCall = false;
        completedAnyway = status != NDIS_STATUS_PENDING && a.setCompletedInCall;
        if (status != NDIS_STATUS_PENDING && a.setPending) {
            a.setPending = false;
            KeSetEvent(&a.setDone, IO_NO_INCREMENT, FALSE);
        }
    }
    if (completedAnyway)
        VerifierFailed(Handle(), oid, (ULONG_PTR)status,
                       "NdisMSetInformationComplete for a set of OID 0x%08X that returned 0x%08X, not pending", oid,
                       (unsigned)status);
    return status;
}

void NdisAdapter::Impl::SetComplete(NDIS_STATUS status) {
    {
        Lock lock(mutex);
        if (setPending) {
            setPending = false;
            KeSetEvent(&setDone, IO_NO_INCREMENT, FALSE);
            setCompletedInCall = setInCall;
            setCompletions++;
            lastSetStatus = status;
            return;
        }
    }
    VerifierFailed(Handle(), (ULONG_PTR)status, 0, "NdisMSetInformationComplete(0x%08X) without a set pending",
                   (unsigned)status);
}

bool NdisAdapter::SetPending() const { Lock l(mImpl->mutex); return mImpl->setPending; }
uint64_t NdisAdapter::SetCompletions() const { Lock l(mImpl->mutex); return mImpl->setCompletions; }
NDIS_STATUS NdisAdapter::LastSetCompletionStatus() const { Lock l(mImpl->mutex); return mImpl->lastSetStatus; }

// ---------------------------------------------------------------------------
// Hang check and reset
// ---------------------------------------------------------------------------
NDIS_STATUS NdisAdapter::Reset() { return mImpl->RunReset(); }

NDIS_STATUS NdisAdapter::Impl::RunReset() {
    NDIS_HANDLE adapterContext;
    {
        Lock lock(mutex);
        if (!initialized) return NDIS_STATUS_ADAPTER_NOT_FOUND;
        if (resetPending) return NDIS_STATUS_FAILURE;
        resetPending = true;
        resets++;
        KeClearEvent(&resetDone);
        EnterCallLocked();
        adapterContext = context;
    }
    BOOLEAN addressingReset = FALSE;
    NDIS_STATUS status;
    {
        AtDispatch raised;
        status = Chars().Ndis50Chars.Ndis40Chars.Ndis30Chars.ResetHandler(&addressingReset, adapterContext);
    }
    LeaveCall();
    Lock lock(mutex);
    if (resetPending) {  // else completed already, inside the call
        lastResetStatus = status;
        if (status != NDIS_STATUS_PENDING) {
            resetPending = false;
            KeSetEvent(&resetDone, IO_NO_INCREMENT, FALSE);
        }
    }
    return status;
}

void NdisAdapter::Impl::ResetComplete(NDIS_STATUS status) {
    {
        Lock lock(mutex);
        if (resetPending) {
            resetPending = false;
            lastResetStatus = status;
            KeSetEvent(&resetDone, IO_NO_INCREMENT, FALSE);
            return;
        }
    }
    VerifierFailed(Handle(), (ULONG_PTR)status, 0, "NdisMResetComplete(0x%08X) without a reset pending",
                   (unsigned)status);
}

uint64_t NdisAdapter::HangChecks() const { Lock l(mImpl->mutex); return mImpl->hangChecks; }
uint64_t NdisAdapter::Resets() const { Lock l(mImpl->mutex); return mImpl->resets; }
bool NdisAdapter::ResetPending() const { Lock l(mImpl->mutex); return mImpl->resetPending; }
NDIS_STATUS NdisAdapter::LastResetStatus() const { Lock l(mImpl->mutex); return mImpl->lastResetStatus; }

namespace {

// Every CheckForHangTimeInSeconds while initialized; skipped while a reset
// is pending. The NdisAdapter object is reached through its Impl only.
void HangDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto& a = *(NdisAdapter::Impl*)context;
    NDIS_HANDLE adapterContext;
    bool check;
    {
        Lock lock(a.mutex);
        if (!a.initialized) return;
        check = !a.resetPending;
        if (check) a.hangChecks++;
        adapterContext = a.context;
    }
    if (check && a.Chars().Ndis50Chars.Ndis40Chars.Ndis30Chars.CheckForHangHandler(adapterContext)) a.RunReset();
    Lock lock(a.mutex);
    if (a.initialized) {
        UINT seconds = a.hangSeconds != 0 ? a.hangSeconds : 2;
        KeSetTimer(&a.hangTimer, RelativeDue(seconds * 1000 * kUnitsPerMs), &a.hangDpc);
    }
}

// Reports every send and pended set past its deadline (each once), then
// re-arms for the earliest deadline left.
void VerifierDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto& a = *(NdisAdapter::Impl*)context;
    std::vector<PNDIS_PACKET> late;
    bool setLate = false;
    NDIS_OID oid = 0;
    {
        Lock lock(a.mutex);
        const uint64_t now = Now();
        uint64_t next = UINT64_MAX;
        for (auto& entry : a.owned) {
            if (entry.second.reported) continue;
            if (entry.second.deadline <= now) {
                entry.second.reported = true;
                late.push_back(entry.first);
            } else {
                next = std::min(next, entry.second.deadline);
            }
        }
        if (a.setPending && !a.setReported) {
            if (a.setDeadline <= now) {
                a.setReported = setLate = true;
                oid = a.setOid;
            } else {
                next = std::min(next, a.setDeadline);
            }
        }
        a.verifierArmed = false;
        if (next != UINT64_MAX) a.ArmVerifierLocked(next);
    }
    for (PNDIS_PACKET packet : late)
        VerifierFailed(a.Handle(), (ULONG_PTR)packet, 0, "packet %p not completed within 30 s of MPSendPackets",
                       packet);
    if (setLate)
        VerifierFailed(a.Handle(), oid, 0, "pended set of OID 0x%08X not completed within 12 s", oid);
}

}  // namespace

void NdisAdapter::Impl::ArmVerifierLocked(uint64_t deadline) {
    if (verifierArmed && verifierAt <= deadline) return;
    verifierArmed = true;
    verifierAt = deadline;
    const uint64_t now = Now();
    KeSetTimer(&verifierTimer, RelativeDue(deadline > now ? deadline - now : 0), &verifierDpc);
}

}  // namespace kplat
