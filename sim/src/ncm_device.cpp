// The simulated NCM function: construction, the deferred port calls and their
// service, attachment, the endpoints and their faults, and what the device
// reports of itself. Control transfers are in ncm_device_control.cpp, the
// notifications and the bulk data paths in ncm_device_data.cpp.
#include "ethsim/ncm_device.h"

#include "ethsim/descriptors.h"
#include "ethsim/ncm.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "ncm_device_internal.h"

namespace ethsim {

using kplat::UsbHandshake;
using namespace detail;


NcmDevice::NcmDevice(DeviceProfile profile) : mProfile(std::move(profile))
{
    std::lock_guard<std::mutex> lock(mMutex);
    mLinkUp = mProfile.linkUp;
    mDownlink = mProfile.downlinkBitRate;
    mUplink = mProfile.uplinkBitRate;
    mNetAddress = mProfile.macAddress;
    mPacketFilter = mProfile.initialPacketFilter;
    ResetFunctionLocked();
}

NcmDevice::~NcmDevice() = default;

// ---------------------------------------------------------------------------
// Port calls
// ---------------------------------------------------------------------------
uint64_t NcmDevice::NowLocked() const { return mPort != nullptr ? mPort->Now() : 0; }

void NcmDevice::DeferLocked(Outbox& out, PortCall call)
{
    if (call.kind == PortCall::Ready) {
        for (const PortCall& c : mDeferred) {
            if (c.kind == PortCall::Ready && c.endpoint == call.endpoint && c.due <= call.due) {
                return;  // one pending signal per endpoint is enough
            }
        }
    }
    mDeferred.push_back(call);
    if (!out.serviceAt || call.due < *out.serviceAt) {
        out.serviceAt = call.due;
    }
}

void NcmDevice::SignalLocked(Outbox& out, uint8_t endpointAddress)
{
    PortCall call{PortCall::Ready, NowLocked(), endpointAddress, nullptr, false};
    if (tBusCallDepth > 0 && mServiceRequest) {
        DeferLocked(out, call);
    } else {
        out.calls.push_back(call);
    }
}

void NcmDevice::Flush(Outbox& out)
{
    for (const PortCall& c : out.calls) {
        if (out.port == nullptr) {
            break;
        }
        switch (c.kind) {
        case PortCall::Ready:
            out.port->EndpointReady(c.endpoint);
            break;
        case PortCall::Complete:
            out.port->CompleteControl(c.transfer, c.stall);
            break;
        case PortCall::Disconnect:
            out.port->Disconnect();
            break;
        }
    }
    if (out.serviceAt && out.request) {
        out.request(*out.serviceAt);
    }
}

void NcmDevice::SetServiceRequest(std::function<void(uint64_t due)> request)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mServiceRequest = std::move(request);
}

void NcmDevice::Service()
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        const uint64_t now = NowLocked();
        std::vector<PortCall> later;
        for (const PortCall& c : mDeferred) {
            if (c.due <= now) {
                out.calls.push_back(c);
            } else {
                later.push_back(c);
                if (!out.serviceAt || c.due < *out.serviceAt) {
                    out.serviceAt = c.due;
                }
            }
        }
        mDeferred.swap(later);
    }
    Flush(out);
}

std::optional<uint64_t> NcmDevice::NextDeadline() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    std::optional<uint64_t> due;
    for (const PortCall& c : mDeferred) {
        if (!due || c.due < *due) {
            due = c.due;
        }
    }
    return due;
}

// ---------------------------------------------------------------------------
// Attach, state resets
// ---------------------------------------------------------------------------
void NcmDevice::Attached(kplat::UsbDevicePort* port)
{
    BusCall call;
    std::lock_guard<std::mutex> lock(mMutex);
    mPort = port;
    mUnplugged = false;
    mConfiguration = 0;
    mDataAlternate = 0;
    mRemoteWakeup = false;
    mNotifyHalted = mBulkInHalted = mBulkOutHalted = false;
    ResetFunctionLocked();
}

void NcmDevice::Detached()
{
    BusCall call;
    std::lock_guard<std::mutex> lock(mMutex);
    mPort = nullptr;
    mHeld.clear();
    mDeferred.clear();
    mConfiguration = 0;
    mDataAlternate = 0;
    ResetFunctionLocked();
}

kplat::UsbSpeed NcmDevice::Speed() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mProfile.speed;
}

// NCM 1.0: selecting alternate setting 0 of the data interface resets the
// function: buffered data is discarded, the sequence numbers start again,
// and the NTB format (NTB16), NTB input size (dwNtbInMaxSize), CRC mode (off)
// and maximum datagram size return to their defaults.
void NcmDevice::ResetFunctionLocked()
{
    mNtb32 = false;
    mInputSize = mProfile.ntb.dwNtbInMaxSize;
    mInMaxDatagrams = 0;
    mCrcMode = false;
    mMaxDatagramSize = mProfile.wMaxSegmentSize;
    ResetDataPathLocked();
    mFrames.clear();
    mInjected.clear();
}

void NcmDevice::ResetDataPathLocked()
{
    DiscardOutLocked();
    mLastOutEndedAtMax = false;
    mOutSequenceValid = false;
    mOutSequence = 0;
    if (mIn.active) {
        ++mTraffic.inAborted;
    }
    mIn = InTransfer();
    mInSequence = 0;
}

// ---------------------------------------------------------------------------
// Endpoints
// ---------------------------------------------------------------------------
NcmDevice::Endpoint NcmDevice::Classify(uint8_t endpointAddress) const
{
    if (endpointAddress == mProfile.notifyEndpoint) {
        return Endpoint::Notify;
    }
    if (endpointAddress == mProfile.bulkInEndpoint) {
        return Endpoint::BulkIn;
    }
    if (endpointAddress == mProfile.bulkOutEndpoint) {
        return Endpoint::BulkOut;
    }
    return Endpoint::None;
}

// USB 2.0, 9.4: the endpoints of a configuration exist once it is selected,
// those of an alternate setting while that setting is selected.
bool NcmDevice::EndpointExistsLocked(Endpoint e) const
{
    if (mConfiguration == 0 || mUnplugged) {
        return false;
    }
    switch (e) {
    case Endpoint::Notify:
        return true;
    case Endpoint::BulkIn:
    case Endpoint::BulkOut:
        return mDataAlternate == 1;
    case Endpoint::None:
        break;
    }
    return false;
}

bool* NcmDevice::HaltFlagLocked(Endpoint e)
{
    switch (e) {
    case Endpoint::Notify: return &mNotifyHalted;
    case Endpoint::BulkIn: return &mBulkInHalted;
    case Endpoint::BulkOut: return &mBulkOutHalted;
    case Endpoint::None: break;
    }
    return nullptr;
}

NcmDevice::EndpointFaults* NcmDevice::FaultsLocked(Endpoint e)
{
    switch (e) {
    case Endpoint::Notify: return &mNotifyFaults;
    case Endpoint::BulkIn: return &mBulkInFaults;
    case Endpoint::BulkOut: return &mBulkOutFaults;
    case Endpoint::None: break;
    }
    return nullptr;
}

// Applies a commanded fault to the packet the bus offers; true when the
// packet is refused with *handshake.
bool NcmDevice::ApplyFaultLocked(Outbox& out, Endpoint e, UsbHandshake* handshake)
{
    EndpointFaults* f = FaultsLocked(e);
    const uint8_t address = e == Endpoint::Notify   ? mProfile.notifyEndpoint
                            : e == Endpoint::BulkIn ? mProfile.bulkInEndpoint
                                                    : mProfile.bulkOutEndpoint;
    if (f->nakUntil != 0 && f->nakUntil > NowLocked()) {
        DeferLocked(out, {PortCall::Ready, f->nakUntil, address, nullptr, false});
        *handshake = UsbHandshake::Nak;
        return true;
    }
    if (f->failCount > 0) {
        --f->failCount;
        if (f->failHandshake == UsbHandshake::Stall) {
            *HaltFlagLocked(e) = true;
            if (e == Endpoint::BulkOut) {
                DiscardOutLocked();
            }
            *handshake = UsbHandshake::Stall;
        } else {
            SignalLocked(out, address);
            *handshake = UsbHandshake::Nak;
        }
        return true;
    }
    return false;
}

// ---------------------------------------------------------------------------
// Faults
// ---------------------------------------------------------------------------
void NcmDevice::HaltEndpoint(uint8_t endpointAddress)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (bool* halt = HaltFlagLocked(Classify(endpointAddress))) {
        *halt = true;
    }
}

void NcmDevice::FailNextTransfers(uint8_t endpointAddress, uint32_t count, UsbHandshake handshake)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (EndpointFaults* f = FaultsLocked(Classify(endpointAddress))) {
        f->failCount = count;
        f->failHandshake = handshake == UsbHandshake::Nak ? UsbHandshake::Nak : UsbHandshake::Stall;
    }
}

void NcmDevice::NakEndpointFor(uint8_t endpointAddress, uint32_t ms)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (EndpointFaults* f = FaultsLocked(Classify(endpointAddress))) {
        f->nakUntil = NowLocked() + ms * kTicksPerMs;
    }
}

void NcmDevice::StallNextControl(uint32_t count, int request)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mStallControl = count;
    mStallControlRequest = request;
}

void NcmDevice::HoldNextControl(uint32_t count)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mHoldControl = count;
}

void NcmDevice::ReleaseHeldControl()
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        for (const Held& h : mHeld) {
            PortCall c{PortCall::Complete, NowLocked(), 0, h.transfer, h.stall};
            if (tBusCallDepth > 0 && mServiceRequest) {
                DeferLocked(out, c);
            } else {
                out.calls.push_back(c);
            }
        }
        mHeld.clear();
    }
    Flush(out);
}

void NcmDevice::DelayNextControl(uint32_t count, uint32_t ms)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mDelayControl = count;
    mDelayControlMs = ms;
}

void NcmDevice::Unplug()
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        if (mUnplugged) {
            return;
        }
        mUnplugged = true;
        PortCall c{PortCall::Disconnect, NowLocked(), 0, nullptr, false};
        if (tBusCallDepth > 0 && mServiceRequest) {
            DeferLocked(out, c);
        } else {
            out.calls.push_back(c);
        }
    }
    Flush(out);
}

// ---------------------------------------------------------------------------
// Reading the state
// ---------------------------------------------------------------------------
NcmDevice::State NcmDevice::GetState() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    State s;
    s.attached = mPort != nullptr;
    s.unplugged = mUnplugged;
    s.configuration = mConfiguration;
    s.dataAlternate = mDataAlternate;
    s.ntb32 = mNtb32;
    s.ntbInputSize = mInputSize;
    s.ntbInMaxDatagrams = mInMaxDatagrams;
    s.crcMode = mCrcMode;
    s.maxDatagramSize = mMaxDatagramSize;
    s.netAddress = mNetAddress;
    s.packetFilter = mPacketFilter;
    s.multicastFilters = mMulticast;
    s.remoteWakeupEnabled = mRemoteWakeup;
    s.linkUp = mLinkUp;
    s.downlinkBitRate = mDownlink;
    s.uplinkBitRate = mUplink;
    s.notifyHalted = mNotifyHalted;
    s.bulkInHalted = mBulkInHalted;
    s.bulkOutHalted = mBulkOutHalted;
    s.framesQueued = mFrames.size();
    s.notificationsQueued = mNotifications.size() + (mNotify.active ? 1 : 0);
    s.heldControl = mHeld.size();
    s.encapsulatedCommand = mEncapsulatedCommand;
    return s;
}

std::vector<ControlRecord> NcmDevice::RequestLog() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return std::vector<ControlRecord>(mRequestLog.begin(), mRequestLog.end());
}

void NcmDevice::ClearRequestLog()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mRequestLog.clear();
}

uint64_t NcmDevice::ViolationCount(Violation kind) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return kind < Violation::kCount ? mViolations[static_cast<size_t>(kind)] : 0;
}

uint64_t NcmDevice::TotalViolations() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    uint64_t sum = 0;
    for (uint64_t v : mViolations) {
        sum += v;
    }
    return sum;
}

std::array<uint64_t, kViolationKinds> NcmDevice::Violations() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mViolations;
}

std::vector<ViolationRecord> NcmDevice::ViolationLog() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return std::vector<ViolationRecord>(mViolationLog.begin(), mViolationLog.end());
}

void NcmDevice::ResetViolations()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mViolations.fill(0);
    for (std::string& s : mLastDetail) {
        s.clear();
    }
    mViolationLog.clear();
}

std::string NcmDevice::ViolationReport() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    std::ostringstream s;
    for (size_t k = 0; k < kViolationKinds; ++k) {
        if (mViolations[k] != 0) {
            s << ViolationName(static_cast<Violation>(k)) << ": " << mViolations[k] << " (last: " << mLastDetail[k]
              << ")\n";
        }
    }
    return s.str();
}

uint32_t NcmDevice::Statistic(uint8_t selector) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (selector == 0 || selector > mStatistics.size()) {
        return 0;
    }
    return static_cast<uint32_t>(mStatistics[selector - 1]);
}

void NcmDevice::SetStatistic(uint8_t selector, uint32_t value)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (selector != 0 && selector <= mStatistics.size()) {
        mStatistics[selector - 1] = value;
    }
}

TrafficCounters NcmDevice::Traffic() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mTraffic;
}

DeviceProfile NcmDevice::Profile() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mProfile;
}

void NcmDevice::UpdateProfile(const std::function<void(DeviceProfile&)>& change)
{
    std::lock_guard<std::mutex> lock(mMutex);
    change(mProfile);
}

}  // namespace ethsim
