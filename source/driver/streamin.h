// The receive stream of an IN pipe (bulk IN data or interrupt IN
// notifications): keeps every idle buffer of its pool submitted as a read
// of mReadSize bytes, hands each read that came back with data to its
// client, puts empty reads straight back on the pipe, and restarts itself
// after a failed read unless the device is gone.
//
// The client owns a received buffer until it returns it with ReturnToPool;
// it then calls ResubmitReadBuffers so that the buffer goes back on the pipe.
#pragma once

#include <ntddk.h>

#include "deviceinterfaces.h"
#include "knusbconfiguration.h"
#include "knusbpnplowerdevice.h"
#include "stream.h"

class StreamIn : public Stream {
public:
    // Contract: any IRQL. An IN data pipe; mDirectionText "IN"; unconfigured.
    StreamIn();
    // Contract: PASSIVE_LEVEL; not from the restart work item. Stops the
    // stream, waits for a queued or running restart and for the buffers
    // still with the bus.
    ~StreamIn() override;
    StreamIn(const StreamIn&) = delete;
    StreamIn& operator=(const StreamIn&) = delete;

    // Contract: PASSIVE_LEVEL; mMutex not held; the configuration is
    // selected; the stream is stopped. Connects the pipe to endpointAddress
    // and (re)creates bufferCount buffers of bufferSize bytes; every read
    // asks for bufferSize bytes. deviceObject is the one the pipe's
    // completion work is allocated for.
    NTSTATUS Configure(KnPnPLowerDeviceUsb* lowerDevice, KnUsbConfiguration* configuration, UCHAR endpointAddress,
                       PDEVICE_OBJECT deviceObject, StreamInClient* client, ULONG bufferCount, ULONG bufferSize);

    // Contract: PASSIVE_LEVEL; mMutex not held; stopped (asserts
    // "!mEnabled"). Enables the pipe, resets it when resetPipe, then submits
    // every idle buffer. A failed reset is returned with nothing submitted.
    NTSTATUS Start(bool resetPipe) override;

    // Contract: IRQL <= DISPATCH_LEVEL; mLock held. Submits idle buffers
    // until the pool is empty, the stream is disabled or the device is gone.
    void SubmitReadBuffers();
    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held (not from
    // IndicateError). Takes mLock around SubmitReadBuffers.
    void ResubmitReadBuffers();

    // Contract: DISPATCH_LEVEL from the data pipe engine; no lock held.
    // Hands a read with data to the client (without mLock), puts an empty
    // read back on the pipe, and reports a failed read to the client (under
    // mLock) before scheduling the restart.
    void OnBufferCompletion(KnUsbBufferBase* buf) override;

    // Contract: any IRQL. The transfer length of every read.
    ULONG GetReadSize() const { return __atomic_load_n(&mReadSize, __ATOMIC_ACQUIRE); }
    // Contract: any IRQL. Lowers the transfer length of the following reads
    // to at most maxReadSize (never raises it).
    void LimitReadSize(ULONG maxReadSize);

private:
    // ---- configuration (set by Configure under mMutex; atomic access, see above) ----
    ULONG mReadSize;  // transfer length of every read, at most the buffer size
};
