// A real USB device, reached through libusb-1.0, plugged into the stand-in's
// bus in place of a simulated one.
//
// The seam. The bus (kplat/usbbus.h) keeps doing everything a URB means on
// the host side -- checks, pipes and handles, halted pipes, cancel, abort,
// the capture -- and hands the device what crosses the cable: control
// transfers and data packets of at most the endpoint's maximum packet size.
// LibusbDevice is a kplat::UsbDevice, like the simulated function, so the
// bus does not change and neither does the driver above it. It turns that
// packet stream back into libusb transfers:
//   - control transfers go, one at a time in arrival order, to a worker
//     thread that runs them synchronously (SET_CONFIGURATION, SET_INTERFACE
//     and CLEAR_FEATURE(ENDPOINT_HALT) through their libusb calls, so that
//     the kernel's view of the device follows; everything else as it is) and
//     answers with CompleteControl;
//   - bulk OUT packets are gathered until a short packet (or a zero-length
//     one, which becomes LIBUSB_TRANSFER_ADD_ZERO_PACKET) ends the transfer,
//     which then goes out as one asynchronous libusb transfer; a few may be
//     in flight per endpoint, then the device answers Nak until one is done;
//   - IN endpoints are read ahead with asynchronous libusb transfers from the
//     first packet the bus asks for until the endpoint is aborted; the bus
//     gets the data back packet by packet, a transfer that ended short
//     ending with a short (or zero-length) packet, so a URB on the bus ends
//     exactly where it would have ended on the wire. Interrupt endpoints are
//     read one packet per libusb transfer. Bulk IN transfers are as long as
//     the device's own transfer unit, so that a full-length one without a
//     zero-length packet does not wait for the next: the length is taken
//     from the CDC NCM GET_NTB_PARAMETERS answer and SET_NTB_INPUT_SIZE
//     request as they pass (16 KiB until then), and a gathered bulk OUT
//     transfer is sent when it reaches the device's dwNtbOutMaxSize.
// libusb completes transfers on the device's event thread; the completions
// reach the bus through EndpointReady, and the bus finishes the URBs in its
// own DPC. A transfer or request that finds the device gone makes the device
// call Disconnect: every pending URB then completes with
// USBD_STATUS_DEVICE_GONE, and Gone() tells the program to remove the
// adapter. A stalled transfer makes the endpoint answer Stall until
// CLEAR_FEATURE(ENDPOINT_HALT) clears it on the device (libusb_clear_halt).
//
// Data the bus acknowledged to the driver has not necessarily reached the
// device yet (the OUT side buffers like a host controller's queue); an
// aborted endpoint drops what it gathered or read ahead.
#pragma once

#include <kplat/usbdevice.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kplat {

struct LibusbDeviceStats {
    uint64_t controlTransfers = 0;
    uint64_t outTransfers = 0, outBytes = 0;
    uint64_t inTransfers = 0, inBytes = 0;  // bulk
    uint64_t interruptPackets = 0;
    uint64_t stalls = 0;
    uint32_t ntbInSize = 0, ntbOutSize = 0;  // as seen in the NTB requests (0: not seen)
};

class LibusbDevice : public UsbDevice {
public:
    // Opens the one device the selector names: "VID:PID" (four hex digits
    // each, as lsusb -d takes them) or "BUS:ADDR" (decimal, at most three
    // digits each, as lsusb lists them). NULL with a one-line *error when
    // the selector is malformed or the device is absent, ambiguous, busy
    // (an interface held by a kernel driver or another program) or not
    // permitted.
    static std::unique_ptr<LibusbDevice> Open(const std::string& selector, std::string* error);
    // A device the selector names is present now.
    static bool Present(const std::string& selector);

    ~LibusbDevice() override;
    LibusbDevice(const LibusbDevice&) = delete;
    LibusbDevice& operator=(const LibusbDevice&) = delete;

    void Attached(UsbDevicePort* port) override;
    void Detached() override;
    UsbSpeed Speed() const override;
    void ControlTransfer(UsbControlTransfer* transfer) override;
    UsbHandshake OutPacket(uint8_t ep, const uint8_t* data, uint32_t length) override;
    UsbHandshake InPacket(uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length) override;
    void EndpointAborted(uint8_t endpointAddress) override;

    // The device went away (a transfer or request found it gone).
    bool Gone() const;
    // "0525:a4a1 at 1:2, high speed, NetChip NCM Gadget".
    std::string Description() const;
    LibusbDeviceStats Stats() const;

    struct Impl;

private:
    explicit LibusbDevice(Impl* impl);
    Impl* mImpl;
};

}  // namespace kplat
