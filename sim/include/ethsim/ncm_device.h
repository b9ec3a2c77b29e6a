// The simulated USB NCM function: a strict reference peer for the host
// driver and a conformance checker for what the host sends.
//
// USB side: implements kplat::UsbDevice. The bus calls it one call at a
// time; it answers the standard requests (USB 2.0, chapter 9), the CDC
// Ethernet and NCM class requests, reassembles bulk OUT transfers and checks
// every NTB in them (see ntb.h), packs frames from the network into NTBs on
// bulk IN, and sends notifications on the interrupt IN endpoint.
//
// Network side: a FrameSink for frames going to the host, and a FrameSource
// of the frames the host sent (see network.h).
//
// Threads: the device's state is guarded by one mutex. Network sources may
// push frames from any thread. The device never calls its port while holding
// the mutex. Port calls the device wants to make while it is inside one of
// the bus's calls (EndpointReady when a bulk OUT frame was looped back,
// Disconnect) are deferred: the device asks for a Service() call through
// the function given to SetServiceRequest, and makes them there. The same
// mechanism carries time-based faults (delayed completions, NAK periods).
// Without a service function, deferred port calls are made at once.
//
// Time: the port's clock, Now(), in 100 ns units; delays are given in ms.
#pragma once

#include "ethsim/network.h"
#include "ethsim/ntb.h"
#include "ethsim/profile.h"

#include <kplat/usbdevice.h>

#include <array>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ethsim {

// One control transfer as the device saw it.
struct ControlRecord {
    kplat::UsbSetupPacket setup;
    Bytes data;       // OUT: the data stage the host sent; IN: what the device returned
    bool stalled;     // answered with a stall
    uint64_t time;    // port clock when it arrived
};

struct ViolationRecord {
    Violation kind;
    uint64_t transfer;  // number of the bulk OUT transfer, counted from 1
    std::string detail;
};

// Counters of the data path (beyond the CDC statistics).
struct TrafficCounters {
    uint64_t outTransfers = 0;      // bulk OUT transfers completed (including zero-length ones)
    uint64_t outNtbs = 0;           // NTBs checked
    uint64_t outDatagrams = 0;      // good datagrams passed to the network
    uint64_t outRejected = 0;       // datagrams dropped for a violation
    uint64_t outDroppedLinkDown = 0;
    uint64_t inNtbs = 0;            // NTBs packed and sent
    uint64_t inDatagrams = 0;
    uint64_t inInjected = 0;        // raw IN transfers sent
    uint64_t inDroppedInactive = 0; // frames from the network while the data interface was off
    uint64_t inDroppedLinkDown = 0;
    uint64_t inFiltered = 0;        // refused by the packet filter
    uint64_t inTooLong = 0;         // longer than the maximum datagram size or the NTB input size
    uint64_t inQueueFull = 0;
    uint64_t inAborted = 0;         // IN transfers cut short by an abort or a halt
    uint64_t notifications = 0;     // notifications sent completely
};

class NcmDevice : public kplat::UsbDevice, public FrameSink, public FrameSource {
public:
    explicit NcmDevice(DeviceProfile profile = DeviceProfile());
    ~NcmDevice() override;
    NcmDevice(const NcmDevice&) = delete;
    NcmDevice& operator=(const NcmDevice&) = delete;

    // ---- kplat::UsbDevice ----
    void Attached(kplat::UsbDevicePort* port) override;
    void Detached() override;
    kplat::UsbSpeed Speed() const override;
    void ControlTransfer(kplat::UsbControlTransfer* transfer) override;
    kplat::UsbHandshake OutPacket(uint8_t ep, const uint8_t* data, uint32_t length) override;
    kplat::UsbHandshake InPacket(uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length) override;
    // Runs of packets, taken under one lock with the same checks as one by one.
    void OutPackets(uint8_t ep, const uint8_t* data, uint32_t length, uint32_t maxPacket, kplat::UsbRun* run) override;
    void InPackets(uint8_t ep, uint8_t* buffer, uint32_t length, uint32_t maxPacket, kplat::UsbRun* run) override;
    // Endpoint 0: held and delayed control transfers are forgotten (never
    // completed). Bulk OUT: a partly received transfer is dropped. IN
    // endpoints: a partly sent transfer is dropped.
    void EndpointAborted(uint8_t endpointAddress) override;

    // ---- FrameSink: a frame from the network, for the host ----
    void OnFrame(const uint8_t* frame, size_t length) override;

    // ---- Deferred work ----
    // `request(due)` asks for a call of Service() at or after port time
    // `due`. It is called without the device's lock, possibly from inside a
    // bus call, so it must only schedule (a timer, a DPC), not call Service.
    void SetServiceRequest(std::function<void(uint64_t due)> request);
    // Makes the port calls that are due. Call from outside the bus's calls.
    void Service();
    std::optional<uint64_t> NextDeadline() const;

    // ---- Link and notifications ----
    // Link state of the network side. A change while the data interface is
    // active sends NETWORK_CONNECTION (and CONNECTION_SPEED_CHANGE when the
    // link comes up); going down drops the frames waiting for the host.
    void SetLink(bool up);
    // New bit rates; sent as CONNECTION_SPEED_CHANGE while active and up.
    void SetLinkSpeed(uint32_t downlinkBitRate, uint32_t uplinkBitRate);
    // Notifications on command, whatever the state.
    void NotifyNetworkConnection(uint16_t value);
    void NotifySpeedChange(uint32_t downlinkBitRate, uint32_t uplinkBitRate);
    void NotifyResponseAvailable();
    // Any bytes as the next notification transfer (short, wrong code, ...).
    void InjectNotification(Bytes raw);

    // ---- Bulk IN on command ----
    enum class Zlp {
        Auto,    // after a transfer that ends on a packet boundary and is shorter than the NTB input size
        Always,  // after any transfer that ends on a packet boundary
        Never,
    };
    // Sends `bytes` as one bulk IN transfer ahead of the frames (even while
    // the data interface is at alternate setting 0).
    void InjectInTransfer(Bytes bytes, Zlp zlp = Zlp::Auto);

    // ---- Faults ----
    // Halts the endpoint now: it stalls until CLEAR_FEATURE(ENDPOINT_HALT).
    void HaltEndpoint(uint8_t endpointAddress);
    // The next `count` transfers of the endpoint fail: Stall halts the
    // endpoint for each (the host must clear it each time); Nak refuses one
    // packet each and signals the endpoint ready again at once.
    void FailNextTransfers(uint8_t endpointAddress, uint32_t count, kplat::UsbHandshake handshake);
    // The endpoint answers Nak for `ms` milliseconds of port time; it is
    // signalled ready from Service() when the time is up.
    void NakEndpointFor(uint8_t endpointAddress, uint32_t ms);
    // The next `count` control transfers (of request `request` only, when
    // it is 0-255) stall without effect.
    void StallNextControl(uint32_t count, int request = -1);
    // The next `count` control transfers take effect but are not completed
    // until ReleaseHeldControl (or never: for the host's time-out).
    void HoldNextControl(uint32_t count);
    void ReleaseHeldControl();
    // The next `count` control transfers take effect at once and complete
    // `ms` after they arrived, from Service().
    void DelayNextControl(uint32_t count, uint32_t ms);
    // Unplugs the device from the bus.
    void Unplug();

    // ---- What the device was told, and what it saw ----
    struct State {
        bool attached = false;
        bool unplugged = false;
        uint8_t configuration = 0;   // 0: not configured
        uint8_t dataAlternate = 0;
        bool ntb32 = false;
        uint32_t ntbInputSize = 0;
        uint16_t ntbInMaxDatagrams = 0;  // from an 8-byte SET_NTB_INPUT_SIZE
        bool crcMode = false;
        uint16_t maxDatagramSize = 0;
        MacAddress netAddress{};
        uint16_t packetFilter = 0;
        std::vector<MacAddress> multicastFilters;
        bool remoteWakeupEnabled = false;
        bool linkUp = false;
        uint32_t downlinkBitRate = 0;
        uint32_t uplinkBitRate = 0;
        bool notifyHalted = false;
        bool bulkInHalted = false;
        bool bulkOutHalted = false;
        size_t framesQueued = 0;          // waiting for the host
        size_t notificationsQueued = 0;
        size_t heldControl = 0;
        Bytes encapsulatedCommand;        // last SEND_ENCAPSULATED_COMMAND
    };
    State GetState() const;
    std::vector<ControlRecord> RequestLog() const;  // the last 4096
    void ClearRequestLog();

    uint64_t ViolationCount(Violation kind) const;
    uint64_t TotalViolations() const;
    std::array<uint64_t, kViolationKinds> Violations() const;
    std::vector<ViolationRecord> ViolationLog() const;  // the last 1024
    void ResetViolations();
    // One line per kind seen: "NdpAlignment: 3 (last: first NDP at 18, ...)".
    std::string ViolationReport() const;

    // GET_ETHERNET_STATISTIC values (selector 1 to 29), counted by the
    // device; a test may set a starting value.
    uint32_t Statistic(uint8_t selector) const;
    void SetStatistic(uint8_t selector, uint32_t value);
    TrafficCounters Traffic() const;

    // The profile (a copy), and a way to change it while running (knobs that
    // are read when used: IN packing, ZLP, checker rules, descriptors).
    DeviceProfile Profile() const;
    void UpdateProfile(const std::function<void(DeviceProfile&)>& change);

private:
    struct PortCall {
        enum Kind { Ready, Complete, Disconnect } kind;
        uint64_t due;
        uint8_t endpoint;
        kplat::UsbControlTransfer* transfer;
        bool stall;
    };
    // Port calls collected under the lock and made after it is released.
    struct Outbox {
        kplat::UsbDevicePort* port = nullptr;
        std::vector<PortCall> calls;
        std::optional<uint64_t> serviceAt;
        std::function<void(uint64_t)> request;
    };
    struct EndpointFaults {
        uint32_t failCount = 0;
        kplat::UsbHandshake failHandshake = kplat::UsbHandshake::Stall;
        uint64_t nakUntil = 0;
    };
    struct InTransfer {
        bool active = false;
        Bytes bytes;
        size_t offset = 0;
        bool zlp = false;  // a ZLP follows the last full packet
    };
    struct Injected {
        Bytes bytes;
        Zlp zlp;
    };
    enum class Endpoint { None, Notify, BulkIn, BulkOut };

    uint64_t NowLocked() const;
    void Flush(Outbox& out);
    void SignalLocked(Outbox& out, uint8_t endpointAddress);
    void DeferLocked(Outbox& out, PortCall call);
    void ResetFunctionLocked();
    void ResetDataPathLocked();
    void QueueNotificationLocked(Outbox& out, Bytes bytes);
    void QueueLinkStateLocked(Outbox& out, bool includeSpeed);
    Bytes MakeNotification(uint8_t code, uint16_t value, const Bytes& data) const;
    Bytes SpeedNotification(uint32_t downlinkBitRate, uint32_t uplinkBitRate) const;
    Endpoint Classify(uint8_t endpointAddress) const;
    bool EndpointExistsLocked(Endpoint e) const;
    bool* HaltFlagLocked(Endpoint e);
    EndpointFaults* FaultsLocked(Endpoint e);
    bool ApplyFaultLocked(Outbox& out, Endpoint e, kplat::UsbHandshake* handshake);

    bool HandleControlLocked(Outbox& out, kplat::UsbControlTransfer* t);
    bool StandardRequestLocked(Outbox& out, kplat::UsbControlTransfer* t);
    bool ClassRequestLocked(Outbox& out, kplat::UsbControlTransfer* t);
    bool GetDescriptorLocked(kplat::UsbControlTransfer* t);
    bool SetInterfaceLocked(Outbox& out, uint8_t interface, uint8_t alternate);
    bool SetConfigurationLocked(uint8_t value);
    void Answer(kplat::UsbControlTransfer* t, const Bytes& bytes);

    kplat::UsbHandshake OutPacketLocked(Outbox& out, uint8_t ep, const uint8_t* data, uint32_t length,
                                        FrameBatch* deliver);
    kplat::UsbHandshake InPacketLocked(Outbox& out, uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length);
    void OutTransferLocked(FrameBatch* deliver);
    size_t OutPendingLocked() const { return mOutBuffer.size() + mRunLength; }
    void KeepRunLocked();     // the pending packets of a call into mOutBuffer
    void DiscardOutLocked();  // drops the transfer under way
    void CheckOneNtbLocked(const uint8_t* data, size_t length, FrameBatch* deliver);
    void RecordLocked(Violation kind, std::string detail);
    kplat::UsbHandshake BulkInLocked(Outbox& out, uint8_t* buffer, uint32_t maxLength, uint32_t* length);
    kplat::UsbHandshake NotifyInLocked(Outbox& out, uint8_t* buffer, uint32_t maxLength, uint32_t* length);
    bool StartInTransferLocked();
    bool AcceptFrameLocked(const uint8_t* frame, size_t length) const;
    void CountFrameLocked(const uint8_t* frame, size_t length, bool toHost);
    OutRules OutRulesLocked() const;
    InRules InRulesLocked() const;

    mutable std::mutex mMutex;
    DeviceProfile mProfile;
    kplat::UsbDevicePort* mPort = nullptr;
    std::function<void(uint64_t)> mServiceRequest;
    std::vector<PortCall> mDeferred;
    bool mUnplugged = false;

    // Device state (USB 2.0, 9.1).
    uint8_t mConfiguration = 0;
    uint8_t mDataAlternate = 0;
    bool mRemoteWakeup = false;
    bool mNotifyHalted = false;
    bool mBulkInHalted = false;
    bool mBulkOutHalted = false;
    EndpointFaults mNotifyFaults, mBulkInFaults, mBulkOutFaults;

    // Function parameters set by the host.
    bool mNtb32 = false;
    uint32_t mInputSize = 0;
    uint16_t mInMaxDatagrams = 0;
    bool mCrcMode = false;
    uint16_t mMaxDatagramSize = 0;
    MacAddress mNetAddress{};
    uint16_t mPacketFilter = 0;
    std::vector<MacAddress> mMulticast;
    Bytes mEncapsulatedCommand;
    Bytes mEncapsulatedResponse;

    // Link.
    bool mLinkUp = false;
    uint32_t mDownlink = 0;
    uint32_t mUplink = 0;

    // Control faults and pending transfers.
    uint32_t mStallControl = 0;
    int mStallControlRequest = -1;
    uint32_t mHoldControl = 0;
    uint32_t mDelayControl = 0;
    uint32_t mDelayControlMs = 0;
    struct Held {
        kplat::UsbControlTransfer* transfer;
        bool stall;
    };
    std::vector<Held> mHeld;
    std::deque<ControlRecord> mRequestLog;

    // Bulk OUT.
    // The good datagrams of a bus call, for the network after the lock is
    // released. Only OutPacket and OutPackets use it, and the bus makes one
    // call at a time per endpoint. Its frames refer to the bytes of the call
    // (mRunStart) or of mOutTransfer, which stay until the call returns.
    FrameBatch mDeliver;
    // The packets of the current call that belong to a transfer not yet
    // ended: kept where the bus has them, and copied to mOutBuffer only when
    // the call returns before the transfer ends. A transfer that begins and
    // ends in one call is checked where it lies.
    const uint8_t* mRunStart = nullptr;
    size_t mRunLength = 0;
    Bytes mOutBuffer;    // the transfer so far, from earlier calls
    Bytes mOutTransfer;  // the last transfer gathered in mOutBuffer, kept for mDeliver
    CheckResult mCheck;  // reused by every NTB check
    bool mLastOutEndedAtMax = false;
    bool mOutSequenceValid = false;
    uint16_t mOutSequence = 0;
    uint64_t mOutTransferNumber = 0;
    std::array<uint64_t, kViolationKinds> mViolations{};
    std::array<std::string, kViolationKinds> mLastDetail;
    std::deque<ViolationRecord> mViolationLog;

    // Bulk IN.
    std::deque<Bytes> mFrames;
    // Frames sent on to the host, kept for their buffers: a frame from the
    // network reuses one instead of allocating.
    static constexpr size_t kSpareFrames = 256;
    std::vector<Bytes> mSpareFrames;
    std::deque<Injected> mInjected;
    InTransfer mIn;
    Bytes mInRoom;  // the buffer of the last IN transfer, for the next NTB
    bool mInWaiting = false;
    uint16_t mInSequence = 0;

    // Interrupt IN.
    std::deque<Bytes> mNotifications;
    InTransfer mNotify;
    bool mNotifyWaiting = false;

    std::array<uint64_t, 32> mStatistics{};
    TrafficCounters mTraffic;
};

}  // namespace ethsim
