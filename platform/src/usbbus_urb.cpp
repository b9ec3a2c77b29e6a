// URB checking of the stand-in's USB bus: everything the bus looks at in
// the submitting call before it accepts a URB. Build turns a URB into a
// Transfer (its kind, pipe, buffer, set-up packet, capture identity, and for
// a selection the plan of interfaces and pipes to report) or names the USB
// status it is refused with. The rules are listed in kplat/usbbus.h.
#include <algorithm>
#include <cstring>

#include "usbbus_impl.h"

namespace kplat {

using namespace usbbus;

namespace {

// Minimum URB length of the fixed-size functions; 0 for the variable ones.
ULONG MinimumLength(USHORT function) {
    switch (function) {
    case URB_FUNCTION_SELECT_CONFIGURATION: return FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface);
    case URB_FUNCTION_SELECT_INTERFACE:
        return FIELD_OFFSET(struct _URB_SELECT_INTERFACE, Interface) + FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes);
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
    case URB_FUNCTION_SYNC_RESET_PIPE:
    case URB_FUNCTION_SYNC_CLEAR_STALL: return sizeof(struct _URB_PIPE_REQUEST);
    case URB_FUNCTION_GET_CURRENT_FRAME_NUMBER: return sizeof(struct _URB_GET_CURRENT_FRAME_NUMBER);
    case URB_FUNCTION_CONTROL_TRANSFER: return sizeof(struct _URB_CONTROL_TRANSFER);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER: return sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT: return sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
    case URB_FUNCTION_SET_FEATURE_TO_DEVICE:
    case URB_FUNCTION_SET_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_SET_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_SET_FEATURE_TO_OTHER:
    case URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_CLEAR_FEATURE_TO_OTHER: return sizeof(struct _URB_CONTROL_FEATURE_REQUEST);
    case URB_FUNCTION_GET_STATUS_FROM_DEVICE:
    case URB_FUNCTION_GET_STATUS_FROM_INTERFACE:
    case URB_FUNCTION_GET_STATUS_FROM_ENDPOINT:
    case URB_FUNCTION_GET_STATUS_FROM_OTHER: return sizeof(struct _URB_CONTROL_GET_STATUS_REQUEST);
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_VENDOR_OTHER:
    case URB_FUNCTION_CLASS_DEVICE:
    case URB_FUNCTION_CLASS_INTERFACE:
    case URB_FUNCTION_CLASS_ENDPOINT:
    case URB_FUNCTION_CLASS_OTHER: return sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
    case URB_FUNCTION_GET_CONFIGURATION: return sizeof(struct _URB_CONTROL_GET_CONFIGURATION_REQUEST);
    case URB_FUNCTION_GET_INTERFACE: return sizeof(struct _URB_CONTROL_GET_INTERFACE_REQUEST);
    default: return sizeof(struct _URB_HEADER);
    }
}

// Recipient bits of the standard-request functions.
UCHAR Recipient(USHORT function) {
    switch (function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE:
    case URB_FUNCTION_SET_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_GET_STATUS_FROM_INTERFACE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_CLASS_INTERFACE: return BMREQUEST_TO_INTERFACE;
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT:
    case URB_FUNCTION_SET_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_GET_STATUS_FROM_ENDPOINT:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_CLASS_ENDPOINT: return BMREQUEST_TO_ENDPOINT;
    case URB_FUNCTION_SET_FEATURE_TO_OTHER:
    case URB_FUNCTION_CLEAR_FEATURE_TO_OTHER:
    case URB_FUNCTION_GET_STATUS_FROM_OTHER:
    case URB_FUNCTION_VENDOR_OTHER:
    case URB_FUNCTION_CLASS_OTHER: return BMREQUEST_TO_OTHER;
    default: return BMREQUEST_TO_DEVICE;
    }
}

// Length of an interface information record with n pipes: 24 + 24 n.
ULONG InterfaceInfoSize(ULONG pipes) {
    return FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes) + pipes * (ULONG)sizeof(USBD_PIPE_INFORMATION);
}

// Walks a configuration descriptor block. Returns false when a descriptor
// is shorter than 2 bytes or runs past the end.
bool DescriptorsWellFormed(const uint8_t* p, size_t total) {
    size_t off = 0;
    while (off < total) {
        if (total - off < 2) return false;
        uint8_t len = p[off];
        if (len < 2 || len > total - off) return false;
        off += len;
    }
    return true;
}

// Finds the interface descriptor (number, alternate) and its endpoints (up
// to the next interface descriptor). Returns false when it is missing.
bool FindInterface(const std::vector<uint8_t>& config, uint8_t number, uint8_t alternate,
                   const USB_INTERFACE_DESCRIPTOR** found, std::vector<PlanEndpoint>* endpoints) {
    size_t off = config.empty() ? 0 : config[0];
    const USB_INTERFACE_DESCRIPTOR* current = nullptr;
    while (off + 2 <= config.size()) {
        uint8_t len = config[off], type = config[off + 1];
        if (len < 2 || off + len > config.size()) break;
        if (type == USB_INTERFACE_DESCRIPTOR_TYPE && len >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
            if (current) break;  // the next interface: the endpoints of ours are all seen
            auto* d = (const USB_INTERFACE_DESCRIPTOR*)&config[off];
            if (d->bInterfaceNumber == number && d->bAlternateSetting == alternate) current = d;
        } else if (current && type == USB_ENDPOINT_DESCRIPTOR_TYPE && len >= sizeof(USB_ENDPOINT_DESCRIPTOR)) {
            const uint8_t* e = &config[off];
            PlanEndpoint ep;
            ep.address = e[2];
            ep.attributes = e[3];
            ep.maxPacket = (uint16_t)(e[4] | e[5] << 8);
            ep.interval = e[6];
            endpoints->push_back(ep);
        }
        off += len;
    }
    *found = current;
    return current != nullptr;
}


// Checks one interface record of a selection against the configuration
// descriptor and fills *plan with what the bus will report in it.
USBD_STATUS PlanFor(const std::vector<uint8_t>& config, PUSBD_INTERFACE_INFORMATION info, PlanInterface* plan) {
    const USB_INTERFACE_DESCRIPTOR* d = nullptr;
    if (!FindInterface(config, info->InterfaceNumber, info->AlternateSetting, &d, &plan->endpoints))
        return USBD_STATUS_INTERFACE_NOT_FOUND;
    if (plan->endpoints.size() < d->bNumEndpoints) return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    plan->endpoints.resize(d->bNumEndpoints);
    for (const PlanEndpoint& e : plan->endpoints)
        if ((e.maxPacket & 0x7FF) == 0 && (e.attributes & USB_ENDPOINT_TYPE_MASK) != USB_ENDPOINT_TYPE_ISOCHRONOUS)
            return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    if (info->Length < InterfaceInfoSize(d->bNumEndpoints)) return USBD_STATUS_BUFFER_TOO_SMALL;
    plan->info = info;
    plan->number = d->bInterfaceNumber;
    plan->alternate = d->bAlternateSetting;
    plan->cls = d->bInterfaceClass;
    plan->subClass = d->bInterfaceSubClass;
    plan->protocol = d->bInterfaceProtocol;
    return USBD_STATUS_SUCCESS;
}

// Resolves the data buffer of a transfer: the MDL's system address when
// there is an MDL, else the buffer pointer.
USBD_STATUS ResolveBuffer(PVOID buffer, PMDL mdl, ULONG length, uint8_t** out) {
    *out = nullptr;
    if (mdl) {
        if (MmGetMdlByteCount(mdl) < length) return USBD_STATUS_INVALID_PARAMETER;
        PVOID va = MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority);
        if (!va) return USBD_STATUS_INSUFFICIENT_RESOURCES;
        *out = (uint8_t*)va;
        return USBD_STATUS_SUCCESS;
    }
    if (!buffer && length != 0) return USBD_STATUS_INVALID_PARAMETER;
    *out = (uint8_t*)buffer;
    return USBD_STATUS_SUCCESS;
}

}  // namespace

Pipe* UsbBus::Impl::OpenPipe(USBD_PIPE_HANDLE handle) {
    auto it = mOpenPipes.find((uintptr_t)handle);
    return it == mOpenPipes.end() ? nullptr : it->second;
}

Pipe* UsbBus::Impl::OpenPipeByAddress(uint8_t address) {
    for (Pipe* p : mOpenList)
        if (p->address == address) return p;
    return nullptr;
}

USBD_STATUS UsbBus::Impl::Build(PURB urb, Transfer* t) {
    USHORT function = urb->UrbHeader.Function;
    ULONG length = urb->UrbHeader.Length;
    if (length < sizeof(struct _URB_HEADER) || length < MinimumLength(function)) return USBD_STATUS_INVALID_PARAMETER;
    switch (function) {
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER: {
        auto& r = urb->UrbBulkOrInterruptTransfer;
        Pipe* p = OpenPipe(r.PipeHandle);
        if (!p) return USBD_STATUS_INVALID_PIPE_HANDLE;
        t->kind = Kind::Bulk;
        t->pipe = p;
        t->captured = true;
        t->captureType = p->type == UsbdPipeTypeInterrupt ? 1 : 3;
        t->captureEndpoint = p->address;
        t->captureInterval = p->type == UsbdPipeTypeInterrupt ? p->interval : 0;
        t->in = p->IsIn();
        t->length = r.TransferBufferLength;
        if (p->type != UsbdPipeTypeBulk && p->type != UsbdPipeTypeInterrupt) return USBD_STATUS_INVALID_PARAMETER;
        if (r.TransferFlags & ~(ULONG)VALID_TRANSFER_FLAGS_MASK) return USBD_STATUS_INVALID_PARAMETER;
        if (((r.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0) != p->IsIn()) return USBD_STATUS_INVALID_PARAMETER;
        t->shortOk = (r.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        return ResolveBuffer(r.TransferBuffer, r.TransferBufferMDL, r.TransferBufferLength, &t->buffer);
    }
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE: {
        Pipe* p = OpenPipe(urb->UrbPipeRequest.PipeHandle);
        if (!p) return USBD_STATUS_INVALID_PIPE_HANDLE;
        t->kind = function == URB_FUNCTION_ABORT_PIPE ? Kind::Abort : Kind::ResetHost;
        t->pipe = p;
        t->writesLength = false;
        return USBD_STATUS_SUCCESS;
    }
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
    case URB_FUNCTION_SYNC_CLEAR_STALL: {
        Pipe* p = OpenPipe(urb->UrbPipeRequest.PipeHandle);
        if (!p) return USBD_STATUS_INVALID_PIPE_HANDLE;
        t->kind = Kind::Control;
        t->pipe = p;
        t->writesLength = false;
        t->setup = {BMREQUEST_TO_ENDPOINT, USB_REQUEST_CLEAR_FEATURE, USB_FEATURE_ENDPOINT_STALL, p->address, 0};
        t->post = function == URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL ? Post::ClearHalt : Post::None;
        t->captured = true;
        return USBD_STATUS_SUCCESS;
    }
    case URB_FUNCTION_GET_CURRENT_FRAME_NUMBER:
        t->kind = Kind::FrameNumber;
        t->writesLength = false;
        return USBD_STATUS_SUCCESS;
    case URB_FUNCTION_SELECT_CONFIGURATION: return BuildSelectConfiguration(urb, t);
    case URB_FUNCTION_SELECT_INTERFACE: return BuildSelectInterface(urb, t);
    case URB_FUNCTION_ISOCH_TRANSFER:
    case URB_FUNCTION_TAKE_FRAME_LENGTH_CONTROL:
    case URB_FUNCTION_RELEASE_FRAME_LENGTH_CONTROL:
    case URB_FUNCTION_GET_FRAME_LENGTH:
    case URB_FUNCTION_SET_FRAME_LENGTH:
    case URB_FUNCTION_GET_MS_FEATURE_DESCRIPTOR: return USBD_STATUS_NOT_SUPPORTED;
    default: return BuildControl(urb, t);
    }
}

USBD_STATUS UsbBus::Impl::BuildControl(PURB urb, Transfer* t) {
    USHORT function = urb->UrbHeader.Function;
    UCHAR recipient = Recipient(function);
    t->kind = Kind::Control;
    // Every control URB with a data stage keeps its transfer fields at the
    // same offsets; they are read once the function is known (and with it
    // that the URB is long enough).
    auto& r = urb->UrbControlTransfer;
    bool hasData = true;
    switch (function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE:
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT: {
        auto& d = urb->UrbControlDescriptorRequest;
        bool get = function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE ||
                   function == URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE ||
                   function == URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT;
        t->in = get;
        t->shortOk = true;
        t->setup = {(uint8_t)((get ? 0x80 : 0) | recipient),
                    (uint8_t)(get ? USB_REQUEST_GET_DESCRIPTOR : USB_REQUEST_SET_DESCRIPTOR),
                    USB_DESCRIPTOR_MAKE_TYPE_AND_INDEX(d.DescriptorType, d.Index), d.LanguageId, 0};
        break;
    }
    case URB_FUNCTION_GET_STATUS_FROM_DEVICE:
    case URB_FUNCTION_GET_STATUS_FROM_INTERFACE:
    case URB_FUNCTION_GET_STATUS_FROM_ENDPOINT:
    case URB_FUNCTION_GET_STATUS_FROM_OTHER:
        t->in = true;
        t->shortOk = true;
        t->setup = {(uint8_t)(0x80 | recipient), USB_REQUEST_GET_STATUS, 0, urb->UrbControlGetStatusRequest.Index, 0};
        break;
    case URB_FUNCTION_SET_FEATURE_TO_DEVICE:
    case URB_FUNCTION_SET_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_SET_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_SET_FEATURE_TO_OTHER:
    case URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE:
    case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
    case URB_FUNCTION_CLEAR_FEATURE_TO_OTHER: {
        auto& f = urb->UrbControlFeatureRequest;
        bool set = function == URB_FUNCTION_SET_FEATURE_TO_DEVICE ||
                   function == URB_FUNCTION_SET_FEATURE_TO_INTERFACE ||
                   function == URB_FUNCTION_SET_FEATURE_TO_ENDPOINT || function == URB_FUNCTION_SET_FEATURE_TO_OTHER;
        t->setup = {recipient, (uint8_t)(set ? USB_REQUEST_SET_FEATURE : USB_REQUEST_CLEAR_FEATURE), f.FeatureSelector,
                    f.Index, 0};
        hasData = false;
        t->writesLength = false;
        break;
    }
    case URB_FUNCTION_GET_CONFIGURATION:
        t->in = true;
        t->shortOk = true;
        t->setup = {0x80, USB_REQUEST_GET_CONFIGURATION, 0, 0, 0};
        break;
    case URB_FUNCTION_GET_INTERFACE:
        t->in = true;
        t->shortOk = true;
        t->setup = {0x81, USB_REQUEST_GET_INTERFACE, 0, urb->UrbControlGetInterfaceRequest.Interface, 0};
        break;
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_VENDOR_OTHER:
    case URB_FUNCTION_CLASS_DEVICE:
    case URB_FUNCTION_CLASS_INTERFACE:
    case URB_FUNCTION_CLASS_ENDPOINT:
    case URB_FUNCTION_CLASS_OTHER: {
        auto& v = urb->UrbControlVendorClassRequest;
        bool vendor = function == URB_FUNCTION_VENDOR_DEVICE || function == URB_FUNCTION_VENDOR_INTERFACE ||
                      function == URB_FUNCTION_VENDOR_ENDPOINT || function == URB_FUNCTION_VENDOR_OTHER;
        if (v.TransferFlags & ~(ULONG)VALID_TRANSFER_FLAGS_MASK) return USBD_STATUS_INVALID_PARAMETER;
        t->in = (v.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
        t->shortOk = (v.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        t->setup = {(uint8_t)((t->in ? 0x80 : 0) | (vendor ? BMREQUEST_VENDOR : BMREQUEST_CLASS) << 5 | recipient |
                              v.RequestTypeReservedBits),
                    v.Request, v.Value, v.Index, 0};
        break;
    }
    case URB_FUNCTION_CONTROL_TRANSFER: {
        if (!(r.TransferFlags & USBD_DEFAULT_PIPE_TRANSFER) || r.PipeHandle) return USBD_STATUS_INVALID_PIPE_HANDLE;
        if (r.TransferFlags & ~(ULONG)VALID_TRANSFER_FLAGS_MASK) return USBD_STATUS_INVALID_PARAMETER;
        t->in = (r.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
        t->shortOk = (r.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        const UCHAR* s = r.SetupPacket;
        t->setup = {s[0], s[1], (uint16_t)(s[2] | s[3] << 8), (uint16_t)(s[4] | s[5] << 8), 0};
        if (r.TransferBufferLength != 0 && ((s[0] & 0x80) != 0) != t->in) return USBD_STATUS_INVALID_PARAMETER;
        break;
    }
    default: return USBD_STATUS_INVALID_URB_FUNCTION;
    }
    t->captured = true;
    t->captureType = 2;
    t->captureEndpoint = t->in ? 0x80 : 0x00;
    if (!hasData) return USBD_STATUS_SUCCESS;
    ULONG length = r.TransferBufferLength;
    if (length > 0xFFFF) return USBD_STATUS_INVALID_PARAMETER;
    t->length = length;
    t->setup.wLength = (uint16_t)length;
    return ResolveBuffer(r.TransferBuffer, r.TransferBufferMDL, length, &t->buffer);
}

USBD_STATUS UsbBus::Impl::BuildSelectConfiguration(PURB urb, Transfer* t) {
    auto& r = urb->UrbSelectConfiguration;
    t->kind = Kind::Control;
    t->writesLength = false;
    t->captured = true;
    PUSB_CONFIGURATION_DESCRIPTOR desc = r.ConfigurationDescriptor;
    if (!desc) {
        t->post = Post::Unconfigure;
        t->setup = {0x00, USB_REQUEST_SET_CONFIGURATION, 0, 0, 0};
        return USBD_STATUS_SUCCESS;
    }
    if (desc->bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE || desc->bLength < sizeof(*desc) ||
        desc->wTotalLength < desc->bLength)
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    t->configuration.assign((const uint8_t*)desc, (const uint8_t*)desc + desc->wTotalLength);
    if (!DescriptorsWellFormed(t->configuration.data(), t->configuration.size()))
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
    t->configurationValue = desc->bConfigurationValue;
    ULONG offset = FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface);
    ULONG urbLength = urb->UrbHeader.Length;
    for (ULONG i = 0; i < desc->bNumInterfaces; i++) {
        if (urbLength < offset + FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes)) return USBD_STATUS_INVALID_PARAMETER;
        auto* info = (PUSBD_INTERFACE_INFORMATION)((uint8_t*)urb + offset);
        if (info->Length < FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes) || info->Length % 8 != 0 ||
            urbLength < offset + info->Length)
            return USBD_STATUS_INVALID_PARAMETER;
        for (const PlanInterface& other : t->plan)
            if (other.number == info->InterfaceNumber) return USBD_STATUS_INVALID_PARAMETER;
        PlanInterface plan;
        USBD_STATUS st = PlanFor(t->configuration, info, &plan);
        if (st != USBD_STATUS_SUCCESS) return st;
        t->plan.push_back(std::move(plan));
        offset += info->Length;
    }
    t->post = Post::SetConfiguration;
    t->setup = {0x00, USB_REQUEST_SET_CONFIGURATION, desc->bConfigurationValue, 0, 0};
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS UsbBus::Impl::BuildSelectInterface(PURB urb, Transfer* t) {
    auto& r = urb->UrbSelectInterface;
    t->kind = Kind::Control;
    t->writesLength = false;
    PUSBD_INTERFACE_INFORMATION info = &r.Interface;
    if (info->Length < FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes) ||
        urb->UrbHeader.Length < FIELD_OFFSET(struct _URB_SELECT_INTERFACE, Interface) + info->Length)
        return USBD_STATUS_INVALID_PARAMETER;
    if (!mConfigurationValue || (uintptr_t)r.ConfigurationHandle != mConfigurationHandle)
        return USBD_STATUS_INVALID_PARAMETER;
    PlanInterface plan;
    USBD_STATUS st = PlanFor(mConfiguration, info, &plan);
    if (st != USBD_STATUS_SUCCESS) return st;
    t->post = Post::SetInterface;
    t->setup = {BMREQUEST_TO_INTERFACE, USB_REQUEST_SET_INTERFACE, plan.alternate, plan.number, 0};
    t->plan.push_back(std::move(plan));
    t->captured = true;
    return USBD_STATUS_SUCCESS;
}

}  // namespace kplat
