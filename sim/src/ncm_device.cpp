#include "ethsim/ncm_device.h"

#include "ethsim/descriptors.h"
#include "ethsim/ncm.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace ethsim {

using kplat::UsbHandshake;

namespace {

constexpr size_t kRequestLogLimit = 4096;
constexpr size_t kViolationLogLimit = 1024;
constexpr size_t kNotificationLimit = 256;
constexpr uint64_t kTicksPerMs = 10000;  // the port clock counts 100 ns
constexpr size_t kOutTransferCap = 4u << 20;

// Depth of bus calls into any device on this thread: port calls other than
// CompleteControl must not be made from inside one.
thread_local int tBusCallDepth = 0;

struct BusCall {
    BusCall() { ++tBusCallDepth; }
    ~BusCall() { --tBusCallDepth; }
    BusCall(const BusCall&) = delete;
    BusCall& operator=(const BusCall&) = delete;
};

bool IsBroadcast(const uint8_t* mac)
{
    return std::all_of(mac, mac + 6, [](uint8_t b) { return b == 0xFF; });
}

}  // namespace

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
    mOutBuffer.clear();
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
                mOutBuffer.clear();
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
// Control transfers
// ---------------------------------------------------------------------------
void NcmDevice::Answer(kplat::UsbControlTransfer* t, const Bytes& bytes)
{
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(bytes.size(), t->setup.wLength));
    if (n != 0) {
        std::memcpy(t->data, bytes.data(), n);
    }
    t->actual = n;
}

void NcmDevice::ControlTransfer(kplat::UsbControlTransfer* t)
{
    BusCall call;
    Outbox out;
    bool completeNow = false;
    bool stall = false;
    kplat::UsbDevicePort* port = nullptr;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        port = mPort;
        out.port = mPort;
        out.request = mServiceRequest;
        t->actual = 0;
        const uint64_t now = NowLocked();
        if (mUnplugged) {
            stall = true;
        } else if (mStallControl > 0 && (mStallControlRequest < 0 || mStallControlRequest == t->setup.bRequest)) {
            --mStallControl;
            stall = true;
        } else {
            stall = !HandleControlLocked(out, t);
        }
        if (stall) {
            t->actual = 0;
        }
        const bool in = (t->setup.bmRequestType & 0x80) != 0;
        ControlRecord record{t->setup, Bytes(), stall, now};
        if (in) {
            record.data.assign(t->data, t->data + t->actual);
        } else if (t->setup.wLength != 0 && t->data != nullptr) {
            record.data.assign(t->data, t->data + t->setup.wLength);
        }
        mRequestLog.push_back(std::move(record));
        if (mRequestLog.size() > kRequestLogLimit) {
            mRequestLog.pop_front();
        }
        if (mHoldControl > 0) {
            --mHoldControl;
            mHeld.push_back({t, stall});
        } else if (mDelayControl > 0) {
            --mDelayControl;
            DeferLocked(out, {PortCall::Complete, now + mDelayControlMs * kTicksPerMs, 0, t, stall});
        } else {
            completeNow = true;
        }
    }
    if (completeNow && port != nullptr) {
        port->CompleteControl(t, stall);  // allowed from inside ControlTransfer
    }
    Flush(out);
}

bool NcmDevice::HandleControlLocked(Outbox& out, kplat::UsbControlTransfer* t)
{
    const uint8_t type = (t->setup.bmRequestType >> 5) & 3;
    if (type == usb::kTypeStandard) {
        return StandardRequestLocked(out, t);
    }
    if (type == usb::kTypeClass) {
        return ClassRequestLocked(out, t);
    }
    return false;  // vendor and reserved requests: request error
}

bool NcmDevice::StandardRequestLocked(Outbox& out, kplat::UsbControlTransfer* t)
{
    const kplat::UsbSetupPacket& s = t->setup;
    const uint8_t recipient = s.bmRequestType & 0x1F;
    const bool in = (s.bmRequestType & 0x80) != 0;
    switch (s.bRequest) {
    case usb::kGetDescriptor:
        if (!in || recipient != usb::kRecipientDevice) {
            return false;
        }
        return GetDescriptorLocked(t);

    case usb::kSetAddress:
        return !in && recipient == usb::kRecipientDevice && s.wIndex == 0 && s.wLength == 0 && s.wValue <= 127;

    case usb::kGetConfiguration:
        if (!in || recipient != usb::kRecipientDevice || s.wLength != 1) {
            return false;
        }
        Answer(t, {mConfiguration});
        return true;

    case usb::kSetConfiguration:
        if (in || recipient != usb::kRecipientDevice || s.wLength != 0) {
            return false;
        }
        return SetConfigurationLocked(static_cast<uint8_t>(s.wValue));

    case usb::kGetInterface:
        if (!in || recipient != usb::kRecipientInterface || s.wLength != 1 || mConfiguration == 0) {
            return false;
        }
        if (s.wIndex == mProfile.communicationInterface) {
            Answer(t, {0});
            return true;
        }
        if (s.wIndex == mProfile.dataInterface) {
            Answer(t, {mDataAlternate});
            return true;
        }
        return false;

    case usb::kSetInterface:
        if (in || recipient != usb::kRecipientInterface || s.wLength != 0 || mConfiguration == 0) {
            return false;
        }
        return SetInterfaceLocked(out, static_cast<uint8_t>(s.wIndex), static_cast<uint8_t>(s.wValue));

    case usb::kGetStatus: {
        if (!in || s.wLength != 2 || s.wValue != 0) {
            return false;
        }
        uint16_t status = 0;
        if (recipient == usb::kRecipientDevice) {
            status = static_cast<uint16_t>((mProfile.selfPowered ? 1 : 0) | (mRemoteWakeup ? 2 : 0));
        } else if (recipient == usb::kRecipientInterface) {
            if (mConfiguration == 0 ||
                (s.wIndex != mProfile.communicationInterface && s.wIndex != mProfile.dataInterface)) {
                return false;
            }
        } else if (recipient == usb::kRecipientEndpoint) {
            if ((s.wIndex & 0x7F) != 0) {
                const Endpoint e = Classify(static_cast<uint8_t>(s.wIndex));
                if (!EndpointExistsLocked(e)) {
                    return false;
                }
                status = *HaltFlagLocked(e) ? 1 : 0;
            }
        } else {
            return false;
        }
        Answer(t, {static_cast<uint8_t>(status), static_cast<uint8_t>(status >> 8)});
        return true;
    }

    case usb::kClearFeature:
    case usb::kSetFeature: {
        if (in || s.wLength != 0) {
            return false;
        }
        const bool set = s.bRequest == usb::kSetFeature;
        if (recipient == usb::kRecipientDevice && s.wValue == usb::kFeatureRemoteWakeup) {
            if (!mProfile.remoteWakeup) {
                return false;
            }
            mRemoteWakeup = set;
            return true;
        }
        if (recipient != usb::kRecipientEndpoint || s.wValue != usb::kFeatureEndpointHalt) {
            return false;
        }
        if ((s.wIndex & 0x7F) == 0) {
            return true;  // the default pipe is never halted
        }
        const Endpoint e = Classify(static_cast<uint8_t>(s.wIndex));
        if (!EndpointExistsLocked(e)) {
            return false;
        }
        *HaltFlagLocked(e) = set;
        // USB 2.0, 9.4.5: clearing the halt resets the data toggle; a
        // transfer cut by the halt is lost.
        if (e == Endpoint::BulkOut) {
            mOutBuffer.clear();
        } else {
            InTransfer& x = e == Endpoint::BulkIn ? mIn : mNotify;
            if (x.active && x.offset != 0) {
                x = InTransfer();
                ++mTraffic.inAborted;
            }
        }
        return true;
    }

    default:
        return false;
    }
}

bool NcmDevice::GetDescriptorLocked(kplat::UsbControlTransfer* t)
{
    const uint8_t type = static_cast<uint8_t>(t->setup.wValue >> 8);
    const uint8_t index = static_cast<uint8_t>(t->setup.wValue);
    const bool super = mProfile.speed == kplat::UsbSpeed::Super;
    switch (type) {
    case usb::kDescDevice:
        Answer(t, BuildDeviceDescriptor(mProfile));
        return true;
    case usb::kDescConfiguration:
        if (index != 0) {
            return false;  // one configuration
        }
        Answer(t, BuildConfigurationDescriptor(mProfile, mProfile.speed));
        return true;
    case usb::kDescString: {
        // The language ID is not looked at: every string exists in every
        // language of the list (and for language 0).
        std::optional<Bytes> s = BuildStringDescriptor(mProfile, index);
        if (!s) {
            return false;
        }
        Answer(t, *s);
        return true;
    }
    case usb::kDescDeviceQualifier:
        // USB 2.0, 9.6.2: a high-speed capable device answers; at super
        // speed the request is an error.
        if (super || index != 0) {
            return false;
        }
        Answer(t, BuildDeviceQualifier(mProfile));
        return true;
    case usb::kDescOtherSpeedConfiguration:
        if (super || index != 0) {
            return false;
        }
        Answer(t, BuildConfigurationDescriptor(mProfile,
                                               mProfile.speed == kplat::UsbSpeed::High ? kplat::UsbSpeed::Full
                                                                                        : kplat::UsbSpeed::High,
                                               usb::kDescOtherSpeedConfiguration));
        return true;
    case usb::kDescBos:
        // Devices of bcdUSB 0x0201 and above have a BOS.
        if (mProfile.UsbVersion() < 0x0201 && !mProfile.rawBos) {
            return false;
        }
        Answer(t, BuildBos(mProfile));
        return true;
    default:
        return false;
    }
}

// USB 2.0, 9.4.7: SET_CONFIGURATION selects a configuration (0: back to the
// address state) and puts every interface at alternate setting 0, clearing
// halts.
bool NcmDevice::SetConfigurationLocked(uint8_t value)
{
    if (value != 0 && value != mProfile.bConfigurationValue) {
        return false;
    }
    mConfiguration = value;
    mDataAlternate = 0;
    mNotifyHalted = mBulkInHalted = mBulkOutHalted = false;
    mNotify = InTransfer();
    mNotifications.clear();
    mNotifyWaiting = false;
    mPacketFilter = mProfile.initialPacketFilter;
    mMulticast.clear();
    ResetFunctionLocked();
    return true;
}

bool NcmDevice::SetInterfaceLocked(Outbox& out, uint8_t interface, uint8_t alternate)
{
    if (interface == mProfile.communicationInterface) {
        return alternate == 0;
    }
    if (interface != mProfile.dataInterface || alternate > 1) {
        return false;
    }
    if (alternate == 0) {
        mDataAlternate = 0;
        ResetFunctionLocked();
        return true;
    }
    // Alternate setting 1: the bulk endpoints come (back) with their halts
    // and toggles cleared and the sequence numbers restart; the parameters
    // the host set at setting 0 stay. The host learns the link state.
    mDataAlternate = 1;
    mBulkInHalted = mBulkOutHalted = false;
    ResetDataPathLocked();
    QueueLinkStateLocked(out, true);
    return true;
}

bool NcmDevice::ClassRequestLocked(Outbox& out, kplat::UsbControlTransfer* t)
{
    const kplat::UsbSetupPacket& s = t->setup;
    const bool in = (s.bmRequestType & 0x80) != 0;
    const uint8_t caps = mProfile.bmNetworkCapabilities;
    // CDC 1.2: class requests go to the communication interface.
    if (mConfiguration == 0 || (s.bmRequestType & 0x1F) != usb::kRecipientInterface ||
        (s.wIndex & 0xFF) != mProfile.communicationInterface) {
        return false;
    }
    const bool atAlt0 = mDataAlternate == 0 || !mProfile.formatRequestsOnlyInAlt0;
    switch (s.bRequest) {
    case cdc::kGetNtbParameters: {
        if (!in || s.wValue != 0) {
            return false;
        }
        Bytes b = mProfile.ntb.Serialize();
        b.resize(mProfile.ntbParametersAnswerLength, 0);
        Answer(t, b);
        return true;
    }
    case cdc::kGetNtbFormat:
        if (!in || s.wValue != 0 || s.wLength != 2) {
            return false;
        }
        Answer(t, {static_cast<uint8_t>(mNtb32 ? 1 : 0), 0});
        return true;
    case cdc::kSetNtbFormat: {
        // wValue 0: NTB16, 1: NTB32, which bmNtbFormatsSupported must
        // announce. Only at alternate setting 0.
        if (in || s.wLength != 0 || s.wValue > 1 || !atAlt0) {
            return false;
        }
        const uint16_t needed = s.wValue == 1 ? cdc::kFormatNtb32 : cdc::kFormatNtb16;
        if ((mProfile.ntb.bmNtbFormatsSupported & needed) == 0) {
            return false;
        }
        mNtb32 = s.wValue == 1;
        return true;
    }
    case cdc::kGetNtbInputSize: {
        const bool eight = (caps & cdc::kCapNtbInputSize8) != 0;
        if (!in || s.wValue != 0 || !(s.wLength == 4 || (eight && s.wLength == 8))) {
            return false;
        }
        Bytes b;
        Append32(b, mInputSize);
        Append16(b, mInMaxDatagrams);
        Append16(b, 0);
        Answer(t, b);
        return true;
    }
    case cdc::kSetNtbInputSize: {
        // 4 bytes (dwNtbInMaxSize) or, when the function announces the
        // 8-byte form, 8 (adding wNtbInMaxDatagrams and a reserved word).
        // The size lies between the device's floor and dwNtbInMaxSize.
        const bool eight = (caps & cdc::kCapNtbInputSize8) != 0;
        if (in || s.wValue != 0 || !(s.wLength == 4 || (eight && s.wLength == 8))) {
            return false;
        }
        const uint32_t size = Get32(t->data);
        if (size > mProfile.ntb.dwNtbInMaxSize || size < mProfile.minNtbInputSize) {
            return false;
        }
        mInputSize = size;
        mInMaxDatagrams = s.wLength == 8 ? Get16(t->data + 4) : 0;
        return true;
    }
    case cdc::kGetCrcMode:
        if ((caps & cdc::kCapCrcMode) == 0 || !in || s.wValue != 0 || s.wLength != 2) {
            return false;
        }
        Answer(t, {static_cast<uint8_t>(mCrcMode ? 1 : 0), 0});
        return true;
    case cdc::kSetCrcMode:
        if ((caps & cdc::kCapCrcMode) == 0 || in || s.wLength != 0 || s.wValue > 1 || !atAlt0) {
            return false;
        }
        mCrcMode = s.wValue == 1;
        return true;
    case cdc::kGetMaxDatagramSize:
        if ((caps & cdc::kCapMaxDatagramSize) == 0 || !in || s.wValue != 0 || s.wLength != 2) {
            return false;
        }
        Answer(t, {static_cast<uint8_t>(mMaxDatagramSize), static_cast<uint8_t>(mMaxDatagramSize >> 8)});
        return true;
    case cdc::kSetMaxDatagramSize: {
        if ((caps & cdc::kCapMaxDatagramSize) == 0 || in || s.wValue != 0 || s.wLength != 2) {
            return false;
        }
        const uint16_t size = Get16(t->data);
        if (size < ntb::kEthernetHeaderLength || size > mProfile.wMaxSegmentSize) {
            return false;
        }
        mMaxDatagramSize = size;
        return true;
    }
    case cdc::kGetNetAddress:
        if ((caps & cdc::kCapNetAddress) == 0 || !in || s.wValue != 0 || s.wLength != 6) {
            return false;
        }
        Answer(t, Bytes(mNetAddress.begin(), mNetAddress.end()));
        return true;
    case cdc::kSetNetAddress:
        // An EUI-48 unicast address, only at alternate setting 0.
        if ((caps & cdc::kCapNetAddress) == 0 || in || s.wValue != 0 || s.wLength != 6 || !atAlt0 ||
            (t->data[0] & 1) != 0) {
            return false;
        }
        std::copy(t->data, t->data + 6, mNetAddress.begin());
        return true;
    case cdc::kSendEncapsulatedCommand:
        if ((caps & cdc::kCapEncapsulated) == 0 || in || s.wValue != 0) {
            return false;
        }
        // The command comes back as the response.
        mEncapsulatedCommand.assign(t->data, t->data + s.wLength);
        mEncapsulatedResponse = mEncapsulatedCommand;
        QueueNotificationLocked(out, MakeNotification(cdc::kNotifyResponseAvailable, 0, Bytes()));
        return true;
    case cdc::kGetEncapsulatedResponse:
        if ((caps & cdc::kCapEncapsulated) == 0 || !in || s.wValue != 0) {
            return false;
        }
        Answer(t, mEncapsulatedResponse);
        mEncapsulatedResponse.clear();
        return true;
    case cdc::kSetEthernetMulticastFilters: {
        // ECM 1.2, 6.2.1: wValue addresses, 6 bytes each, at most the
        // number of filters the descriptor announces (bits 0-14).
        const uint16_t filters = mProfile.wNumberMCFilters & 0x7FFF;
        if (in || s.wValue > filters || s.wLength != s.wValue * 6u) {
            return false;
        }
        mMulticast.clear();
        for (uint16_t i = 0; i < s.wValue; ++i) {
            MacAddress m;
            std::copy(t->data + 6 * i, t->data + 6 * i + 6, m.begin());
            mMulticast.push_back(m);
        }
        return true;
    }
    case cdc::kSetEthernetPacketFilter:
        // ECM 1.2, 6.2.4: the bitmap in wValue, no data stage.
        if ((caps & cdc::kCapPacketFilter) == 0 || in || s.wLength != 0) {
            return false;
        }
        mPacketFilter = s.wValue;
        return true;
    case cdc::kGetEthernetStatistic: {
        // ECM 1.2, 6.2.5: a 32-bit count for a selector the descriptor's
        // bmEthernetStatistics announces.
        const uint16_t selector = s.wValue;
        if (!in || selector == 0 || selector > cdc::kStatisticCount ||
            (mProfile.bmEthernetStatistics & (1u << (selector - 1))) == 0) {
            return false;
        }
        Bytes b;
        Append32(b, static_cast<uint32_t>(mStatistics[selector - 1]));
        Answer(t, b);
        return true;
    }
    default:
        return false;  // power management pattern filters and the rest
    }
}

// ---------------------------------------------------------------------------
// Notifications
// ---------------------------------------------------------------------------
Bytes NcmDevice::MakeNotification(uint8_t code, uint16_t value, const Bytes& data) const
{
    Bytes b = {0xA1, code};
    Append16(b, value);
    Append16(b, mProfile.communicationInterface);
    Append16(b, static_cast<uint16_t>(data.size()));
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

void NcmDevice::QueueNotificationLocked(Outbox& out, Bytes bytes)
{
    if (mNotifications.size() >= kNotificationLimit) {
        mNotifications.pop_front();
    }
    mNotifications.push_back(std::move(bytes));
    if (mNotifyWaiting) {
        mNotifyWaiting = false;
        SignalLocked(out, mProfile.notifyEndpoint);
    }
}

// The connection state, preceded (or followed, by
// the profile) by the bit rates when connected. CDC 1.2 ConnectionSpeedChange
// data: DLBitRate at offset 8, ULBitRate at offset 12.
void NcmDevice::QueueLinkStateLocked(Outbox& out, bool includeSpeed)
{
    Bytes rates;
    Append32(rates, mDownlink);
    Append32(rates, mUplink);
    const Bytes speed = MakeNotification(cdc::kNotifyConnectionSpeedChange, 0, rates);
    const Bytes connection = MakeNotification(cdc::kNotifyNetworkConnection, mLinkUp ? 1 : 0, Bytes());
    if (mLinkUp && includeSpeed && mProfile.speedBeforeConnection) {
        QueueNotificationLocked(out, speed);
    }
    QueueNotificationLocked(out, connection);
    if (mLinkUp && includeSpeed && !mProfile.speedBeforeConnection) {
        QueueNotificationLocked(out, speed);
    }
}

void NcmDevice::SetLink(bool up)
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        if (mLinkUp == up) {
            return;
        }
        mLinkUp = up;
        if (!up) {
            mTraffic.inDroppedLinkDown += mFrames.size();
            mFrames.clear();
        }
        if (mConfiguration != 0 && mDataAlternate == 1) {
            QueueLinkStateLocked(out, true);
        }
    }
    Flush(out);
}

void NcmDevice::SetLinkSpeed(uint32_t downlinkBitRate, uint32_t uplinkBitRate)
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        mDownlink = downlinkBitRate;
        mUplink = uplinkBitRate;
        if (mConfiguration != 0 && mDataAlternate == 1 && mLinkUp) {
            Bytes rates;
            Append32(rates, mDownlink);
            Append32(rates, mUplink);
            QueueNotificationLocked(out, MakeNotification(cdc::kNotifyConnectionSpeedChange, 0, rates));
        }
    }
    Flush(out);
}

void NcmDevice::NotifyNetworkConnection(uint16_t value)
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        QueueNotificationLocked(out, MakeNotification(cdc::kNotifyNetworkConnection, value, Bytes()));
    }
    Flush(out);
}

void NcmDevice::NotifySpeedChange(uint32_t downlinkBitRate, uint32_t uplinkBitRate)
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        Bytes rates;
        Append32(rates, downlinkBitRate);
        Append32(rates, uplinkBitRate);
        QueueNotificationLocked(out, MakeNotification(cdc::kNotifyConnectionSpeedChange, 0, rates));
    }
    Flush(out);
}

void NcmDevice::NotifyResponseAvailable()
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        QueueNotificationLocked(out, MakeNotification(cdc::kNotifyResponseAvailable, 0, Bytes()));
    }
    Flush(out);
}

void NcmDevice::InjectNotification(Bytes raw)
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        QueueNotificationLocked(out, std::move(raw));
    }
    Flush(out);
}

UsbHandshake NcmDevice::NotifyInLocked(Outbox& out, uint8_t* buffer, uint32_t maxLength, uint32_t* length)
{
    if (mNotifyHalted) {
        return UsbHandshake::Stall;
    }
    UsbHandshake refused = UsbHandshake::Ack;
    if (ApplyFaultLocked(out, Endpoint::Notify, &refused)) {
        return refused;
    }
    if (!mNotify.active) {
        if (mNotifications.empty()) {
            mNotifyWaiting = true;
            return UsbHandshake::Nak;
        }
        mNotify.active = true;
        mNotify.bytes = std::move(mNotifications.front());
        mNotify.offset = 0;
        mNotifications.pop_front();
    }
    // A notification longer than the packet size goes in several packets;
    // none is followed by a ZLP (the host reads by the packet).
    const size_t chunk = std::min<size_t>({mNotify.bytes.size() - mNotify.offset, maxLength,
                                           static_cast<size_t>(mProfile.notifyMaxPacket)});
    if (chunk != 0) {
        std::memcpy(buffer, mNotify.bytes.data() + mNotify.offset, chunk);
    }
    mNotify.offset += chunk;
    *length = static_cast<uint32_t>(chunk);
    if (mNotify.offset >= mNotify.bytes.size()) {
        mNotify = InTransfer();
        ++mTraffic.notifications;
    }
    return UsbHandshake::Ack;
}

// ---------------------------------------------------------------------------
// Bulk OUT: reassembly and checking
// ---------------------------------------------------------------------------
OutRules NcmDevice::OutRulesLocked() const
{
    OutRules r;
    r.ntb32 = mNtb32;
    r.maxSize = mProfile.ntb.dwNtbOutMaxSize;
    r.divisor = mProfile.ntb.wNdpOutDivisor;
    r.remainder = mProfile.ntb.wNdpOutPayloadRemainder;
    r.alignment = mProfile.ntb.wNdpOutAlignment;
    r.maxDatagrams = mProfile.ntb.wNtbOutMaxDatagrams;
    r.payloadOffset = mProfile.checker.payloadOffset;
    r.maxDatagramLength = mMaxDatagramSize;
    r.crcMode = mCrcMode;
    r.crcFollowsMode = mProfile.checker.crcSignatureFollowsMode;
    return r;
}

void NcmDevice::RecordLocked(Violation kind, std::string detail)
{
    const size_t k = static_cast<size_t>(kind);
    ++mViolations[k];
    mLastDetail[k] = detail;
    mViolationLog.push_back({kind, mOutTransferNumber, std::move(detail)});
    if (mViolationLog.size() > kViolationLogLimit) {
        mViolationLog.pop_front();
    }
}

UsbHandshake NcmDevice::OutPacket(uint8_t ep, const uint8_t* data, uint32_t length)
{
    BusCall call;
    Outbox out;
    UsbHandshake result;
    mDeliver.Clear();
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        result = OutPacketLocked(out, ep, data, length, &mDeliver);
    }
    Emit(mDeliver);
    Flush(out);
    return result;
}

void NcmDevice::OutPackets(uint8_t ep, const uint8_t* data, uint32_t length, uint32_t maxPacket, kplat::UsbRun* run)
{
    BusCall call;
    Outbox out;
    mDeliver.Clear();
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        uint32_t offset = 0;
        do {
            const uint32_t n = std::min(maxPacket, length - offset);
            run->handshake = OutPacketLocked(out, ep, data == nullptr ? nullptr : data + offset, n, &mDeliver);
            if (run->handshake != UsbHandshake::Ack) {
                break;
            }
            ++run->packets;
            run->bytes += n;
            offset += n;
        } while (offset < length);
    }
    Emit(mDeliver);
    Flush(out);
}

// One OUT packet, under mMutex: what OutPacket and OutPackets do per packet.
UsbHandshake NcmDevice::OutPacketLocked(Outbox& out, uint8_t ep, const uint8_t* data, uint32_t length,
                                        FrameBatch* deliver)
{
    if (mUnplugged || mConfiguration == 0 || ep != (mProfile.bulkOutEndpoint & 0x0F)) {
        return UsbHandshake::Stall;
    }
    if (mDataAlternate != 1) {
        // The bulk endpoints exist only at alternate setting 1.
        RecordLocked(Violation::InactiveInterface,
                     "OUT packet of " + std::to_string(length) + " bytes at alternate setting 0");
        return UsbHandshake::Stall;
    }
    if (mBulkOutHalted) {
        return UsbHandshake::Stall;
    }
    UsbHandshake refused = UsbHandshake::Ack;
    if (ApplyFaultLocked(out, Endpoint::BulkOut, &refused)) {
        return refused;
    }
    const uint32_t packet = mProfile.BulkMaxPacket();
    mOutBuffer.insert(mOutBuffer.end(), data, data + length);
    if (length == 0 && mOutBuffer.empty()) {
        // A zero-length transfer. USB ends a transfer with a short
        // packet; NCM 1.0 adds that a transfer of exactly
        // dwNtbOutMaxSize bytes ends without a ZLP. So a ZLP that
        // follows a short packet, or such a full-size transfer,
        // ends no transfer.
        ++mOutTransferNumber;
        ++mTraffic.outTransfers;
        RecordLocked(Violation::UnexpectedZlp,
                     mLastOutEndedAtMax ? "ZLP after a transfer of dwNtbOutMaxSize bytes"
                                        : "ZLP after a transfer that ended with a short packet");
        mLastOutEndedAtMax = false;
    } else if (length < packet) {
        mLastOutEndedAtMax = false;
        OutTransferLocked(deliver);
    } else if (mOutBuffer.size() == mProfile.ntb.dwNtbOutMaxSize) {
        mLastOutEndedAtMax = true;
        OutTransferLocked(deliver);
    } else if (mOutBuffer.size() >= kOutTransferCap) {
        // A host that never ends its transfer: check what came so far
        // rather than buffer without bound.
        mLastOutEndedAtMax = false;
        OutTransferLocked(deliver);
    }
    return UsbHandshake::Ack;
}

void NcmDevice::OutTransferLocked(FrameBatch* deliver)
{
    ++mOutTransferNumber;
    ++mTraffic.outTransfers;
    Bytes transfer;
    transfer.swap(mOutBuffer);
    const uint8_t* p = transfer.data();
    size_t left = transfer.size();
    const uint32_t packet = mProfile.BulkMaxPacket();
    const uint32_t signature = mNtb32 ? ntb::kNth32Signature : ntb::kNth16Signature;
    const size_t header = mNtb32 ? ntb::kNth32Length : ntb::kNth16Length;
    // A host that leaves out the ZLP after an NTB that ends on a packet
    // boundary makes the device see the next NTB as part of the same
    // transfer: recognised when the block length ends on a packet boundary
    // inside the transfer and another transfer header starts there.
    while (left >= header && Get32(p) == signature) {
        const uint32_t block = mNtb32 ? Get32(p + 8) : Get16(p + 8);
        if (block == 0 || block >= left || block % packet != 0 || left - block < 4 ||
            Get32(p + block) != signature) {
            break;
        }
        RecordLocked(Violation::MissingZlp,
                     "NTB of " + std::to_string(block) + " bytes ends on a packet boundary without a ZLP; "
                     "the next NTB came in the same transfer");
        CheckOneNtbLocked(p, block, deliver);
        p += block;
        left -= block;
    }
    CheckOneNtbLocked(p, left, deliver);
    // The next transfer reuses the buffer (mOutBuffer is empty here).
    transfer.clear();
    mOutBuffer.swap(transfer);
}

void NcmDevice::CheckOneNtbLocked(const uint8_t* data, size_t length, FrameBatch* deliver)
{
    ++mTraffic.outNtbs;
    CheckResult r = CheckNtb(data, length, OutRulesLocked());
    for (Finding& f : r.findings) {
        RecordLocked(f.kind, std::move(f.detail));
    }
    if (r.headerValid) {
        // wSequence counts the NTBs since the function reset; the receiver
        // may check it (NCM 1.0 leaves the reaction open).
        if (mOutSequenceValid && r.sequence != static_cast<uint16_t>(mOutSequence + 1)) {
            RecordLocked(Violation::Sequence, "wSequence " + std::to_string(r.sequence) + " after " +
                                                  std::to_string(mOutSequence));
        } else if (!mOutSequenceValid && mProfile.checker.sequenceStartsAtZero && r.sequence != 0) {
            RecordLocked(Violation::SequenceStart,
                         "first NTB after the reset has wSequence " + std::to_string(r.sequence));
        }
        mOutSequence = r.sequence;
        mOutSequenceValid = true;
    }
    mTraffic.outRejected += r.rejected;
    // An NTB lost before any datagram entry could be read counts as one
    // failed frame.
    const bool lostWhole = r.datagramEntries == 0 && !r.findings.empty();
    mStatistics[cdc::kXmitError - 1] += r.rejected + (lostWhole ? 1 : 0);
    for (const Datagram& d : r.good) {
        if (!mLinkUp) {
            ++mTraffic.outDroppedLinkDown;
            ++mStatistics[cdc::kXmitError - 1];
            continue;
        }
        ++mTraffic.outDatagrams;
        CountFrameLocked(data + d.offset, d.length, false);
        deliver->Add(data + d.offset, d.length);
    }
}

void NcmDevice::CountFrameLocked(const uint8_t* frame, size_t length, bool toHost)
{
    // Device view: "transmitted" went to the network, "received" came from
    // it (and went on to the host).
    const uint8_t ok = toHost ? cdc::kRcvOk : cdc::kXmitOk;
    uint8_t bytes = toHost ? cdc::kDirectedBytesRcv : cdc::kDirectedBytesXmit;
    if (IsBroadcast(frame)) {
        bytes = toHost ? cdc::kBroadcastBytesRcv : cdc::kBroadcastBytesXmit;
    } else if ((frame[0] & 1) != 0) {
        bytes = toHost ? cdc::kMulticastBytesRcv : cdc::kMulticastBytesXmit;
    }
    ++mStatistics[ok - 1];
    mStatistics[bytes - 1] += length;
    ++mStatistics[bytes];  // the frames counter follows the bytes counter
}

// ---------------------------------------------------------------------------
// Bulk IN: packing
// ---------------------------------------------------------------------------
InRules NcmDevice::InRulesLocked() const
{
    InRules r;
    r.ntb32 = mNtb32;
    r.maxSize = mInputSize;
    r.maxDatagrams = mProfile.in.maxDatagrams;
    if (mInMaxDatagrams != 0) {
        r.maxDatagrams = std::min(r.maxDatagrams, mInMaxDatagrams);
    }
    r.divisor = mProfile.ntb.wNdpInDivisor;
    r.remainder = mProfile.ntb.wNdpInPayloadRemainder;
    r.alignment = mProfile.ntb.wNdpInAlignment;
    r.payloadOffset = mProfile.in.payloadOffset;
    r.ndpCount = mProfile.in.ndpCount;
    r.position = mProfile.in.ndpPosition;
    r.crc = mCrcMode;
    return r;
}

bool NcmDevice::AcceptFrameLocked(const uint8_t* frame, size_t length) const
{
    (void)length;
    if (!mProfile.applyPacketFilter || (mPacketFilter & cdc::kFilterPromiscuous) != 0) {
        return true;
    }
    if (IsBroadcast(frame)) {
        return (mPacketFilter & cdc::kFilterBroadcast) != 0;
    }
    if ((frame[0] & 1) != 0) {
        if ((mPacketFilter & cdc::kFilterAllMulticast) != 0) {
            return true;
        }
        if ((mPacketFilter & cdc::kFilterMulticast) == 0) {
            return false;
        }
        return std::any_of(mMulticast.begin(), mMulticast.end(),
                           [frame](const MacAddress& m) { return std::memcmp(m.data(), frame, 6) == 0; });
    }
    return (mPacketFilter & cdc::kFilterDirected) != 0 && std::memcmp(mNetAddress.data(), frame, 6) == 0;
}

void NcmDevice::OnFrame(const uint8_t* frame, size_t length)
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        if (mConfiguration == 0 || mDataAlternate != 1 || mUnplugged) {
            ++mTraffic.inDroppedInactive;
            return;
        }
        if (!mLinkUp) {
            ++mTraffic.inDroppedLinkDown;
            return;
        }
        if (length < ntb::kEthernetHeaderLength || length > mMaxDatagramSize) {
            ++mTraffic.inTooLong;
            ++mStatistics[cdc::kRcvError - 1];
            return;
        }
        if (!AcceptFrameLocked(frame, length)) {
            ++mTraffic.inFiltered;
            return;
        }
        if (mFrames.size() >= mProfile.in.queueLimit) {
            ++mTraffic.inQueueFull;
            ++mStatistics[cdc::kRcvNoBuffer - 1];
            return;
        }
        if (mSpareFrames.empty()) {
            mFrames.emplace_back(frame, frame + length);
        } else {
            mFrames.push_back(std::move(mSpareFrames.back()));
            mSpareFrames.pop_back();
            mFrames.back().assign(frame, frame + length);
        }
        if (mInWaiting) {
            mInWaiting = false;
            SignalLocked(out, mProfile.bulkInEndpoint);
        }
    }
    Flush(out);
}

void NcmDevice::InjectInTransfer(Bytes bytes, Zlp zlp)
{
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        mInjected.push_back({std::move(bytes), zlp});
        if (mInWaiting) {
            mInWaiting = false;
            SignalLocked(out, mProfile.bulkInEndpoint);
        }
    }
    Flush(out);
}

// Starts the next IN transfer: an injected one first, else an NTB of the
// waiting frames. False when there is nothing to send.
bool NcmDevice::StartInTransferLocked()
{
    const uint32_t packet = mProfile.BulkMaxPacket();
    if (!mInjected.empty()) {
        Injected next = std::move(mInjected.front());
        mInjected.pop_front();
        const size_t n = next.bytes.size();
        bool zlp = false;
        if (n % packet == 0) {
            zlp = next.zlp == Zlp::Always || (next.zlp == Zlp::Auto && n < mInputSize && n != 0);
        }
        mIn.active = true;
        mIn.bytes = std::move(next.bytes);
        mIn.offset = 0;
        mIn.zlp = zlp;
        ++mTraffic.inInjected;
        return true;
    }
    if (mConfiguration == 0 || mDataAlternate != 1) {
        return false;
    }
    const InRules rules = InRulesLocked();
    while (!mFrames.empty()) {
        Bytes ntbBytes;
        const size_t taken =
            PackNtb(mFrames, rules, mProfile.in.sequenceAlwaysZero ? 0 : mInSequence, &ntbBytes);
        if (taken == 0) {
            // Too large for the host's NTB input size even alone.
            mFrames.pop_front();
            ++mTraffic.inTooLong;
            ++mStatistics[cdc::kRcvError - 1];
            continue;
        }
        for (size_t i = 0; i < taken; ++i) {
            CountFrameLocked(mFrames.front().data(), mFrames.front().size(), true);
            if (mSpareFrames.size() < kSpareFrames) {
                mSpareFrames.push_back(std::move(mFrames.front()));  // its buffer serves a later frame
            }
            mFrames.pop_front();
        }
        ++mInSequence;
        ++mTraffic.inNtbs;
        mTraffic.inDatagrams += taken;
        const size_t n = ntbBytes.size();
        mIn.active = true;
        mIn.bytes = std::move(ntbBytes);
        mIn.offset = 0;
        // USB ends a transfer with a short packet, so an NTB that ends on a
        // packet boundary needs a ZLP; NCM 1.0: not when it is exactly the
        // NTB input size, where the host's buffer is full.
        mIn.zlp = mProfile.in.zlp && n % packet == 0 && n < mInputSize;
        return true;
    }
    return false;
}

UsbHandshake NcmDevice::BulkInLocked(Outbox& out, uint8_t* buffer, uint32_t maxLength, uint32_t* length)
{
    if (mBulkInHalted) {
        return UsbHandshake::Stall;
    }
    UsbHandshake refused = UsbHandshake::Ack;
    if (ApplyFaultLocked(out, Endpoint::BulkIn, &refused)) {
        return refused;
    }
    if (!mIn.active && !StartInTransferLocked()) {
        mInWaiting = true;
        return UsbHandshake::Nak;
    }
    const size_t packet = std::min<size_t>(maxLength, mProfile.BulkMaxPacket());
    const size_t chunk = std::min(mIn.bytes.size() - mIn.offset, packet);
    if (chunk != 0) {
        std::memcpy(buffer, mIn.bytes.data() + mIn.offset, chunk);
    }
    mIn.offset += chunk;
    *length = static_cast<uint32_t>(chunk);
    if (mIn.offset >= mIn.bytes.size()) {
        if (chunk == packet && mIn.zlp) {
            mIn.zlp = false;  // the ZLP is the next packet
        } else {
            mIn = InTransfer();
        }
    }
    return UsbHandshake::Ack;
}

UsbHandshake NcmDevice::InPacket(uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length)
{
    BusCall call;
    Outbox out;
    UsbHandshake result;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        result = InPacketLocked(out, ep, buffer, maxLength, length);
    }
    Flush(out);
    return result;
}

void NcmDevice::InPackets(uint8_t ep, uint8_t* buffer, uint32_t length, uint32_t maxPacket, kplat::UsbRun* run)
{
    BusCall call;
    Outbox out;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        out.port = mPort;
        out.request = mServiceRequest;
        while (run->bytes < length) {
            uint32_t got = 0;
            run->handshake = InPacketLocked(out, ep, buffer + run->bytes, maxPacket, &got);
            if (run->handshake != UsbHandshake::Ack) {
                break;
            }
            ++run->packets;
            run->bytes += std::min(got, maxPacket);
            if (got != maxPacket) {
                run->shortPacket = got < maxPacket;
                run->babble = got > maxPacket;
                break;
            }
        }
    }
    Flush(out);
}

// One IN packet, under mMutex: what InPacket and InPackets do per packet.
UsbHandshake NcmDevice::InPacketLocked(Outbox& out, uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length)
{
    *length = 0;
    if (mUnplugged || mConfiguration == 0) {
        return UsbHandshake::Stall;
    }
    if (ep == (mProfile.notifyEndpoint & 0x0F)) {
        return NotifyInLocked(out, buffer, maxLength, length);
    }
    if (ep == (mProfile.bulkInEndpoint & 0x0F)) {
        return BulkInLocked(out, buffer, maxLength, length);
    }
    return UsbHandshake::Stall;
}

void NcmDevice::EndpointAborted(uint8_t endpointAddress)
{
    BusCall call;
    std::lock_guard<std::mutex> lock(mMutex);
    if ((endpointAddress & 0x7F) == 0) {
        mHeld.clear();
        mDeferred.erase(std::remove_if(mDeferred.begin(), mDeferred.end(),
                                       [](const PortCall& c) { return c.kind == PortCall::Complete; }),
                        mDeferred.end());
        return;
    }
    switch (Classify(endpointAddress)) {
    case Endpoint::BulkOut:
        mOutBuffer.clear();
        break;
    case Endpoint::BulkIn:
        if (mIn.active && mIn.offset != 0) {
            mIn = InTransfer();
            ++mTraffic.inAborted;
        }
        break;
    case Endpoint::Notify:
        if (mNotify.active && mNotify.offset != 0) {
            mNotify = InTransfer();
            ++mTraffic.inAborted;
        }
        break;
    case Endpoint::None:
        break;
    }
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
