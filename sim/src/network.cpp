#include "ethsim/network.h"

#include <algorithm>
#include <cstring>

namespace ethsim {

namespace {

uint16_t Be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
void PutBe16(uint8_t* p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

uint8_t PatternByte(uint64_t sequence, size_t i) { return static_cast<uint8_t>(sequence * 31 + i * 7); }

}  // namespace

uint16_t InternetChecksum(const uint8_t* data, size_t length)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < length; i += 2) {
        sum += Be16(data + i);
    }
    if (length % 2 != 0) {
        sum += static_cast<uint32_t>(data[length - 1]) << 8;
    }
    while (sum >> 16) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

void Loopback::OnFrame(const uint8_t* frame, size_t length)
{
    ++mFrames;
    if (!mSwap || length < 12) {
        Emit(frame, length);
        return;
    }
    Bytes copy(frame, frame + length);
    std::swap_ranges(copy.begin(), copy.begin() + 6, copy.begin() + 6);
    Emit(copy.data(), copy.size());
}

Responder::Counters Responder::GetCounters() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCounters;
}

void Responder::OnFrame(const uint8_t* frame, size_t length)
{
    Bytes reply;
    bool handled = false;
    bool malformed = false;
    bool arp = false;
    if (length >= 14) {
        size_t offset = 12;
        uint16_t type = Be16(frame + offset);
        if (type == kEtherTypeVlan && length >= 18) {
            offset += 4;
            type = Be16(frame + offset);
        }
        offset += 2;  // first byte of the payload
        if (type == kEtherTypeArp) {
            handled = HandleArp(frame, offset, length, &reply);
            arp = handled;
        } else if (type == kEtherTypeIpv4) {
            handled = HandleIpv4(frame, offset, length, &reply, &malformed);
        }
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (handled) {
            ++(arp ? mCounters.arpRequests : mCounters.echoRequests);
            ++mCounters.replies;
        } else if (malformed) {
            ++mCounters.malformed;
        } else {
            ++mCounters.ignored;
        }
    }
    if (handled) {
        Emit(reply.data(), reply.size());
    }
}

// RFC 826 over Ethernet: htype 1, ptype 0x0800, hlen 6, plen 4.
bool Responder::HandleArp(const uint8_t* frame, size_t offset, size_t length, Bytes* reply)
{
    if (length < offset + 28) {
        return false;
    }
    const uint8_t* a = frame + offset;
    if (Be16(a) != 1 || Be16(a + 2) != kEtherTypeIpv4 || a[4] != 6 || a[5] != 4 || Be16(a + 6) != 1) {
        return false;
    }
    if (std::memcmp(a + 24, mIp.data(), 4) != 0) {
        return false;  // not asking for us
    }
    reply->assign(frame, frame + offset + 28);
    uint8_t* r = reply->data();
    std::memcpy(r, frame + 6, 6);    // to the asker
    std::memcpy(r + 6, mMac.data(), 6);
    uint8_t* ra = r + offset;
    PutBe16(ra + 6, 2);                  // reply
    std::memcpy(ra + 8, mMac.data(), 6);  // sender: us
    std::memcpy(ra + 14, mIp.data(), 4);
    std::memcpy(ra + 18, a + 8, 10);  // target: the asker's MAC and IP
    if (reply->size() < 60) {
        reply->resize(60, 0);  // minimum Ethernet frame without FCS
    }
    return true;
}

bool Responder::HandleIpv4(const uint8_t* frame, size_t offset, size_t length, Bytes* reply, bool* malformed)
{
    if (length < offset + 20) {
        *malformed = true;
        return false;
    }
    const uint8_t* ip = frame + offset;
    const size_t headerLength = static_cast<size_t>(ip[0] & 0x0F) * 4;
    const size_t totalLength = Be16(ip + 2);
    if ((ip[0] >> 4) != 4 || headerLength < 20 || totalLength < headerLength + 8 ||
        offset + totalLength > length) {
        *malformed = true;
        return false;
    }
    if (std::memcmp(ip + 16, mIp.data(), 4) != 0 || ip[9] != 1) {
        return false;  // not to us, or not ICMP
    }
    if ((Be16(ip + 6) & 0x3FFF) != 0) {
        return false;  // fragments are not reassembled
    }
    if (InternetChecksum(ip, headerLength) != 0) {
        *malformed = true;
        return false;
    }
    const uint8_t* icmp = ip + headerLength;
    const size_t icmpLength = totalLength - headerLength;
    if (icmp[0] != 8 || icmp[1] != 0) {
        return false;  // only echo requests are answered
    }
    if (InternetChecksum(icmp, icmpLength) != 0) {
        *malformed = true;
        return false;
    }
    reply->assign(frame, frame + offset + totalLength);
    uint8_t* r = reply->data();
    std::memcpy(r, frame + 6, 6);
    std::memcpy(r + 6, mMac.data(), 6);
    uint8_t* rip = r + offset;
    rip[8] = 64;  // TTL
    std::memcpy(rip + 12, mIp.data(), 4);
    std::memcpy(rip + 16, ip + 12, 4);
    PutBe16(rip + 10, 0);
    PutBe16(rip + 10, InternetChecksum(rip, headerLength));
    uint8_t* ricmp = rip + headerLength;
    ricmp[0] = 0;  // echo reply; identifier, sequence and data stay
    PutBe16(ricmp + 2, 0);
    PutBe16(ricmp + 2, InternetChecksum(ricmp, icmpLength));
    if (reply->size() < 60) {
        reply->resize(60, 0);
    }
    return true;
}

Bytes CountingGenerator::MakeFrame(const MacAddress& source, const MacAddress& destination, uint64_t sequence,
                                   size_t length)
{
    length = std::max<size_t>(length, 22);
    Bytes f(length);
    std::memcpy(f.data(), destination.data(), 6);
    std::memcpy(f.data() + 6, source.data(), 6);
    PutBe16(f.data() + 12, kEtherTypeCounting);
    for (int i = 0; i < 8; ++i) {
        f[14 + i] = static_cast<uint8_t>(sequence >> (56 - 8 * i));
    }
    for (size_t i = 22; i < length; ++i) {
        f[i] = PatternByte(sequence, i);
    }
    return f;
}

uint64_t CountingGenerator::Generate(uint64_t count, size_t length)
{
    uint64_t delivered = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t sequence = mNextSequence++;
        Bytes f = MakeFrame(mSource, mDestination, sequence, length);
        if (Emit(f.data(), f.size())) {
            ++delivered;
        }
    }
    mSent += delivered;
    return delivered;
}

void CountingGenerator::OnFrame(const uint8_t* frame, size_t length)
{
    if (length < 22 || Be16(frame + 12) != kEtherTypeCounting) {
        ++mForeign;
        return;
    }
    uint64_t sequence = 0;
    for (int i = 0; i < 8; ++i) {
        sequence = sequence << 8 | frame[14 + i];
    }
    for (size_t i = 22; i < length; ++i) {
        if (frame[i] != PatternByte(sequence, i)) {
            ++mCorrupt;
            return;
        }
    }
    {
        std::lock_guard<std::mutex> lock(mReceiveMutex);
        if (sequence != mExpected) {
            ++mOutOfOrder;
        }
        mExpected = sequence + 1;
    }
    ++mReceived;
    mReceivedBytes += length;
}

void FrameCapture::OnFrame(const uint8_t* frame, size_t length)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mFrames.emplace_back(frame, frame + length);
}

std::vector<Bytes> FrameCapture::Frames() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mFrames;
}

size_t FrameCapture::Count() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mFrames.size();
}

void FrameCapture::Clear()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mFrames.clear();
}

}  // namespace ethsim
