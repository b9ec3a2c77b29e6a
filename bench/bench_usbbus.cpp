// Cost of the stand-in's USB bus per transfer.
//
// BM_BusTransfer/<bytes>/<runs>: one bulk OUT URB of <bytes> submitted again
// and again from its completion routine, as a driver's write stream does,
// to a device that takes every packet (super speed, 1024-byte packets).
// runs:1 the device takes a transfer in one call (UsbDevice::OutPackets),
// runs:0 it answers packet by packet. One iteration is a batch of transfers.
// Counters: transfers_per_s, time_per_transfer (seconds of real time: the
// bus's cost per NTB when <bytes> is an NTB size), heap_allocs_per_transfer
// (operator new calls).
#include <benchmark/benchmark.h>

#include <kplat/platform.h>
#include <kplat/usbbus.h>
#include <usbdlib.h>
#include <usbioctl.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "bench_heap.h"
#include "devicecontncm_ackdevice.h"

namespace {

// Hides the device's packet runs: the bus then goes packet by packet.
class PacketByPacket : public kplat::UsbDevice {
public:
    explicit PacketByPacket(kplat::UsbDevice* inner) : mInner(inner) {}
    void Attached(kplat::UsbDevicePort* port) override { mInner->Attached(port); }
    void Detached() override { mInner->Detached(); }
    kplat::UsbSpeed Speed() const override { return mInner->Speed(); }
    void ControlTransfer(kplat::UsbControlTransfer* t) override { mInner->ControlTransfer(t); }
    kplat::UsbHandshake OutPacket(uint8_t ep, const uint8_t* d, uint32_t n) override
    {
        return mInner->OutPacket(ep, d, n);
    }
    kplat::UsbHandshake InPacket(uint8_t ep, uint8_t* b, uint32_t m, uint32_t* n) override
    {
        return mInner->InPacket(ep, b, m, n);
    }

private:
    kplat::UsbDevice* mInner;
};

// One URB and its IRP; the completion routine sends it again until the
// batch is done.
struct Writer {
    PDEVICE_OBJECT pdo = nullptr;
    PIRP irp = nullptr;
    std::vector<uint64_t> urbStorage = std::vector<uint64_t>((sizeof(URB) + 7) / 8);
    std::vector<uint8_t> data;
    USBD_PIPE_HANDLE pipe = nullptr;
    uint64_t left = 0;
    bool failed = false;

    PURB Urb() { return (PURB)urbStorage.data(); }

    void Send(PURB urb)
    {
        IoReuseIrp(irp, STATUS_UNSUCCESSFUL);
        PIO_STACK_LOCATION s = IoGetNextIrpStackLocation(irp);
        s->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        s->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
        s->Parameters.Others.Argument1 = urb;
        IoSetCompletionRoutine(irp, Completed, this, TRUE, TRUE, TRUE);
        IoCallDriver(pdo, irp);
    }
    void SendWrite()
    {
        UsbBuildInterruptOrBulkTransferRequest(Urb(), (USHORT)sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER), pipe,
                                               data.data(), NULL, (ULONG)data.size(), 0, NULL);
        Send(Urb());
    }
    static NTSTATUS Completed(PDEVICE_OBJECT, PIRP irp, PVOID context)
    {
        auto* w = (Writer*)context;
        if (!NT_SUCCESS(irp->IoStatus.Status)) w->failed = true;
        else if (w->pipe != nullptr && --w->left != 0) w->SendWrite();
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
};

void BM_BusTransfer(benchmark::State& state)
{
    const uint32_t bytes = (uint32_t)state.range(0);
    const bool runs = state.range(1) != 0;
    const bool owned = !kplat::IsStarted();
    if (owned) kplat::Start();
    {
        AckNcmDevice device(AckNcmDevice::NcmConfiguration(1024),
                            AckNcmDevice::NtbParameters(0x0001, 16384, 65536, 4, 0, 4, 0), kplat::UsbSpeed::Super,
                            false);
        device.SetMaxPacket(1024);
        PacketByPacket packets(&device);
        kplat::UsbBus bus;
        bus.Attach(runs ? (kplat::UsbDevice*)&device : &packets);

        Writer w;
        w.pdo = bus.Pdo();
        w.irp = IoAllocateIrp(w.pdo->StackSize, FALSE);
        w.data.assign(bytes, 0x5A);
        // Configuration 1, then the data interface's alternate setting 1.
        std::vector<uint8_t> config = AckNcmDevice::NcmConfiguration(1024);
        auto* cd = (PUSB_CONFIGURATION_DESCRIPTOR)config.data();
        USBD_INTERFACE_LIST_ENTRY list[3] = {};
        list[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 0, 0, -1, -1, -1);
        list[1].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(cd, cd, 1, 0, -1, -1, -1);
        PURB select = USBD_CreateConfigurationRequestEx(cd, list);
        w.Send(select);
        kplat::RunUntilIdle();
        std::vector<uint64_t> storage((std::max(sizeof(URB), (size_t)GET_SELECT_INTERFACE_REQUEST_SIZE(2)) + 7) / 8);
        auto* alt = (PURB)storage.data();
        UsbBuildSelectInterfaceRequest(alt, (USHORT)GET_SELECT_INTERFACE_REQUEST_SIZE(2),
                                       select->UrbSelectConfiguration.ConfigurationHandle, 1, 1);
        ExFreePoolWithTag(select, 0);
        w.Send(alt);
        kplat::RunUntilIdle();
        for (ULONG i = 0; i < alt->UrbSelectInterface.Interface.NumberOfPipes; i++) {
            const USBD_PIPE_INFORMATION& p = alt->UrbSelectInterface.Interface.Pipes[i];
            if (p.EndpointAddress == 0x02) w.pipe = p.PipeHandle;
        }
        if (w.failed || w.pipe == nullptr) state.SkipWithError("configuration failed");

        const uint64_t batch = 2000;
        uint64_t transfers = 0;
        const uint64_t heapBefore = HeapAllocations();
        for (auto _ : state) {
            if (w.failed || w.pipe == nullptr) break;
            w.left = batch;
            w.SendWrite();
            kplat::RunUntilIdle();
            transfers += batch - w.left;
        }
        const uint64_t heap = HeapAllocations() - heapBefore;
        if (w.failed) state.SkipWithError("a transfer failed");
        state.counters["transfers_per_s"] = benchmark::Counter((double)transfers, benchmark::Counter::kIsRate);
        state.counters["time_per_transfer"] = benchmark::Counter(
            (double)transfers, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
        state.counters["heap_allocs_per_transfer"] = transfers == 0 ? 0.0 : (double)heap / (double)transfers;
        state.SetBytesProcessed((int64_t)(transfers * bytes));
        IoFreeIrp(w.irp);
    }
    if (owned) kplat::Stop();
}

}  // namespace

BENCHMARK(BM_BusTransfer)
    ->ArgsProduct({{1514, 16384, 65536}, {0, 1}})
    ->ArgNames({"bytes", "runs"})
    ->UseRealTime();
