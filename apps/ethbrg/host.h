// The machine the program runs the driver on: the stand-in (real clock by
// default), a USB bus with the simulated NCM function plugged in (or, with
// --usb, a real device reached through libusb: kplat/usblibusb.h), the
// miniport loaded under its service name and one adapter on the device, with
// the network stack's side of it (sends, receive indications, status, OIDs).
// Every subcommand that runs the driver builds one Host from the common
// options, wires the device's network side to its own peer and then plugs
// the adapter in.
//
// Errors a user can make (an unknown profile, a parameter out of range, a
// capture file that cannot be written) are thrown as UsageError with a
// one-line text; main prints it and exits with status 2.
#pragma once

#include <ethsim/ncm_device.h>
#include <ethsim/service_timer.h>
#include <kplat/ndis.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>
#include <kplat/usblibusb.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ethbrg {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

constexpr const char* kServiceName = "ethbrg";

// The options every driver-running subcommand shares.
struct CommonOptions {
    std::string profile;              // name in the profile directory, or a file; empty: built-in default
    std::vector<std::string> params;  // "Name=Value" adapter registry parameters
    uint32_t traceMask = 0;
    std::string traceDump;            // file for the trace ring at exit
    std::string usbCapture;           // usbmon pcap of every URB
    std::string pcap;                 // Ethernet pcap at the adapter's upper edge
    std::string usb;                  // a real device, VID:PID or BUS:ADDR; empty: the simulated one
};

// Loads a profile by name (profiles/NAME.json in the profile directories) or
// by path. Throws UsageError with the file, field and problem.
ethsim::DeviceProfile ResolveProfile(const std::string& nameOrFile);
// Directories searched for profile names, in order.
std::vector<std::string> ProfileDirectories();

// One adapter registry parameter: name, default and the range the driver
// holds values to.
struct ParameterSpec {
    const char* name;
    uint32_t defaultValue;
    uint32_t min;
    uint32_t max;
    const char* meaning;
};
const std::vector<ParameterSpec>& Parameters();
// "Name=Value" into registry text for the adapter key; throws UsageError for
// an unknown name, a malformed or out-of-range value.
std::string ParameterToRegistry(const std::string& assignment);

class PcapWriter;

class Host {
public:
    explicit Host(const CommonOptions& options, kplat::ClockMode clock = kplat::ClockMode::Real);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Device arrival: MPInitialize. Returns its status.
    NDIS_STATUS Plug();
    // Halts the adapter (completing every packet), writes the trace dump,
    // unloads the driver, removes the bus. Idempotent.
    void Shutdown();

    // Waits (real clock) or lets time pass (virtual clock) until pred() is
    // true or `ms` have gone by; returns pred().
    bool WaitFor(const std::function<bool()>& pred, uint64_t ms);

    // ---- the stack above the adapter ----
    // Sends one frame (a copy), also into the Ethernet pcap.
    void Send(const uint8_t* frame, size_t length);
    // Copies a frame into a packet (and the Ethernet pcap) for the next
    // Flush, which gives the queued packets to the miniport in one
    // MPSendPackets, as a protocol sends a batch; a full queue is flushed
    // by itself. Callers serialize Queue, Flush and the removal of the
    // adapter (which flushes first).
    void Queue(const uint8_t* frame, size_t length);
    void Flush();
    // Called for every frame indicated to the stack (header and data joined),
    // after it went into the Ethernet pcap. Set before Plug.
    void OnFrame(std::function<void(const uint8_t* frame, size_t length)> callback);
    // Media state as the stack sees it: queried once the adapter is
    // initialized, then from status indications. The callback hears both.
    bool MediaConnected() const { return mConnected.load(); }
    void OnMediaChange(std::function<void(bool connected)> callback) { mOnMedia = std::move(callback); }
    uint64_t FramesTruncated() const { return mTruncated.load(); }

    // ULONG / ULONG64 / raw OID queries.
    std::optional<uint64_t> QueryNumber(NDIS_OID oid);
    bool QueryBytes(NDIS_OID oid, std::vector<uint8_t>* out);
    std::array<uint8_t, 6> CurrentAddress();
    // OID_GEN_CURRENT_PACKET_FILTER, as a protocol sets it when it binds.
    NDIS_STATUS SetPacketFilter(ULONG filter);

    // ---- a real device (--usb) ----
    bool RealDevice() const { return (bool)mUsb; }
    kplat::LibusbDevice* Usb() { return mUsb.get(); }
    // The real device went away: its URBs now end with DEVICE_GONE.
    bool DeviceGone() const { return mUsb && mUsb->Gone(); }
    // Surprise removal of the adapter (every packet completed, MPHalt), as
    // the stack plays it when the device leaves. Sets OutstandingAtHalt and
    // the ledger to the adapter's share: the blocks live now that were not
    // before Plug (the driver stays loaded and keeps its own).
    void RemoveAdapter();
    // Waits up to `ms` for the device the --usb selector names to be present
    // again, opens it, plugs it into the bus and brings a new adapter up
    // (Plug). False when it did not come back or did not open.
    bool Replug(uint64_t ms, const std::function<bool()>& stop);

    // ---- after Shutdown ----
    // The pool-tag ledger: "" when nothing is left, else one line per tag.
    const std::string& Ledger() const { return mLedger; }
    uint64_t OutstandingAtHalt() const { return mOutstandingAtHalt; }
    std::vector<std::string> CheckFailures() const { return mChecks; }

    ethsim::NcmDevice& Device() { return *mDevice; }
    kplat::NdisAdapter& Adapter() { return *mAdapter; }
    kplat::UsbBus& Bus() { return *mBus; }
    bool HasAdapter() const { return (bool)mAdapter; }
    const ethsim::DeviceProfile& Profile() const { return mProfile; }

private:
    CommonOptions mOptions;
    ethsim::DeviceProfile mProfile;
    std::unique_ptr<kplat::Scope> mScope;
    std::unique_ptr<ethsim::NcmDevice> mDevice;
    std::unique_ptr<kplat::LibusbDevice> mUsb;
    std::unique_ptr<kplat::UsbBus> mBus;
    std::unique_ptr<ethsim::ServiceTimer> mService;
    std::unique_ptr<kplat::NdisDriver> mDriver;
    std::unique_ptr<kplat::NdisAdapter> mAdapter;
    std::unique_ptr<PcapWriter> mPcap;
    static constexpr size_t kQueuedSends = 32;  // packets one MPSendPackets takes at most
    PNDIS_PACKET mQueued[kQueuedSends] = {};
    size_t mQueuedCount = 0;
    std::function<void(const uint8_t*, size_t)> mOnFrame;
    void SetMedia(bool connected);
    // Orders the media state taken after initialization with the status
    // indications; guards mMediaIndicated and the calls of mOnMedia.
    std::mutex mMediaMutex;
    bool mMediaIndicated = false;  // a media indication came since the adapter was created
    std::function<void(bool)> mOnMedia;
    std::atomic<bool> mConnected{false};
    std::atomic<uint64_t> mTruncated{0};
    std::string mLedger;
    std::map<ULONG, std::pair<uint64_t, uint64_t>> mDriverBlocks;  // tag -> live blocks, bytes before Plug
    uint64_t mOutstandingAtHalt = 0;
    std::vector<std::string> mChecks;
    bool mShutDown = false;
};

}  // namespace ethbrg
