// The simulated NCM function's control endpoint: the standard requests
// (descriptors, configuration, interface selection, features), the CDC
// Ethernet and NCM class requests, and held, delayed or stalled transfers.
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
            DiscardOutLocked();
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

}  // namespace ethsim
