// The shared test bed. One object brings up any layer of the system, each
// on top of the one before:
//   Layer::Platform  the stand-in (virtual clock by default), the registry,
//                    the trace mask and a capture of the debugger output;
//   Layer::Bus       the USB bus with the simulated NCM function (profile as
//                    given) behind it, its network side (a loopback, or a
//                    capture of the frames the host sent), and a lower-device
//                    object of the USB library on the bus's PDO;
//   Layer::Control   the device control (DeviceContNcm) on that device, Init
//                    and Start done, with a small adapter stand-in (Host) that
//                    queues frames to send and records what comes up;
//   Layer::Adapter   the miniport loaded under its service name and an
//                    adapter on the device, seen from the network stack.
// Tests see the system from outside where they can: frames and status at the
// stack, NTBs and requests at the device, traces, the pool-tag ledger.
#pragma once

#include <ethsim/ncm_device.h>
#include <ethsim/network.h>
#include <ethsim/service_timer.h>
#include <kplat/ndis.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <array>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "devicecontncm.h"
#include "devicecontncm_peer.h"
#include "knpooltags.h"
#include "kntrace.h"
#include "knusbpnplowerdevice.h"
#include "mpmain.h"

namespace testbed {

using Bytes = std::vector<uint8_t>;

constexpr const char* kService = "ethbrg";

enum class Layer { Platform, Bus, Control, Adapter };

struct Traits {
    Layer layer = Layer::Adapter;
    kplat::ClockMode clock = kplat::ClockMode::Virtual;
    ethsim::DeviceProfile profile = ethsim::DeviceProfile();
    // Registry parameters of the adapter (DWORD values); for Layer::Control
    // the same names set the fields of the device control's AdapterConfig.
    std::map<std::string, uint32_t> params;
    // Extra registry text (string values, a NetworkAddress, ...), loaded
    // after the parameters; "%ADAPTER%" stands for the adapter's key.
    std::string registryText;
    ULONG traceMask = 0;   // silent unless a test listens
    bool attach = true;    // plug the function into the bus
    bool capture = false;  // the network side records the host's frames instead of looping them back
    bool plug = true;      // create the adapter (Layer::Adapter) or Init and Start (Layer::Control)
    bool connect = true;   // the device reports its link up after the bring-up
};

// A frame of `length` bytes to the broadcast address, from 02:00:00:00:00:01,
// EtherType 0x88B5, with a pattern from `seed`.
inline Bytes Frame(size_t length, uint32_t seed)
{
    Bytes f(length);
    for (size_t i = 0; i < length; i++) f[i] = (uint8_t)(seed * 31 + i * 7 + (i >> 8));
    const uint8_t head[14] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0, 0, 0, 0, 0x01, 0x88, 0xB5};
    for (size_t i = 0; i < length && i < 14; i++) f[i] = head[i];
    return f;
}

// The adapter's side of the device control (Layer::Control), as MpAdapter
// behaves: frames to send are taken under the adapter lock, received
// datagrams are copied and given back at once.
class Host : public DeviceNotify {
public:
    void NetworkStateChanged(bool connected) override { Locked([&] { links.push_back(connected); }); }
    void ConnectionSpeedChanged(ULONG up, ULONG down) override
    {
        Locked([&] { speeds.push_back({up, down}); });
    }
    ULONG SubmitTxPackets(UCHAR* destination, ULONG maxLength) override
    {
        NdSpinlockGuard guard(&lock);
        if (queue.empty()) return 0;
        Bytes f = std::move(queue.front());
        queue.pop_front();
        ULONG n = std::min<ULONG>(maxLength, (ULONG)f.size());
        memcpy(destination, f.data(), n);
        return n;
    }
    // Called with the adapter lock held; the datagram goes back from a DPC.
    void ProcessReceivedData(UsbBuf* d) override
    {
        received.emplace_back(d->mCurrentBuffer, d->mCurrentBuffer + d->mLength);
        held.push_back(d);
        KeInsertQueueDpc(&dpc, NULL, NULL);
    }
    void StartCompleted(NTSTATUS status) override { Locked([&] { starts.push_back(status); }); }
    void StopCompleted() override { Locked([&] { stops++; }); }
    ULONG GetMulticastList(ULONG max, UCHAR* list) override
    {
        ULONG n = std::min<ULONG>(max, (ULONG)multicast.size());
        for (ULONG i = 0; i < n; i++) memcpy(list + 6 * i, multicast[i].data(), 6);
        return n;
    }
    Host() { KeInitializeDpc(&dpc, ReturnDpc, this); }
    static void ReturnDpc(PKDPC, PVOID context, PVOID, PVOID)
    {
        Host* self = static_cast<Host*>(context);
        NdSpinlockGuard guard(&self->lock);
        std::vector<UsbBuf*> batch;
        batch.swap(self->held);  // returning one may hand over the next (and queue this DPC again)
        for (UsbBuf* d : batch) self->cont->ReturnRxBuffer(d);
        self->cont->SubmitRxBuffers();
    }
    template <typename F>
    void Locked(F f)
    {
        std::lock_guard<std::mutex> g(mutex);
        f();
    }

    NdSpinlock lock;              // the adapter lock
    DeviceContNcm* cont = nullptr;
    std::deque<Bytes> queue;      // under lock
    std::vector<Bytes> received;  // under lock (taken with it held)
    std::vector<UsbBuf*> held;    // under lock
    KDPC dpc;
    std::mutex mutex;             // guards the rest
    std::vector<bool> links;
    std::vector<std::pair<ULONG, ULONG>> speeds;
    std::vector<NTSTATUS> starts;
    int stops = 0;
    std::vector<std::array<uint8_t, 6>> multicast;
};

// Keeps the worker of the delayed work queue busy until Release, so that
// work items queued meanwhile (stream restarts, asynchronous Start and Stop,
// packet filter requests) wait behind it (one worker per queue) and run only
// when the test says so. Until then the stand-in is never idle: wait for
// states, not for RunUntilIdle.
class QueueBlocker {
public:
    explicit QueueBlocker(PDEVICE_OBJECT deviceObject)
    {
        KeInitializeEvent(&mEvent, NotificationEvent, FALSE);
        mItem = IoAllocateWorkItem(deviceObject);
        IoQueueWorkItem(mItem, Routine, DelayedWorkQueue, this);
        kplat::RunUntilIdle();
    }
    ~QueueBlocker()
    {
        Release();
        IoFreeWorkItem(mItem);
    }
    QueueBlocker(const QueueBlocker&) = delete;
    QueueBlocker& operator=(const QueueBlocker&) = delete;
    void Release()
    {
        if (mReleased) return;
        mReleased = true;
        KeSetEvent(&mEvent, 0, FALSE);
        kplat::RunUntilIdle();
    }

private:
    static void Routine(PDEVICE_OBJECT, PVOID context)
    {
        KeWaitForSingleObject(&static_cast<QueueBlocker*>(context)->mEvent, Executive, KernelMode, FALSE, nullptr);
    }
    KEVENT mEvent;
    PIO_WORKITEM mItem;
    bool mReleased = false;
};

class Bed {
public:
    explicit Bed(const Traits& traits = Traits())
        : mTraits(traits), mScope(kplat::Options{traits.clock}), mDevice(StartProfile(traits))
    {
        kplat::RegistryClear();
        kplat::ClearErrorLog();
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(traits.traceMask);
        std::string text = "[" + kplat::ServiceKeyPath(kService) + "]\n\"TraceMask\"=dword:" + Hex(traits.traceMask) +
                           "\n[" + AdapterKey() + "]\n";
        for (const auto& p : traits.params) text += "\"" + p.first + "\"=dword:" + Hex(p.second) + "\n";
        std::string extra = traits.registryText;
        for (size_t at; (at = extra.find("%ADAPTER%")) != std::string::npos;) extra.replace(at, 9, AdapterKey());
        kplat::RegistryLoadText(text + extra);
        if (traits.layer != Layer::Adapter) {
            mDriverObject = kplat::CreateDriverObject(u"\\Driver\\ethbrg");
            IoCreateDevice(mDriverObject, 0, NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &mFdo);
        }
        if (traits.layer == Layer::Platform) return;

        mBus.reset(new kplat::UsbBus());
        if (traits.attach) mBus->Attach(&mDevice);
        mService.reset(new ethsim::ServiceTimer(mDevice));
        if (traits.capture) {
            mDevice.Connect(&mCapture);
        } else {
            mDevice.Connect(&mLoopback);
            mLoopback.Connect(&mDevice);
        }
        mLower.SetDeviceObject(mBus->Pdo());
        mLower.SetPhysicalDeviceObject(mBus->Pdo());
        if (traits.layer == Layer::Control) {
            SetConfig(traits.params);
            if (traits.plug && NT_SUCCESS(mBringUpStatus = Init()) && NT_SUCCESS(mBringUpStatus = mCont->Start())) {
                mStarted = true;
                Settle(200);
            }
        }
        if (traits.layer == Layer::Adapter) {
            mDriver.reset(new kplat::NdisDriver(DriverEntry, kService));
            if (traits.plug) Plug();
        }
    }
    ~Bed()
    {
        Unplug();
        DestroyCont();
        if (mFdo != nullptr) IoDeleteDevice(mFdo);
        if (mDriverObject != nullptr) kplat::DeleteDriverObject(mDriverObject);
        mDriver.reset();
        mLower.SetDeviceObject(nullptr);
        mLower.SetPhysicalDeviceObject(nullptr);
        mService.reset();
        mBus.reset();
        kplat::ClearFaults();
    }
    Bed(const Bed&) = delete;
    Bed& operator=(const Bed&) = delete;

    // The adapter's device starts with its link down and Plug brings it up
    // once MPInitialize has returned. A link reported while MPInitialize
    // still runs sets the media state without an indication (the stack
    // queries the state after initialization), and whether the report
    // comes before or after the end of MPInitialize is up to the threads.
    static ethsim::DeviceProfile StartProfile(const Traits& traits)
    {
        ethsim::DeviceProfile p = traits.profile;
        if (traits.layer == Layer::Adapter) p.linkUp = false;
        return p;
    }
    static std::string AdapterKey() { return kplat::AdapterKeyPath(0); }
    static std::string Hex(uint32_t v)
    {
        char b[9];
        snprintf(b, sizeof(b), "%08x", v);
        return b;
    }

    // ---- Layer::Adapter ----
    // Device arrival; with `connect`, the link comes up and its indication
    // is sent (virtual time moves on by 200 ms).
    NDIS_STATUS Plug()
    {
        kplat::AdapterOptions options;
        options.parametersKey = AdapterKey();
        mAdapter.reset(new kplat::NdisAdapter(*mDriver, *mBus, options));
        if (mAdapter->IsInitialized() && mTraits.connect) {
            mDevice.SetLink(true);
            Settle(200);
        }
        return mAdapter->InitializeStatus();
    }
    // Orderly removal, if the adapter still exists.
    void Unplug()
    {
        if (mAdapter) {
            mAdapter.reset();
            kplat::RunUntilIdle();
        }
    }
    // Sends frames through the stack (or the Host) and lets them cross.
    void Send(const std::vector<Bytes>& frames, uint64_t settleMs = 50)
    {
        if (mCont != nullptr) {
            for (const Bytes& f : frames) Queue(f);
            mCont->ProcessTxPackets();
        } else {
            // One MPSendPackets for all of them, as a protocol sends a batch.
            std::vector<PNDIS_PACKET> packets;
            for (const Bytes& f : frames) {
                PNDIS_PACKET p = mAdapter->AllocateFramePacket(f.data(), f.size());
                if (p == nullptr) {  // longer than a pooled packet: on its own, in order
                    if (!packets.empty()) mAdapter->Send(packets.data(), (UINT)packets.size());
                    packets.clear();
                    mAdapter->SendFrame(f.data(), f.size());
                    continue;
                }
                packets.push_back(p);
            }
            if (!packets.empty()) mAdapter->Send(packets.data(), (UINT)packets.size());
        }
        Settle(settleMs);
    }
    // Frames indicated to the stack (or to the Host), header and lookahead joined.
    std::vector<Bytes> Received()
    {
        if (mCont != nullptr) {
            NdSpinlockGuard guard(&mHost.lock);
            std::vector<Bytes> out;
            out.swap(mHost.received);
            return out;
        }
        std::vector<Bytes> out;
        for (auto& r : mAdapter->TakeReceivedFrames()) {
            Bytes f = r.header;
            f.insert(f.end(), r.lookahead.begin(), r.lookahead.end());
            out.push_back(std::move(f));
        }
        return out;
    }
    // A u32 OID query; ~0u when it fails.
    ULONG QueryUlong(NDIS_OID oid)
    {
        ULONG v = 0, written = 0, needed = 0;
        return mAdapter->Query(oid, &v, sizeof(v), &written, &needed) == NDIS_STATUS_SUCCESS ? v : ~0u;
    }

    // ---- Layer::Control ----
    void SetConfig(const std::map<std::string, uint32_t>& params)
    {
        for (const auto& p : params) {
            static const std::map<std::string, ULONG AdapterConfig::*> fields = {
                {"RxBuffers", &AdapterConfig::RxBuffers},
                {"TxBuffers", &AdapterConfig::TxBuffers},
                {"OneByteTermination", &AdapterConfig::OneByteTermination},
                {"SendClearEpHaltOnStart", &AdapterConfig::SendClearEpHaltOnStart},
                {"StatisticsUpdateInterval", &AdapterConfig::StatisticsUpdateInterval},
                {"NcmTxPeriod", &AdapterConfig::NcmTxPeriod},
                {"TputThreshold", &AdapterConfig::TputThreshold},
                {"TputHysteresis", &AdapterConfig::TputHysteresis},
                {"RxMeasurementPeriod", &AdapterConfig::RxMeasurementPeriod},
            };
            auto f = fields.find(p.first);
            if (f != fields.end()) mConfig.*(f->second) = p.second;
        }
    }
    // Creates the device control and runs its Init.
    NTSTATUS Init()
    {
        DestroyCont();
        mCont = new (NonPagedPool, KN_POOL_TAG_NCM) DeviceContNcm();
        mHost.cont = mCont;
        return mCont->Init(mFdo, mBus->Pdo(), mBus->Pdo(), &mHost, &mConfig, &mHost.lock);
    }
    // Stop (when started), Exit and delete.
    void DestroyCont()
    {
        if (mCont == nullptr) return;
        kplat::RunUntilIdle();
        if (mStarted) mCont->Stop();
        mStarted = false;
        mCont->Exit();
        kplat::RunUntilIdle();
        delete mCont;
        mCont = nullptr;
    }
    void Queue(const Bytes& frame)
    {
        NdSpinlockGuard guard(&mHost.lock);
        mHost.queue.push_back(frame);
    }
    DeviceContNcm& Cont() { return *mCont; }
    NTSTATUS BringUpStatus() const { return mBringUpStatus; }  // of Init and Start in the constructor
    Host& HostSide() { return mHost; }
    AdapterConfig& Config() { return mConfig; }

    // ---- every layer ----
    // Lets the stand-in run; on the virtual clock, `ms` of time pass.
    void Settle(uint64_t ms = 0)
    {
        if (kplat::GetClockMode() == kplat::ClockMode::Virtual) {
            kplat::AdvanceTime(ms);
        } else {
            kplat::RunUntilIdle();
        }
    }
    // Control requests the device saw with this bRequest (and wValue, if >= 0).
    size_t Requests(uint8_t request, int value = -1) const
    {
        size_t n = 0;
        for (const ethsim::ControlRecord& r : mDevice.RequestLog())
            n += r.setup.bRequest == request && (value < 0 || r.setup.wValue == value) &&
                 (r.setup.bmRequestType & 0x60) == 0x20;
        return n;
    }
    bool Traced(const std::string& text) const { return mTrace.Contains(text); }
    size_t TraceCount(const std::string& text) const
    {
        std::string all = mTrace.Text();
        size_t n = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) n++;
        return n;
    }
    std::string TakeTrace() { return mTrace.Take(); }

    // The pool-tag ledger without the bus's own device object (the bed's, not
    // the driver's): empty once the driver has released everything.
    static std::string DriverLedger()
    {
        std::string out;
        for (const kplat::PoolTagStats& s : kplat::GetPoolStats()) {
            if (s.liveCount != 0 && kplat::TagToString(s.tag) != "Devi") {
                out += kplat::TagToString(s.tag) + ": " + std::to_string(s.liveCount) + " blocks\n";
            }
        }
        return out;
    }

    kplat::NdisAdapter& Adapter() { return *mAdapter; }
    bool HasAdapter() const { return (bool)mAdapter; }
    ethsim::NcmDevice& Device() { return mDevice; }
    kplat::UsbBus& Bus() { return *mBus; }
    kplat::NdisDriver& Driver() { return *mDriver; }
    ethsim::Loopback& Loopback() { return mLoopback; }
    ethsim::FrameCapture& Network() { return mCapture; }
    KnPnPLowerDeviceUsb& Lower() { return mLower; }
    PDEVICE_OBJECT Fdo() const { return mFdo; }  // a device object of the bed's driver object (not Layer::Adapter)

private:
    Traits mTraits;
    kplat::Scope mScope;
    kplat::DebugCapture mTrace;
    ethsim::NcmDevice mDevice;
    ethsim::Loopback mLoopback;
    ethsim::FrameCapture mCapture;
    std::unique_ptr<kplat::UsbBus> mBus;
    std::unique_ptr<ethsim::ServiceTimer> mService;
    KnPnPLowerDeviceUsb mLower;
    std::unique_ptr<kplat::NdisDriver> mDriver;
    std::unique_ptr<kplat::NdisAdapter> mAdapter;
    PDRIVER_OBJECT mDriverObject = nullptr;
    PDEVICE_OBJECT mFdo = nullptr;
    AdapterConfig mConfig;
    Host mHost;
    DeviceContNcm* mCont = nullptr;
    bool mStarted = false;
    NTSTATUS mBringUpStatus = STATUS_SUCCESS;
};

}  // namespace testbed
