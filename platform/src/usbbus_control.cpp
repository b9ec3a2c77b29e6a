// Control transfers and pipe operations of the stand-in's USB bus: the run
// loop's steps for the default pipe (one control transfer at a time, handed
// to the device as a ControlRecord from a pool and finished when the device
// answers) and for the operation queue (ABORT_PIPE, SYNC_RESET_PIPE,
// GET_CURRENT_FRAME_NUMBER), and what an acknowledged selection or
// CLEAR_FEATURE(ENDPOINT_HALT) changes on the host side: pipes opened and
// closed, handles reported, halts cleared.
#include <algorithm>
#include <cstring>

#include "usbbus_impl.h"

namespace kplat {

using namespace usbbus;

// ---------------------------------------------------------------------------
// Control records
// ---------------------------------------------------------------------------
UsbBus::Impl::ControlRecord* UsbBus::Impl::NewRecord() {
    ControlRecord* rec;
    if (mFreeRecords.empty()) {
        mRecords.push_back(std::make_unique<ControlRecord>());
        rec = mRecords.back().get();
        mFreeRecords.reserve(mRecords.size());
    } else {
        rec = mFreeRecords.back();
        mFreeRecords.pop_back();
    }
    rec->inUse = true;
    rec->answered = false;
    rec->stalled = false;
    rec->error = 0;
    rec->transfer = nullptr;
    return rec;
}

void UsbBus::Impl::FreeRecord(ControlRecord* rec) {
    rec->inUse = false;
    rec->transfer = nullptr;
    mFreeRecords.push_back(rec);  // capacity reserved in NewRecord
}

// ---------------------------------------------------------------------------
// Control transfers
// ---------------------------------------------------------------------------
void UsbBus::Impl::CompleteControl(UsbControlTransfer* transfer, bool stall) { AnswerControl(transfer, stall, 0); }

void UsbBus::Impl::FailControl(UsbControlTransfer* transfer, uint32_t usbdStatus) {
    AnswerControl(transfer, false, usbdStatus != 0 ? usbdStatus : (uint32_t)USBD_STATUS_XACT_ERROR);
}

void UsbBus::Impl::AnswerControl(UsbControlTransfer* transfer, bool stall, uint32_t error) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto* rec = (ControlRecord*)transfer->busContext;
        if (!rec || &rec->xfer != transfer || !rec->inUse || rec->answered) return;
        rec->answered = true;
        rec->stalled = stall;
        rec->error = error;
        if (!rec->transfer) {
            FreeRecord(rec);
            return;
        }
        if (rec->transfer->inDevice) return;  // the run loop sees the answer when the call returns
    }
    Schedule();
}

bool UsbBus::Impl::ControlStep(Lock& lk) {
    if (mControlActive) {
        Transfer* t = mControlActive;
        if (t->record && t->record->answered && !t->inDevice) {
            FinishControlLocked(t);
            return true;
        }
        return false;
    }
    Transfer* t = mControlQueue.Front();
    while (t && t->finished) t = TransferList::Next(t);
    if (!t) return false;
    Unlink(t);
    mControlActive = t;
    ControlRecord* rec = NewRecord();
    rec->data.resize(t->length ? t->length : 1);
    if (!t->in && t->length) memcpy(rec->data.data(), t->buffer, t->length);
    rec->xfer.setup = t->setup;
    rec->xfer.data = rec->data.data();
    rec->xfer.actual = 0;
    rec->xfer.busContext = rec;
    rec->transfer = t;
    t->record = rec;
    t->inDevice = true;
    t->started = true;
    mStats.controlTransfers++;
    UsbDevice* device = mDevice;
    lk.unlock();
    device->ControlTransfer(&rec->xfer);
    lk.lock();
    t->inDevice = false;
    if (rec->answered) {
        FinishControlLocked(t);
    } else if (t->cancelRequested) {
        rec->transfer = nullptr;
        t->record = nullptr;
        mAbortNotices.push_back(0x00);
        CompleteLocked(t, USBD_STATUS_CANCELED);
    }
    return true;
}

void UsbBus::Impl::FinishControlLocked(Transfer* t) {
    ControlRecord* rec = t->record;
    USBD_STATUS st;
    if (rec->stalled) {
        mStats.stalls++;
        st = USBD_STATUS_STALL_PID;
    } else if (rec->error != 0) {
        st = (USBD_STATUS)rec->error;
    } else {
        uint32_t actual = t->length;
        if (t->in) {
            actual = std::min<uint32_t>(rec->xfer.actual, t->length);
            if (actual) memcpy(t->buffer, rec->data.data(), actual);
        }
        t->done = actual;
        st = (t->in && actual < t->length && !t->shortOk) ? USBD_STATUS_ERROR_SHORT_TRANSFER : USBD_STATUS_SUCCESS;
    }
    FreeRecord(rec);
    t->record = nullptr;
    if (st == USBD_STATUS_SUCCESS) ApplySelection(t);  // the device has switched: follow it
    CompleteLocked(t, st);
}

// ---------------------------------------------------------------------------
// Pipe operations
// ---------------------------------------------------------------------------
bool UsbBus::Impl::OperationStep(Lock& lk) {
    bool progress = false;
    for (;;) {
        Transfer* t = mOperations.Front();
        while (t && t->finished) t = TransferList::Next(t);
        if (!t) break;
        progress = true;
        switch (t->kind) {
        case Kind::Abort: {
            Pipe* p = t->pipe;
            bool hold = mHoldAbortEndpoint == p->address;
            if (hold) {
                // A slow abort: the victims come back when the hold ends.
                mHoldAbortEndpoint = -1;
                mHeldUntil = kplat::Now() + mHoldAbortMs * 10000;
                LARGE_INTEGER due;
                due.QuadPart = -(LONGLONG)(mHoldAbortMs * 10000);
                KeSetTimer(&mHoldTimer, due, &mHoldDpc);
            }
            for (Transfer *x = p->queue.Front(), *next; x; x = next) {
                next = TransferList::Next(x);
                if (x->finished) continue;
                if (hold) {
                    Unlink(x);
                    mHeld.PushBack(x);
                } else {
                    CompleteLocked(x, USBD_STATUS_CANCELED);
                }
            }
            p->nakWait = false;
            // The device hears of it before the abort completes.
            t->inDevice = true;
            UsbDevice* device = mDevice;
            lk.unlock();
            device->EndpointAborted(p->address);
            lk.lock();
            t->inDevice = false;
            CompleteLocked(t, t->cancelRequested ? USBD_STATUS_CANCELED : USBD_STATUS_SUCCESS);
            break;
        }
        case Kind::ResetHost:
            t->pipe->halted = false;
            t->pipe->nakWait = false;
            CompleteLocked(t, USBD_STATUS_SUCCESS);
            break;
        case Kind::FrameNumber:
            t->urb->UrbGetCurrentFrameNumber.FrameNumber = (ULONG)(kplat::Now() / 10000);
            CompleteLocked(t, USBD_STATUS_SUCCESS);
            break;
        default: CompleteLocked(t, USBD_STATUS_INVALID_URB_FUNCTION); break;
        }
        if (mDisconnectPending) break;
    }
    return progress;
}

// ---------------------------------------------------------------------------
// Selections
// ---------------------------------------------------------------------------
void UsbBus::Impl::ClosePipes(bool all, uint8_t interfaceNumber) {
    auto keep = mOpenList.begin();
    for (Pipe* p : mOpenList) {
        if (!all && p->interfaceNumber != interfaceNumber) {
            *keep++ = p;
            continue;
        }
        p->open = false;
        for (Transfer *x = p->queue.Front(), *next; x; x = next) {
            next = TransferList::Next(x);
            if (!x->finished) CompleteLocked(x, USBD_STATUS_CANCELED);
        }
        mOpenPipes.erase(p->handle);
    }
    mOpenList.erase(keep, mOpenList.end());
}

void UsbBus::Impl::ApplySelection(Transfer* t) {
    switch (t->post) {
    case Post::Unconfigure:
        ClosePipes(true, 0);
        mConfigurationHandle = 0;
        mConfigurationValue = 0;
        mConfiguration.clear();
        mInterfaceHandles.clear();
        return;
    case Post::ClearHalt:
        if (t->pipe->open) {
            t->pipe->halted = false;
            t->pipe->nakWait = false;
        }
        return;
    case Post::SetConfiguration:
        ClosePipes(true, 0);
        mInterfaceHandles.clear();
        mConfiguration = std::move(t->configuration);
        mConfigurationValue = t->configurationValue;
        mConfigurationHandle = NewHandle();
        t->urb->UrbSelectConfiguration.ConfigurationHandle = (USBD_CONFIGURATION_HANDLE)mConfigurationHandle;
        break;
    case Post::SetInterface: ClosePipes(false, t->plan[0].number); break;
    case Post::None: return;
    }
    for (const PlanInterface& plan : t->plan) {
        PUSBD_INTERFACE_INFORMATION info = plan.info;
        uintptr_t& ifHandle = mInterfaceHandles[plan.number];
        if (!ifHandle) ifHandle = NewHandle();
        info->Class = plan.cls;
        info->SubClass = plan.subClass;
        info->Protocol = plan.protocol;
        info->InterfaceHandle = (USBD_INTERFACE_HANDLE)ifHandle;
        info->NumberOfPipes = (ULONG)plan.endpoints.size();
        PUSBD_PIPE_INFORMATION pipes = info->Pipes;  // NumberOfPipes records follow
        for (size_t i = 0; i < plan.endpoints.size(); i++) {
            const PlanEndpoint& e = plan.endpoints[i];
            auto p = std::make_unique<Pipe>();
            p->handle = NewHandle();
            p->address = e.address;
            p->type = (USBD_PIPE_TYPE)(e.attributes & USB_ENDPOINT_TYPE_MASK);
            p->maxPacket = e.maxPacket;
            p->interval = e.interval;
            p->interfaceNumber = plan.number;
            p->bus = this;
            if (p->IsIn()) p->bounce.resize(kMaxPacket);
            pipes[i].MaximumPacketSize = e.maxPacket;
            pipes[i].EndpointAddress = e.address;
            pipes[i].Interval = e.interval;
            pipes[i].PipeType = p->type;
            pipes[i].PipeHandle = (USBD_PIPE_HANDLE)p->handle;
            mOpenPipes[p->handle] = p.get();
            mOpenList.push_back(p.get());
            mPipes.push_back(std::move(p));
        }
    }
}

}  // namespace kplat
