// Pieces shared by the driver test fixtures: a blocker for the delayed work
// queue, a pass-through USB device that logs control set-ups and can stall
// chosen ones, and a counter of trace occurrences.
#pragma once

#include <ethsim/ncm_device.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace drvtest {

// Keeps the worker of the delayed work queue busy until Release, so that
// work items queued meanwhile (stream restarts, asynchronous Start/Stop,
// packet filter requests) wait behind it (one worker per queue) and run only
// when the test says so. While a work item waits behind it the stand-in is
// never idle: wait for events instead of RunUntilIdle until Release.
class DelayedQueueBlocker {
public:
    explicit DelayedQueueBlocker(PDEVICE_OBJECT deviceObject)
    {
        KeInitializeEvent(&mEvent, NotificationEvent, FALSE);
        mItem = IoAllocateWorkItem(deviceObject);
        IoQueueWorkItem(mItem, Routine, DelayedWorkQueue, this);
        kplat::RunUntilIdle();
    }
    ~DelayedQueueBlocker()
    {
        Release();
        IoFreeWorkItem(mItem);
    }
    DelayedQueueBlocker(const DelayedQueueBlocker&) = delete;
    DelayedQueueBlocker& operator=(const DelayedQueueBlocker&) = delete;

    void Release()
    {
        if (!mReleased) {
            mReleased = true;
            KeSetEvent(&mEvent, 0, FALSE);
            kplat::RunUntilIdle();
        }
    }

private:
    static void Routine(PDEVICE_OBJECT, PVOID context)
    {
        DelayedQueueBlocker* self = static_cast<DelayedQueueBlocker*>(context);
        KeWaitForSingleObject(&self->mEvent, Executive, KernelMode, FALSE, nullptr);
    }

    KEVENT mEvent;
    PIO_WORKITEM mItem;
    bool mReleased = false;
};

// Sits between the bus and the simulated function and forwards everything;
// logs every control set-up packet and stalls the ones StallIf picks without
// the function seeing them. Derived devices hook Answer, OutPacket and
// EndpointAborted.
class PassThroughDevice : public kplat::UsbDevice {
public:
    explicit PassThroughDevice(ethsim::NcmDevice* inner) : mInner(inner) {}

    void Attached(kplat::UsbDevicePort* port) override
    {
        mPort = port;
        mInner->Attached(port);
    }
    void Detached() override
    {
        mInner->Detached();
        mPort = nullptr;
    }
    kplat::UsbSpeed Speed() const override { return mInner->Speed(); }
    void ControlTransfer(kplat::UsbControlTransfer* transfer) override
    {
        bool stall;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mSetups.push_back(transfer->setup);
            stall = mStallIf && mStallIf(transfer->setup);
        }
        if (stall) {
            mPort->CompleteControl(transfer, true);
        } else if (Answer(transfer)) {
            mPort->CompleteControl(transfer, false);
        } else {
            mInner->ControlTransfer(transfer);
        }
    }
    kplat::UsbHandshake OutPacket(uint8_t ep, const uint8_t* data, uint32_t length) override
    {
        return mInner->OutPacket(ep, data, length);
    }
    kplat::UsbHandshake InPacket(uint8_t ep, uint8_t* buffer, uint32_t maxLength, uint32_t* length) override
    {
        return mInner->InPacket(ep, buffer, maxLength, length);
    }
    void EndpointAborted(uint8_t endpointAddress) override { mInner->EndpointAborted(endpointAddress); }

    // Set only while the stand-in is idle.
    void StallIf(std::function<bool(const kplat::UsbSetupPacket&)> predicate)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStallIf = std::move(predicate);
    }
    std::vector<kplat::UsbSetupPacket> Setups()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mSetups;
    }
    void ClearSetups()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSetups.clear();
    }

protected:
    // Answers the transfer itself (data and actual filled in) instead of the
    // function; called without the mutex.
    virtual bool Answer(kplat::UsbControlTransfer* transfer)
    {
        (void)transfer;
        return false;
    }

    ethsim::NcmDevice* mInner;
    kplat::UsbDevicePort* mPort = nullptr;
    std::mutex mMutex;

private:
    std::function<bool(const kplat::UsbSetupPacket&)> mStallIf;
    std::vector<kplat::UsbSetupPacket> mSetups;
};

// How often `needle` occurs in `text`.
inline size_t CountOccurrences(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) n++;
    return n;
}

}  // namespace drvtest
