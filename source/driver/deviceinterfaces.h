// The four interfaces between the adapter, the device control and the USB
// streams. The order of the virtual operations is fixed: the adapter, the
// streams and both device control classes are built against it.
#pragma once

#include <ntddk.h>

class UsbBuf;
class NdSpinlock;
struct AdapterConfig;

// Implemented by the adapter; called by the device control. No destructor:
// the device control never owns the adapter.
class DeviceNotify {
public:
    // The device reported a connection change (also called by the adapter
    // itself with false on surprise removal). Called without the adapter lock.
    virtual void NetworkStateChanged(bool connected) = 0;
    // Bit rates in bits per second, as the device reported them.
    virtual void ConnectionSpeedChanged(ULONG upstreamBitRate, ULONG downstreamBitRate) = 0;
    // Copies the next queued frame (at most maxLength bytes) to destination,
    // completes its packet and returns the bytes copied; 0 when the queue is
    // empty. Takes the adapter lock itself: call it without.
    virtual ULONG SubmitTxPackets(UCHAR* destination, ULONG maxLength) = 0;
    // Called with the adapter lock held. The adapter owns the record until it
    // calls DeviceCont::ReturnRxBuffer for it, exactly once.
    virtual void ProcessReceivedData(UsbBuf* datagram) = 0;
    // StartAsync / StopAsync have finished (PASSIVE_LEVEL, worker thread).
    virtual void StartCompleted(NTSTATUS status) = 0;
    virtual void StopCompleted() = 0;
    // Copies at most maxCount 6-byte multicast addresses of the current list;
    // returns how many. Takes the adapter lock itself.
    virtual ULONG GetMulticastList(ULONG maxCount, UCHAR* destination) = 0;
};

// Implemented by the device control; called by the adapter. Init, Exit,
// Start and Stop at PASSIVE_LEVEL; the rest at <= DISPATCH_LEVEL, never
// blocking. Life: construct, Init, Start, data path and StopAsync/StartAsync
// pairs, Stop, Exit, destroy.
class DeviceCont {
public:
    virtual ~DeviceCont() {}
    virtual NTSTATUS Init(PDEVICE_OBJECT functionalDeviceObject, PDEVICE_OBJECT physicalDeviceObject,
                          PDEVICE_OBJECT lowerDeviceObject, DeviceNotify* deviceNotify, AdapterConfig* parameters,
                          NdSpinlock* adapterLock) = 0;
    virtual NTSTATUS Exit() = 0;
    virtual NTSTATUS Start() = 0;
    virtual void Stop() = 0;
    virtual bool StartAsync() = 0;
    virtual bool StopAsync() = 0;
    virtual bool GetMacAddress(UCHAR* macAddress) = 0;
    virtual void ProcessTxPackets() = 0;
    virtual void ReturnRxBuffer(UsbBuf* datagram) = 0;
    virtual void SubmitRxBuffers() = 0;
    virtual ULONG GetMaxSegmentSize() = 0;
    virtual ULONG GetNumberMCFilters() = 0;
    virtual bool SetPacketFilter(ULONG ndisPacketFilter) = 0;
    virtual bool GetEthernetStatistic(UCHAR selector, ULONG* value) = 0;
    virtual bool IsTxPathIdle() = 0;
};

// Implemented by the client of a StreamOut.
class StreamOutClient {
public:
    // After every write that completed successfully, once its buffer is back
    // in its pool (DISPATCH_LEVEL, no stream lock), and once from Start.
    virtual void BufferSent(NTSTATUS status, bool removed) = 0;
};

// Implemented by the client of a StreamIn.
class StreamInClient {
public:
    // A read completed with data (DISPATCH_LEVEL, no stream lock). The client
    // owns the buffer until it returns it to its pool.
    virtual void BufferReceived(UsbBuf* buffer) = 0;
    // A read failed (DISPATCH_LEVEL, the stream's lock held: only trace and
    // schedule here). removed: the device is gone.
    virtual void IndicateError(NTSTATUS status, bool removed) = 0;
};
