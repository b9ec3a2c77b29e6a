// Runs NcmDevice::Service when the device asks for it, from a timer DPC of
// the stand-in, so that deferred port calls (a disconnect requested inside a
// bus call) and timed faults (delayed control answers, Nak periods) happen on
// the stand-in's clock. Create it after kplat::Start and after plugging the
// device; destroy it before the device.
#pragma once

#include <ntddk.h>

#include "ethsim/ncm_device.h"

#include <cstdint>
#include <mutex>

namespace ethsim {

class ServiceTimer {
public:
    explicit ServiceTimer(NcmDevice& device);
    ~ServiceTimer();
    ServiceTimer(const ServiceTimer&) = delete;
    ServiceTimer& operator=(const ServiceTimer&) = delete;

private:
    static void TimerDpc(PKDPC dpc, PVOID context, PVOID, PVOID);
    NcmDevice& mDevice;
    std::mutex mMutex;                 // guards mPendingDue
    uint64_t mPendingDue = UINT64_MAX;  // due time the timer is set for
    KTIMER mTimer;
    KDPC mDpc;
};

}  // namespace ethsim
