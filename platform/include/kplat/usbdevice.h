// The device side of the stand-in's USB bus.
//
// The bus turns URBs into what crosses a real cable: control transfers on
// endpoint 0 (set-up packet and data stage) and data packets of at most the
// endpoint's maximum packet size on the other endpoints. A device model (the
// simulated NCM function, or a real device reached through libusb) implements
// UsbDevice; the bus gives it a UsbDevicePort to call back. A device answers
// packets one at a time (OutPacket, InPacket), or takes a run of them in one
// call (OutPackets, InPackets) when it overrides those: the packets and their
// handshakes are the same, only the calls are fewer.
//
// Standard requests that a URB implies reach the device as control transfers
// too: SELECT_CONFIGURATION becomes SET_CONFIGURATION, SELECT_INTERFACE
// becomes SET_INTERFACE, SYNC_RESET_PIPE_AND_CLEAR_STALL becomes
// CLEAR_FEATURE(ENDPOINT_HALT). Descriptors are read with GET_DESCRIPTOR.
//
// Threading: the bus calls a device at DISPATCH_LEVEL from its own DPC, one
// call at a time per bus (the bus serialises). With inline completion
// switched on, it calls from the threads that submit transfers or signal
// EndpointReady: still one call at a time per endpoint, but calls for
// different endpoints may come from different threads at the same time;
// control transfers, EndpointAborted and Detached never overlap any other
// call. A device may call its port from any
// thread at <= DISPATCH_LEVEL. From inside one of the bus's calls into it, a
// device may call CompleteControl and EndpointReady only; Disconnect must
// come from outside (the simulated device defers it to its Service routine).
#pragma once

#include <ntddk.h>

#include <cstdint>

namespace kplat {

enum class UsbSpeed { Full, High, Super };

// Maximum packet size of bulk endpoints at each speed.
constexpr uint32_t BulkMaxPacket(UsbSpeed s) { return s == UsbSpeed::Full ? 64 : s == UsbSpeed::High ? 512 : 1024; }

// The set-up packet of a control transfer, in host order.
struct UsbSetupPacket {
    uint8_t bmRequestType;  // bit 7: 1 = device to host
    uint8_t bRequest;
    uint16_t wValue;
    uint16_t wIndex;
    uint16_t wLength;
};

// A device's answer to one packet.
enum class UsbHandshake {
    Ack,    // packet accepted (OUT) or data returned (IN)
    Nak,    // not now: the bus retries after the device calls EndpointReady
    Stall,  // endpoint halted: the transfer fails with USBD_STATUS_STALL_PID
            // and the endpoint stays halted until CLEAR_FEATURE(ENDPOINT_HALT)
};

class UsbDevicePort;

// What a device did with a run of packets (UsbDevice::OutPackets and
// InPackets).
struct UsbRun {
    // The answer to the last packet the device answered: Ack, or the Nak or
    // Stall that ended the run (the packets before it were acknowledged).
    UsbHandshake handshake = UsbHandshake::Ack;
    uint32_t packets = 0;  // packets acknowledged
    uint32_t bytes = 0;    // their bytes (IN: written to the buffer)
    // IN: the last acknowledged packet was shorter than the maximum packet
    // size (a zero-length packet included): the device's transfer ended.
    bool shortPacket = false;
    // IN: the last packet was longer than the maximum packet size; its first
    // maxPacket bytes are in the buffer (and counted in bytes).
    bool babble = false;
};

// A pending control transfer handed to the device. The device answers it
// exactly once, with UsbDevicePort::CompleteControl, either inside
// ControlTransfer or later (a device that "never answers" just keeps it).
struct UsbControlTransfer {
    UsbSetupPacket setup;
    uint8_t* data;        // wLength bytes: filled by the device for IN, read for OUT
    uint32_t actual;      // set by the device: bytes of the data stage moved
    void* busContext;     // the bus's own; the device leaves it alone
};

class UsbDevice {
public:
    virtual ~UsbDevice() = default;

    // Plugged into a bus port. The port stays valid until Detached.
    virtual void Attached(UsbDevicePort* port) = 0;
    virtual void Detached() = 0;
    virtual UsbSpeed Speed() const = 0;

    // A control transfer on endpoint 0. Answer with CompleteControl
    // (ack or stall), now or later.
    virtual void ControlTransfer(UsbControlTransfer* transfer) = 0;

    // One OUT data packet for endpoint `ep` (address without bit 7); `length`
    // is at most the endpoint's maximum packet size, 0 for a zero-length
    // packet. The device sees the end of its transfer at a short packet.
    virtual UsbHandshake OutPacket(uint8_t ep, const uint8_t* data, uint32_t length) = 0;

    // The host asks endpoint `ep | 0x80` for one packet. On Ack the device has
    // written *length bytes (at most maxLength, the endpoint's maximum packet
    // size; fewer ends the transfer, 0 is a zero-length packet).
    virtual UsbHandshake InPacket(uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length) = 0;

    // A run of OUT data packets for endpoint `ep`: `length` bytes cut into
    // packets of `maxPacket` bytes, the last one shorter when `length` is not
    // a multiple (0 bytes: one zero-length packet). The device answers them
    // in order as OutPacket would answer each, and may stop after any one;
    // the bus offers the rest in a later call. A run never ends with more
    // than the bus's transfer holds, so the device still sees the end of a
    // transfer only at a short packet. The default hands over the first
    // packet only, through OutPacket; a device that can take a whole
    // transfer in one call overrides it (the bus's fast path).
    virtual void OutPackets(uint8_t ep, const uint8_t* data, uint32_t length, uint32_t maxPacket, UsbRun* run);

    // The host asks endpoint `ep | 0x80` for packets of `maxPacket` bytes into
    // `buffer`, which has room for `length` bytes (a whole number of packets,
    // at least one). The device answers as InPacket would for each packet and
    // stops after a short packet or when the room is full; it may stop after
    // any packet. The default asks InPacket for one packet.
    virtual void InPackets(uint8_t ep, uint8_t* buffer, uint32_t length, uint32_t maxPacket, UsbRun* run);

    // The host aborted the transfers of an endpoint (ABORT_PIPE or a
    // cancelled IRP). A device that buffers per-transfer state may drop it.
    virtual void EndpointAborted(uint8_t endpointAddress) { (void)endpointAddress; }
};

class UsbDevicePort {
public:
    virtual ~UsbDevicePort() = default;

    // Answers a control transfer given to UsbDevice::ControlTransfer. With
    // stall, the request fails with USBD_STATUS_STALL_PID. May be called from
    // inside ControlTransfer.
    virtual void CompleteControl(UsbControlTransfer* transfer, bool stall) = 0;
    // Ends a control transfer without a handshake (a transaction error, no
    // answer at the protocol level): the request fails with usbdStatus, for
    // example USBD_STATUS_XACT_ERROR or USBD_STATUS_DEV_NOT_RESPONDING.
    virtual void FailControl(UsbControlTransfer* transfer, uint32_t usbdStatus) = 0;

    // The endpoint (address with bit 7 for IN) that answered Nak can make
    // progress now: IN data is available, or OUT buffer space is free.
    virtual void EndpointReady(uint8_t endpointAddress) = 0;

    // The device was unplugged: everything pending completes with
    // USBD_STATUS_DEVICE_GONE and later requests fail.
    virtual void Disconnect() = 0;

    // The stand-in's clock, so that device-side delays use the same time.
    virtual uint64_t Now() const = 0;
};

}  // namespace kplat
