// `ethbrg check CAPTURE`: reads a usbmon pcap, finds the NCM function's bulk
// endpoints and NTB settings from the control traffic in the capture, and
// checks every NTB both ways:
//  - host NTBs (bulk OUT) against NCM with the simulated device's strict
//    checker and the parameters the device announced, plus the sequence rule;
//  - device NTBs (bulk IN) against what the driver's receive path accepts:
//    a fault the driver drops data for is a violation; other departures from
//    NCM that the driver tolerates are reported as notes.
// Exit status: 0 clean, 1 any violation, 2 the capture cannot be read.
#include "host.h"

#include <ethsim/ncm.h>
#include <ethsim/ntb.h>

#include <pcap/pcap.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace ethbrg {

namespace {

constexpr int kLinkTypeUsbLinux = 189;         // 48-byte usbmon header
constexpr int kLinkTypeUsbLinuxMmapped = 220;  // 64-byte usbmon header

struct Record {
    uint64_t id;
    char type;
    uint8_t transferType;  // 0 iso, 1 interrupt, 2 control, 3 bulk
    uint8_t endpoint;
    uint8_t device;
    uint16_t bus;
    bool hasSetup;
    uint8_t setup[8];
    int32_t status;
    uint32_t length;
    const uint8_t* data;
    uint32_t dataLength;
    bool truncated;  // the capture kept fewer bytes than were moved
};

uint16_t Le16(const uint8_t* p) { return (uint16_t)(p[0] | p[1] << 8); }
uint32_t Le32(const uint8_t* p) { return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24; }

// What the driver's receive path refuses; every other finding on a device
// NTB is a note.
bool DriverRejects(ethsim::Violation v)
{
    using V = ethsim::Violation;
    switch (v) {
    case V::TransferTooShort:
    case V::NthSignature:
    case V::NdpIndex:
    case V::NdpLength:
    case V::NdpTerminator:
    case V::NdpEmpty:
    case V::NdpChain:
    case V::DatagramEntry:
    case V::DatagramOutOfBlock:
        return true;
    default:
        return false;
    }
}

class Checker {
public:
    Checker(int in, int out, bool quiet) : mIn(in), mOut(out), mQuiet(quiet) {}

    void Take(uint64_t packet, const Record& r)
    {
        if (r.transferType == 2 && (r.endpoint & 0x7F) == 0) {
            Control(r);
            return;
        }
        if (r.transferType != 3 || !Matches(r)) return;
        const bool isIn = (r.endpoint & 0x80) != 0;
        // IN data is captured at completion, OUT data at submission.
        const bool device = isIn && r.type == 'C' && (r.status == 0 || r.status == -121 /* -EREMOTEIO: short */) &&
                            r.dataLength != 0;
        const bool host = !isIn && r.type == 'S' && r.length != 0;
        if (!device && !host) return;
        if (r.truncated) {
            mTruncated++;  // the capture kept fewer bytes than the NTB has
            return;
        }
        if (device) {
            DeviceNtb(packet, r);
        } else {
            HostNtb(packet, r);
        }
    }

    int Finish(uint64_t packets)
    {
        if (!mEndpointsKnown) {
            fprintf(stderr,
                    "ethbrg: no NCM data interface found in the capture's descriptors (the capture must include the "
                    "enumeration); give --in EP --out EP\n");
            return 2;
        }
        printf("\n%llu records; NCM bulk IN 0x%02x, bulk OUT 0x%02x on device %u; NTB%s, CRC %s\n",
               (unsigned long long)packets, mIn, mOut, mDevice, mNtb32 ? "32" : "16", mCrc ? "on" : "off");
        printf("host NTBs    %llu checked, %llu datagrams, %llu violations\n", (unsigned long long)mHostNtbs,
               (unsigned long long)mHostDatagrams, (unsigned long long)Sum(mHostKinds));
        for (const auto& [kind, n] : mHostKinds) printf("  %-24s %llu\n", kind.c_str(), (unsigned long long)n);
        printf("device NTBs  %llu checked, %llu datagrams, %llu violations, %llu notes\n",
               (unsigned long long)mDeviceNtbs, (unsigned long long)mDeviceDatagrams,
               (unsigned long long)Sum(mDeviceKinds), (unsigned long long)Sum(mDeviceNotes));
        for (const auto& [kind, n] : mDeviceKinds) printf("  %-24s %llu\n", kind.c_str(), (unsigned long long)n);
        for (const auto& [kind, n] : mDeviceNotes) printf("  %-24s %llu (note)\n", kind.c_str(), (unsigned long long)n);
        if (mTruncated) printf("truncated    %llu records kept fewer bytes than moved (raise the snap length)\n", (unsigned long long)mTruncated);
        const bool bad = Sum(mHostKinds) + Sum(mDeviceKinds) != 0;
        printf("result       %s\n", bad ? "FAIL" : (mHostNtbs + mDeviceNtbs ? "PASS" : "PASS (no NTBs in the capture)"));
        return bad ? 1 : 0;
    }

private:
    static uint64_t Sum(const std::map<std::string, uint64_t>& m)
    {
        uint64_t s = 0;
        for (const auto& [k, n] : m) s += n;
        return s;
    }

    bool Matches(const Record& r)
    {
        if (!mEndpointsKnown) return false;
        if (mDevice != 0 && (r.device != mDevice || r.bus != mBus)) return false;
        return r.endpoint == mIn || r.endpoint == mOut;
    }

    void Control(const Record& r)
    {
        if (r.type == 'S' && r.hasSetup) {
            mSetups[r.id] = std::vector<uint8_t>(r.setup, r.setup + 8);
            // OUT data stages are captured at submission.
            if ((r.setup[0] & 0x80) == 0) ControlDone(r, r.setup, r.data, r.dataLength);
            return;
        }
        if (r.type != 'C') return;
        auto it = mSetups.find(r.id);
        if (it == mSetups.end()) return;
        std::vector<uint8_t> setup = it->second;
        mSetups.erase(it);
        if (r.status != 0) return;
        if (setup[0] & 0x80) ControlDone(r, setup.data(), r.data, r.dataLength);
        // A new alternate setting of the data interface restarts the
        // sequence numbers.
        else if (setup[0] == 0x01 && setup[1] == ethsim::usb::kSetInterface) mHostSequenceKnown = false;
    }

    void ControlDone(const Record& r, const uint8_t* setup, const uint8_t* data, uint32_t length)
    {
        const uint8_t type = (setup[0] >> 5) & 3, request = setup[1];
        const uint16_t value = Le16(setup + 2);
        if (type == ethsim::usb::kTypeStandard && request == ethsim::usb::kGetDescriptor && (value >> 8) == 2) {
            Configuration(r, data, length);
        } else if (type == ethsim::usb::kTypeClass) {
            using namespace ethsim::cdc;
            if (request == kGetNtbParameters && length >= 28) {
                mOutRules.maxSize = Le32(data + 16);
                mOutRules.divisor = Le16(data + 20);
                mOutRules.remainder = Le16(data + 22);
                mOutRules.alignment = Le16(data + 24);
                mOutRules.maxDatagrams = Le16(data + 26);
                mInMax = Le32(data + 4);
            } else if (request == kSetNtbFormat) {
                mNtb32 = value == 1;
            } else if (request == kSetCrcMode) {
                mCrc = value == 1;
            } else if (request == kSetNtbInputSize && length >= 4) {
                mInMax = Le32(data);
            } else if (request == kSetMaxDatagramSize && length >= 2) {
                mMaxDatagram = Le16(data);
            }
        }
    }

    void Configuration(const Record& r, const uint8_t* d, uint32_t length)
    {
        if (mExplicit) return;  // the endpoints were given
        bool inData = false;
        int in = -1, out = -1;
        for (uint32_t at = 0; at + 2 <= length && d[at] >= 2; at += d[at]) {
            const uint8_t len = d[at], type = d[at + 1];
            if (at + len > length) break;
            if (type == ethsim::usb::kDescInterface && len >= 9) {
                inData = d[at + 5] == ethsim::cdc::kClassData && d[at + 4] >= 2;
            } else if (inData && type == ethsim::usb::kDescEndpoint && len >= 7 && (d[at + 3] & 3) == 2) {
                (d[at + 2] & 0x80 ? in : out) = d[at + 2];
            } else if (type == ethsim::cdc::kCsInterface && len >= 13 && d[at + 2] == ethsim::cdc::kSubtypeEthernet) {
                mMaxDatagram = Le16(d + at + 8);
            }
        }
        if (in < 0 || out < 0) return;
        mIn = in;
        mOut = out;
        mEndpointsKnown = true;
        mDevice = r.device;
        mBus = r.bus;
    }

    void Report(uint64_t packet, const char* who, const std::string& kind, const std::string& detail, bool note)
    {
        if (!mQuiet) printf("packet %llu: %s NTB: %s%s: %s\n", (unsigned long long)packet, who, kind.c_str(), note ? " (note)" : "", detail.c_str());
    }

    void HostNtb(uint64_t packet, const Record& r)
    {
        ethsim::OutRules rules = mOutRules;
        rules.ntb32 = mNtb32;
        rules.crcMode = mCrc;
        rules.maxDatagramLength = mMaxDatagram;
        ethsim::CheckResult c = ethsim::CheckNtb(r.data, r.dataLength, rules);
        mHostNtbs++;
        mHostDatagrams += c.good.size();
        for (const ethsim::Finding& f : c.findings) {
            mHostKinds[ethsim::ViolationName(f.kind)]++;
            Report(packet, "host", ethsim::ViolationName(f.kind), f.detail, false);
        }
        if (c.headerValid) {
            if (mHostSequenceKnown && c.sequence != (uint16_t)(mHostSequence + 1)) {
                mHostKinds["Sequence"]++;
                Report(packet, "host", "Sequence", "wSequence " + std::to_string(c.sequence) + " after " +
                       std::to_string(mHostSequence), false);
            }
            mHostSequence = c.sequence;
            mHostSequenceKnown = true;
        }
    }

    void DeviceNtb(uint64_t packet, const Record& r)
    {
        ethsim::OutRules rules;
        rules.ntb32 = mNtb32;
        rules.maxSize = mInMax;
        rules.divisor = 0;  // the driver takes datagrams wherever they are
        rules.alignment = 4;
        rules.maxDatagrams = 0;
        rules.maxDatagramLength = mMaxDatagram;
        rules.crcMode = mCrc;
        ethsim::CheckResult c = ethsim::CheckNtb(r.data, r.dataLength, rules);
        mDeviceNtbs++;
        mDeviceDatagrams += c.good.size();
        for (const ethsim::Finding& f : c.findings) {
            const bool rejected = DriverRejects(f.kind);
            (rejected ? mDeviceKinds : mDeviceNotes)[ethsim::ViolationName(f.kind)]++;
            Report(packet, "device", ethsim::ViolationName(f.kind), f.detail, !rejected);
        }
    }

    int mIn, mOut;
    const bool mQuiet;
    const bool mExplicit = mIn >= 0 && mOut >= 0;
    bool mEndpointsKnown = mExplicit;
    uint8_t mDevice = 0;
    uint16_t mBus = 0;
    std::map<uint64_t, std::vector<uint8_t>> mSetups;

    // Settings from the control traffic.
    ethsim::OutRules mOutRules;
    bool mNtb32 = false;
    bool mCrc = false;
    uint32_t mInMax = 65536;
    uint32_t mMaxDatagram = 1514;

    uint64_t mHostNtbs = 0, mHostDatagrams = 0, mDeviceNtbs = 0, mDeviceDatagrams = 0, mTruncated = 0;
    bool mHostSequenceKnown = false;
    uint16_t mHostSequence = 0;
    std::map<std::string, uint64_t> mHostKinds, mDeviceKinds, mDeviceNotes;
};

}  // namespace

int RunCheck(const std::string& capture, int inEndpoint, int outEndpoint, bool quiet)
{
    if ((inEndpoint >= 0) != (outEndpoint >= 0)) throw UsageError("--in and --out go together");
    if (inEndpoint >= 0 && ((inEndpoint & 0x80) == 0 || (outEndpoint & 0x80) != 0 || inEndpoint > 0xFF)) {
        throw UsageError("--in takes an IN endpoint address (0x81..0x8F), --out an OUT one (0x01..0x0F)");
    }
    char error[PCAP_ERRBUF_SIZE] = {};
    pcap_t* pcap = pcap_open_offline(capture.c_str(), error);
    if (pcap == nullptr) throw UsageError(capture + ": " + error);
    const int link = pcap_datalink(pcap);
    if (link != kLinkTypeUsbLinux && link != kLinkTypeUsbLinuxMmapped) {
        pcap_close(pcap);
        throw UsageError(capture + ": not a usbmon capture (link type " + std::to_string(link) +
                         "; expected 189 or 220)");
    }
    const uint32_t headerLength = link == kLinkTypeUsbLinuxMmapped ? 64 : 48;
    Checker checker(inEndpoint, outEndpoint, quiet);
    uint64_t packets = 0;
    pcap_pkthdr* header;
    const u_char* bytes;
    int rc;
    while ((rc = pcap_next_ex(pcap, &header, &bytes)) == 1) {
        packets++;
        if (header->caplen < headerLength) {
            pcap_close(pcap);
            throw UsageError(capture + ": record " + std::to_string(packets) + " is shorter than a usbmon header");
        }
        Record r;
        memcpy(&r.id, bytes, 8);
        r.type = (char)bytes[8];
        r.transferType = bytes[9];
        r.endpoint = bytes[10];
        r.device = bytes[11];
        r.bus = Le16(bytes + 12);
        r.hasSetup = bytes[14] == 0;
        memcpy(&r.status, bytes + 28, 4);
        r.length = Le32(bytes + 32);
        const uint32_t captured = Le32(bytes + 36);
        memcpy(r.setup, bytes + 40, 8);
        r.data = bytes + headerLength;
        r.dataLength = std::min<uint32_t>(captured, header->caplen - headerLength);
        r.truncated = r.dataLength < captured || (r.type == 'C' && (r.endpoint & 0x80) && captured < r.length) ||
                      (r.type == 'S' && !(r.endpoint & 0x80) && captured < r.length);
        checker.Take(packets, r);
    }
    const bool truncatedFile = rc == PCAP_ERROR;
    std::string why = truncatedFile ? pcap_geterr(pcap) : "";
    pcap_close(pcap);
    int status = checker.Finish(packets);
    if (truncatedFile) {
        fprintf(stderr, "ethbrg: %s: cut short after record %llu: %s\n", capture.c_str(), (unsigned long long)packets,
                why.c_str());
        return 2;
    }
    return status;
}

}  // namespace ethbrg
