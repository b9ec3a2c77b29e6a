// The stand-in's USB bus: a physical device object (PDO) that takes URBs
// (IRP_MJ_INTERNAL_DEVICE_CONTROL, IOCTL_INTERNAL_USB_SUBMIT_URB, the URB in
// Parameters.Others.Argument1) and carries them to one plugged-in
// kplat::UsbDevice (kplat/usbdevice.h), and a capture of the traffic in the
// Linux usbmon pcap format.
//
// Tests and the program use this header; the driver never does.
//
// What the bus does with a URB
// ----------------------------
// Checked first, in the submitting call. A URB that fails a check is
// completed at once, at the caller's IRQL, with the URB status below and
// the IRP status from the table at the end; IofCallDriver returns that
// status:
//   - Hdr.Length at least the record's size for the function (select
//     configuration: 40 plus the interface records; select interface: 32 plus
//     Interface.Length) -- USBD_STATUS_INVALID_PARAMETER;
//   - a function the bus knows -- USBD_STATUS_INVALID_URB_FUNCTION
//     (isochronous and frame-length functions: USBD_STATUS_NOT_SUPPORTED);
//   - a pipe handle of the current configuration and alternate settings --
//     USBD_STATUS_INVALID_PIPE_HANDLE (handles are never reused, so a handle
//     of an earlier selection is refused);
//   - bulk/interrupt: a bulk or interrupt pipe, transfer flags within
//     VALID_TRANSFER_FLAGS_MASK, and the direction flag equal to the pipe's
//     direction -- USBD_STATUS_INVALID_PARAMETER (stricter than the
//     platform, which takes the direction from the pipe without a word; a
//     mismatch is a driver bug worth seeing);
//   - a buffer (TransferBuffer, or TransferBufferMDL describing at least
//     TransferBufferLength bytes) when TransferBufferLength is not 0, and at
//     most 0xFFFF bytes for a control transfer -- USBD_STATUS_INVALID_PARAMETER;
//   - select configuration: a well-formed descriptor (type 2, bLength >= 9,
//     descriptors chained within wTotalLength -- USBD_STATUS_INAVLID_-
//     CONFIGURATION_DESCRIPTOR), one interface record per bNumInterfaces
//     whose interface and alternate setting exist (USBD_STATUS_INTERFACE_-
//     NOT_FOUND) and whose Length holds its pipes (USBD_STATUS_BUFFER_TOO_SMALL);
//   - select interface: the current configuration handle
//     (USBD_STATUS_INVALID_PARAMETER) and an existing alternate setting.
// A URB that arrives while no device is attached fails at once with
// USBD_STATUS_DEVICE_GONE. An IRP that is not an internal device control
// with IOCTL_INTERNAL_USB_SUBMIT_URB, or carries no URB, fails with
// STATUS_INVALID_PARAMETER / STATUS_INVALID_DEVICE_REQUEST without the URB
// being touched (its status keeps whatever the caller put there).
//
// Accepted URBs are marked pending (URB status USBD_STATUS_PENDING, the IRP
// marked pending, IofCallDriver returns STATUS_PENDING) and completed later,
// at DISPATCH_LEVEL, from the bus's own DPC. With SetInlineCompletion(true)
// the bus works on the request right inside IofCallDriver (raised to
// DISPATCH_LEVEL) and may complete it before IofCallDriver returns -- still
// returning STATUS_PENDING, as a real bus does. A request submitted at
// DISPATCH_LEVEL is worked on when the submitting thread's IRQL drops below
// it, as the bus's DPC would run on that processor (on the stand-in's own
// threads: from the bus's DPC); the same goes for EndpointReady. Inline,
// the thread that feeds a pipe (a submission, EndpointReady) moves that
// pipe's transfers and completes them, while other threads may do the same
// for other pipes at the same time; a pipe's transfers still complete in
// order, and control transfers and pipe operations wait until no pipe is
// being moved. The bus never holds its lock while it completes an IRP or
// calls the device, and calls the device one call at a time per endpoint
// (one at a time in all without inline completion).
//
// Functions:
//   GET_DESCRIPTOR_FROM_DEVICE/INTERFACE/ENDPOINT -> control GET_DESCRIPTOR
//     (wValue = type << 8 | index, wIndex = LanguageId); a short answer is
//     fine; TransferBufferLength becomes the bytes returned.
//   SET_DESCRIPTOR_*, GET_STATUS_*, SET/CLEAR_FEATURE_*, GET_CONFIGURATION,
//   GET_INTERFACE -> the standard request.
//   CLASS_* / VENDOR_* (DEVICE, INTERFACE, ENDPOINT, OTHER) -> control
//     transfer with bmRequestType = direction | type | recipient |
//     RequestTypeReservedBits, bRequest = Request, wValue = Value, wIndex =
//     Index, wLength = TransferBufferLength.
//   CONTROL_TRANSFER with USBD_DEFAULT_PIPE_TRANSFER -> the set-up packet as
//     given (wLength set from TransferBufferLength).
//   SELECT_CONFIGURATION -> SET_CONFIGURATION(bConfigurationValue); on Ack the
//     bus fills ConfigurationHandle and, per interface record, Class,
//     SubClass, Protocol, InterfaceHandle, NumberOfPipes and per pipe
//     MaximumPacketSize, EndpointAddress, Interval, PipeType, PipeHandle from
//     the endpoint descriptors of that alternate setting in the URB's
//     descriptor (MaximumTransferSize and PipeFlags are the caller's; the
//     transfer size is not enforced, as on the platform). Transfers still
//     pending on the pipes of the previous configuration complete with
//     USBD_STATUS_CANCELED. A NULL descriptor sends SET_CONFIGURATION(0) and
//     closes every pipe. A stalled SET_CONFIGURATION fails with
//     USBD_STATUS_STALL_PID and changes nothing.
//   SELECT_INTERFACE -> SET_INTERFACE(AlternateSetting, InterfaceNumber);
//     fills the record like SELECT_CONFIGURATION; the interface's old pipes
//     close.
//   BULK_OR_INTERRUPT_TRANSFER -> packets of the endpoint's maximum packet
//     size (see below).
//   ABORT_PIPE -> every pending transfer of the pipe completes with
//     USBD_STATUS_CANCELED / STATUS_CANCELLED, the device hears
//     EndpointAborted, then the abort completes with success.
//   SYNC_RESET_PIPE_AND_CLEAR_STALL -> CLEAR_FEATURE(ENDPOINT_HALT) to the
//     endpoint; on Ack the host side of the pipe is no longer halted.
//     SYNC_RESET_PIPE resets only the host side (no request on the wire);
//     SYNC_CLEAR_STALL sends only the request.
//   GET_CURRENT_FRAME_NUMBER -> milliseconds of the stand-in's clock.
//
// Control transfers go to the device one at a time, in submission order. The
// device answers with CompleteControl; a stall fails the request with
// USBD_STATUS_STALL_PID (the default pipe does not stay halted). On Ack an
// OUT data stage counts as fully moved; an IN data stage returns
// transfer->actual bytes (at most wLength). A shorter IN answer of a class,
// vendor or control-transfer URB without USBD_SHORT_TRANSFER_OK fails like a
// short bulk transfer; descriptor, status, configuration and interface reads
// always accept a short answer.
//
// Bulk and interrupt transfers. Each pipe runs its transfers one after
// another in submission order; pipes run side by side, one run of packets
// each in turn: one packet for a device that answers packet by packet, as
// many of the transfer's packets as it takes in one call for a device that
// takes runs (UsbDevice::OutPackets / InPackets). The packets and handshakes
// are the same either way, and a run never spans two transfers. OUT: the data reaches the device as packets of the maximum packet
// size, the last one shorter; a transfer of 0 bytes is one zero-length
// packet; the bus adds no zero-length packet after a transfer that ends on a
// packet boundary (the driver sends one when it wants the device to see the
// end), so two such transfers reach the device as one. IN: the bus asks for
// packets until one is shorter than the maximum packet size (a zero-length
// packet included) or the buffer is full. A packet longer than the room left
// in the buffer fails the transfer with USBD_STATUS_DATA_OVERRUN (the bytes
// that fit are kept). A transfer that ends short without
// USBD_SHORT_TRANSFER_OK fails with USBD_STATUS_ERROR_SHORT_TRANSFER /
// STATUS_UNSUCCESSFUL, TransferBufferLength holding the bytes received (the
// error class that leaves the pipe running; the pipe is not halted).
// Completed transfers report the bytes moved in TransferBufferLength.
//   Nak: the transfer stays where it is until the device calls
//   EndpointReady for that endpoint (an EndpointReady that comes while the
//   bus is in the call that answered Nak is not lost).
//   Stall: the transfer fails with USBD_STATUS_STALL_PID / STATUS_UNSUCCESSFUL
//   and the pipe is halted: every transfer pending on it, and every one
//   submitted later, fails the same way until SYNC_RESET_PIPE_AND_CLEAR_STALL
//   (or SYNC_RESET_PIPE).
//
// Slow abort (a fault, HoldAbortedTransfers): the transfers that one
// ABORT_PIPE of an endpoint ends stay pending for a while, a cancel in that
// time does not end them either, and then they complete with
// USBD_STATUS_CANCELED. Every request of an aborted pipe still comes back.
//
// Cancel: every pending IRP carries a cancel routine; IoCancelIrp completes
// it with STATUS_CANCELLED / USBD_STATUS_CANCELED (a packet or run the
// device is handling at that moment is finished first; if it ended the
// transfer, the transfer completes normally). The device hears EndpointAborted for the
// endpoint (0x00 for a control transfer; the device's late answer to it is
// ignored).
//
// Removal: UsbDevicePort::Disconnect or Unplug completes everything pending,
// and fails every later URB, with USBD_STATUS_DEVICE_GONE and IRP status
// STATUS_DEVICE_NOT_CONNECTED; the device then hears Detached.
//
// IRP status for a failed URB: USBD_STATUS_CANCELED -> STATUS_CANCELLED;
// USBD_STATUS_DEVICE_GONE -> STATUS_DEVICE_NOT_CONNECTED;
// USBD_STATUS_INSUFFICIENT_RESOURCES -> STATUS_INSUFFICIENT_RESOURCES;
// USBD_STATUS_NOT_SUPPORTED -> STATUS_NOT_SUPPORTED; the parameter errors
// (INVALID_URB_FUNCTION, INVALID_PARAMETER, INVALID_PIPE_HANDLE,
// BUFFER_TOO_SMALL, INTERFACE_NOT_FOUND, INAVLID_CONFIGURATION_DESCRIPTOR)
// -> STATUS_INVALID_PARAMETER; everything else (stall, short transfer,
// overrun) -> STATUS_UNSUCCESSFUL. Irp->IoStatus.Information is 0.
//
// Pacing (off by default): with a link rate set, every packet occupies the
// bus for (payload + 8) bytes at that rate; the bus starts packets while it
// is at most 125 us ahead of the clock (a run holds no more than that) and
// otherwise waits on a KTIMER, so throughput follows the rate on either
// clock. Control transfers are not paced.
//
// Cost: the bus allocates nothing per URB in steady state (its transfers and
// control records come from pools), and with a device that takes runs a bulk
// transfer costs a few lock round trips however many packets it has.
//
// Other requests to the PDO: IOCTL_INTERNAL_USB_GET_PORT_STATUS answers
// USBD_PORT_ENABLED | USBD_PORT_CONNECTED while a device is attached; other
// internal controls fail with STATUS_INVALID_DEVICE_REQUEST; Plug and Play,
// power, create and close succeed (IRP_MN_QUERY_* other than remove keep
// their status).
//
// Capture: every URB that becomes a transfer on the wire is recorded at
// submission ('S') and completion ('C') with set-up packet and data, and a
// URB refused at submission as an error event ('E') when its pipe or request
// could be told (not for a missing device or a malformed header). The file
// is a pcap of link type 220 (LINKTYPE_USB_LINUX_MMAPPED, 64-byte usbmon
// header) that Wireshark and tshark read. ABORT_PIPE and SYNC_RESET_PIPE
// move nothing on the wire and are not recorded (the transfers they end
// show as completions).
// Timestamps come from the stand-in's clock, counted from 2014-07-24
// 00:00:00 UTC (the virtual clock's system time origin). Setting the
// environment variable ETHBRG_USB_CAPTURE=path makes every bus record into
// that file (path-N.pcap for the N-th bus of the process after the first;
// "%u" in the path is replaced by the bus number instead).
#pragma once

#include <kplat/usbdevice.h>
#include <usb.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kplat {

// ---------------------------------------------------------------------------
// Capture file
// ---------------------------------------------------------------------------
// One record of the capture, as usbmon reports it.
struct UsbCaptureEvent {
    uint64_t id = 0;         // URB identity: the same for submission and completion
    char type = 'S';         // 'S' submission, 'C' completion, 'E' submission error
    uint8_t transferType = 2;  // 0 isochronous, 1 interrupt, 2 control, 3 bulk
    uint8_t endpoint = 0;    // address, bit 7 set for IN
    uint8_t device = 0;
    uint16_t bus = 0;
    bool hasSetup = false;   // control submission
    UsbSetupPacket setup = {};
    int32_t status = 0;      // Linux errno style: 0, -EINPROGRESS, -EPIPE, ...
    uint32_t length = 0;     // submitted (S) or actual (C) length
    const uint8_t* data = nullptr;  // bytes recorded (OUT at S, IN at C)
    uint32_t dataLength = 0;
    int32_t interval = 0;
    uint32_t transferFlags = 0;  // Linux URB flags (URB_SHORT_NOT_OK 0x1, URB_DIR_IN 0x200)
    uint64_t time100ns = 0;      // stand-in clock (kplat::Now())
};

// Writes a usbmon pcap file through libpcap. Thread-safe.
class UsbCapture {
public:
    // Creates (truncates) the file. NULL with *error set when it cannot.
    static std::unique_ptr<UsbCapture> Open(const std::string& path, std::string* error = nullptr);
    ~UsbCapture();
    UsbCapture(const UsbCapture&) = delete;
    UsbCapture& operator=(const UsbCapture&) = delete;

    void Record(const UsbCaptureEvent& event);
    void Flush();
    uint64_t Records() const;
    const std::string& Path() const;

    // Status values of the records, from a USB status.
    static int32_t LinuxStatus(USBD_STATUS status);
    static constexpr int32_t kInProgress = -115;  // -EINPROGRESS
    // Bytes kept per record at most (the rest is counted, not stored).
    static constexpr uint32_t kMaxData = 0x40000;

private:
    UsbCapture() = default;
    struct State;
    State* mState = nullptr;
};

// ---------------------------------------------------------------------------
// The bus
// ---------------------------------------------------------------------------
struct UsbBusStats {
    uint64_t urbsSubmitted = 0;  // accepted or refused
    uint64_t urbsRefused = 0;    // failed at submission
    uint64_t urbsCompleted = 0;  // all completions, including refusals
    uint64_t urbsCancelled = 0;  // completed with USBD_STATUS_CANCELED
    uint64_t controlTransfers = 0;  // handed to the device
    uint64_t packetsOut = 0, packetsIn = 0;  // acknowledged data packets
    uint64_t bytesOut = 0, bytesIn = 0;
    uint64_t naks = 0, stalls = 0;
};

class UsbBus {
public:
    // Creates the PDO (with its own driver object). The stand-in must be
    // started (kplat::Start) for requests to complete; destroy the bus before
    // kplat::Stop.
    UsbBus();
    // Completes whatever is still pending with USBD_STATUS_DEVICE_GONE,
    // detaches the device and deletes the PDO. Nothing may be submitted
    // concurrently.
    ~UsbBus();
    UsbBus(const UsbBus&) = delete;
    UsbBus& operator=(const UsbBus&) = delete;

    // The bus's physical device object: the next lower device object of the
    // function driver's stack.
    PDEVICE_OBJECT Pdo() const;
    // Bus number (1, 2, ... in creation order) and the device's address
    // (2 for the first device plugged in, one more for each later one).
    uint16_t BusNumber() const;
    uint8_t DeviceAddress() const;

    // Plugs a device in (it hears Attached here, on the calling thread). At
    // most one device at a time; the device must outlive its attachment.
    // Returns false if a device is attached already.
    bool Attach(UsbDevice* device);
    // Unplugs the device from the bus side: as UsbDevicePort::Disconnect,
    // but done before returning when called at PASSIVE_LEVEL by a thread
    // that is not inside the bus (otherwise it happens in the bus's DPC).
    void Unplug();
    bool IsAttached() const;

    // Completion inside IofCallDriver (see above). Off by default.
    void SetInlineCompletion(bool on);
    // The next ABORT_PIPE of this endpoint leaves the transfers it ends
    // pending for `ms` more milliseconds of the stand-in's clock (see above).
    void HoldAbortedTransfers(uint8_t endpointAddress, uint32_t ms);
    // Pacing at a link rate in bits per second; 0 (the default) turns it off.
    void SetLinkRate(uint64_t bitsPerSecond);
    // The signalling rate of a speed: 12 Mbit/s, 480 Mbit/s, 5 Gbit/s.
    static uint64_t LinkRate(UsbSpeed speed);

    // Records into a pcap file from now on (replacing an earlier capture).
    bool StartCapture(const std::string& path, std::string* error = nullptr);
    void StopCapture();  // closes the file

    UsbBusStats Stats() const;
    // IRPs the bus holds now (accepted, not yet completed).
    size_t PendingRequests() const;
    // bConfigurationValue of the selected configuration, 0 when unconfigured.
    uint8_t ConfigurationValue() const;
    // The host side of the open pipe of that endpoint is halted.
    bool IsEndpointHalted(uint8_t endpointAddress) const;

    struct Impl;

private:
    Impl* mImpl;
};

}  // namespace kplat
