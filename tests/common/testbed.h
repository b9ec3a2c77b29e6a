// The shared test bed: the stand-in (virtual clock by default), the USB bus
// with the simulated NCM function behind it, the function's network side
// (a loopback by default), the miniport loaded under its service name and an
// adapter on the device, each with its traits as arguments. Tests see the
// system from outside: frames and status at the stack, NTBs and requests at
// the device, the error log, the pool-tag ledger.
#pragma once

#include <ethsim/ncm_device.h>
#include <ethsim/network.h>
#include <ethsim/service_timer.h>
#include <kplat/ndis.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kntrace.h"
#include "mpmain.h"

namespace testbed {

using Bytes = std::vector<uint8_t>;

constexpr const char* kService = "ethbrg";

struct Traits {
    kplat::ClockMode clock = kplat::ClockMode::Virtual;
    ethsim::DeviceProfile profile = ethsim::DeviceProfile();
    // Registry parameters of the adapter (DWORD values).
    std::map<std::string, uint32_t> params;
    // Extra registry text (string values, a NetworkAddress, ...), loaded
    // after the parameters; "%ADAPTER%" stands for the adapter's key.
    std::string registryText;
    ULONG traceMask = 0;   // silent unless a test listens
    bool attach = true;    // plug the function into the bus (else the test puts a device in front)
    bool plug = true;      // create the adapter in the constructor
    bool connect = true;   // the device reports its link up after the bring-up
};

// A frame of `length` bytes to the broadcast address, from 02:00:00:00:00:01,
// EtherType 0x88B5, with a pattern from `seed`.
inline Bytes Frame(size_t length, uint32_t seed)
{
    Bytes f(length);
    for (size_t i = 0; i < length; i++) f[i] = (uint8_t)(seed * 31 + i * 7 + (i >> 8));
    const uint8_t head[14] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0, 0, 0, 0, 0x01, 0x88, 0xB5};
    for (size_t i = 0; i < length && i < 14; i++) f[i] = head[i];
    return f;
}

class Bed {
public:
    explicit Bed(const Traits& traits = Traits())
        : mTraits(traits), mScope(kplat::Options{traits.clock}), mDevice(traits.profile)
    {
        kplat::RegistryClear();
        kplat::ClearErrorLog();
        KnSetTraceMask(traits.traceMask);
        std::string text = "[" + kplat::ServiceKeyPath(kService) + "]\n\"TraceMask\"=dword:" + Hex(traits.traceMask) +
                           "\n[" + AdapterKey() + "]\n";
        for (const auto& p : traits.params) text += "\"" + p.first + "\"=dword:" + Hex(p.second) + "\n";
        std::string extra = traits.registryText;
        for (size_t at; (at = extra.find("%ADAPTER%")) != std::string::npos;) extra.replace(at, 9, AdapterKey());
        kplat::RegistryLoadText(text + extra);
        mBus.reset(new kplat::UsbBus());
        if (traits.attach) mBus->Attach(&mDevice);
        mService.reset(new ethsim::ServiceTimer(mDevice));
        mDevice.Connect(&mLoopback);
        mLoopback.Connect(&mDevice);
        mDriver.reset(new kplat::NdisDriver(DriverEntry, kService));
        if (traits.plug) Plug();
    }
    ~Bed()
    {
        Unplug();
        mDriver.reset();
        mService.reset();
        mBus.reset();
    }
    Bed(const Bed&) = delete;
    Bed& operator=(const Bed&) = delete;

    static std::string AdapterKey() { return kplat::AdapterKeyPath(0); }
    static std::string Hex(uint32_t v)
    {
        char b[9];
        snprintf(b, sizeof(b), "%08x", v);
        return b;
    }

    // Device arrival; with `connect`, the link comes up and its indication
    // is sent (virtual time moves on by 200 ms).
    NDIS_STATUS Plug()
    {
        kplat::AdapterOptions options;
        options.parametersKey = AdapterKey();
        mAdapter.reset(new kplat::NdisAdapter(*mDriver, *mBus, options));
        if (mAdapter->IsInitialized() && mTraits.connect) {
            mDevice.SetLink(true);
            Settle(200);
        }
        return mAdapter->InitializeStatus();
    }
    // Orderly removal, if the adapter still exists.
    void Unplug()
    {
        if (mAdapter) {
            mAdapter.reset();
            kplat::RunUntilIdle();
        }
    }
    // Lets the stand-in run; on the virtual clock, `ms` of time pass.
    void Settle(uint64_t ms = 0)
    {
        if (kplat::GetClockMode() == kplat::ClockMode::Virtual) {
            kplat::AdvanceTime(ms);
        } else {
            kplat::RunUntilIdle();
        }
    }

    // Sends frames through the stack and lets them cross.
    void Send(const std::vector<Bytes>& frames, uint64_t settleMs = 50)
    {
        for (const Bytes& f : frames) mAdapter->SendFrame(f.data(), f.size());
        Settle(settleMs);
    }
    // Frames indicated to the stack, header and lookahead joined.
    std::vector<Bytes> Received()
    {
        std::vector<Bytes> out;
        for (auto& r : mAdapter->TakeReceivedFrames()) {
            Bytes f = r.header;
            f.insert(f.end(), r.lookahead.begin(), r.lookahead.end());
            out.push_back(std::move(f));
        }
        return out;
    }
    // A u32 OID query; ~0u when it fails.
    ULONG QueryUlong(NDIS_OID oid)
    {
        ULONG v = 0, written = 0, needed = 0;
        return mAdapter->Query(oid, &v, sizeof(v), &written, &needed) == NDIS_STATUS_SUCCESS ? v : ~0u;
    }

    // The pool-tag ledger without the bus's own device object (the bed's, not
    // the driver's): empty once the driver has released everything.
    static std::string DriverLedger()
    {
        std::string out;
        for (const kplat::PoolTagStats& s : kplat::GetPoolStats()) {
            if (s.liveCount != 0 && kplat::TagToString(s.tag) != "Devi") {
                out += kplat::TagToString(s.tag) + ": " + std::to_string(s.liveCount) + " blocks\n";
            }
        }
        return out;
    }

    kplat::NdisAdapter& Adapter() { return *mAdapter; }
    bool HasAdapter() const { return (bool)mAdapter; }
    ethsim::NcmDevice& Device() { return mDevice; }
    kplat::UsbBus& Bus() { return *mBus; }
    kplat::NdisDriver& Driver() { return *mDriver; }
    ethsim::Loopback& Loopback() { return mLoopback; }

private:
    Traits mTraits;
    kplat::Scope mScope;
    ethsim::NcmDevice mDevice;
    ethsim::Loopback mLoopback;
    std::unique_ptr<kplat::UsbBus> mBus;
    std::unique_ptr<ethsim::ServiceTimer> mService;
    std::unique_ptr<kplat::NdisDriver> mDriver;
    std::unique_ptr<kplat::NdisAdapter> mAdapter;
};

}  // namespace testbed
