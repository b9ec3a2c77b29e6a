// The stand-in's NDIS, seen from outside the miniport: it loads a miniport
// driver, plays a USB device arriving under it and leaving (orderly or by
// surprise), calls its hang check and reset, and plays the network stack
// above each adapter (sends with completions, receive indications,
// status indications, OID queries and sets). It checks, as a verifier
// would, what the miniport owes NDIS; each broken rule is a check failure
// (kplat::SetCheckHandler) with a text that names it.
//
// Tests and the program use this header; the driver never does.
//
// Threads and IRQL. Handlers are called as NDIS calls them:
// MPInitialize, MPHalt, MPPnPEventNotify, MPAdapterShutdown and DriverEntry
// at PASSIVE_LEVEL on the calling thread; MPSendPackets, MPQueryInformation,
// MPSetInformation and MPReset raised to DISPATCH_LEVEL on the calling
// thread; MPCheckForHang at DISPATCH_LEVEL from a stand-in timer DPC, every
// CheckForHangTimeInSeconds (from NdisMSetAttributesEx) while the adapter is
// initialized. When it returns TRUE the stand-in calls MPReset (from the
// same DPC) unless a reset is in progress.
//
// Verifier checks (code kNdisVerifier, p1 = the adapter handle):
//   - a packet completed twice, or completed though the miniport does not
//     own it (never sent, or already completed);
//   - NdisMSendComplete, NdisMEthIndicateReceive(Complete),
//     NdisMIndicateStatus(Complete), NdisMResetComplete or
//     NdisMSetInformationComplete called while the calling thread holds a
//     spin lock;
//   - a packet not completed within 30 s of its MPSendPackets (stand-in
//     clock); a pended set not completed within 12 s; a set completed that
//     was not pended; a reset completed that was not pending;
//   - MPHalt returning while the miniport still owns packets;
//   - an adapter left initialized when its driver is unloaded.
#pragma once

#include <kplat/usbbus.h>
#include <ndis.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kplat {

constexpr ULONG kNdisVerifier = 0xE0000002;

using DriverEntryRoutine = NTSTATUS (*)(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

// "\Registry\Machine\System\CurrentControlSet\Services\<serviceName>"
std::string ServiceKeyPath(const std::string& serviceName);
// The parameters key of the n-th adapter of the network class:
// "\Registry\Machine\System\CurrentControlSet\Control\Class\{4D36E972-E325-11CE-BFC1-08002BE10318}\000n"
std::string AdapterKeyPath(unsigned ordinal);

// ---------------------------------------------------------------------------
// Event log
// ---------------------------------------------------------------------------
struct ErrorLogEntry {
    NDIS_HANDLE adapterHandle = nullptr;
    ULONG code = 0;
    std::vector<ULONG> values;
};
// Every NdisWriteErrorLogEntry since the process started or the last clear.
std::vector<ErrorLogEntry> ErrorLog();
void ClearErrorLog();

// ---------------------------------------------------------------------------
// Driver
// ---------------------------------------------------------------------------
class NdisDriver {
public:
    // Creates the driver object and calls entry (PASSIVE_LEVEL) with it and
    // ServiceKeyPath(serviceName).
    NdisDriver(DriverEntryRoutine entry, const std::string& serviceName);
    // Unloads if still loaded.
    ~NdisDriver();
    NdisDriver(const NdisDriver&) = delete;
    NdisDriver& operator=(const NdisDriver&) = delete;

    NTSTATUS EntryStatus() const;
    // NdisMRegisterMiniport succeeded and the wrapper was not terminated.
    bool IsRegistered() const;
    // The record given to NdisMRegisterMiniport, and its length.
    const NDIS51_MINIPORT_CHARACTERISTICS& Characteristics() const;
    UINT CharacteristicsLength() const;
    PDRIVER_OBJECT DriverObject() const;
    // The IRP_MJ_PNP dispatch routine that NDIS installed at registration.
    PDRIVER_DISPATCH NdisPnPDispatch() const;

    // Calls the registered unload handler (if any) and deletes the driver
    // object. Every adapter must be gone first.
    void Unload();
    bool IsLoaded() const;

    struct Impl;
    Impl* impl() const { return mImpl; }

private:
    Impl* mImpl;
};

// ---------------------------------------------------------------------------
// Adapter: one device under the miniport, and the stack above it
// ---------------------------------------------------------------------------
struct AdapterOptions {
    // Registry key the configuration reads; empty: AdapterKeyPath(n) with n
    // counting adapters of the process from 0.
    std::string parametersKey;
    std::vector<NDIS_MEDIUM> media = {NdisMedium802_3};
    // Call MPCheckForHang (and MPReset after TRUE) while initialized.
    bool hangCheck = true;
    // NdisOpenConfiguration fails (NDIS_STATUS_RESOURCES) for this adapter.
    bool failOpenConfiguration = false;
};

// A receive indication as the stack saw it.
struct ReceivedFrame {
    std::vector<uint8_t> header;     // HeaderBufferSize bytes
    std::vector<uint8_t> lookahead;  // LookaheadBufferSize bytes
    UINT packetSize = 0;
};

// How a packet's bytes are laid out in its buffer chain.
struct PacketLayout {
    // Lengths of the leading buffers; the rest of the data is one more
    // buffer. Empty: one buffer. A 0 makes an empty buffer.
    std::vector<UINT> splits;
    // Buffers are not mapped to a system address (the miniport must map).
    bool unmapped = false;
    // The packet carries valid cached counts (else NdisQueryPacket counts).
    bool validCounts = true;
};

class NdisAdapter {
public:
    // Plays the device's arrival under the bus's PDO: creates the FDO on the
    // driver object, attaches it to the PDO and calls MPInitialize
    // (PASSIVE_LEVEL). The driver must stay loaded while the adapter lives.
    NdisAdapter(NdisDriver& driver, UsbBus& bus, const AdapterOptions& options = AdapterOptions());
    // Halts the adapter if it is initialized; detaches and deletes the FDO.
    ~NdisAdapter();
    NdisAdapter(const NdisAdapter&) = delete;
    NdisAdapter& operator=(const NdisAdapter&) = delete;

    NDIS_STATUS InitializeStatus() const;
    NDIS_STATUS OpenErrorStatus() const;
    UINT SelectedMediumIndex() const;
    bool IsInitialized() const;  // MPInitialize succeeded and MPHalt not yet called
    NDIS_HANDLE Handle() const;   // the MiniportAdapterHandle
    NDIS_HANDLE Context() const;  // from NdisMSetAttributesEx
    UINT HangCheckSeconds() const;
    ULONG AttributeFlags() const;
    PDEVICE_OBJECT Fdo() const;
    const std::string& ParametersKey() const;

    // Orderly removal: MPHalt (PASSIVE_LEVEL), once the sends, requests and
    // resets under way on other threads have returned and a pending set and
    // reset have completed (or their deadlines passed).
    void Halt();
    // Surprise removal: unplugs the bus's device, sends IRP_MN_SURPRISE_REMOVAL
    // through the driver object's IRP_MJ_PNP dispatch routine (the
    // miniport's hook, if it installed one, passes it on to NDIS, which
    // calls MPPnPEventNotify(NdisDevicePnPEventSurpriseRemoved)), then MPHalt.
    void SurpriseRemove();
    // MPPnPEventNotify with any event; MPAdapterShutdown.
    void PnPEventNotify(NDIS_DEVICE_PNP_EVENT event, PVOID buffer, ULONG length);
    void Shutdown();

    // ---- sends ----
    // A packet with a copy of data, laid out as asked; owned by the stack
    // until given to Send, by the miniport until completed.
    PNDIS_PACKET AllocatePacket(const uint8_t* data, size_t length, const PacketLayout& layout = PacketLayout());
    void FreePacket(PNDIS_PACKET packet);
    // The packet's bytes, walking its chain (for checks).
    static std::vector<uint8_t> PacketBytes(PNDIS_PACKET packet);
    // MPSendPackets (raised to DISPATCH_LEVEL). Null entries are passed on.
    void Send(PNDIS_PACKET* packets, UINT count);
    // Allocates a packet for frame, sends it and frees it on completion.
    void SendFrame(const uint8_t* frame, size_t length, const PacketLayout& layout = PacketLayout());
    // A packet of one mapped buffer with a copy of frame, freed on its
    // completion as a SendFrame packet is: for sending several in one Send.
    // NULL when the frame is longer than a pooled packet holds (2048 bytes).
    PNDIS_PACKET AllocateFramePacket(const uint8_t* frame, size_t length);
    // Called for each NdisMSendComplete (any thread, DISPATCH_LEVEL or below),
    // before a SendFrame packet is freed.
    void OnSendComplete(std::function<void(PNDIS_PACKET packet, NDIS_STATUS status)> callback);
    uint64_t PacketsSent() const;       // given to MPSendPackets (non-null)
    uint64_t PacketsCompleted() const;  // completed, any status
    uint64_t PacketsCompletedWith(NDIS_STATUS status) const;
    uint64_t PacketsOutstanding() const;  // owned by the miniport now

    // ---- receives ----
    // Called inside NdisMEthIndicateReceive; may call TransferData. When no
    // callback is set, frames are recorded (ReceivedFrames).
    void OnReceive(std::function<void(NDIS_HANDLE receiveContext, const uint8_t* header, UINT headerSize,
                                      const uint8_t* lookahead, UINT lookaheadSize, UINT packetSize)>
                       callback);
    // MPTransferData into packet (from inside a receive callback).
    NDIS_STATUS TransferData(NDIS_HANDLE receiveContext, UINT byteOffset, UINT bytesToTransfer,
                             PNDIS_PACKET packet, UINT* bytesTransferred);
    std::vector<ReceivedFrame> TakeReceivedFrames();
    uint64_t ReceiveIndications() const;
    uint64_t ReceiveCompletes() const;

    // ---- status ----
    void OnStatus(std::function<void(NDIS_STATUS status)> callback);
    std::vector<NDIS_STATUS> StatusIndications() const;  // in order
    uint64_t StatusCompletes() const;

    // ---- OIDs (raised to DISPATCH_LEVEL) ----
    NDIS_STATUS Query(NDIS_OID oid, PVOID buffer, ULONG length, PULONG bytesWritten, PULONG bytesNeeded);
    // A set that returns NDIS_STATUS_PENDING stays pending until
    // NdisMSetInformationComplete; only one at a time.
    NDIS_STATUS Set(NDIS_OID oid, PVOID buffer, ULONG length, PULONG bytesRead, PULONG bytesNeeded);
    bool SetPending() const;
    uint64_t SetCompletions() const;
    NDIS_STATUS LastSetCompletionStatus() const;

    // ---- hang check and reset ----
    uint64_t HangChecks() const;
    uint64_t Resets() const;         // MPReset calls
    bool ResetPending() const;       // MPReset returned PENDING, not yet completed
    NDIS_STATUS LastResetStatus() const;  // of MPReset's return or NdisMResetComplete
    // Calls MPReset now, as NDIS would after a hang (DISPATCH_LEVEL).
    NDIS_STATUS Reset();

    struct Impl;

private:
    Impl* mImpl;
};

// Options of the stand-in's kernel: IoIsWdmVersionAvailable answers for
// versions up to this one (default 6.1).
void SetWdmVersion(UCHAR major, UCHAR minor);

}  // namespace kplat
