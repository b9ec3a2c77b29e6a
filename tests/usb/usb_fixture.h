// A small fake USB device and a fixture that plugs it into a kplat::UsbBus,
// with helpers to build URBs and send them to the bus's PDO the way a
// function driver does.
#pragma once

#include <gtest/gtest.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>
#include <usbdi.h>
#include <usbdlib.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace usbtest {

using Bytes = std::vector<uint8_t>;

// Endpoints of the fake device: interface 0 (communication) has the
// interrupt IN endpoint, interface 1 (data) has no endpoint in alternate
// setting 0 and the two bulk endpoints in alternate setting 1.
constexpr uint8_t kIntIn = 0x81;
constexpr uint8_t kBulkIn = 0x82;
constexpr uint8_t kBulkOut = 0x03;
constexpr uint16_t kBulkPacket = 512;
constexpr uint16_t kIntPacket = 16;

inline Bytes DeviceDescriptor() {
    return {18, 1, 0x00, 0x02, 0x02, 0x00, 0x00, 64, 0x34, 0x12, 0x78, 0x56, 0x00, 0x01, 1, 2, 3, 1};
}

// Configuration 1: an NCM-style function with its class descriptors.
inline Bytes ConfigurationDescriptor() {
    Bytes d = {
        9, 2, 0, 0, 2, 1, 0, 0x80, 50,  // configuration; wTotalLength patched below
        9, 4, 0, 0, 1, 0x02, 0x0D, 0x00, 0,  // interface 0: communication, NCM
        5, 0x24, 0x00, 0x10, 0x01,           // CDC header
        5, 0x24, 0x06, 0x00, 0x01,           // union: master 0, slave 1
        13, 0x24, 0x0F, 4, 0, 0, 0, 0, 0xEA, 0x05, 0, 0, 0,  // Ethernet networking
        6, 0x24, 0x1A, 0x00, 0x01, 0x00,     // NCM functional
        7, 5, kIntIn, 0x03, kIntPacket, 0, 9,  // interrupt IN
        9, 4, 1, 0, 0, 0x0A, 0x00, 0x01, 0,  // interface 1 alt 0: no endpoints
        9, 4, 1, 1, 2, 0x0A, 0x00, 0x01, 0,  // interface 1 alt 1
        7, 5, kBulkIn, 0x02, 0x00, 0x02, 0,  // bulk IN 512
        7, 5, kBulkOut, 0x02, 0x00, 0x02, 0,  // bulk OUT 512
    };
    d[2] = (uint8_t)d.size();
    d[3] = (uint8_t)(d.size() >> 8);
    return d;
}

struct SentPacket {
    uint8_t ep;
    Bytes data;
};

// The fake device. Everything it records is read by the test thread only
// when the stand-in is idle (after RunUntilIdle), so the plain members are
// not raced; what the bus may read while the test writes is under mLock.
class FakeDevice : public kplat::UsbDevice {
public:
    // --- UsbDevice ---
    void Attached(kplat::UsbDevicePort* p) override {
        port = p;
        attached++;
    }
    void Detached() override {
        detached++;
        port = nullptr;
    }
    kplat::UsbSpeed Speed() const override { return kplat::UsbSpeed::High; }

    void ControlTransfer(kplat::UsbControlTransfer* t) override {
        std::unique_lock<std::mutex> lk(mLock);
        calls++;
        setups.push_back(t->setup);
        const kplat::UsbSetupPacket& s = t->setup;
        if (!(s.bmRequestType & 0x80)) controlOut.push_back(Bytes(t->data, t->data + s.wLength));
        if (deferControl) {
            pendingControl.push_back(t);
            lk.unlock();
            if (onControl) onControl();
            return;
        }
        bool stall = false;
        Answer(t, &stall);
        lk.unlock();
        if (onControl) onControl();
        port->CompleteControl(t, stall);
    }

    kplat::UsbHandshake OutPacket(uint8_t ep, const uint8_t* data, uint32_t length) override {
        std::lock_guard<std::mutex> lk(mLock);
        calls++;
        callLog.push_back(ep);
        if (stalled.count(ep)) return kplat::UsbHandshake::Stall;
        if (nakOut) return kplat::UsbHandshake::Nak;
        outPackets.push_back({ep, Bytes(data, data + length)});
        current.insert(current.end(), data, data + length);
        if (length < kBulkPacket) {  // a short packet ends the device's transfer
            outTransfers.push_back(current);
            current.clear();
        }
        return kplat::UsbHandshake::Ack;
    }

    kplat::UsbHandshake InPacket(uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length) override {
        if (onIn) onIn();  // e.g. the driver cancelling on another processor meanwhile
        std::unique_lock<std::mutex> lk(mLock);
        calls++;
        inCalls++;
        callLog.push_back((uint8_t)(ep | 0x80));
        maxLengths.push_back(maxLength);
        if (stalled.count((uint8_t)(ep | 0x80))) return kplat::UsbHandshake::Stall;
        auto& q = inQueue[(uint8_t)(ep | 0x80)];
        if (q.empty()) {
            if (readyDuringNak) {
                // Data arrives while the bus is still in this call.
                readyDuringNak = false;
                q.push_back(readyDuringNakPacket);
                lk.unlock();
                port->EndpointReady((uint8_t)(ep | 0x80));
            }
            return kplat::UsbHandshake::Nak;
        }
        Bytes p = q.front();
        q.pop_front();
        if (!p.empty()) memcpy(buffer, p.data(), p.size());
        *length = (uint32_t)p.size();
        return kplat::UsbHandshake::Ack;
    }

    // With `runs` set the device takes runs of packets in one call, each
    // packet answered as above.
    void OutPackets(uint8_t ep, const uint8_t* data, uint32_t length, uint32_t maxPacket,
                    kplat::UsbRun* run) override {
        if (!runs) return UsbDevice::OutPackets(ep, data, length, maxPacket, run);
        runCalls++;
        uint32_t offset = 0;
        do {
            uint32_t n = std::min(maxPacket, length - offset);
            run->handshake = OutPacket(ep, data ? data + offset : nullptr, n);
            if (run->handshake != kplat::UsbHandshake::Ack) return;
            run->packets++;
            run->bytes += n;
            offset += n;
        } while (offset < length);
    }
    void InPackets(uint8_t ep, uint8_t* buffer, uint32_t length, uint32_t maxPacket, kplat::UsbRun* run) override {
        if (!runs) return UsbDevice::InPackets(ep, buffer, length, maxPacket, run);
        runCalls++;
        while (run->bytes < length) {
            uint32_t got = 0;
            run->handshake = InPacket(ep, buffer + run->bytes, maxPacket, &got);
            if (run->handshake != kplat::UsbHandshake::Ack) return;
            run->packets++;
            run->bytes += got;
            if (got < maxPacket) {
                run->shortPacket = true;
                return;
            }
        }
    }

    void EndpointAborted(uint8_t endpointAddress) override {
        std::lock_guard<std::mutex> lk(mLock);
        aborted.push_back(endpointAddress);
    }

    // --- set-up from the test ---
    void QueueIn(uint8_t ep, Bytes packet) {
        std::lock_guard<std::mutex> lk(mLock);
        inQueue[ep].push_back(std::move(packet));
    }
    size_t InQueued(uint8_t ep) {
        std::lock_guard<std::mutex> lk(mLock);
        return inQueue[ep].size();
    }
    void Stall(uint8_t ep, bool on) {
        std::lock_guard<std::mutex> lk(mLock);
        if (on) stalled.insert(ep);
        else stalled.erase(ep);
    }

    // --- what the device was asked for ---
    kplat::UsbDevicePort* port = nullptr;
    int attached = 0, detached = 0;
    int calls = 0, inCalls = 0;
    int runCalls = 0;  // calls that took a run
    std::vector<kplat::UsbSetupPacket> setups;
    std::vector<Bytes> controlOut;
    std::vector<SentPacket> outPackets;
    std::vector<Bytes> outTransfers;  // as the device delimits them
    Bytes current;
    std::vector<uint8_t> aborted;
    std::vector<uint8_t> callLog;
    std::vector<uint32_t> maxLengths;
    uint8_t configuration = 0;
    std::map<uint8_t, uint8_t> alternate;

    // --- behaviour ---
    bool runs = false;
    bool deferControl = false;
    std::function<void()> onControl;  // runs inside ControlTransfer, before the answer
    std::function<void()> onIn;       // runs inside InPacket, before the handshake
    bool readyDuringNak = false;
    Bytes readyDuringNakPacket;
    std::set<uint8_t> stallRequests;     // bRequest values to stall
    std::map<uint8_t, Bytes> classIn;    // answers to class IN requests by bRequest
    std::vector<kplat::UsbControlTransfer*> pendingControl;

private:
    void Answer(kplat::UsbControlTransfer* t, bool* stall) {
        const kplat::UsbSetupPacket& s = t->setup;
        *stall = false;
        t->actual = 0;
        if (stallRequests.count(s.bRequest)) {
            *stall = true;
            return;
        }
        auto reply = [&](const Bytes& b) {
            uint32_t n = (uint32_t)std::min<size_t>(b.size(), s.wLength);
            if (n) memcpy(t->data, b.data(), n);
            t->actual = n;
        };
        if ((s.bmRequestType & 0x60) == 0) {  // standard
            switch (s.bRequest) {
            case USB_REQUEST_GET_DESCRIPTOR: {
                uint8_t type = (uint8_t)(s.wValue >> 8);
                if (type == USB_DEVICE_DESCRIPTOR_TYPE) reply(DeviceDescriptor());
                else if (type == USB_CONFIGURATION_DESCRIPTOR_TYPE) reply(ConfigurationDescriptor());
                else if (type == USB_STRING_DESCRIPTOR_TYPE) reply({6, 3, 'h', 0, 'i', 0});
                else *stall = true;
                return;
            }
            case USB_REQUEST_SET_CONFIGURATION: configuration = (uint8_t)s.wValue; return;
            case USB_REQUEST_SET_INTERFACE: alternate[(uint8_t)s.wIndex] = (uint8_t)s.wValue; return;
            case USB_REQUEST_CLEAR_FEATURE:
                if ((s.bmRequestType & 0x1F) == BMREQUEST_TO_ENDPOINT) stalled.erase((uint8_t)s.wIndex);
                return;
            case USB_REQUEST_GET_STATUS: reply({0, 0}); return;
            default: *stall = true; return;
            }
        }
        if (s.bmRequestType & 0x80) {
            auto it = classIn.find(s.bRequest);
            if (it == classIn.end()) *stall = true;
            else reply(it->second);
        }
    }

    std::mutex mLock;
    bool nakOut = false;
    std::set<uint8_t> stalled;
    std::map<uint8_t, std::deque<Bytes>> inQueue;
};

// One request to the bus: IRP, URB storage and what its completion saw.
struct Request {
    explicit Request(size_t urbSize = sizeof(URB)) : storage((urbSize + 7) / 8, 0) {}
    ~Request() {
        if (irp) IoFreeIrp(irp);
    }
    PURB urb() { return external ? external : (PURB)storage.data(); }

    std::vector<uint64_t> storage;  // 8-byte aligned URB memory
    PURB external = nullptr;        // a URB that lives elsewhere (pool)
    PIRP irp = nullptr;
    NTSTATUS returned = 0;
    std::atomic<int> completions{0};
    std::atomic<bool> submitting{false};
    std::atomic<bool> completedInCall{false};
    std::atomic<int> irql{-1};
    std::atomic<NTSTATUS> status{0};
    std::thread::id thread;
    std::function<void(Request&)> onComplete;  // runs inside the completion routine

    bool done() const { return completions.load() > 0; }
};

inline NTSTATUS CompletionRoutine(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto* r = (Request*)context;
    r->status = irp->IoStatus.Status;
    r->irql = KeGetCurrentIrql();
    r->completedInCall = r->submitting.load();
    r->thread = std::this_thread::get_id();
    r->completions++;
    if (r->onComplete) r->onComplete(*r);
    return STATUS_MORE_PROCESSING_REQUIRED;  // the IRP stays with the Request
}

class BusTest : public ::testing::Test {
protected:
    BusTest() { bus = std::make_unique<kplat::UsbBus>(); }
    void SetUp() override { ASSERT_TRUE(bus->Attach(&dev)); }
    void TearDown() override {
        kplat::RunUntilIdle();
        bus.reset();
    }

    Request& NewRequest(size_t urbSize = sizeof(URB)) {
        requests.push_back(std::make_unique<Request>(urbSize));
        return *requests.back();
    }

    // Sends the request's URB to the PDO as a function driver does.
    NTSTATUS Send(Request& r, ULONG ioctl = IOCTL_INTERNAL_USB_SUBMIT_URB) {
        if (!r.irp) r.irp = IoAllocateIrp(bus->Pdo()->StackSize, FALSE);
        else IoReuseIrp(r.irp, STATUS_UNSUCCESSFUL);
        PIO_STACK_LOCATION s = IoGetNextIrpStackLocation(r.irp);
        s->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        s->Parameters.DeviceIoControl.IoControlCode = ioctl;
        s->Parameters.Others.Argument1 = r.urb();
        IoSetCompletionRoutine(r.irp, CompletionRoutine, &r, TRUE, TRUE, TRUE);
        r.submitting = true;
        r.returned = IoCallDriver(bus->Pdo(), r.irp);
        r.submitting = false;
        return r.returned;
    }

    // Sends and runs the stand-in until idle.
    NTSTATUS SendAndRun(Request& r) {
        Send(r);
        kplat::RunUntilIdle();
        return r.status;
    }

    // --- URB builders ---
    Request& DescriptorRequest(UCHAR type, UCHAR index, void* buffer, ULONG length, USHORT language = 0) {
        Request& r = NewRequest();
        UsbBuildGetDescriptorRequest(r.urb(), (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST), type, index,
                                     language, buffer, NULL, length, NULL);
        r.urb()->UrbHeader.Status = (USBD_STATUS)0xFFFFFFFF;
        return r;
    }

    Request& ClassRequest(UCHAR request, USHORT value, ULONG flags, void* buffer, ULONG length, USHORT index = 0) {
        Request& r = NewRequest();
        UsbBuildVendorRequest(r.urb(), URB_FUNCTION_CLASS_INTERFACE,
                              (USHORT)sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST), flags, 0, request, value,
                              index, buffer, NULL, length, NULL);
        return r;
    }

    Request& BulkRequest(USBD_PIPE_HANDLE pipe, ULONG flags, void* buffer, ULONG length, PMDL mdl = NULL) {
        Request& r = NewRequest();
        UsbBuildInterruptOrBulkTransferRequest(r.urb(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER), pipe,
                                               buffer, mdl, length, flags, NULL);
        return r;
    }

    Request& PipeRequest(USHORT function, USBD_PIPE_HANDLE pipe) {
        Request& r = NewRequest();
        r.urb()->UrbHeader.Length = sizeof(struct _URB_PIPE_REQUEST);
        r.urb()->UrbHeader.Function = function;
        r.urb()->UrbPipeRequest.PipeHandle = pipe;
        return r;
    }

    // Selects configuration 1 (the fake device's descriptor as the driver
    // read it) with alternate setting 0 of both interfaces; remembers the
    // interrupt pipe.
    void Configure() {
        config = ConfigurationDescriptor();
        auto* cd = (PUSB_CONFIGURATION_DESCRIPTOR)config.data();
        USBD_INTERFACE_LIST_ENTRY list[3] = {};
        list[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1);
        list[1].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 1, 0, -1, -1, -1);
        ASSERT_NE(list[0].InterfaceDescriptor, nullptr);
        ASSERT_NE(list[1].InterfaceDescriptor, nullptr);
        PURB urb = USBD_CreateConfigurationRequestEx(cd, list);
        ASSERT_NE(urb, nullptr);
        Request& r = NewRequest(urb->UrbHeader.Length);
        memcpy(r.urb(), urb, urb->UrbHeader.Length);
        ExFreePoolWithTag(urb, 0);
        ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
        configHandle = r.urb()->UrbSelectConfiguration.ConfigurationHandle;
        auto* info = &r.urb()->UrbSelectConfiguration.Interface;
        ASSERT_EQ(info->NumberOfPipes, 1u);
        intPipe = info->Pipes[0].PipeHandle;
    }

    // Selects alternate setting 1 of the data interface; remembers the bulk
    // pipes.
    void SelectData() {
        Request& r = NewRequest(GET_SELECT_INTERFACE_REQUEST_SIZE(2));
        UsbBuildSelectInterfaceRequest(r.urb(), (USHORT)GET_SELECT_INTERFACE_REQUEST_SIZE(2), configHandle, 1, 1);
        ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
        PUSBD_PIPE_INFORMATION pipes = r.urb()->UrbSelectInterface.Interface.Pipes;
        for (int i = 0; i < 2; i++) {
            if (pipes[i].EndpointAddress == kBulkIn) bulkIn = pipes[i].PipeHandle;
            if (pipes[i].EndpointAddress == kBulkOut) bulkOut = pipes[i].PipeHandle;
        }
        ASSERT_NE(bulkIn, nullptr);
        ASSERT_NE(bulkOut, nullptr);
    }

    void ConfigureAll() {
        Configure();
        SelectData();
    }

    kplat::Scope scope;
    FakeDevice dev;
    std::deque<std::unique_ptr<Request>> requests;  // outlive the bus: it may complete them on destruction
    std::unique_ptr<kplat::UsbBus> bus;
    Bytes config;
    USBD_CONFIGURATION_HANDLE configHandle = nullptr;
    USBD_PIPE_HANDLE intPipe = nullptr, bulkIn = nullptr, bulkOut = nullptr;
};

inline Bytes Pattern(size_t n, uint8_t seed = 1) {
    Bytes b(n);
    for (size_t i = 0; i < n; i++) b[i] = (uint8_t)(seed + i * 7);
    return b;
}

}  // namespace usbtest
