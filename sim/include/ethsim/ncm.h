// Numbers of the USB 2.0 framework, CDC 1.2 (with its ECM subclass) and NCM
// 1.0 that the simulated device speaks.
#pragma once

#include <cstdint>

namespace ethsim {

// USB 2.0, 9.3 and 9.4: standard requests, descriptor types, features.
namespace usb {
constexpr uint8_t kGetStatus = 0x00;
constexpr uint8_t kClearFeature = 0x01;
constexpr uint8_t kSetFeature = 0x03;
constexpr uint8_t kSetAddress = 0x05;
constexpr uint8_t kGetDescriptor = 0x06;
constexpr uint8_t kSetDescriptor = 0x07;
constexpr uint8_t kGetConfiguration = 0x08;
constexpr uint8_t kSetConfiguration = 0x09;
constexpr uint8_t kGetInterface = 0x0A;
constexpr uint8_t kSetInterface = 0x0B;

constexpr uint8_t kDescDevice = 0x01;
constexpr uint8_t kDescConfiguration = 0x02;
constexpr uint8_t kDescString = 0x03;
constexpr uint8_t kDescInterface = 0x04;
constexpr uint8_t kDescEndpoint = 0x05;
constexpr uint8_t kDescDeviceQualifier = 0x06;
constexpr uint8_t kDescOtherSpeedConfiguration = 0x07;
constexpr uint8_t kDescInterfaceAssociation = 0x0B;
constexpr uint8_t kDescBos = 0x0F;
constexpr uint8_t kDescDeviceCapability = 0x10;
constexpr uint8_t kDescSsEndpointCompanion = 0x30;

constexpr uint16_t kFeatureEndpointHalt = 0;
constexpr uint16_t kFeatureRemoteWakeup = 1;

constexpr uint8_t kRecipientDevice = 0;
constexpr uint8_t kRecipientInterface = 1;
constexpr uint8_t kRecipientEndpoint = 2;
constexpr uint8_t kTypeStandard = 0;
constexpr uint8_t kTypeClass = 1;
}  // namespace usb

// CDC 1.2 and NCM 1.0: class codes, functional descriptors, requests,
// notifications.
namespace cdc {
constexpr uint8_t kClassCommunications = 0x02;
constexpr uint8_t kSubclassNcm = 0x0D;
constexpr uint8_t kClassData = 0x0A;
constexpr uint8_t kDataProtocolNtb = 0x01;  // NCM 1.0: data interface protocol "NTB"

constexpr uint8_t kCsInterface = 0x24;
constexpr uint8_t kSubtypeHeader = 0x00;
constexpr uint8_t kSubtypeUnion = 0x06;
constexpr uint8_t kSubtypeEthernet = 0x0F;
constexpr uint8_t kSubtypeNcm = 0x1A;

// Requests (bRequest).
constexpr uint8_t kSendEncapsulatedCommand = 0x00;
constexpr uint8_t kGetEncapsulatedResponse = 0x01;
constexpr uint8_t kSetEthernetMulticastFilters = 0x40;
constexpr uint8_t kSetEthernetPmPatternFilter = 0x41;
constexpr uint8_t kGetEthernetPmPatternFilter = 0x42;
constexpr uint8_t kSetEthernetPacketFilter = 0x43;
constexpr uint8_t kGetEthernetStatistic = 0x44;
constexpr uint8_t kGetNtbParameters = 0x80;
constexpr uint8_t kGetNetAddress = 0x81;
constexpr uint8_t kSetNetAddress = 0x82;
constexpr uint8_t kGetNtbFormat = 0x83;
constexpr uint8_t kSetNtbFormat = 0x84;
constexpr uint8_t kGetNtbInputSize = 0x85;
constexpr uint8_t kSetNtbInputSize = 0x86;
constexpr uint8_t kGetMaxDatagramSize = 0x87;
constexpr uint8_t kSetMaxDatagramSize = 0x88;
constexpr uint8_t kGetCrcMode = 0x89;
constexpr uint8_t kSetCrcMode = 0x8A;

// bmNetworkCapabilities of the NCM functional descriptor (NCM 1.0).
constexpr uint8_t kCapPacketFilter = 0x01;      // SetEthernetPacketFilter
constexpr uint8_t kCapNetAddress = 0x02;        // Get/SetNetAddress
constexpr uint8_t kCapEncapsulated = 0x04;      // Send/GetEncapsulated...
constexpr uint8_t kCapMaxDatagramSize = 0x08;   // Get/SetMaxDatagramSize
constexpr uint8_t kCapCrcMode = 0x10;           // Get/SetCrcMode
constexpr uint8_t kCapNtbInputSize8 = 0x20;     // 8-byte Get/SetNtbInputSize

// bmNtbFormatsSupported of the NTB parameters.
constexpr uint16_t kFormatNtb16 = 0x0001;
constexpr uint16_t kFormatNtb32 = 0x0002;

// Packet filter bits (ECM 1.2, 6.2.4).
constexpr uint16_t kFilterPromiscuous = 0x01;
constexpr uint16_t kFilterAllMulticast = 0x02;
constexpr uint16_t kFilterDirected = 0x04;
constexpr uint16_t kFilterBroadcast = 0x08;
constexpr uint16_t kFilterMulticast = 0x10;

// Notifications (bNotificationCode).
constexpr uint8_t kNotifyNetworkConnection = 0x00;
constexpr uint8_t kNotifyResponseAvailable = 0x01;
constexpr uint8_t kNotifyConnectionSpeedChange = 0x2A;

// Ethernet statistics selectors (ECM 1.2, 6.2.5), 1-based.
enum Statistic : uint8_t {
    kXmitOk = 1,
    kRcvOk,
    kXmitError,
    kRcvError,
    kRcvNoBuffer,
    kDirectedBytesXmit,
    kDirectedFramesXmit,
    kMulticastBytesXmit,
    kMulticastFramesXmit,
    kBroadcastBytesXmit,
    kBroadcastFramesXmit,
    kDirectedBytesRcv,
    kDirectedFramesRcv,
    kMulticastBytesRcv,
    kMulticastFramesRcv,
    kBroadcastBytesRcv,
    kBroadcastFramesRcv,
    kRcvCrcError,
    kTransmitQueueLength,
    kRcvErrorAlignment,
    kXmitOneCollision,
    kXmitMoreCollisions,
    kXmitDeferred,
    kXmitMaxCollisions,
    kRcvOverrun,
    kXmitUnderrun,
    kXmitHeartbeatFailure,
    kXmitTimesCrsLost,
    kXmitLateCollisions,
};
constexpr uint8_t kStatisticCount = 29;
}  // namespace cdc

// NCM 1.0: the NTB structures (NTH16/32, NDP16/32).
namespace ntb {
constexpr uint32_t kNth16Signature = 0x484D434E;  // "NCMH"
constexpr uint32_t kNth32Signature = 0x686D636E;  // "ncmh"
constexpr uint32_t kNdp16NoCrc = 0x304D434E;      // "NCM0"
constexpr uint32_t kNdp16Crc = 0x314D434E;        // "NCM1"
constexpr uint32_t kNdp32NoCrc = 0x306D636E;      // "ncm0"
constexpr uint32_t kNdp32Crc = 0x316D636E;        // "ncm1"
constexpr uint32_t kNth16Length = 12;
constexpr uint32_t kNth32Length = 16;
constexpr uint32_t kNdp16HeaderLength = 8;
constexpr uint32_t kNdp32HeaderLength = 16;
constexpr uint32_t kNdp16EntryLength = 4;
constexpr uint32_t kNdp32EntryLength = 8;
constexpr uint32_t kCrcLength = 4;
constexpr uint32_t kEthernetHeaderLength = 14;
}  // namespace ntb

}  // namespace ethsim
