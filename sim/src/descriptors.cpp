#include "ethsim/descriptors.h"

#include "ethsim/ncm.h"

#include <algorithm>

namespace ethsim {

namespace {

constexpr uint8_t kStringCommunication = 5;
constexpr uint8_t kStringData = 6;

void Endpoint(Bytes& b, const DeviceProfile& p, kplat::UsbSpeed speed, uint8_t address, uint8_t attributes,
              uint16_t maxPacket, uint8_t interval)
{
    b.insert(b.end(), {7, usb::kDescEndpoint, address, attributes});
    Append16(b, maxPacket);
    b.push_back(interval);
    if (speed == kplat::UsbSpeed::Super) {
        // USB 3.2, 9.6.7: companion; bulk: bMaxBurst, no streams; interrupt:
        // wBytesPerInterval = the packet size.
        const bool bulk = attributes == 0x02;
        b.insert(b.end(), {6, usb::kDescSsEndpointCompanion, static_cast<uint8_t>(bulk ? p.bulkMaxBurst : 0), 0});
        Append16(b, bulk ? 0 : maxPacket);
    }
}

}  // namespace

Bytes BuildDeviceDescriptor(const DeviceProfile& p)
{
    if (p.rawDevice) {
        return *p.rawDevice;
    }
    Bytes b = {18, usb::kDescDevice};
    Append16(b, p.UsbVersion());
    b.insert(b.end(), {p.bDeviceClass, p.bDeviceSubClass, p.bDeviceProtocol, p.ControlMaxPacketField()});
    Append16(b, p.idVendor);
    Append16(b, p.idProduct);
    Append16(b, p.bcdDevice);
    b.insert(b.end(), {kStringManufacturer, kStringProduct, kStringSerial, 1});
    return b;
}

Bytes BuildConfigurationDescriptor(const DeviceProfile& p, kplat::UsbSpeed speed, uint8_t type)
{
    if (p.rawConfiguration && type == usb::kDescConfiguration) {
        return *p.rawConfiguration;
    }
    const uint16_t bulkPacket = p.bulkMaxPacket != 0 ? p.bulkMaxPacket
                                                     : static_cast<uint16_t>(kplat::BulkMaxPacket(speed));
    const uint8_t interval = p.notifyInterval != 0 ? p.notifyInterval : speed == kplat::UsbSpeed::Full ? 32 : 9;
    const uint8_t attributes = static_cast<uint8_t>(0x80 | (p.selfPowered ? 0x40 : 0) | (p.remoteWakeup ? 0x20 : 0));

    Bytes b = {9, type, 0, 0, 2, p.bConfigurationValue, 0, attributes, p.bMaxPower};
    if (p.interfaceAssociation) {
        // IAD (USB ECN): the two interfaces form one function.
        const uint8_t first = std::min(p.communicationInterface, p.dataInterface);
        b.insert(b.end(), {8, usb::kDescInterfaceAssociation, first, 2, cdc::kClassCommunications, cdc::kSubclassNcm,
                           p.communicationProtocol, kStringCommunication});
    }
    // Communication interface.
    b.insert(b.end(), {9, usb::kDescInterface, p.communicationInterface, 0, 1, cdc::kClassCommunications,
                       cdc::kSubclassNcm, p.communicationProtocol, kStringCommunication});
    // CDC 1.2, 5.2.3.1: Header.
    b.insert(b.end(), {5, cdc::kCsInterface, cdc::kSubtypeHeader});
    Append16(b, p.bcdCDC);
    // CDC 1.2, 5.2.3.2: Union, control interface first.
    b.insert(b.end(), {5, cdc::kCsInterface, cdc::kSubtypeUnion, p.communicationInterface, p.dataInterface});
    // ECM 1.2, 5.4: Ethernet Networking.
    b.insert(b.end(), {13, cdc::kCsInterface, cdc::kSubtypeEthernet, p.iMACAddress});
    Append32(b, p.bmEthernetStatistics);
    Append16(b, p.wMaxSegmentSize);
    Append16(b, p.wNumberMCFilters);
    b.push_back(p.bNumberPowerFilters);
    // NCM 1.0: NCM functional descriptor.
    b.insert(b.end(), {6, p.ncmDescriptorType, cdc::kSubtypeNcm});
    Append16(b, p.bcdNcmVersion);
    b.push_back(p.bmNetworkCapabilities);
    Endpoint(b, p, speed, p.notifyEndpoint, 0x03, p.notifyMaxPacket, interval);
    // Data interface: alternate setting 0 has no endpoints, 1 has both.
    b.insert(b.end(), {9, usb::kDescInterface, p.dataInterface, 0, 0, cdc::kClassData, 0, p.dataProtocol,
                       kStringData});
    b.insert(b.end(), {9, usb::kDescInterface, p.dataInterface, 1, 2, cdc::kClassData, 0, p.dataProtocol,
                       kStringData});
    Endpoint(b, p, speed, p.bulkInEndpoint, 0x02, bulkPacket, 0);
    Endpoint(b, p, speed, p.bulkOutEndpoint, 0x02, bulkPacket, 0);
    Put16(&b[2], static_cast<uint16_t>(b.size()));
    return b;
}

Bytes BuildDeviceQualifier(const DeviceProfile& p)
{
    if (p.rawDeviceQualifier) {
        return *p.rawDeviceQualifier;
    }
    Bytes b = {10, usb::kDescDeviceQualifier};
    Append16(b, 0x0200);
    b.insert(b.end(), {p.bDeviceClass, p.bDeviceSubClass, p.bDeviceProtocol, 64, 1, 0});
    return b;
}

Bytes BuildBos(const DeviceProfile& p)
{
    if (p.rawBos) {
        return *p.rawBos;
    }
    Bytes b = {5, usb::kDescBos, 0, 0, 2};
    // USB 2.0 extension: LPM supported.
    b.insert(b.end(), {7, usb::kDescDeviceCapability, 0x02});
    Append32(b, 0x00000002);
    // SuperSpeed USB device capability: full, high and super speed, fully
    // functional from full speed on.
    b.insert(b.end(), {10, usb::kDescDeviceCapability, 0x03, 0x00});
    Append16(b, 0x000E);
    b.insert(b.end(), {0x01, 0x0A});
    Append16(b, 0x07FF);
    Put16(&b[2], static_cast<uint16_t>(b.size()));
    return b;
}

Bytes StringDescriptor(const std::string& text)
{
    Bytes b = {0, usb::kDescString};
    for (unsigned char c : text) {
        if (b.size() + 2 > 254) {
            break;  // bLength is one byte: at most 126 characters
        }
        Append16(b, c);
    }
    b[0] = static_cast<uint8_t>(b.size());
    return b;
}

std::optional<Bytes> BuildStringDescriptor(const DeviceProfile& p, uint8_t index)
{
    auto raw = p.rawStrings.find(index);
    if (raw != p.rawStrings.end()) {
        return raw->second;
    }
    if (index == 0) {
        if (p.languages.empty()) {
            return std::nullopt;  // a device without strings stalls string 0
        }
        Bytes b = {static_cast<uint8_t>(2 + 2 * p.languages.size()), usb::kDescString};
        for (uint16_t id : p.languages) {
            Append16(b, id);
        }
        return b;
    }
    auto extra = p.extraStrings.find(index);
    if (extra != p.extraStrings.end()) {
        return StringDescriptor(extra->second);
    }
    if (index == p.iMACAddress) {
        return StringDescriptor(p.MacString());
    }
    switch (index) {
    case kStringManufacturer:
        return StringDescriptor(p.manufacturer);
    case kStringProduct:
        return StringDescriptor(p.product);
    case kStringSerial:
        return StringDescriptor(p.serialNumber);
    case kStringCommunication:
        return StringDescriptor("NCM Communication");
    case kStringData:
        return StringDescriptor("NCM Data");
    default:
        return std::nullopt;
    }
}

}  // namespace ethsim
