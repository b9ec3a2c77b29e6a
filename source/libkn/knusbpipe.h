// One endpoint of the selected interface, bound to the lower USB device,
// with the two synchronous pipe operations: reset (clear stall) and abort.
#pragma once

#include <ntddk.h>
#include <usbdi.h>

class KnPnPLowerDeviceUsb;
class KnUsbConfiguration;

class KnUsbPipe {
public:
    // Contract: any IRQL. Not connected.
    KnUsbPipe();
    // Contract: any IRQL. Must be disconnected.
    virtual ~KnUsbPipe();
    KnUsbPipe(const KnUsbPipe&) = delete;
    KnUsbPipe& operator=(const KnUsbPipe&) = delete;

    // Contract: PASSIVE_LEVEL; the configuration is selected and not
    // changing. Binds the pipe to the endpoint; connecting again overwrites.
    NTSTATUS Connect(KnPnPLowerDeviceUsb* lowerDevice, KnUsbConfiguration* configuration, UCHAR endpointAddress);
    // Contract: any IRQL; no request of the pipe outstanding.
    void Disconnect();
    // Contract: any IRQL.
    bool IsConnected() const { return mLowerDevice != NULL; }

    // Contract: PASSIVE_LEVEL; no lock held. Synchronous reset and clear
    // stall; urbStatus (optional) gets the URB status, also on failure.
    NTSTATUS ResetPipe(ULONG timeoutMs, USBD_STATUS* urbStatus);
    // Contract: PASSIVE_LEVEL; no lock held. Synchronous abort of every
    // request on the pipe; urbStatus as for ResetPipe.
    NTSTATUS AbortPipe(ULONG timeoutMs, USBD_STATUS* urbStatus);

    // Contract: IRQL <= DISPATCH_LEVEL; connected; no spin lock held (the
    // request may complete inline). completionRoutine runs for every outcome.
    NTSTATUS SubmitUrb(PURB urb, PIRP irp, PIO_COMPLETION_ROUTINE completionRoutine, PVOID completionContext);

    // Contract: any IRQL.
    USBD_PIPE_HANDLE GetPipeHandle() const { return mPipeInfo.PipeHandle; }
    UCHAR GetEndpointAddress() const { return mPipeInfo.EndpointAddress; }
    USHORT GetMaximumPacketSize() const { return mPipeInfo.MaximumPacketSize; }
    const USBD_PIPE_INFORMATION* GetPipeInfo() const { return &mPipeInfo; }
    KnPnPLowerDeviceUsb* GetLowerDevice() const { return mLowerDevice; }

private:
    // Contract: PASSIVE_LEVEL; connected. One synchronous pipe request.
    NTSTATUS SubmitPipeRequest(USHORT urbFunction, ULONG timeoutMs, USBD_STATUS* urbStatus);

protected:
    // ---- binding (written at PASSIVE_LEVEL by Connect/Disconnect while the pipe is idle) ----
    KnPnPLowerDeviceUsb* mLowerDevice;  // NULL while not connected
    USBD_PIPE_INFORMATION mPipeInfo;    // copy of the interface selection's pipe record
};
