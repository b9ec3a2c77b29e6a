// A small fake USB bus driver for the tests of the USB device access
// library: a device object whose internal device control dispatch takes the
// URBs the library sends and answers them as a test script says -- at once,
// later (held until the test completes them, in any order), inline with a
// failure, or never.
//
// Descriptors are served from byte vectors; select-configuration and
// select-interface requests are answered from the configuration descriptor
// (handles are made-up but stable values). Bulk and interrupt transfers, and
// everything a test wants to hold, go through the hold rule.
#pragma once

#include <gtest/gtest.h>
#include <kplat/platform.h>
#include <usbdi.h>
#include <usbdlib.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

namespace usblibtest {

using Bytes = std::vector<uint8_t>;

// Made-up handles: recognisable in traces and checkable in tests.
inline USBD_CONFIGURATION_HANDLE ConfigurationHandle() { return (USBD_CONFIGURATION_HANDLE)(ULONG_PTR)0xC0F10000; }
inline USBD_INTERFACE_HANDLE InterfaceHandle(uint8_t number, uint8_t alternate) {
    return (USBD_INTERFACE_HANDLE)(ULONG_PTR)(0x1F000000 | number << 8 | alternate);
}
inline USBD_PIPE_HANDLE PipeHandle(uint8_t endpointAddress) {
    return (USBD_PIPE_HANDLE)(ULONG_PTR)(0x91BE0000 | endpointAddress);
}

// What the fake does with one request.
enum class Answer {
    Complete,      // complete it now, inside the dispatch routine
    Hold,          // keep it pending (with a cancel routine) until the test completes it
    HoldStuck,     // keep it pending without a cancel routine: only the test ends it
    FailIrpOnly,   // fail the IRP inline without touching the URB (its status stays as preset)
};

class FakeUsbPdo {
public:
    explicit FakeUsbPdo(CCHAR stackSize = 1);
    ~FakeUsbPdo();
    FakeUsbPdo(const FakeUsbPdo&) = delete;
    FakeUsbPdo& operator=(const FakeUsbPdo&) = delete;

    PDEVICE_OBJECT Device() const { return mDevice; }

    // ---- descriptors ----
    Bytes configDescriptor;                    // served for GET_DESCRIPTOR(2, any index)
    std::map<uint8_t, Bytes> strings;          // string descriptors by index (0: language IDs)
    uint32_t shortenFullConfigReadBy = 0;      // a read of more than 9 bytes returns that much less
    int32_t baseConfigReadLength = -1;         // >= 0: what a 9-byte read returns
    NTSTATUS descriptorIrpStatus = STATUS_SUCCESS;  // != success: descriptor reads fail (URB: stall)

    // ---- class requests ----
    // Bytes an IN class request returns (at most the asked length); the rest
    // of the answer is success unless classUrbStatus says otherwise.
    Bytes classInData;
    USBD_STATUS classUrbStatus = USBD_STATUS_SUCCESS;

    // ---- request handling ----
    // Decides what happens to each request; the default completes everything
    // at once. Called inside the dispatch routine.
    std::function<Answer(PURB urb)> rule;
    NTSTATUS failIrpStatus = STATUS_INVALID_PARAMETER;  // for Answer::FailIrpOnly
    // Bulk/interrupt transfers completed at once succeed with all bytes moved.
    // ABORT_PIPE completes held (not stuck) transfers of the pipe first.
    bool abortCompletesHeld = true;

    // ---- what was seen ----
    std::vector<USHORT> Functions();             // URB function of every request, in order
    size_t CountFunction(USHORT function);
    std::vector<ULONG> DescriptorReadLengths();  // TransferBufferLength of each GET_DESCRIPTOR
    // Copy of the last URB of a function (as received), zeroed if none.
    Bytes LastUrb(USHORT function);

    // ---- held requests ----
    size_t HeldCount();
    // Completes the i-th held request (in order of arrival) with these
    // statuses, at DISPATCH_LEVEL as a bus driver's DPC does or at the
    // caller's level; bytes -1 keeps the URB's TransferBufferLength.
    void CompleteHeld(size_t i, NTSTATUS irpStatus = STATUS_SUCCESS, USBD_STATUS urbStatus = USBD_STATUS_SUCCESS,
                      int64_t bytes = -1, bool atDispatch = true);

private:
    struct Held {
        PIRP irp;
        PURB urb;
        bool cancellable;
    };

    static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp);
    static void Cancel(PDEVICE_OBJECT device, PIRP irp);
    NTSTATUS Handle(PIRP irp, PURB urb);
    // Answers a request that is completed now; returns the IRP status.
    NTSTATUS AnswerNow(PURB urb);
    NTSTATUS AnswerDescriptor(PURB urb);
    NTSTATUS AnswerSelectConfiguration(PURB urb);
    NTSTATUS AnswerSelectInterface(PURB urb);
    bool FillInterface(const uint8_t* config, size_t configLength, PUSBD_INTERFACE_INFORMATION info);
    NTSTATUS AbortPipe(PURB urb);
    void Complete(PIRP irp, PURB urb, NTSTATUS irpStatus, USBD_STATUS urbStatus, int64_t bytes);

    PDRIVER_OBJECT mDriver;
    PDEVICE_OBJECT mDevice;

    std::mutex mMutex;  // guards everything below
    std::vector<USHORT> mFunctions;
    std::vector<ULONG> mDescriptorReads;
    std::map<USHORT, Bytes> mLastUrb;
    std::vector<Held> mHeld;
};

// Builders of descriptor blocks.
Bytes ConfigHeader(uint16_t totalLength, uint8_t numInterfaces, uint8_t configurationValue = 1);
Bytes InterfaceDesc(uint8_t number, uint8_t alternate, uint8_t numEndpoints, uint8_t cls, uint8_t subClass,
                    uint8_t protocol);
Bytes EndpointDesc(uint8_t address, uint8_t attributes, uint16_t maxPacket, uint8_t interval = 0);
// Concatenates the parts and patches wTotalLength to the real length.
Bytes Config(std::initializer_list<Bytes> parts);
// The NCM-like function: interface 0 (class 2/13) with interrupt IN 0x81 and
// a CS descriptor, interface 1 (class 10) alternate 0 without endpoints and
// alternate 1 with bulk IN 0x82 and bulk OUT 0x03.
Bytes NcmConfig();
// A string descriptor holding `chars` UTF-16 characters 'A', 'B', ...
Bytes StringDesc(size_t chars);

}  // namespace usblibtest
