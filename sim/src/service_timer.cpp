#include "ethsim/service_timer.h"

#include <kplat/platform.h>

namespace ethsim {

ServiceTimer::ServiceTimer(NcmDevice& device) : mDevice(device) {
    KeInitializeTimer(&mTimer);
    KeInitializeDpc(&mDpc, TimerDpc, this);
    mDevice.SetServiceRequest([this](uint64_t due) {
        // `due` is in the port's clock units (100 ns, the stand-in's clock).
        uint64_t now = kplat::Now();
        LARGE_INTEGER relative;
        relative.QuadPart = due > now ? -(LONGLONG)(due - now) : 0;
        // Only an earlier request moves the timer; Service handles every due
        // call and asks again for the next deadline.
        std::lock_guard<std::mutex> lock(mMutex);
        if (due >= mPendingDue) return;
        mPendingDue = due;
        KeSetTimer(&mTimer, relative, &mDpc);
    });
}

ServiceTimer::~ServiceTimer() {
    mDevice.SetServiceRequest(nullptr);
    KeCancelTimer(&mTimer);
    KeFlushQueuedDpcs();
}

void ServiceTimer::TimerDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* self = static_cast<ServiceTimer*>(context);
    {
        std::lock_guard<std::mutex> lock(self->mMutex);
        self->mPendingDue = UINT64_MAX;
    }
    self->mDevice.Service();
}

}  // namespace ethsim
