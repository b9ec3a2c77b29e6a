// DeviceContNcm's answers to trouble and load: receive errors restart the
// receive stream, and a burst of them shrinks the receive transfers (told to
// the device from a work item); and the receive bandwidth tick that switches
// the transmit path between sending at once and gathering on a timer.
#include "devicecontncm.h"

#include "knio.h"
#include "kntrace.h"

// Contract: IRQL <= DISPATCH_LEVEL; the receive stream's lock held; *mLock
// not held and not waited for.
void DeviceContNcm::IndicateError(NTSTATUS status, bool removed)
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::IndicateError: %N, removed:%s\n", status,
             removed ? "true" : "false");
    if (removed) {
        return;
    }
    ULONGLONG now = SystemTimeMs();
    if (now - mLastRxErrorTime < NCM_RX_ERROR_WINDOW_MS) {
        mRxErrorCount++;
    } else {
        mRxErrorCount = 1;
    }
    mLastRxErrorTime = now;

    if (mRxErrorCount == NCM_RX_ERROR_BURST) {
        mInStream.LimitReadSize(NCM_RX_REDUCED_READ_SIZE);
        // acquire: pairs with the release of SetStarted in Start and Stop.
        if (IsStarted()) {
            mRxErrorWorkItem.ScheduleCallback(mFunctionalDeviceObject, RxErrorWorkItem, this, NULL,
                                              DelayedWorkQueue);
        }
    } else {
        mInStream.ScheduleRestart();
    }
}

// Contract: PASSIVE_LEVEL (mRxErrorWorkItem); no lock held.
void DeviceContNcm::RxErrorWorkItem(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(argument);
    IRQL_EQ_PASSIVE();
    static_cast<DeviceContNcm*>(context)->OnRxErrorWorkItem();
}

// Contract: PASSIVE_LEVEL; no lock held.
void DeviceContNcm::OnRxErrorWorkItem()
{
    IRQL_EQ_PASSIVE();
    // acquire: pairs with the release of SetStarted in Stop. A run queued
    // while Stop was under way does nothing.
    if (!IsStarted()) {
        KN_TRACE(KN_TRACE_INFO, "%P:DeviceContNcm::RxErrorWorkItem: stopped, nothing to do\n");
        return;
    }
    // mInputBufferSize stays: the next Start announces the full size again.
    ULONG readSize = mInStream.GetReadSize();
    NTSTATUS status = SetNtbInputSize(readSize);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::RxErrorWorkItem: SetNtbInputSize(%u) failed: %N\n", readSize,
                 status);
    }
    mInStream.ScheduleRestart();
}

// ===========================================================================
// adaptive transmit timing
// ===========================================================================

// Contract: DISPATCH_LEVEL (DPC of mRxBandwidthTimer); no lock held.
void DeviceContNcm::RxBandwithTimer(PKDPC dpc, PVOID context, PVOID systemArgument1, PVOID systemArgument2)
{
    UNREFERENCED_PARAMETER(dpc);
    UNREFERENCED_PARAMETER(systemArgument1);
    UNREFERENCED_PARAMETER(systemArgument2);
    IRQL_EQ_DISPATCH();
    static_cast<DeviceContNcm*>(context)->OnRxBandwidthTick();
}

// Contract: DISPATCH_LEVEL; *mLock not held.
void DeviceContNcm::OnRxBandwidthTick()
{
    IRQL_EQ_DISPATCH();
    KN_TRACE(KN_TRACE_INFO, "%P:DeviceContNcm::RxBandwithTimer\n");
    const ULONG period = mParameters->RxMeasurementPeriod;
    const ULONG threshold = mParameters->TputThreshold;
    const ULONG hysteresis = mParameters->TputHysteresis;
    KN_ASSERT(period!=0);
    if (period == 0) {
        return;  // never armed without a period
    }

    ULONG bytes;
    {
        NdSpinlockGuard guard(mLock);
        bytes = mRxByteCount;
        mRxByteCount = 0;
    }
    // Bytes per millisecond, then Mbit/s, each step truncating.
    mRxBandwidth = bytes / period * 8 / 1000;

    if (mRxBandwidth > threshold + hysteresis) {
        {
            NdSpinlockGuard guard(mLock);
            // The switch flushes an NTB left waiting in immediate mode.
            // acquire: pairs with the release of SetStarted in Stop.
            if (!IsSendTimerBased() && IsStarted()) {
                mTxTimer.SetTimer(period);
            }
        }
        SetSendTimerBased(true);
    }
    ULONG lower = threshold >= hysteresis ? threshold - hysteresis : 0;
    if (mRxBandwidth <= lower) {
        SetSendTimerBased(false);
    }
    KN_TRACE(KN_TRACE_INFO, "%P:DeviceContNcm::RxBandwithTimer mRxBandwidth:%u Mbps, SendTimerBased:%s\n",
             mRxBandwidth, IsSendTimerBased() ? "yes" : "no");

    NdSpinlockGuard guard(mLock);
    // acquire: pairs with the release of SetStarted in Stop (under *mLock
    // too, so a tick after Stop's clear never re-arms).
    if (IsStarted()) {
        mRxBandwidthTimer.SetTimer(period);
    }
}
