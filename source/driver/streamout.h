// The transmit stream of a bulk OUT pipe. It submits nothing by itself: the
// client takes an idle buffer with GetBuffer, fills it, sets its length and
// hands it to SubmitWriteBuffer. A transfer whose length is a whole multiple
// of the pipe's maximum packet size (0 included) is followed by a
// zero-length packet from a pool of its own. After every write that
// completed successfully, once the buffer is back in its pool, the client
// hears BufferSent; a failed write restarts the stream instead, and the
// client then hears BufferSent from Start.
#pragma once

#include <ntddk.h>

#include "deviceinterfaces.h"
#include "knusbconfiguration.h"
#include "knusbpnplowerdevice.h"
#include "stream.h"

class StreamOut : public Stream {
public:
    // Contract: any IRQL. An OUT data pipe; mDirectionText "OUT"; unconfigured.
    StreamOut();
    // Contract: PASSIVE_LEVEL; not from the restart work item. Stops the
    // stream, waits for a queued or running restart and for the buffers
    // still with the bus, then frees the zero-length packet buffers.
    ~StreamOut() override;
    StreamOut(const StreamOut&) = delete;
    StreamOut& operator=(const StreamOut&) = delete;

    // Contract: PASSIVE_LEVEL; mMutex not held; the configuration is
    // selected; the stream is stopped. Connects the pipe and (re)creates
    // bufferCount data buffers of bufferSize bytes and bufferCount + 1
    // zero-length packet buffers of 1 byte. deviceObject is the one the
    // pipe's completion work is allocated for.
    NTSTATUS Configure(KnPnPLowerDeviceUsb* lowerDevice, KnUsbConfiguration* configuration, UCHAR endpointAddress,
                       PDEVICE_OBJECT deviceObject, StreamOutClient* client, ULONG bufferCount, ULONG bufferSize);

    // Contract: PASSIVE_LEVEL; mMutex not held; stopped (asserts
    // "!mEnabled"). Refuses a removed device (STATUS_UNSUCCESSFUL); enables
    // the pipe, resets it when resetPipe, and on success calls the client's
    // BufferSent (STATUS_SUCCESS) with mMutex held.
    NTSTATUS Start(bool resetPipe) override;

    // Contract: IRQL <= DISPATCH_LEVEL; takes no stream lock. An idle data
    // buffer, or NULL when all are out, the stream does not run, a restart
    // is pending or the device is gone.
    UsbBuf* GetBuffer();
    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held; the buffer came from
    // GetBuffer and its DataLength is set. Sends it, followed by a
    // zero-length packet when its length ends on a packet boundary. The
    // buffer belongs to the stream from here on.
    void SubmitWriteBuffer(UsbBuf* buffer);

    // Contract: DISPATCH_LEVEL from the data pipe engine; no lock held.
    // Data and zero-length packets alike: success returns the buffer and
    // calls BufferSent (without mLock); failure returns the buffer and
    // schedules the restart.
    void OnBufferCompletion(KnUsbBufferBase* buf) override;

    // Contract: any IRQL. The zero-length packet buffers (diagnostics, tests).
    UsbBufPool* GetZlpPool() { return &mZlpPool; }

private:
    // Contract: IRQL <= DISPATCH_LEVEL; mLock held; the caller holds buf.
    // Zeroes buf's URB and fills it for a host-to-device bulk transfer of
    // DataLength() bytes from mdl (NULL for a zero-length packet).
    void FillWriteUrb(UsbBuf* buf, PMDL mdl);

    // ---- buffers ----
    UsbBufPool mZlpPool;  // 1-byte buffers for zero-length packets, one more than the data buffers
};
