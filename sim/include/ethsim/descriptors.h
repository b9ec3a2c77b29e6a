// The descriptors of the simulated NCM function, generated from its profile
// (or taken from the profile's raw bytes where it has them).
#pragma once

#include "ethsim/profile.h"

#include <optional>

namespace ethsim {

// String indices that the generated descriptors use.
constexpr uint8_t kStringManufacturer = 1;
constexpr uint8_t kStringProduct = 2;
constexpr uint8_t kStringSerial = 3;

// Device descriptor (USB 2.0, 9.6.1), 18 bytes.
Bytes BuildDeviceDescriptor(const DeviceProfile& p);

// Configuration descriptor with everything that follows it: [IAD],
// communication interface (class 2, subclass 0x0D) with Header, Union,
// Ethernet Networking and NCM functional descriptors and the interrupt IN
// endpoint; data interface (class 0x0A) alternate setting 0 without
// endpoints and alternate setting 1 with bulk IN and bulk OUT. At super speed
// each endpoint is followed by its companion descriptor. `speed` selects the
// packet sizes; `type` is 2, or 7 for the other-speed configuration.
Bytes BuildConfigurationDescriptor(const DeviceProfile& p, kplat::UsbSpeed speed,
                                   uint8_t type = 0x02);

// Device qualifier (USB 2.0, 9.6.2), 10 bytes.
Bytes BuildDeviceQualifier(const DeviceProfile& p);

// BOS with the USB 2.0 extension and the SuperSpeed device capability.
Bytes BuildBos(const DeviceProfile& p);

// String descriptor `index` (0: the language list); none for an index the
// device has no string for.
std::optional<Bytes> BuildStringDescriptor(const DeviceProfile& p, uint8_t index);

// A string descriptor carrying `text` (ASCII/Latin-1 as UTF-16LE).
Bytes StringDescriptor(const std::string& text);

}  // namespace ethsim
