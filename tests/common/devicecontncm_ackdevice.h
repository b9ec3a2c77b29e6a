// A minimal NCM function for the stand-in's USB bus, for the fuzzers and the
// benchmarks of DeviceContNcm: it serves a configuration descriptor and an
// NTB parameters block given to it (well-formed or not), acknowledges every
// other control transfer, takes every bulk OUT packet at once (recording the
// transfers, or only counting them; it can hold them back with Nak), and
// has nothing to send on its IN endpoints. No checks, no state: whatever the host does is accepted.
#pragma once

#include <kplat/usbbus.h>
#include <kplat/usbdevice.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

class AckNcmDevice : public kplat::UsbDevice {
public:
    using Bytes = std::vector<uint8_t>;

    // The configuration of a plain NCM function: communication interface 0
    // (Header, Union, Ethernet Networking, NCM functional descriptors and
    // interrupt IN 0x81), data interface 1 (alternate 0 without endpoints,
    // alternate 1 with bulk IN 0x82 and bulk OUT 0x02).
    static Bytes NcmConfiguration(uint16_t bulkMaxPacket, uint16_t maxSegmentSize = 1514,
                                  uint8_t networkCapabilities = 0x10)
    {
        Bytes d = {
            9, 2, 0, 0, 2, 1, 0, 0xC0, 50,                 // configuration, wTotalLength below
            9, 4, 0, 0, 1, 0x02, 0x0D, 0x00, 0,            // communication interface, NCM
            5, 0x24, 0x00, 0x20, 0x01,                     // Header
            5, 0x24, 0x06, 0x00, 0x01,                     // Union
            13, 0x24, 0x0F, 0, 0, 0, 0, 0,                 // Ethernet Networking: no MAC string, no statistics
            (uint8_t)maxSegmentSize, (uint8_t)(maxSegmentSize >> 8), 0, 0, 0,
            6, 0x24, 0x1A, 0x00, 0x01, networkCapabilities,  // NCM
            7, 5, 0x81, 0x03, 16, 0, 9,                    // interrupt IN
            9, 4, 1, 0, 0, 0x0A, 0x00, 0x01, 0,            // data interface, alternate 0
            9, 4, 1, 1, 2, 0x0A, 0x00, 0x01, 0,            // data interface, alternate 1
            7, 5, 0x82, 0x02, (uint8_t)bulkMaxPacket, (uint8_t)(bulkMaxPacket >> 8), 0,
            7, 5, 0x02, 0x02, (uint8_t)bulkMaxPacket, (uint8_t)(bulkMaxPacket >> 8), 0,
        };
        d[2] = (uint8_t)d.size();
        d[3] = (uint8_t)(d.size() >> 8);
        return d;
    }

    // The 28-byte GET_NTB_PARAMETERS answer.
    static Bytes NtbParameters(uint16_t formats, uint32_t inMax, uint32_t outMax, uint16_t divisor,
                               uint16_t remainder, uint16_t alignment, uint16_t maxDatagrams)
    {
        Bytes b(28, 0);
        auto put16 = [&](size_t at, uint32_t v) {
            b[at] = (uint8_t)v;
            b[at + 1] = (uint8_t)(v >> 8);
        };
        auto put32 = [&](size_t at, uint32_t v) {
            put16(at, v);
            put16(at + 2, v >> 16);
        };
        put16(0, 28);
        put16(2, formats);
        put32(4, inMax);
        put16(8, 4);
        put16(12, 4);
        put32(16, outMax);
        put16(20, divisor);
        put16(22, remainder);
        put16(24, alignment);
        put16(26, maxDatagrams);
        return b;
    }

    AckNcmDevice(Bytes configuration, Bytes ntbParameters, kplat::UsbSpeed speed = kplat::UsbSpeed::High,
                 bool record = true)
        : mConfiguration(std::move(configuration)),
          mNtbParameters(std::move(ntbParameters)),
          mSpeed(speed),
          mRecord(record)
    {
    }

    // ---- kplat::UsbDevice ----
    void Attached(kplat::UsbDevicePort* port) override { mPort = port; }
    void Detached() override { mPort = nullptr; }
    kplat::UsbSpeed Speed() const override { return mSpeed; }
    void ControlTransfer(kplat::UsbControlTransfer* t) override
    {
        const kplat::UsbSetupPacket& s = t->setup;
        bool stall = false;
        t->actual = 0;
        if ((s.bmRequestType & 0x80) != 0) {
            const Bytes* answer = nullptr;
            Bytes device;
            if (s.bRequest == 0x06 && (s.wValue >> 8) == 2) {
                answer = &mConfiguration;
            } else if (s.bRequest == 0x06 && (s.wValue >> 8) == 1) {
                device = {18, 1, 0x00, 0x02, 0x02, 0, 0, 64, 0x09, 0x12, 0x01, 0, 0x50, 0x01, 0, 0, 0, 1};
                answer = &device;
            } else if ((s.bmRequestType & 0x60) == 0x20 && s.bRequest == 0x80) {
                answer = &mNtbParameters;
            } else {
                stall = true;  // no strings, no statistics
            }
            if (answer != nullptr) {
                uint32_t n = (uint32_t)std::min<size_t>(answer->size(), s.wLength);
                if (n != 0) std::memcpy(t->data, answer->data(), n);
                t->actual = n;
            }
        } else {
            t->actual = s.wLength;
        }
        mPort->CompleteControl(t, stall);
    }
    kplat::UsbHandshake OutPacket(uint8_t ep, const uint8_t* data, uint32_t length) override
    {
        (void)ep;
        std::lock_guard<std::mutex> lock(mMutex);
        if (mHoldOut) {
            return kplat::UsbHandshake::Nak;
        }
        packets++;
        bytes += length;
        if (mRecord) {
            mCurrent.insert(mCurrent.end(), data, data + length);
        }
        if (length < mMaxPacket) {
            transfers++;
            if (mRecord) {
                mTransfers.push_back(Transfer{mCurrent, length == 0});
                mCurrent.clear();
            }
        }
        return kplat::UsbHandshake::Ack;
    }
    // A whole run at once, packet for packet as OutPacket would take it
    // (packet by packet when the bus cuts other packets than it counts).
    void OutPackets(uint8_t ep, const uint8_t* data, uint32_t length, uint32_t maxPacket, kplat::UsbRun* run) override
    {
        if (maxPacket != mMaxPacket) {
            UsbDevice::OutPackets(ep, data, length, maxPacket, run);
            return;
        }
        std::lock_guard<std::mutex> lock(mMutex);
        if (mHoldOut) {
            run->handshake = kplat::UsbHandshake::Nak;
            return;
        }
        const uint32_t count = length == 0 ? 1 : (length + maxPacket - 1) / maxPacket;
        packets += count;
        bytes += length;
        run->packets = count;
        run->bytes = length;
        if (mRecord && length != 0) {
            mCurrent.insert(mCurrent.end(), data, data + length);
        }
        const uint32_t last = length - (count - 1) * maxPacket;
        if (last < mMaxPacket) {
            transfers++;
            if (mRecord) {
                mTransfers.push_back(Transfer{mCurrent, last == 0});
                mCurrent.clear();
            }
        }
    }
    kplat::UsbHandshake InPacket(uint8_t, uint8_t*, uint32_t, uint32_t* length) override
    {
        *length = 0;
        return kplat::UsbHandshake::Nak;
    }

    // Bulk OUT answers Nak until ReleaseOut (call that from outside the bus).
    void HoldOut()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mHoldOut = true;
    }
    void ReleaseOut()
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mHoldOut = false;
        }
        if (mPort != nullptr) {
            mPort->EndpointReady(0x02);
        }
    }

    // The bulk OUT maximum packet size the transfers are cut at.
    void SetMaxPacket(uint32_t maxPacket) { mMaxPacket = maxPacket; }

    struct Transfer {
        Bytes bytes;
        bool zlp;  // ended by a zero-length packet
    };
    std::vector<Transfer> Transfers()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mTransfers;
    }
    void ClearTransfers()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mTransfers.clear();
    }

    // Counters (under mMutex; read while the stand-in is idle).
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t transfers = 0;

private:
    Bytes mConfiguration;
    Bytes mNtbParameters;
    kplat::UsbSpeed mSpeed;
    bool mRecord;
    uint32_t mMaxPacket = 512;
    kplat::UsbDevicePort* mPort = nullptr;
    std::mutex mMutex;
    bool mHoldOut = false;
    Bytes mCurrent;
    std::vector<Transfer> mTransfers;
};
