// Capture hooks of the stand-in's USB bus: the usbmon record a transfer
// makes at submission ('S'), completion ('C') or refusal ('E'), written by
// kplat::UsbCapture (usbcapture.cpp), and where a bus's capture comes from:
// UsbBus::StartCapture, or the ETHBRG_USB_CAPTURE environment variable read
// when the bus is made.
#include <cstdio>
#include <cstdlib>

#include "usbbus_impl.h"

namespace kplat {

using namespace usbbus;

void UsbBus::Impl::Record(UsbCapture* capture, const Transfer* t, char type) const {
    const bool submitted = type == 'S';
    UsbCaptureEvent e;
    e.id = (uint64_t)(uintptr_t)t->urb;
    e.type = type;
    e.transferType = t->captureType;
    e.endpoint = t->captureEndpoint;
    e.device = t->device;
    e.bus = mBusNumber;
    e.hasSetup = submitted && t->kind == Kind::Control;
    e.setup = t->setup;
    e.status = submitted ? UsbCapture::kInProgress : UsbCapture::LinuxStatus(t->status);
    e.length = type == 'C' ? t->done : t->length;
    // OUT data goes with the submission, IN data with the completion.
    if (t->buffer && (submitted ? !t->in : type == 'C' && t->in && t->done)) {
        e.data = t->buffer;
        e.dataLength = e.length;
    }
    e.interval = t->captureInterval;
    e.transferFlags = (t->in ? 0x200u : 0u) | (t->shortOk ? 0u : 0x1u);
    e.time100ns = kplat::Now();
    capture->Record(e);
}

void UsbBus::Impl::OpenCaptureFromEnvironment() {
    const char* env = getenv("ETHBRG_USB_CAPTURE");
    if (!env) return;
    std::string path = env;
    size_t pos = path.find("%u");
    if (pos != std::string::npos) {
        path.replace(pos, 2, std::to_string(mBusNumber));
    } else if (mBusNumber > 1) {
        size_t dot = path.rfind('.');
        std::string suffix = "-" + std::to_string(mBusNumber);
        if (dot == std::string::npos || path.find('/', dot) != std::string::npos) path += suffix + ".pcap";
        else path.insert(dot, suffix);
    }
    std::string error;
    std::shared_ptr<UsbCapture> capture(UsbCapture::Open(path, &error).release());
    if (!capture) {
        fprintf(stderr, "kplat::UsbBus: %s\n", error.c_str());
        return;
    }
    std::lock_guard<std::mutex> lock(mLock);
    mCapture = capture;
}

bool UsbBus::StartCapture(const std::string& path, std::string* error) {
    std::shared_ptr<UsbCapture> capture(UsbCapture::Open(path, error).release());
    if (!capture) return false;
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    mImpl->mCapture = capture;
    return true;
}

void UsbBus::StopCapture() {
    std::shared_ptr<UsbCapture> old;
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        old.swap(mImpl->mCapture);
    }
    // The file is closed when the last completion still using it is done.
}

}  // namespace kplat
