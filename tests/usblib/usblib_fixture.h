// Fixture of the USB device access library tests: the stand-in on its
// virtual clock, a captured debugger output, the fake bus driver and a lower
// USB device object pointing at it.
#pragma once

#include <gtest/gtest.h>
#include <kplat/platform.h>

#include <string>

#include "fake_usb_pdo.h"
#include "knpooltags.h"
#include "kntrace.h"
#include "knusbpnplowerdevice.h"

namespace usblibtest {

class UsbLibTest : public ::testing::Test {
protected:
    UsbLibTest() {
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        mDevice.SetDeviceObject(mPdo.Device());
        mDevice.SetPhysicalDeviceObject(mPdo.Device());
    }
    ~UsbLibTest() override {
        mDevice.SetDeviceObject(nullptr);
        mDevice.SetPhysicalDeviceObject(nullptr);
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        kplat::ClearFaults();
    }

    bool Traced(const std::string& text) const { return mCapture.Contains(text); }
    uint64_t LiveTag(ULONG tag) const { return kplat::GetPoolTagStats(tag).liveCount; }

    kplat::Scope mScope;  // virtual clock
    kplat::DebugCapture mCapture;
    FakeUsbPdo mPdo;
    KnPnPLowerDeviceUsb mDevice;
};

}  // namespace usblibtest
