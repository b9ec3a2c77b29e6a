// The view of the tests, fuzzers and benchmarks into DeviceContNcm (its
// friend): the values Init derived, the state of the data path, and a way to
// set the receive parser up without a device (the fuzz and benchmark
// harnesses feed UsbBufs to BufferReceived directly).
#pragma once

#include "devicecontncm.h"

class DeviceContNcmPeer {
public:
    // ---- configuration ----
    static bool Use32BitHeaders(const DeviceContNcm& d) { return d.mUse32BitHeaders; }
    static ULONG InputBufferSize(const DeviceContNcm& d) { return d.mInputBufferSize; }
    static ULONG OutputBufferSize(const DeviceContNcm& d) { return d.mOutputBufferSize; }
    static ULONG MaxTxDatagrams(const DeviceContNcm& d) { return d.mMaxTxDatagrams; }
    static const NtbParameters& Parameters(const DeviceContNcm& d) { return d.mNtbParameters; }
    static UCHAR ControlInterface(const DeviceContNcm& d) { return d.mControlInterface; }
    static UCHAR DataInterface(const DeviceContNcm& d) { return d.mDataInterface; }
    static const UCHAR* NcmDescriptor(const DeviceContNcm& d) { return d.mNcmDescriptor; }
    static const UCHAR* EthernetDescriptor(const DeviceContNcm& d) { return d.mEthernetDescriptor; }
    static bool IsConfigured(const DeviceContNcm& d) { return d.mConfiguration.IsConfigured(); }
    static const KnUsbConfigDescriptor& Descriptors(const DeviceContNcm& d) { return d.mDescriptors; }
    static bool IsStarted(const DeviceContNcm& d) { return d.IsStarted(); }

    // ---- streams ----
    static StreamIn& InStream(DeviceContNcm& d) { return d.mInStream; }
    static StreamOut& OutStream(DeviceContNcm& d) { return d.mOutStream; }

    // ---- receive ----
    static bool DatagramPending(const DeviceContNcm& d) { return d.mDatagramPending; }
    static const UsbBuf* CurrentRxBuffer(const DeviceContNcm& d) { return d.mCurrentRxBuffer; }
    static bool RxListEmpty(const DeviceContNcm& d) { return d.mRxBufferList.IsEmpty(); }
    static ULONG RxByteCount(const DeviceContNcm& d) { return d.mRxByteCount; }
    static const UsbBuf* RxDatagram(const DeviceContNcm& d) { return &d.mRxDatagram; }
    static ULONG RxErrorCount(const DeviceContNcm& d) { return d.mRxErrorCount; }

    // ---- send ----
    static USHORT TxSequence(const DeviceContNcm& d) { return d.mTxSequence; }
    static void SetTxSequence(DeviceContNcm& d, USHORT sequence) { d.mTxSequence = sequence; }
    static const UsbBuf* CurrentTxBuffer(const DeviceContNcm& d) { return d.CurrentTxBuffer(); }
    static USHORT TxDatagramCount(const DeviceContNcm& d) { return d.TxDatagramCount(); }
    static bool TxBusy(const DeviceContNcm& d) { return d.mTxBusy; }
    static bool TxRerun(const DeviceContNcm& d) { return d.mTxRerun; }
    static bool TxStopWaiting(DeviceContNcm& d)
    {
        NdSpinlockGuard guard(d.mLock);
        return d.mTxStopWaiting;
    }
    static void ProcessTxBuffers(DeviceContNcm& d, bool timerExpired) { d.ProcessTxBuffers(timerExpired); }

    // ---- adaptive timing ----
    static bool SendTimerBased(const DeviceContNcm& d) { return d.IsSendTimerBased(); }
    static void SetSendTimerBased(DeviceContNcm& d, bool on) { d.SetSendTimerBased(on); }
    static ULONG RxBandwidth(const DeviceContNcm& d) { return d.mRxBandwidth; }
    // Adds payload bytes as the receive path does (under the adapter lock).
    static void AddRxBytes(DeviceContNcm& d, ULONG bytes)
    {
        NdSpinlockGuard guard(d.mLock);
        d.mRxByteCount += bytes;
    }

    // ---- harness: the receive parser without a device ----
    // What Init and Start would have set for the receive path; the streams
    // stay unconfigured (a stopped receive stream submits nothing).
    static void SetUpParser(DeviceContNcm& d, NdSpinlock* lock, DeviceNotify* notify, AdapterConfig* parameters,
                            bool ntb32)
    {
        d.mLock = lock;
        d.mDeviceNotify = notify;
        d.mParameters = parameters;
        d.mUse32BitHeaders = ntb32;
    }
    // Contract: *mLock held. Returns a datagram as the adapter does.
    static void ReturnRxBuffer(DeviceContNcm& d, UsbBuf* datagram) { d.ReturnRxBuffer(datagram); }
};
