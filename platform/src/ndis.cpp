// NDIS as the miniport sees it: registration, attributes and device objects,
// configuration from the stand-in's registry, miniport timers, the error log,
// and the entry points of indications and completions (their stack side is in
// ndisstack.cpp).
//
// Handles: the wrapper handle is the driver's NdisDriver::Impl, the
// MiniportAdapterHandle the adapter's NdisAdapter::Impl, the
// WrapperConfigurationContext a record inside it, and a configuration handle
// an NdisConfiguration. Every handle the miniport passes is looked up before
// use, so a stale or foreign one is reported instead of followed.
#include <cstdarg>
#include <cstdio>

#include "ndis_internal.h"

using namespace kplat;
using namespace kplat_internal;

namespace kplat {
namespace ndis {

Globals& G() {
    static Globals* globals = new Globals;  // never destroyed: late completions may still look
    return *globals;
}

void VerifierFailed(NDIS_HANDLE adapter, ULONG_PTR p2, ULONG_PTR p3, const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    CheckFailed(kNdisVerifier, (ULONG_PTR)adapter, p2, p3, 0, text);
}

// Every indication and completion checks its handle: the calling thread
// keeps its last good answer, which holds until the set of adapters
// changes, so that the busy path touches no lock shared by the threads.
NdisAdapter::Impl* AdapterOf(NDIS_HANDLE handle, const char* what) {
    thread_local NDIS_HANDLE lastHandle = nullptr;
    thread_local uint64_t lastChange = 0;
    // acquire: pairs with the release increments in the adapter's
    // constructor and destructor.
    const uint64_t change = G().adaptersChanged.load(std::memory_order_acquire);
    if (handle != nullptr && handle == lastHandle && change == lastChange) return (NdisAdapter::Impl*)handle;
    {
        std::shared_lock<std::shared_mutex> lock(G().mutex);
        auto* adapter = (NdisAdapter::Impl*)handle;
        if (G().adapters.count(adapter) != 0) {
            lastHandle = handle;
            lastChange = change;
            return adapter;
        }
    }
    VerifierFailed(handle, 0, 0, "%s: %p is not the handle of an adapter that exists", what, handle);
    return nullptr;
}

NdisAdapter::Impl* AdapterOfFdo(PDEVICE_OBJECT fdo) {
    std::shared_lock<std::shared_mutex> lock(G().mutex);
    for (NdisAdapter::Impl* adapter : G().adapters)
        if (adapter->fdo == fdo) return adapter;
    return nullptr;
}

// NDIS handles IRP_MN_SURPRISE_REMOVAL by telling the miniport, then passes
// every Plug and Play IRP down its device stack.
NTSTATUS PnPDispatch(PDEVICE_OBJECT device, PIRP irp) {
    NdisAdapter::Impl* adapter = AdapterOfFdo(device);
    if (adapter == nullptr) {
        NTSTATUS status = irp->IoStatus.Status;
        IofCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }
    if (IoGetCurrentIrpStackLocation(irp)->MinorFunction == IRP_MN_SURPRISE_REMOVAL) {
        NDIS_HANDLE context;
        {
            std::lock_guard<std::mutex> lock(adapter->mutex);
            context = adapter->initialized ? adapter->context : nullptr;
        }
        W_PNP_EVENT_NOTIFY_HANDLER notify = adapter->Chars().PnPEventNotifyHandler;
        if (context != nullptr && notify != nullptr)
            notify(context, NdisDevicePnPEventSurpriseRemoved, nullptr, 0);
    }
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(adapter->next, irp);
}

void FreeConfiguration(NdisConfiguration* configuration) { delete configuration; }

}  // namespace ndis
}  // namespace kplat

using namespace kplat::ndis;

namespace {

NdisDriver::Impl* DriverOfWrapper(NDIS_HANDLE wrapper, const char* what) {
    {
        std::lock_guard<std::shared_mutex> lock(G().mutex);
        auto* driver = (NdisDriver::Impl*)wrapper;
        if (G().drivers.count(driver) != 0) return driver;
    }
    VerifierFailed(nullptr, (ULONG_PTR)wrapper, 0, "%s: %p is not a wrapper handle of NdisInitializeWrapper", what,
                   wrapper);
    return nullptr;
}

// Indications and completions are made at DISPATCH_LEVEL or below and never
// while the caller holds a spin lock: NDIS may call back into the miniport.
// A lock held is reported; the call then goes on as made.
void CheckNoLockHeld(NDIS_HANDLE handle, const char* what) {
    int held = SpinLocksHeld();
    if (held > 0)
        VerifierFailed(handle, (ULONG_PTR)held, 0, "%s called while the calling thread holds %d spin lock(s)", what,
                       held);
}

std::string Utf8(const UNICODE_STRING* s) {
    std::string out;
    if (s == nullptr || s->Buffer == nullptr) return out;
    for (size_t i = 0; i < s->Length / sizeof(WCHAR); i++) {
        char16_t c = s->Buffer[i];
        if (c < 0x80) {
            out += (char)c;
        } else if (c < 0x800) {
            out += (char)(0xC0 | (c >> 6));
            out += (char)(0x80 | (c & 0x3F));
        } else {
            out += (char)(0xE0 | (c >> 12));
            out += (char)(0x80 | ((c >> 6) & 0x3F));
            out += (char)(0x80 | (c & 0x3F));
        }
    }
    return out;
}

// The text of a REG_SZ value, up to its terminating zero.
std::u16string RegText(const std::vector<uint8_t>& data) {
    std::u16string text;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        char16_t c = (char16_t)(data[i] | data[i + 1] << 8);
        if (c == 0) break;
        text += c;
    }
    return text;
}

bool ParseNumber(const std::u16string& text, unsigned base, ULONG* value) {
    if (text.empty()) return false;
    uint64_t v = 0;
    for (char16_t c : text) {
        unsigned digit = c >= u'0' && c <= u'9'   ? c - u'0'
                         : c >= u'a' && c <= u'f' ? c - u'a' + 10
                         : c >= u'A' && c <= u'F' ? c - u'A' + 10
                                                  : 99;
        if (digit >= base) return false;
        v = v * base + digit;
        if (v > 0xFFFFFFFFull) return false;
    }
    *value = (ULONG)v;
    return true;
}

NdisConfiguration* ConfigurationOf(NDIS_HANDLE handle, const char* what) {
    auto* configuration = (NdisConfiguration*)handle;
    std::lock_guard<std::shared_mutex> lock(G().mutex);
    for (NdisAdapter::Impl* adapter : G().adapters) {
        std::lock_guard<std::mutex> adapterLock(adapter->mutex);
        if (adapter->configurations.count(configuration) != 0) return configuration;
    }
    VerifierFailed(nullptr, (ULONG_PTR)handle, 0, "%s: %p is not an open configuration handle", what, handle);
    return nullptr;
}

void NTAPI MiniportTimerDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto timer = (PNDIS_MINIPORT_TIMER)context;
    timer->MiniportTimerFunction(nullptr, timer->MiniportTimerContext, nullptr, nullptr);
}

}  // namespace

// ---------------------------------------------------------------------------
// Registration
// ---------------------------------------------------------------------------
void NdisInitializeWrapper(PNDIS_HANDLE NdisWrapperHandle, PVOID SystemSpecific1, PVOID SystemSpecific2,
                           PVOID SystemSpecific3) {
    (void)SystemSpecific2;
    (void)SystemSpecific3;
    *NdisWrapperHandle = nullptr;
    std::lock_guard<std::shared_mutex> lock(G().mutex);
    for (NdisDriver::Impl* driver : G().drivers) {
        if (driver->driverObject == (PDRIVER_OBJECT)SystemSpecific1) {
            driver->wrapperOpen = true;
            *NdisWrapperHandle = driver;
        }
    }
}

// The record must be the 240-byte NDIS 5.1 one, version 5.1, with the
// handlers every deserialized miniport has.
NDIS_STATUS NdisMRegisterMiniport(NDIS_HANDLE NdisWrapperHandle, PNDIS_MINIPORT_CHARACTERISTICS MiniportCharacteristics,
                                  UINT CharacteristicsLength) {
    NdisDriver::Impl* driver = DriverOfWrapper(NdisWrapperHandle, "NdisMRegisterMiniport");
    if (driver == nullptr || !driver->wrapperOpen) return NDIS_STATUS_FAILURE;
    if (CharacteristicsLength != sizeof(NDIS51_MINIPORT_CHARACTERISTICS)) return NDIS_STATUS_BAD_CHARACTERISTICS;
    const NDIS51_MINIPORT_CHARACTERISTICS& c = *MiniportCharacteristics;
    const NDIS30_MINIPORT_CHARACTERISTICS& c30 = c.Ndis50Chars.Ndis40Chars.Ndis30Chars;
    if (c30.MajorNdisVersion != 5 || c30.MinorNdisVersion != 1) return NDIS_STATUS_BAD_VERSION;
    if (c30.InitializeHandler == nullptr || c30.HaltHandler == nullptr || c30.QueryInformationHandler == nullptr ||
        c30.SetInformationHandler == nullptr || c30.ResetHandler == nullptr ||
        c.Ndis50Chars.Ndis40Chars.SendPacketsHandler == nullptr)
        return NDIS_STATUS_BAD_CHARACTERISTICS;
    memcpy(&driver->chars, MiniportCharacteristics, sizeof driver->chars);
    driver->charsLength = CharacteristicsLength;
    driver->registered = true;
    driver->driverObject->MajorFunction[IRP_MJ_PNP] = PnPDispatch;
    return NDIS_STATUS_SUCCESS;
}

void NdisTerminateWrapper(NDIS_HANDLE NdisWrapperHandle, PVOID SystemSpecific) {
    (void)SystemSpecific;
    NdisDriver::Impl* driver = DriverOfWrapper(NdisWrapperHandle, "NdisTerminateWrapper");
    if (driver == nullptr) return;
    driver->wrapperOpen = false;
    driver->registered = false;
}

void NdisMRegisterUnloadHandler(NDIS_HANDLE NdisWrapperHandle, PDRIVER_UNLOAD UnloadHandler) {
    NdisDriver::Impl* driver = DriverOfWrapper(NdisWrapperHandle, "NdisMRegisterUnloadHandler");
    if (driver != nullptr) driver->unloadHandler = UnloadHandler;
}

// ---------------------------------------------------------------------------
// Attributes and device objects
// ---------------------------------------------------------------------------
void NdisMSetAttributesEx(NDIS_HANDLE MiniportAdapterHandle, NDIS_HANDLE MiniportAdapterContext,
                          UINT CheckForHangTimeInSeconds, ULONG AttributeFlags, NDIS_INTERFACE_TYPE AdapterType) {
    (void)AdapterType;
    NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMSetAttributesEx");
    if (adapter == nullptr) return;
    std::lock_guard<std::mutex> lock(adapter->mutex);
    adapter->context = MiniportAdapterContext;
    adapter->hangSeconds = CheckForHangTimeInSeconds;
    adapter->attributeFlags = AttributeFlags;
}

// Resource lists: a USB function has none.
void NdisMGetDeviceProperty(NDIS_HANDLE MiniportAdapterHandle, PDEVICE_OBJECT* PhysicalDeviceObject,
                            PDEVICE_OBJECT* FunctionalDeviceObject, PDEVICE_OBJECT* NextDeviceObject,
                            PCM_RESOURCE_LIST* AllocatedResources, PCM_RESOURCE_LIST* AllocatedResourcesTranslated) {
    NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMGetDeviceProperty");
    if (PhysicalDeviceObject) *PhysicalDeviceObject = adapter ? adapter->bus->Pdo() : nullptr;
    if (FunctionalDeviceObject) *FunctionalDeviceObject = adapter ? adapter->fdo : nullptr;
    if (NextDeviceObject) *NextDeviceObject = adapter ? adapter->next : nullptr;
    if (AllocatedResources) *AllocatedResources = nullptr;
    if (AllocatedResourcesTranslated) *AllocatedResourcesTranslated = nullptr;
}

// ---------------------------------------------------------------------------
// Configuration
// ---------------------------------------------------------------------------
void NdisOpenConfiguration(PNDIS_STATUS Status, PNDIS_HANDLE ConfigurationHandle,
                           NDIS_HANDLE WrapperConfigurationContext) {
    *ConfigurationHandle = nullptr;
    auto* context = (NdisAdapter::Impl::ConfigContext*)WrapperConfigurationContext;
    NdisAdapter::Impl* adapter = nullptr;
    {
        std::lock_guard<std::shared_mutex> lock(G().mutex);
        for (NdisAdapter::Impl* a : G().adapters)
            if (&a->configContext == context) adapter = a;
    }
    if (adapter == nullptr) {
        VerifierFailed(nullptr, (ULONG_PTR)WrapperConfigurationContext, 0,
                       "NdisOpenConfiguration: %p is not a WrapperConfigurationContext", WrapperConfigurationContext);
        *Status = NDIS_STATUS_FAILURE;
        return;
    }
    if (adapter->options.failOpenConfiguration) {
        *Status = NDIS_STATUS_RESOURCES;
        return;
    }
    auto* configuration = new NdisConfiguration;
    configuration->adapter = adapter;
    configuration->keyPath = adapter->parametersKey;
    std::lock_guard<std::mutex> lock(adapter->mutex);
    adapter->configurations.insert(configuration);
    *ConfigurationHandle = configuration;
    *Status = NDIS_STATUS_SUCCESS;
}

// Integers come from REG_DWORD values, or from REG_SZ ones holding a number
// (decimal for NdisParameterInteger, hexadecimal for NdisParameterHexInteger).
// Strings come from REG_SZ and REG_EXPAND_SZ; a REG_DWORD asked for as a
// string comes back as an integer, as NDIS returns it. Anything else fails.
void NdisReadConfiguration(PNDIS_STATUS Status, PNDIS_CONFIGURATION_PARAMETER* ParameterValue,
                           NDIS_HANDLE ConfigurationHandle, PNDIS_STRING Keyword, NDIS_PARAMETER_TYPE ParameterType) {
    *Status = NDIS_STATUS_FAILURE;
    *ParameterValue = nullptr;
    NdisConfiguration* configuration = ConfigurationOf(ConfigurationHandle, "NdisReadConfiguration");
    if (configuration == nullptr) return;
    ULONG type;
    std::vector<uint8_t> data;
    if (!RegistryGetValue(configuration->keyPath, Utf8(Keyword), &type, &data)) return;
    auto parameter = std::make_unique<NdisConfiguration::Parameter>();
    NDIS_CONFIGURATION_PARAMETER& p = parameter->value;
    const bool text = type == REG_SZ || type == REG_EXPAND_SZ;
    if (type == REG_DWORD && data.size() == 4) {
        p.ParameterType = NdisParameterInteger;
        p.ParameterData.IntegerData = (ULONG)data[0] | (ULONG)data[1] << 8 | (ULONG)data[2] << 16 |
                                      (ULONG)data[3] << 24;
    } else if (text && (ParameterType == NdisParameterInteger || ParameterType == NdisParameterHexInteger)) {
        p.ParameterType = ParameterType;
        if (!ParseNumber(RegText(data), ParameterType == NdisParameterInteger ? 10 : 16,
                         &p.ParameterData.IntegerData))
            return;
    } else if (text && ParameterType == NdisParameterString) {
        parameter->text = RegText(data);
        p.ParameterType = NdisParameterString;
        p.ParameterData.StringData.Buffer = (PWSTR)parameter->text.c_str();
        p.ParameterData.StringData.Length = (USHORT)(parameter->text.size() * sizeof(WCHAR));
        p.ParameterData.StringData.MaximumLength = (USHORT)(p.ParameterData.StringData.Length + sizeof(WCHAR));
    } else {
        return;
    }
    *ParameterValue = &p;
    *Status = NDIS_STATUS_SUCCESS;
    std::lock_guard<std::mutex> lock(configuration->adapter->mutex);
    configuration->parameters.push_back(std::move(parameter));
}

// "NetworkAddress": a REG_SZ of 12 hexadecimal digits, which may be grouped
// with '-' or ':'.
void NdisReadNetworkAddress(PNDIS_STATUS Status, PVOID* NetworkAddress, PUINT NetworkAddressLength,
                            NDIS_HANDLE ConfigurationHandle) {
    *Status = NDIS_STATUS_FAILURE;
    *NetworkAddress = nullptr;
    *NetworkAddressLength = 0;
    NdisConfiguration* configuration = ConfigurationOf(ConfigurationHandle, "NdisReadNetworkAddress");
    if (configuration == nullptr) return;
    ULONG type;
    std::vector<uint8_t> data;
    if (!RegistryGetValue(configuration->keyPath, "NetworkAddress", &type, &data) || type != REG_SZ) return;
    std::u16string digits;
    for (char16_t c : RegText(data))
        if (c != u'-' && c != u':') digits += c;
    UCHAR address[6];
    for (size_t i = 0; i < 6; i++) {
        ULONG byte;
        if (digits.size() != 12 || !ParseNumber(digits.substr(2 * i, 2), 16, &byte)) return;
        address[i] = (UCHAR)byte;
    }
    memcpy(configuration->networkAddress, address, 6);
    *NetworkAddress = configuration->networkAddress;
    *NetworkAddressLength = 6;
    *Status = NDIS_STATUS_SUCCESS;
}

void NdisCloseConfiguration(NDIS_HANDLE ConfigurationHandle) {
    NdisConfiguration* configuration = ConfigurationOf(ConfigurationHandle, "NdisCloseConfiguration");
    if (configuration == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(configuration->adapter->mutex);
        configuration->adapter->configurations.erase(configuration);
    }
    FreeConfiguration(configuration);
}

// ---------------------------------------------------------------------------
// Timers: a kernel timer whose DPC calls the miniport's function.
// ---------------------------------------------------------------------------
void NdisMInitializeTimer(PNDIS_MINIPORT_TIMER Timer, NDIS_HANDLE MiniportAdapterHandle,
                          PNDIS_TIMER_FUNCTION TimerFunction, PVOID FunctionContext) {
    KeInitializeTimer(&Timer->Timer);
    KeInitializeDpc(&Timer->Dpc, MiniportTimerDpc, Timer);
    Timer->MiniportTimerFunction = TimerFunction;
    Timer->MiniportTimerContext = FunctionContext;
    Timer->Miniport = (PNDIS_MINIPORT_BLOCK)MiniportAdapterHandle;
    Timer->NextDeferredTimer = nullptr;
}

void NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay) {
    LARGE_INTEGER due;
    due.QuadPart = -(LONGLONG)((uint64_t)MillisecondsToDelay * kUnitsPerMs);
    KeSetTimer(&Timer->Timer, due, &Timer->Dpc);
}

// As on the platform, a timer that has expired already may still have its
// function to run.
void NdisMCancelTimer(PNDIS_MINIPORT_TIMER Timer, PBOOLEAN TimerCancelled) {
    *TimerCancelled = KeCancelTimer(&Timer->Timer);
}

// ---------------------------------------------------------------------------
// Indications and completions
// ---------------------------------------------------------------------------
void NdisMIndicateStatus(NDIS_HANDLE MiniportAdapterHandle, NDIS_STATUS GeneralStatus, PVOID StatusBuffer,
                         UINT StatusBufferSize) {
    (void)StatusBuffer;
    (void)StatusBufferSize;
    CheckNoLockHeld(MiniportAdapterHandle, "NdisMIndicateStatus");
    if (NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMIndicateStatus"))
        adapter->IndicateStatus(GeneralStatus);
}

void NdisMIndicateStatusComplete(NDIS_HANDLE MiniportAdapterHandle) {
    CheckNoLockHeld(MiniportAdapterHandle, "NdisMIndicateStatusComplete");
    if (NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMIndicateStatusComplete")) {
        std::lock_guard<std::mutex> lock(adapter->mutex);
        adapter->statusCompletes++;
    }
}

void NdisMEthIndicateReceive(NDIS_HANDLE MiniportAdapterHandle, NDIS_HANDLE MiniportReceiveContext,
                             PCHAR HeaderBuffer, UINT HeaderBufferSize, PVOID LookaheadBuffer,
                             UINT LookaheadBufferSize, UINT PacketSize) {
    CheckNoLockHeld(MiniportAdapterHandle, "NdisMEthIndicateReceive");
    if (NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMEthIndicateReceive"))
        adapter->IndicateReceive(MiniportReceiveContext, (const uint8_t*)HeaderBuffer, HeaderBufferSize,
                                 (const uint8_t*)LookaheadBuffer, LookaheadBufferSize, PacketSize);
}

void NdisMEthIndicateReceiveComplete(NDIS_HANDLE MiniportAdapterHandle) {
    CheckNoLockHeld(MiniportAdapterHandle, "NdisMEthIndicateReceiveComplete");
    if (NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMEthIndicateReceiveComplete")) {
        adapter->receiveCompletes.fetch_add(1, std::memory_order_relaxed);
    }
}

void NdisMSendComplete(NDIS_HANDLE MiniportAdapterHandle, PNDIS_PACKET Packet, NDIS_STATUS Status) {
    CheckNoLockHeld(MiniportAdapterHandle, "NdisMSendComplete");
    if (NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMSendComplete"))
        adapter->SendComplete(Packet, Status);
}

void NdisMResetComplete(NDIS_HANDLE MiniportAdapterHandle, NDIS_STATUS Status, BOOLEAN AddressingReset) {
    (void)AddressingReset;
    CheckNoLockHeld(MiniportAdapterHandle, "NdisMResetComplete");
    if (NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMResetComplete"))
        adapter->ResetComplete(Status);
}

void NdisMSetInformationComplete(NDIS_HANDLE MiniportAdapterHandle, NDIS_STATUS Status) {
    CheckNoLockHeld(MiniportAdapterHandle, "NdisMSetInformationComplete");
    if (NdisAdapter::Impl* adapter = AdapterOf(MiniportAdapterHandle, "NdisMSetInformationComplete"))
        adapter->SetComplete(Status);
}

// ---------------------------------------------------------------------------
// Error log
// ---------------------------------------------------------------------------
void NdisWriteErrorLogEntry(NDIS_HANDLE NdisAdapterHandle, NDIS_ERROR_CODE ErrorCode, ULONG NumberOfErrorValues,
                            ...) {
    ErrorLogEntry entry;
    entry.adapterHandle = NdisAdapterHandle;
    entry.code = ErrorCode;
    va_list args;
    va_start(args, NumberOfErrorValues);
    for (ULONG i = 0; i < NumberOfErrorValues; i++) entry.values.push_back(va_arg(args, ULONG));
    va_end(args);
    std::lock_guard<std::shared_mutex> lock(G().mutex);
    G().errorLog.push_back(std::move(entry));
}

namespace kplat {

std::vector<ErrorLogEntry> ErrorLog() {
    std::lock_guard<std::shared_mutex> lock(G().mutex);
    return G().errorLog;
}

void ClearErrorLog() {
    std::lock_guard<std::shared_mutex> lock(G().mutex);
    G().errorLog.clear();
}

std::string ServiceKeyPath(const std::string& serviceName) {
    return "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + serviceName;
}

std::string AdapterKeyPath(unsigned ordinal) {
    char tail[16];
    snprintf(tail, sizeof tail, "\\%04u", ordinal);
    return "\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class\\"
           "{4D36E972-E325-11CE-BFC1-08002BE10318}" +
           std::string(tail);
}

}  // namespace kplat
