// What the fuzz targets that run driver code set up once per process: the
// stand-in with its debugger output dropped, traces with the driver's prefix
// and the target's mask, and, for those that need one, a driver object with
// a functional device object. At exit the target's own objects go first (its
// cleanup routine, while the stand-in still runs), then the device objects,
// then the stand-in.
#pragma once

#include <kplat/platform.h>

#include <cstdlib>

#include "kntrace.h"

namespace fuzzsetup {

struct State {
    void (*cleanup)() = nullptr;
    PDRIVER_OBJECT driver = nullptr;
    PDEVICE_OBJECT fdo = nullptr;
};

inline State& Get()
{
    static State s;
    return s;
}

inline void AtExit()
{
    State& s = Get();
    if (s.cleanup != nullptr) s.cleanup();
    if (s.fdo != nullptr) IoDeleteDevice(s.fdo);
    if (s.driver != nullptr) kplat::DeleteDriverObject(s.driver);
    kplat::Stop();
}

// Starts everything; returns the functional device object (withDevice) or NULL.
inline PDEVICE_OBJECT Start(ULONG traceMask, void (*cleanup)(), bool withDevice = false)
{
    State& s = Get();
    s.cleanup = cleanup;
    kplat::Start();
    atexit(AtExit);
    kplat::SetDebugSinkCallback([](const char*) {});
    KnSetTracePrefix("ethbrg");
    KnSetTraceMask(traceMask);
    if (withDevice) {
        s.driver = kplat::CreateDriverObject(u"\\Driver\\ethbrg");
        IoCreateDevice(s.driver, 0, NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &s.fdo);
    }
    return s.fdo;
}

}  // namespace fuzzsetup
