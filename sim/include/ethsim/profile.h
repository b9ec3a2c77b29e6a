// The device profile: everything the simulated NCM function shows the host
// and every policy it follows. The built-in default is a conforming
// high-speed device; a JSON file overrides any field, and raw descriptor
// bytes can replace the generated ones so that tests can present malformed
// configurations.
#pragma once

#include "ethsim/bytes.h"

#include <kplat/usbdevice.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ethsim {

using MacAddress = std::array<uint8_t, 6>;

// The GET_NTB_PARAMETERS answer (NCM 1.0, NTB parameter structure), field
// by field as it goes on the wire.
struct NtbParameters {
    uint16_t wLength = 28;
    uint16_t bmNtbFormatsSupported = 0x0003;  // NTB16 and NTB32
    uint32_t dwNtbInMaxSize = 16384;
    uint16_t wNdpInDivisor = 4;
    uint16_t wNdpInPayloadRemainder = 0;
    uint16_t wNdpInAlignment = 4;
    uint16_t wReserved = 0;
    uint32_t dwNtbOutMaxSize = 16384;
    uint16_t wNdpOutDivisor = 4;
    uint16_t wNdpOutPayloadRemainder = 0;
    uint16_t wNdpOutAlignment = 4;
    uint16_t wNtbOutMaxDatagrams = 0;  // 0: no limit

    // The 28 bytes.
    Bytes Serialize() const;
};

enum class NdpPosition {
    AfterDatagrams,   // NTH, datagrams, NDPs
    BeforeDatagrams,  // NTH, NDPs, datagrams
};

struct DeviceProfile {
    kplat::UsbSpeed speed = kplat::UsbSpeed::High;

    // Device descriptor. 0 in bcdUSB / bMaxPacketSize0 means "by speed"
    // (0x0200 and 64 below super speed, 0x0320 and 9 at super speed).
    uint16_t bcdUSB = 0;
    uint8_t bDeviceClass = 0x02;
    uint8_t bDeviceSubClass = 0x00;
    uint8_t bDeviceProtocol = 0x00;
    uint8_t bMaxPacketSize0 = 0;
    uint16_t idVendor = 0x1209;
    uint16_t idProduct = 0x0001;
    uint16_t bcdDevice = 0x0150;
    std::string manufacturer = "ethbrg";
    std::string product = "ethbrg simulated NCM function";
    std::string serialNumber = "SIM00000001";

    // Configuration descriptor.
    uint8_t bConfigurationValue = 1;
    bool selfPowered = true;
    bool remoteWakeup = false;
    uint8_t bMaxPower = 50;  // units of 2 mA (8 mA at super speed)
    bool interfaceAssociation = false;  // an IAD in front of the function

    // Interfaces and endpoints.
    uint8_t communicationInterface = 0;
    uint8_t dataInterface = 1;
    uint8_t communicationProtocol = 0x00;
    uint8_t dataProtocol = 0x01;
    uint8_t notifyEndpoint = 0x81;
    uint8_t bulkInEndpoint = 0x82;
    uint8_t bulkOutEndpoint = 0x02;
    uint16_t notifyMaxPacket = 16;
    uint8_t notifyInterval = 0;  // 0: 32 ms in the speed's encoding
    uint16_t bulkMaxPacket = 0;  // 0: 64 / 512 / 1024 by speed
    uint8_t bulkMaxBurst = 0;    // super speed endpoint companion

    // CDC Header functional descriptor.
    uint16_t bcdCDC = 0x0120;

    // Ethernet Networking functional descriptor and the MAC address string.
    MacAddress macAddress = {0x02, 0x45, 0x54, 0x48, 0x00, 0x01};
    std::optional<std::string> macString;  // text of string iMACAddress; default: 12 upper-case hex digits
    uint8_t iMACAddress = 4;
    uint32_t bmEthernetStatistics = 0x1FFFFFFF;  // selectors 1 to 29
    uint16_t wMaxSegmentSize = 1514;
    uint16_t wNumberMCFilters = 32;
    uint8_t bNumberPowerFilters = 0;

    // NCM functional descriptor.
    uint16_t bcdNcmVersion = 0x0100;
    uint8_t bmNetworkCapabilities = 0x1B;  // packet filter, net address, max datagram size, CRC mode
    uint8_t ncmDescriptorType = 0x24;      // CS_INTERFACE

    // GET_NTB_PARAMETERS.
    NtbParameters ntb;
    uint16_t ntbParametersAnswerLength = 28;  // bytes returned (at most wLength of the request)

    // How the device builds the NTBs it sends (bulk IN).
    struct In {
        uint16_t maxDatagrams = 32;  // per NTB, also bounded by the host's 8-byte SET_NTB_INPUT_SIZE
        uint8_t ndpCount = 1;        // datagrams are spread over up to this many chained NDPs
        NdpPosition ndpPosition = NdpPosition::AfterDatagrams;
        bool zlp = true;             // ZLP after an NTB that ends on a packet boundary
        uint32_t queueLimit = 1024;  // frames waiting for the host; more are dropped (RCV_NO_BUFFER)
        // Placement of the datagrams: (index + payloadOffset) modulo
        // wNdpInDivisor equals wNdpInPayloadRemainder. 14 aligns the payload
        // behind the Ethernet header, 0 the datagram itself.
        uint16_t payloadOffset = 14;
        bool sequenceAlwaysZero = false;  // wSequence 0 in every NTB instead of counting
    } in;

    // How strictly the device checks the NTBs it receives (bulk OUT).
    struct Checker {
        // Datagram placement: (datagram index + payloadOffset) modulo
        // wNdpOutDivisor must equal wNdpOutPayloadRemainder. The payload of
        // an Ethernet datagram starts behind its 14-byte header; 0 applies
        // the rule to the datagram index itself.
        uint16_t payloadOffset = 14;
        // The first NTB after a function reset must carry wSequence 0.
        bool sequenceStartsAtZero = false;
        // NDP signatures must say "with CRC" exactly when SET_CRC_MODE(1).
        bool crcSignatureFollowsMode = true;
    } checker;

    // Control policies.
    bool formatRequestsOnlyInAlt0 = true;  // SET_NTB_FORMAT, SET_CRC_MODE, SET_NET_ADDRESS stall at alt 1
    uint32_t minNtbInputSize = 2048;       // SET_NTB_INPUT_SIZE below this stalls

    // Link on the network side.
    bool linkUp = true;
    uint32_t downlinkBitRate = 1000000000;
    uint32_t uplinkBitRate = 1000000000;
    bool speedBeforeConnection = true;  // CONNECTION_SPEED_CHANGE ahead of NETWORK_CONNECTION(1)

    // Packet filtering of frames towards the host.
    bool applyPacketFilter = false;
    uint16_t initialPacketFilter = 0x1F;

    // String descriptors: language list and strings beyond manufacturer (1),
    // product (2), serial number (3) and the MAC address (iMACAddress).
    std::vector<uint16_t> languages = {0x0409};
    std::map<uint8_t, std::string> extraStrings;

    // Raw descriptors that replace the generated ones.
    std::optional<Bytes> rawDevice;
    std::optional<Bytes> rawConfiguration;
    std::optional<Bytes> rawDeviceQualifier;
    std::optional<Bytes> rawBos;
    std::map<uint8_t, Bytes> rawStrings;  // whole string descriptors, by index

    // Derived values.
    uint16_t BulkMaxPacket() const;
    uint16_t UsbVersion() const;
    uint8_t ControlMaxPacketField() const;
    uint8_t NotifyIntervalField() const;
    std::string MacString() const;
};

// A profile file that cannot be used. what() names the file, the field and
// what was wrong with it, for example
// "dev.json: ntbParameters.dwNtbInMaxSize: expected an unsigned integer of at most 32 bits, got \"big\"".
class ProfileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Applies the JSON text to `base` (unknown fields are errors; a field that is
// missing keeps its value in `base`). `origin` names the text in messages.
DeviceProfile ParseProfile(const std::string& json, const std::string& origin = "profile",
                           const DeviceProfile& base = DeviceProfile());
DeviceProfile LoadProfile(const std::string& path, const DeviceProfile& base = DeviceProfile());
// The whole profile as JSON, in the form ParseProfile reads.
std::string ProfileToJson(const DeviceProfile& profile);

}  // namespace ethsim
