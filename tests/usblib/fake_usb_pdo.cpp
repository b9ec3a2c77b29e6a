// A small fake USB bus driver for the library tests.
#include "fake_usb_pdo.h"

#include <algorithm>
#include <cstring>

namespace usblibtest {

namespace {

struct Extension {
    FakeUsbPdo* self;
};

bool IsTransfer(USHORT function) { return function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER; }

}  // namespace

FakeUsbPdo::FakeUsbPdo(CCHAR stackSize) : mDriver(nullptr), mDevice(nullptr) {
    mDriver = kplat::CreateDriverObject(u"\\Driver\\usblibfake");
    mDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = Dispatch;
    NTSTATUS st = IoCreateDevice(mDriver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &mDevice);
    EXPECT_EQ(STATUS_SUCCESS, st);
    mDevice->StackSize = stackSize;
    static_cast<Extension*>(mDevice->DeviceExtension)->self = this;
    rule = [](PURB) { return Answer::Complete; };
}

FakeUsbPdo::~FakeUsbPdo() {
    EXPECT_EQ(0u, HeldCount()) << "a test left requests held in the fake bus";
    IoDeleteDevice(mDevice);
    kplat::DeleteDriverObject(mDriver);
}

std::vector<USHORT> FakeUsbPdo::Functions() {
    std::lock_guard<std::mutex> guard(mMutex);
    return mFunctions;
}

size_t FakeUsbPdo::CountFunction(USHORT function) {
    std::lock_guard<std::mutex> guard(mMutex);
    return (size_t)std::count(mFunctions.begin(), mFunctions.end(), function);
}

std::vector<ULONG> FakeUsbPdo::DescriptorReadLengths() {
    std::lock_guard<std::mutex> guard(mMutex);
    return mDescriptorReads;
}

Bytes FakeUsbPdo::LastUrb(USHORT function) {
    std::lock_guard<std::mutex> guard(mMutex);
    auto it = mLastUrb.find(function);
    return it != mLastUrb.end() ? it->second : Bytes(sizeof(URB), 0);
}

size_t FakeUsbPdo::HeldCount() {
    std::lock_guard<std::mutex> guard(mMutex);
    return mHeld.size();
}

NTSTATUS FakeUsbPdo::Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    FakeUsbPdo* self = static_cast<Extension*>(device->DeviceExtension)->self;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    EXPECT_EQ((UCHAR)IRP_MJ_INTERNAL_DEVICE_CONTROL, stack->MajorFunction);
    EXPECT_EQ((ULONG)IOCTL_INTERNAL_USB_SUBMIT_URB, stack->Parameters.DeviceIoControl.IoControlCode);
    return self->Handle(irp, static_cast<PURB>(stack->Parameters.Others.Argument1));
}

NTSTATUS FakeUsbPdo::Handle(PIRP irp, PURB urb) {
    const USHORT function = urb->UrbHeader.Function;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        mFunctions.push_back(function);
        size_t length = std::min<size_t>(std::max<size_t>(urb->UrbHeader.Length, sizeof(struct _URB_HEADER)),
                                         sizeof(URB));
        Bytes copy(sizeof(URB), 0);
        memcpy(copy.data(), urb, length);
        mLastUrb[function] = copy;
        if (function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE) {
            mDescriptorReads.push_back(urb->UrbControlDescriptorRequest.TransferBufferLength);
        }
    }

    const usblibtest::Answer answer = rule(urb);
    if (answer == Answer::FailIrpOnly) {
        irp->IoStatus.Status = failIrpStatus;
        irp->IoStatus.Information = 0;
        IofCompleteRequest(irp, IO_NO_INCREMENT);
        return failIrpStatus;
    }
    if (answer == Answer::Hold || answer == Answer::HoldStuck) {
        IoMarkIrpPending(irp);
        urb->UrbHeader.Status = USBD_STATUS_PENDING;
        const bool cancellable = answer == Answer::Hold;
        {
            std::lock_guard<std::mutex> guard(mMutex);
            mHeld.push_back(Held{irp, urb, cancellable});
        }
        if (cancellable) {
            IoSetCancelRoutine(irp, Cancel);
        }
        return STATUS_PENDING;
    }

    NTSTATUS st = function == URB_FUNCTION_ABORT_PIPE ? AbortPipe(urb) : AnswerNow(urb);
    irp->IoStatus.Status = st;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return st;
}

NTSTATUS FakeUsbPdo::AnswerNow(PURB urb) {
    switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
        return AnswerDescriptor(urb);
    case URB_FUNCTION_SELECT_CONFIGURATION:
        return AnswerSelectConfiguration(urb);
    case URB_FUNCTION_SELECT_INTERFACE:
        return AnswerSelectInterface(urb);
    case URB_FUNCTION_CLASS_INTERFACE: {
        auto* req = &urb->UrbControlVendorClassRequest;
        if (req->TransferFlags & USBD_TRANSFER_DIRECTION_IN) {
            ULONG n = std::min<ULONG>(req->TransferBufferLength, (ULONG)classInData.size());
            if (n != 0) memcpy(req->TransferBuffer, classInData.data(), n);
            req->TransferBufferLength = n;
        }
        urb->UrbHeader.Status = classUrbStatus;
        return USBD_SUCCESS(classUrbStatus) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
    }
    default:
        urb->UrbHeader.Status = USBD_STATUS_SUCCESS;
        return STATUS_SUCCESS;
    }
}

NTSTATUS FakeUsbPdo::AnswerDescriptor(PURB urb) {
    auto* req = &urb->UrbControlDescriptorRequest;
    if (!NT_SUCCESS(descriptorIrpStatus)) {
        urb->UrbHeader.Status = USBD_STATUS_STALL_PID;
        return descriptorIrpStatus;
    }
    const Bytes* source = nullptr;
    if (req->DescriptorType == USB_CONFIGURATION_DESCRIPTOR_TYPE) {
        source = &configDescriptor;
    } else if (req->DescriptorType == USB_STRING_DESCRIPTOR_TYPE) {
        auto it = strings.find(req->Index);
        if (it != strings.end()) source = &it->second;
    }
    if (source == nullptr) {
        urb->UrbHeader.Status = USBD_STATUS_STALL_PID;
        return STATUS_UNSUCCESSFUL;
    }
    ULONG n = std::min<ULONG>(req->TransferBufferLength, (ULONG)source->size());
    if (req->DescriptorType == USB_CONFIGURATION_DESCRIPTOR_TYPE) {
        if (req->TransferBufferLength == 9 && baseConfigReadLength >= 0) {
            n = std::min<ULONG>(n, (ULONG)baseConfigReadLength);
        } else if (req->TransferBufferLength > 9) {
            n = n > shortenFullConfigReadBy ? n - shortenFullConfigReadBy : 0;
        }
    }
    if (n != 0) memcpy(req->TransferBuffer, source->data(), n);
    req->TransferBufferLength = n;
    urb->UrbHeader.Status = USBD_STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

// Fills the interface record as the bus driver does: class codes, handle and
// per pipe the endpoint values and a handle, from the descriptor of the
// interface's alternate setting.
bool FakeUsbPdo::FillInterface(const uint8_t* config, size_t configLength, PUSBD_INTERFACE_INFORMATION info) {
    size_t pos = 0;
    const uint8_t* ifd = nullptr;
    while (pos + 2 <= configLength && config[pos] >= 2) {
        const uint8_t* d = config + pos;
        if (ifd == nullptr && d[1] == USB_INTERFACE_DESCRIPTOR_TYPE && d[2] == info->InterfaceNumber &&
            d[3] == info->AlternateSetting) {
            ifd = d;
            info->Class = d[5];
            info->SubClass = d[6];
            info->Protocol = d[7];
            info->InterfaceHandle = InterfaceHandle(d[2], d[3]);
            info->NumberOfPipes = d[4];
        } else if (ifd != nullptr && d[1] == USB_INTERFACE_DESCRIPTOR_TYPE) {
            break;
        }
        pos += d[0];
    }
    if (ifd == nullptr) return false;
    ULONG pipe = 0;
    for (pos = (size_t)(ifd - config) + ifd[0]; pos + 2 <= configLength && config[pos] >= 2 && pipe < info->NumberOfPipes;
         pos += config[pos]) {
        const uint8_t* d = config + pos;
        if (d[1] == USB_INTERFACE_DESCRIPTOR_TYPE) break;
        if (d[1] != USB_ENDPOINT_DESCRIPTOR_TYPE) continue;
        PUSBD_PIPE_INFORMATION p = &info->Pipes[pipe++];
        p->EndpointAddress = d[2];
        p->PipeType = (USBD_PIPE_TYPE)(d[3] & 3);
        p->MaximumPacketSize = (USHORT)(d[4] | d[5] << 8);
        p->Interval = d[6];
        p->PipeHandle = PipeHandle(d[2]);
    }
    return pipe == info->NumberOfPipes;
}

NTSTATUS FakeUsbPdo::AnswerSelectConfiguration(PURB urb) {
    auto* req = &urb->UrbSelectConfiguration;
    if (req->ConfigurationDescriptor == nullptr) {
        urb->UrbHeader.Status = USBD_STATUS_SUCCESS;
        return STATUS_SUCCESS;
    }
    const uint8_t* config = (const uint8_t*)req->ConfigurationDescriptor;
    const size_t configLength = req->ConfigurationDescriptor->wTotalLength;
    PUCHAR end = (PUCHAR)urb + urb->UrbHeader.Length;
    PUSBD_INTERFACE_INFORMATION info = &req->Interface;
    for (ULONG i = 0; i < req->ConfigurationDescriptor->bNumInterfaces; i++) {
        if ((PUCHAR)info + info->Length > end || !FillInterface(config, configLength, info)) {
            urb->UrbHeader.Status = USBD_STATUS_INTERFACE_NOT_FOUND;
            return STATUS_INVALID_PARAMETER;
        }
        info = (PUSBD_INTERFACE_INFORMATION)((PUCHAR)info + info->Length);
    }
    req->ConfigurationHandle = ConfigurationHandle();
    urb->UrbHeader.Status = USBD_STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

NTSTATUS FakeUsbPdo::AnswerSelectInterface(PURB urb) {
    auto* req = &urb->UrbSelectInterface;
    if (req->ConfigurationHandle != ConfigurationHandle() ||
        !FillInterface(configDescriptor.data(), configDescriptor.size(), &req->Interface)) {
        urb->UrbHeader.Status = USBD_STATUS_INVALID_PARAMETER;
        return STATUS_INVALID_PARAMETER;
    }
    urb->UrbHeader.Status = USBD_STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

NTSTATUS FakeUsbPdo::AbortPipe(PURB urb) {
    if (abortCompletesHeld) {
        for (;;) {
            Held victim{};
            {
                std::lock_guard<std::mutex> guard(mMutex);
                auto it = std::find_if(mHeld.begin(), mHeld.end(), [&](const Held& h) {
                    return h.cancellable && IsTransfer(h.urb->UrbHeader.Function) &&
                           h.urb->UrbBulkOrInterruptTransfer.PipeHandle == urb->UrbPipeRequest.PipeHandle;
                });
                if (it == mHeld.end()) break;
                victim = *it;
                mHeld.erase(it);
            }
            if (IoSetCancelRoutine(victim.irp, nullptr) == nullptr) continue;  // being cancelled
            Complete(victim.irp, victim.urb, STATUS_CANCELLED, USBD_STATUS_CANCELED, 0);
        }
    }
    urb->UrbHeader.Status = USBD_STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

void FakeUsbPdo::Cancel(PDEVICE_OBJECT device, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    FakeUsbPdo* self = static_cast<Extension*>(device != nullptr ? device->DeviceExtension : nullptr)->self;
    PURB urb = nullptr;
    {
        std::lock_guard<std::mutex> guard(self->mMutex);
        auto it = std::find_if(self->mHeld.begin(), self->mHeld.end(), [&](const Held& h) { return h.irp == irp; });
        if (it == self->mHeld.end()) return;
        urb = it->urb;
        self->mHeld.erase(it);
    }
    self->Complete(irp, urb, STATUS_CANCELLED, USBD_STATUS_CANCELED, 0);
}

void FakeUsbPdo::CompleteHeld(size_t i, NTSTATUS irpStatus, USBD_STATUS urbStatus, int64_t bytes, bool atDispatch) {
    Held held{};
    {
        std::lock_guard<std::mutex> guard(mMutex);
        ASSERT_LT(i, mHeld.size());
        held = mHeld[i];
        mHeld.erase(mHeld.begin() + (ptrdiff_t)i);
    }
    if (held.cancellable && IoSetCancelRoutine(held.irp, nullptr) == nullptr) {
        return;  // the cancel routine has it
    }
    KIRQL old = KeGetCurrentIrql();
    if (atDispatch) KeRaiseIrql(DISPATCH_LEVEL, &old);
    Complete(held.irp, held.urb, irpStatus, urbStatus, bytes);
    if (atDispatch) KeLowerIrql(old);
}

void FakeUsbPdo::Complete(PIRP irp, PURB urb, NTSTATUS irpStatus, USBD_STATUS urbStatus, int64_t bytes) {
    if (IsTransfer(urb->UrbHeader.Function) && bytes >= 0) {
        urb->UrbBulkOrInterruptTransfer.TransferBufferLength = (ULONG)bytes;
    }
    urb->UrbHeader.Status = urbStatus;
    irp->IoStatus.Status = irpStatus;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
}

// ---------------------------------------------------------------------------
// Descriptor builders
// ---------------------------------------------------------------------------
Bytes ConfigHeader(uint16_t totalLength, uint8_t numInterfaces, uint8_t configurationValue) {
    return {9, 2, (uint8_t)totalLength, (uint8_t)(totalLength >> 8), numInterfaces, configurationValue, 0, 0x80, 50};
}

Bytes InterfaceDesc(uint8_t number, uint8_t alternate, uint8_t numEndpoints, uint8_t cls, uint8_t subClass,
                    uint8_t protocol) {
    return {9, 4, number, alternate, numEndpoints, cls, subClass, protocol, 0};
}

Bytes EndpointDesc(uint8_t address, uint8_t attributes, uint16_t maxPacket, uint8_t interval) {
    return {7, 5, address, attributes, (uint8_t)maxPacket, (uint8_t)(maxPacket >> 8), interval};
}

Bytes Config(std::initializer_list<Bytes> parts) {
    Bytes d;
    for (const Bytes& p : parts) d.insert(d.end(), p.begin(), p.end());
    if (d.size() >= 4) {
        d[2] = (uint8_t)d.size();
        d[3] = (uint8_t)(d.size() >> 8);
    }
    return d;
}

Bytes NcmConfig() {
    return Config({
        ConfigHeader(0, 2, 1),
        InterfaceDesc(0, 0, 1, 0x02, 0x0D, 0x00),
        {5, 0x24, 0x00, 0x10, 0x01},  // CDC header
        EndpointDesc(0x81, 0x03, 16, 9),
        InterfaceDesc(1, 0, 0, 0x0A, 0x00, 0x01),
        InterfaceDesc(1, 1, 2, 0x0A, 0x00, 0x01),
        EndpointDesc(0x82, 0x02, 512),
        EndpointDesc(0x03, 0x02, 512),
    });
}

Bytes StringDesc(size_t chars) {
    Bytes d = {(uint8_t)(2 + 2 * chars), 3};
    for (size_t i = 0; i < chars; i++) {
        d.push_back((uint8_t)('A' + i % 26));
        d.push_back(0);
    }
    return d;
}

}  // namespace usblibtest
