// The simulated NCM function's data endpoints: notifications on interrupt
// IN, bulk OUT transfers checked NTB by NTB and passed to the network, and
// frames from the network packed into NTBs on bulk IN.
//
// The three endpoints stay together: they share the function's data
// state (alternate setting, NTB format, queues) under the device's lock.
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

// CDC 1.2 ConnectionSpeedChange: DLBitRate at offset 8, ULBitRate at 12.
Bytes NcmDevice::SpeedNotification(uint32_t downlinkBitRate, uint32_t uplinkBitRate) const
{
    Bytes rates;
    Append32(rates, downlinkBitRate);
    Append32(rates, uplinkBitRate);
    return MakeNotification(cdc::kNotifyConnectionSpeedChange, 0, rates);
}

// The connection state, preceded (or followed, by the profile) by the bit
// rates when connected.
void NcmDevice::QueueLinkStateLocked(Outbox& out, bool includeSpeed)
{
    const Bytes speed = SpeedNotification(mDownlink, mUplink);
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
            QueueNotificationLocked(out, SpeedNotification(mDownlink, mUplink));
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
        QueueNotificationLocked(out, SpeedNotification(downlinkBitRate, uplinkBitRate));
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
        KeepRunLocked();
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
        KeepRunLocked();
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
    if (length != 0) {
        // The packets of one call follow each other in the caller's buffer.
        if (mRunLength == 0) {
            mRunStart = data;
        }
        mRunLength += length;
    }
    if (length == 0 && OutPendingLocked() == 0) {
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
    } else if (OutPendingLocked() == mProfile.ntb.dwNtbOutMaxSize) {
        mLastOutEndedAtMax = true;
        OutTransferLocked(deliver);
    } else if (OutPendingLocked() >= kOutTransferCap) {
        // A host that never ends its transfer: check what came so far
        // rather than buffer without bound.
        mLastOutEndedAtMax = false;
        OutTransferLocked(deliver);
    }
    return UsbHandshake::Ack;
}

void NcmDevice::KeepRunLocked()
{
    if (mRunLength != 0) {
        mOutBuffer.insert(mOutBuffer.end(), mRunStart, mRunStart + mRunLength);
    }
    mRunStart = nullptr;
    mRunLength = 0;
}

void NcmDevice::DiscardOutLocked()
{
    mOutBuffer.clear();
    mRunStart = nullptr;
    mRunLength = 0;
}

void NcmDevice::OutTransferLocked(FrameBatch* deliver)
{
    ++mOutTransferNumber;
    ++mTraffic.outTransfers;
    const uint8_t* p;
    size_t left;
    if (mOutBuffer.empty()) {
        // Begun and ended in this call: checked where the bus has it.
        p = mRunStart;
        left = mRunLength;
    } else {
        // Frames of an earlier transfer of this call may refer to
        // mOutTransfer, which this one takes over.
        deliver->Own();
        mOutBuffer.insert(mOutBuffer.end(), mRunStart, mRunStart + mRunLength);
        mOutTransfer.swap(mOutBuffer);
        mOutBuffer.clear();  // the next transfer reuses the old one's room
        p = mOutTransfer.data();
        left = mOutTransfer.size();
    }
    mRunStart = nullptr;
    mRunLength = 0;
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
}

void NcmDevice::CheckOneNtbLocked(const uint8_t* data, size_t length, FrameBatch* deliver)
{
    ++mTraffic.outNtbs;
    CheckResult& r = mCheck;
    CheckNtb(data, length, OutRulesLocked(), &r);
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
        deliver->Refer(data + d.offset, d.length);
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
        Bytes ntbBytes = std::move(mInRoom);
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
            mInRoom = std::move(mIn.bytes);  // the next NTB is built in it
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
        DiscardOutLocked();
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

}  // namespace ethsim
