// The stand-in's NDIS: state shared by the miniport-facing operations
// (ndis.cpp) and the stack side (ndisstack.cpp). Not for the driver or tests.
//
// Locking: Globals().mutex guards the sets of drivers and adapters and the
// error log; each adapter's mutex guards that adapter's fields below it.
// Neither is held while the miniport or a test callback runs, nor while a
// check failure is reported. An adapter mutex may be taken with the global
// one held, never the other way round.
#pragma once

#include <kplat/ndis.h>
#include <kplat/platform.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <shared_mutex>
#include <unordered_set>
#include <vector>

#include "internal.h"

namespace kplat {

struct NdisDriver::Impl {
    PDRIVER_OBJECT driverObject = nullptr;
    std::u16string registryPath;
    UNICODE_STRING registryPathString = {};
    NTSTATUS entryStatus = STATUS_UNSUCCESSFUL;
    bool loaded = false;
    // Written during DriverEntry (on the controller thread), read after.
    bool wrapperOpen = false;  // NdisInitializeWrapper and no NdisTerminateWrapper
    bool registered = false;
    NDIS51_MINIPORT_CHARACTERISTICS chars = {};
    UINT charsLength = 0;
    PDRIVER_UNLOAD unloadHandler = nullptr;
};

// A packet of the stack: the NDIS packet with room for protocol-reserved
// bytes, and the host memory of its buffers (one block per buffer, so that a
// read past a buffer's end is caught by the address sanitizer).
//
// Packets of one mapped buffer of at most kPooledBytes (every frame
// SendFrame sends with the default layout) are pooled per adapter and
// reused: one block of kPooledBytes and an MDL with room for its pages,
// built again for each use. The bytes past the frame, and the whole block
// while it waits in the pool, are poisoned for the address sanitizer, so a
// read past the end is still caught.
struct HostPacket {
    NDIS_PACKET packet;
    UCHAR protocolReservedRoom[3 * sizeof(PVOID)];
    std::vector<PMDL> mdls;
    std::vector<uint8_t*> data;
    bool freeOnCompletion = false;
    bool completed = false;  // given to the miniport and completed by it since
    bool pooled = false;     // one kPooledBytes block, goes back to the pool
    bool inPool = false;     // waiting in the pool (not allocated)
};
constexpr size_t kPooledBytes = 2048;
constexpr size_t kPoolKeep = 4096;  // pooled packets kept at most; more are freed

// The configuration handle of NdisOpenConfiguration: the key it reads and
// every parameter handed out, kept until NdisCloseConfiguration (host
// memory, so the driver's pool ledger never sees it).
struct NdisConfiguration {
    struct Parameter {
        NDIS_CONFIGURATION_PARAMETER value = {};
        std::u16string text;
    };
    NdisAdapter::Impl* adapter = nullptr;
    std::string keyPath;
    std::vector<std::unique_ptr<Parameter>> parameters;
    UCHAR networkAddress[6] = {};
};

using SendCallback = std::function<void(PNDIS_PACKET, NDIS_STATUS)>;
using ReceiveCallback =
    std::function<void(NDIS_HANDLE, const uint8_t*, UINT, const uint8_t*, UINT, UINT)>;
using StatusCallback = std::function<void(NDIS_STATUS)>;

struct NdisAdapter::Impl {
    explicit Impl(NdisDriver::Impl* d) : driver(d) {}

    NdisDriver::Impl* driver;
    UsbBus* bus = nullptr;
    AdapterOptions options;
    std::string parametersKey;
    PDEVICE_OBJECT fdo = nullptr, next = nullptr;
    // The WrapperConfigurationContext: a pointer of its own, so that a
    // driver mixing it up with the adapter handle is caught.
    struct ConfigContext {
        Impl* adapter;
    } configContext{this};
    KTIMER hangTimer, verifierTimer;
    KDPC hangDpc, verifierDpc;
    KEVENT resetDone;  // signalled while no reset is pending
    KEVENT callsDone;  // cleared by a halt that finds calls in flight, signalled when the last returns
    KEVENT setDone;    // signalled while no set is pending

    mutable kplat_internal::SpinningMutex mutex;  // guards everything below
    NDIS_STATUS initStatus = NDIS_STATUS_FAILURE;
    NDIS_STATUS openError = NDIS_STATUS_SUCCESS;
    UINT selectedMedium = 0;
    bool initialized = false;
    // Sends, requests and resets let through to the miniport and not yet
    // returned from it; Halt lets them return before it calls MPHalt, as
    // NDIS never halts a miniport with a call of the stack under way.
    // Counted up under the mutex, down without it; haltWaiting is set by a
    // halt (under the mutex) before it reads the count. Both seq_cst: a
    // call that ends after the halt read the count sees haltWaiting and
    // signals callsDone, so the halt never waits for a call that has ended.
    std::atomic<unsigned> callsInFlight{0};
    std::atomic<bool> haltWaiting{false};
    NDIS_HANDLE context = nullptr;
    UINT hangSeconds = 0;
    ULONG attributeFlags = 0;
    std::unordered_set<NdisConfiguration*> configurations;  // open ones

    struct Owned {
        uint64_t deadline;  // clock units
        bool reported;
    };
    // Allocated and not freed, and pooled ones (HostPacket::inPool).
    std::unordered_set<HostPacket*> packets;
    std::vector<HostPacket*> pool;  // pooled packets ready for reuse
    std::unordered_map<PNDIS_PACKET, Owned> owned;  // by the miniport now
    std::atomic<size_t> ownedCount{0};              // owned.size(), also read without the lock
    // Nodes of `owned` kept for the next sends: a send allocates nothing.
    std::vector<std::unordered_map<PNDIS_PACKET, Owned>::node_type> spareOwned;
    uint64_t sent = 0, completed = 0;
    std::map<NDIS_STATUS, uint64_t> completedWith;
    std::shared_ptr<const SendCallback> onSendComplete;

    // Read and written with std::atomic_load/atomic_store, not under the
    // mutex: the receive path of a busy adapter takes no lock of the stack's
    // unless it records frames (no callback).
    std::shared_ptr<const ReceiveCallback> onReceive;
    std::vector<ReceivedFrame> frames;
    std::atomic<uint64_t> receiveIndications{0}, receiveCompletes{0};  // relaxed: counters
    std::shared_ptr<const StatusCallback> onStatus;
    std::vector<NDIS_STATUS> statuses;
    uint64_t statusCompletes = 0;

    bool setPending = false, setReported = false;
    bool setInCall = false, setCompletedInCall = false;
    NDIS_OID setOid = 0;
    uint64_t setDeadline = 0;
    uint64_t setCompletions = 0;
    NDIS_STATUS lastSetStatus = NDIS_STATUS_SUCCESS;

    uint64_t hangChecks = 0, resets = 0;
    bool resetPending = false;
    NDIS_STATUS lastResetStatus = NDIS_STATUS_SUCCESS;

    // The verifier timer stays armed when the last packet is completed: it
    // is set again only for an earlier deadline, so a busy adapter sets it
    // once per deadline period instead of once per send; when it fires with
    // nothing overdue it re-arms for the earliest deadline left, if any.
    bool verifierArmed = false;
    uint64_t verifierAt = 0;

    NDIS_HANDLE Handle() { return (NDIS_HANDLE)this; }
    const NDIS51_MINIPORT_CHARACTERISTICS& Chars() const { return driver->chars; }

    // A send: the packets become the miniport's (mutex held), then go to
    // MPSendPackets, or are refused (no lock held).
    struct Acceptance {
        PNDIS_PACKET again = nullptr;  // owned by the miniport already
        std::vector<PNDIS_PACKET> refused;
        NDIS_HANDLE context = nullptr;
        bool deliver = false;
    };
    void AcceptLocked(PNDIS_PACKET* list, UINT count, uint64_t now, Acceptance* result);
    void Deliver(PNDIS_PACKET* list, UINT count, const Acceptance& acceptance);

    // Called by the miniport-facing operations (any thread, no lock held).
    void SendComplete(PNDIS_PACKET packet, NDIS_STATUS status);
    void IndicateReceive(NDIS_HANDLE receiveContext, const uint8_t* header, UINT headerSize,
                         const uint8_t* lookahead, UINT lookaheadSize, UINT packetSize);
    void IndicateStatus(NDIS_STATUS status);
    void ResetComplete(NDIS_STATUS status);
    void SetComplete(NDIS_STATUS status);
    // The stack's side of a completion (or of a send NDIS refused): the
    // callback, then a SendFrame packet is freed.
    void Finish(PNDIS_PACKET packet, NDIS_STATUS status);

    // A call into the miniport begins (mutex held, initialized) and ends
    // (mutex not held).
    void EnterCallLocked();
    void LeaveCall();

    // MPReset raised to DISPATCH_LEVEL, unless not initialized or a reset
    // is pending already.
    NDIS_STATUS RunReset();
    // Arms the verifier timer for a deadline (mutex held).
    void ArmVerifierLocked(uint64_t deadline);
    // Releases every packet and open configuration (destruction).
    void ReleaseHostMemory();
    // A pooled packet of one kPooledBytes block, out of the pool or new
    // (mutex held); ndis::FillPooled makes it a packet of a frame.
    HostPacket* TakePooledLocked();
    // The packet is no longer allocated (mutex held): a pooled one is out of
    // use but not yet reusable, any other is forgotten.
    void RetireLocked(HostPacket* host);
    // After RetireLocked, when nothing looks at the packet any more (mutex
    // held): a pooled one goes back to the pool. Returns the packet to free
    // (FreeHostPacket, after the lock), or NULL.
    HostPacket* RecycleLocked(HostPacket* host);
};

namespace ndis {

constexpr uint64_t kUnitsPerMs = 10000;
constexpr uint64_t kSendDeadline = 30000 * kUnitsPerMs;
constexpr uint64_t kSetDeadline = 12000 * kUnitsPerMs;

struct Globals {
    // Guards the members below. Shared for the handle checks that every
    // indication and completion makes (AdapterOf), exclusive for changes.
    std::shared_mutex mutex;
    std::unordered_set<NdisDriver::Impl*> drivers;
    std::unordered_set<NdisAdapter::Impl*> adapters;
    // Counts every change of `adapters` (written under the exclusive lock;
    // release, paired with the acquire in AdapterOf): a thread's last
    // answer of AdapterOf holds while the count has not moved.
    std::atomic<uint64_t> adaptersChanged{0};
    std::vector<ErrorLogEntry> errorLog;
    unsigned nextOrdinal = 0;
};
Globals& G();

// The adapter of a MiniportAdapterHandle; a check failure naming `what` and
// NULL when the handle is no live adapter's.
NdisAdapter::Impl* AdapterOf(NDIS_HANDLE handle, const char* what);
// The adapter whose FDO is `fdo`, or NULL.
NdisAdapter::Impl* AdapterOfFdo(PDEVICE_OBJECT fdo);

inline LARGE_INTEGER RelativeDue(uint64_t units) {
    LARGE_INTEGER due;
    due.QuadPart = -(LONGLONG)units;
    return due;
}

// Handlers that NDIS calls raised to DISPATCH_LEVEL run inside one.
class AtDispatch {
public:
    AtDispatch() { KeRaiseIrql(DISPATCH_LEVEL, &mOld); }
    ~AtDispatch() { KeLowerIrql(mOld); }

private:
    KIRQL mOld;
};

static_assert(offsetof(HostPacket, packet) == 0, "a packet pointer is its host packet's");
inline HostPacket* HostOf(PNDIS_PACKET packet) { return reinterpret_cast<HostPacket*>(packet); }
void FreeHostPacket(HostPacket* host);
// Makes a packet of TakePooledLocked the packet of one mapped buffer with a
// copy of data (no lock needed: nobody else has the packet yet;
// length <= kPooledBytes).
void FillPooled(HostPacket* host, const uint8_t* data, size_t length);

// Reports a verifier check failure (kNdisVerifier, p1 = the adapter handle).
void VerifierFailed(NDIS_HANDLE adapter, ULONG_PTR p2, ULONG_PTR p3, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// The IRP_MJ_PNP dispatch routine NDIS installs in the driver object.
NTSTATUS PnPDispatch(PDEVICE_OBJECT device, PIRP irp);

// Frees a configuration handle (NdisCloseConfiguration, adapter destruction).
void FreeConfiguration(NdisConfiguration* configuration);

}  // namespace ndis
}  // namespace kplat
