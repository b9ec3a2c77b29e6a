// The NCM form of the device control: finds the NCM function in the
// device's descriptors, reads and repairs its NTB parameters, chooses NTB16
// or NTB32 and the buffer sizes, runs the three streams, and carries the
// data path in between:
//  - receive: received NTBs are queued, validated and walked NDP by NDP; the
//    datagrams go to the adapter one at a time, in place (no copy), and each
//    one returned releases the next;
//  - transmit: the adapter's packets are copied one by one straight into an
//    NTB of an idle OUT buffer, whose NDP is assembled aside and placed
//    behind the last datagram; the NTB leaves when full, when nothing else
//    is in flight, or when the transmit timer of the adaptive timing fires;
//  - adaptive timing: a periodic tick measures the received bandwidth and
//    switches the transmit path between sending at once and gathering.
//
// Locks (lock order: stream mMutex -> *mLock -> stream mLock -> pipe lock ->
// pool and work item locks):
//  - *mLock, the adapter's spin lock, guards the whole receive side
//    (mRxBufferList, mCurrentRxBuffer, mNdpEnumerator, mDatagramPending,
//    mRxDatagram, mRxByteCount) and the builder flags mTxBusy, mTxRerun,
//    mTxRerunTimer and mTxStopWaiting; the bandwidth tick starts its timers under it, so that
//    Stop, which clears mStarted under it, is never followed by a re-arm.
//    It is held while the adapter gets a datagram (the interface makes
//    ProcessReceivedData a call under the adapter lock) and never while the
//    adapter's SubmitTxPackets runs.
//  - mStarted (DeviceContBase) is written with release and read with
//    acquire (IsStarted/SetStarted): IndicateError reads it without *mLock.
//  - The NTB under construction (mCurrentTxBuffer, mTxOffset,
//    mTxDatagramCount, mTxNdp, mTxNdpEntry, mTxSequence) belongs to whoever
//    holds mTxBusy: the one running builder pass, or Stop.
//  - mRxErrorCount and mLastRxErrorTime are touched only by IndicateError,
//    which the receive stream calls one completion at a time with its own
//    lock held.
#pragma once

#include <ntddk.h>

#include "KnTimerDpc.h"
#include "QbDlList.h"
#include "devicecontbase.h"
#include "knworkitemex.h"
#include "ntb.h"
#include "usbbuf.h"

// Configuration descriptor values the NCM function is recognised by.
#define NCM_INTERFACE_CLASS_COMMUNICATIONS 0x02
#define NCM_INTERFACE_SUBCLASS_NCM 0x0D
#define NCM_INTERFACE_CLASS_DATA 0x0A
#define NCM_CS_INTERFACE_ALTERNATE 0x22  // older devices type their NCM descriptor so
#define NCM_DESC_BMNETWORKCAPABILITIES 5
#define NCM_CAP_CRC_MODE 0x10            // the function accepts SetCrcMode
#define NCM_MIN_MAX_SEGMENT_SIZE 64

// NCM class requests (to the communication interface).
#define NCM_GET_NTB_PARAMETERS 0x80
#define NCM_SET_NTB_FORMAT 0x84
#define NCM_SET_NTB_INPUT_SIZE 0x86
#define NCM_SET_CRC_MODE 0x8A

// Time-out of the configuration selection, ms.
#define NCM_SELECT_CONFIGURATION_TIMEOUT_MS 5000
// Receive errors: a burst of this many errors, each within the window of the
// one before, shrinks the receive transfers to the reduced size.
#define NCM_RX_ERROR_BURST 3
#define NCM_RX_ERROR_WINDOW_MS 60000
#define NCM_RX_REDUCED_READ_SIZE 8192

class DeviceContNcm : public DeviceContBase {
public:
    // Contract: PASSIVE_LEVEL. Not usable before Init.
    DeviceContNcm();
    // Contract: PASSIVE_LEVEL; Stop (if started) and Exit have run. Waits
    // for the receive-error work and for queued timer DPCs.
    ~DeviceContNcm() override;
    DeviceContNcm(const DeviceContNcm&) = delete;
    DeviceContNcm& operator=(const DeviceContNcm&) = delete;

    // ---- configuration (DeviceCont) ----

    // Contract: PASSIVE_LEVEL; no lock held; once per object. Finds the NCM
    // function, selects the configuration, reads and repairs the NTB
    // parameters and derives the buffer sizes. A failure after the
    // selection gives the configuration up again.
    NTSTATUS Init(PDEVICE_OBJECT functionalDeviceObject, PDEVICE_OBJECT physicalDeviceObject,
                  PDEVICE_OBJECT lowerDeviceObject, DeviceNotify* deviceNotify, AdapterConfig* parameters,
                  NdSpinlock* adapterLock) override;
    // Contract: PASSIVE_LEVEL; no lock held; after a successful Init, stopped.
    // Sets the data interface up (NTB input size, format, CRC mode),
    // configures and starts the streams and the bandwidth measurement.
    NTSTATUS Start() override;
    // Contract: PASSIVE_LEVEL; no lock held; not from a stream callback.
    // Stops the timers, waits until no transmit pass runs, gives every held
    // buffer back and stops the streams.
    void Stop() override;

    // ---- receive (DeviceCont, StreamInClient) ----

    // Contract: IRQL <= DISPATCH_LEVEL; *mLock held. The adapter is done
    // with the datagram handed to it; the next one is handed over at once.
    void ReturnRxBuffer(UsbBuf* datagram) override;
    // Contract: IRQL <= DISPATCH_LEVEL; no stream lock held (the adapter may
    // hold *mLock). Puts the idle receive buffers back on the bulk IN pipe.
    void SubmitRxBuffers() override;
    // Contract: IRQL <= DISPATCH_LEVEL (the receive stream's completion);
    // *mLock and the stream's lock not held. Takes the buffer in.
    void BufferReceived(UsbBuf* buffer) override;
    // Contract: IRQL <= DISPATCH_LEVEL; the receive stream's lock held,
    // *mLock not held and not waited for. Counts the error and restarts the
    // stream, or shrinks the receive size after a burst of errors.
    void IndicateError(NTSTATUS status, bool removed) override;

    // ---- send (DeviceCont, StreamOutClient) ----

    // Contract: any IRQL <= DISPATCH_LEVEL; no lock needed. True when no OUT
    // buffer is in flight and the NTB under construction (if any) is empty.
    bool IsTxPathIdle() override;
    // Contract: IRQL <= DISPATCH_LEVEL; no stream lock held, *mLock not
    // held. A write has completed (or the stream has started): next pass.
    void BufferSent(NTSTATUS status, bool removed) override;

protected:
    // ---- send (DeviceContBase) ----

    // Contract: IRQL <= DISPATCH_LEVEL; *mLock not held.
    void DoProcessTxPackets() override;

private:
    friend class DeviceContNcmPeer;  // tests, fuzzers and benchmarks look inside

    // The walk over the datagram entries of one NTB. For the current NDP:
    // the NDP, the entry to hand over next and the place of its terminator
    // entry; exhausted once the last entry of the last NDP has been taken.
    struct NdpEnumerator {
        PUCHAR mNdp;      // current NDP
        PUCHAR mEntry;    // current entry
        PUCHAR mEnd;      // terminator entry of the current NDP
        bool mExhausted;  // every datagram of the NTB has been handed over
    };

    // ---- receive ----

    // Contract: IRQL <= DISPATCH_LEVEL; *mLock held. Hands the next datagram
    // to the adapter unless it still holds one.
    void ProcessRxBuffers();
    // Contract: IRQL <= DISPATCH_LEVEL; *mLock held; buffer received (view
    // set). Validates the transfer header and the first NDP.
    bool InitNdp16EnumeratorFromBuffer(UsbBuf* buffer, NdpEnumerator* enumerator);
    bool InitNdp32EnumeratorFromBuffer(UsbBuf* buffer, NdpEnumerator* enumerator);
    // Contract: IRQL <= DISPATCH_LEVEL; *mLock held. Checks one NDP against
    // the received length of buffer, tracing the first failed check.
    bool IsNdp16Valid(PUCHAR ndp, UsbBuf* buffer);
    bool IsNdp32Valid(PUCHAR ndp, UsbBuf* buffer);
    // Contract: IRQL <= DISPATCH_LEVEL; *mLock held; ndp checked.
    void InitNdp16Enumerator(PUCHAR ndp, NdpEnumerator* enumerator);
    void InitNdp32Enumerator(PUCHAR ndp, NdpEnumerator* enumerator);
    // Contract: IRQL <= DISPATCH_LEVEL; *mLock held. Moves on to the next
    // entry, following the NDP chain; NULL when there is none.
    PUCHAR GetNextNdp16Entry(UsbBuf* buffer, NdpEnumerator* enumerator);
    PUCHAR GetNextNdp32Entry(UsbBuf* buffer, NdpEnumerator* enumerator);
    // Contract: IRQL <= DISPATCH_LEVEL; *mLock held; stream locks not held.
    // Gives a received buffer back to its pool and reads again.
    void RecycleRxBuffer(UsbBuf* buffer);

    // ---- send ----

    // Contract: IRQL <= DISPATCH_LEVEL; *mLock not held. The builder: makes
    // passes until no caller asks for another.
    void ProcessTxBuffers(bool timerExpired);
    // Contract: IRQL <= DISPATCH_LEVEL; holder of mTxBusy. An NTB under
    // construction, new or continued; false when no OUT buffer is idle.
    bool PrepareTxBuffer();
    // Contract: IRQL <= DISPATCH_LEVEL; holder of mTxBusy; *mLock not held.
    // Copies packets into the NTB; true when it is to be sent now.
    bool FillTxBuffer();
    // Contract: IRQL <= DISPATCH_LEVEL; holder of mTxBusy; at least one
    // datagram. Writes header and NDP and sets the length to send.
    void FinishTxBuffer();
    // Contract: PASSIVE_LEVEL; *mLock not held. Waits until no builder pass
    // runs and keeps further passes out until ReleaseTxPath.
    void AcquireTxPath();
    // Contract: IRQL <= DISPATCH_LEVEL; *mLock not held; AcquireTxPath done.
    void ReleaseTxPath();
    // Contract: any IRQL. Snapshots that IsTxPathIdle may read while the
    // builder changes them.
    UsbBuf* CurrentTxBuffer() const { return __atomic_load_n(&mCurrentTxBuffer, __ATOMIC_RELAXED); }
    USHORT TxDatagramCount() const { return __atomic_load_n(&mTxDatagramCount, __ATOMIC_RELAXED); }
    void SetCurrentTxBuffer(UsbBuf* buffer) { __atomic_store_n(&mCurrentTxBuffer, buffer, __ATOMIC_RELAXED); }
    void SetTxDatagramCount(USHORT count) { __atomic_store_n(&mTxDatagramCount, count, __ATOMIC_RELAXED); }
    // Contract: any IRQL. Timer mode of the adaptive timing.
    bool IsSendTimerBased() const { return __atomic_load_n(&mSendTimerBased, __ATOMIC_RELAXED); }
    void SetSendTimerBased(bool on) { __atomic_store_n(&mSendTimerBased, on, __ATOMIC_RELAXED); }

    // ---- configuration ----

    // Contract: PASSIVE_LEVEL; no lock held; the configuration is selected.
    // Init from the data interface on: reads and repairs the NTB
    // parameters, chooses the form and the buffer sizes.
    NTSTATUS InitNtbParameters();
    // Contract: PASSIVE_LEVEL; no lock held (take mRequestMutex).
    NTSTATUS GetNtbParameters();
    NTSTATUS SetNtbInputSize(ULONG size);
    NTSTATUS SetNtbFormat(bool ntb32);
    NTSTATUS SetCrcMode(bool withCrc);
    // Contract: PASSIVE_LEVEL; no lock held. PrepareSelectInterface and
    // SelectInterface of the data interface, with the Start traces.
    NTSTATUS SelectDataInterface(UCHAR alternateSetting);
    // Contract: PASSIVE_LEVEL; no lock held. Configures the three streams.
    NTSTATUS ConfigureStreams();

    // ---- timers and deferred work (context: this object) ----

    // Contract: DISPATCH_LEVEL (DPC of mTxTimer).
    static void NcmTxTimer(PKDPC dpc, PVOID context, PVOID systemArgument1, PVOID systemArgument2);
    // Contract: DISPATCH_LEVEL (DPC of mRxBandwidthTimer).
    static void RxBandwithTimer(PKDPC dpc, PVOID context, PVOID systemArgument1, PVOID systemArgument2);
    // Contract: PASSIVE_LEVEL (mRxErrorWorkItem, delayed work queue).
    static void RxErrorWorkItem(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument);
    // Contract: DISPATCH_LEVEL; *mLock not held.
    void OnRxBandwidthTick();
    // Contract: PASSIVE_LEVEL; no lock held.
    void OnRxErrorWorkItem();

    // Contract: any IRQL. System time in milliseconds.
    static ULONGLONG SystemTimeMs();

    // ---- configuration (set by Init, read-only afterwards) ----
    PUCHAR mNcmDescriptor;         // NCM Functional Descriptor inside mDescriptors
    NtbParameters mNtbParameters;  // from the device; output fields repaired
    bool mUse32BitHeaders;         // NTB32 in both directions, else NTB16
    ULONG mInputBufferSize;        // bulk IN buffer size and announced NTB input size
    ULONG mOutputBufferSize;       // bulk OUT buffer size
    ULONG mMaxTxDatagrams;         // datagrams per transmitted NTB

    // ---- receive (guarded by *mLock) ----
    QbDlListOf<UsbBuf> mRxBufferList;  // received, waiting to be parsed (through mQueueEntry)
    UsbBuf* mCurrentRxBuffer;          // the NTB being walked, or NULL
    NdpEnumerator mNdpEnumerator;      // the walk of mCurrentRxBuffer
    bool mDatagramPending;             // mRxDatagram is with the adapter
    UsbBuf mRxDatagram;                // view of the datagram handed over; no memory of its own
    ULONG mRxByteCount;                // payload bytes handed over since the last bandwidth tick

    // ---- send: the NTB under construction (owned by the holder of mTxBusy) ----
    // mCurrentTxBuffer and mTxDatagramCount are also read by IsTxPathIdle
    // from any thread: relaxed atomic accesses, a snapshot that publishes
    // nothing (the accessors above).
    UsbBuf* mCurrentTxBuffer;  // OUT buffer holding the NTB, or NULL
    ULONG mTxOffset;           // running end: first free byte after the last datagram
    USHORT mTxDatagramCount;   // datagrams in the NTB
    USHORT mTxSequence;        // wSequence of the next NTB finished
    PUCHAR mTxNdpEntry;        // next free entry in mTxNdp
    // The NDP of the NTB, assembled aside and copied behind the datagrams.
    alignas(8) UCHAR mTxNdp[NTB_TX_NDP_SCRATCH_LENGTH];

    // ---- send: builder flags (guarded by *mLock) ----
    bool mTxBusy;         // a builder pass runs (or Stop holds the NTB)
    bool mTxRerun;        // another pass was asked for while busy
    bool mTxRerunTimer;   // ... and one of those requests was a timer expiry
    bool mTxStopWaiting;  // Stop waits on mTxIdleEvent for the pass to end
    KEVENT mTxIdleEvent;  // signalled when a pass ends while Stop waits
    KnTimerDpc mTxTimer;  // NcmTxTimer: flushes a gathering NTB

    // ---- adaptive timing ----
    ULONG mRxBandwidth;    // last measured receive bandwidth, Mbit/s (the tick only)
    // Written by the tick, read by the builder: relaxed atomic accesses, a
    // lone flag that publishes nothing (the accessors above).
    bool mSendTimerBased;
    KnTimerDpc mRxBandwidthTimer;  // RxBandwithTimer, every RxMeasurementPeriod ms

    // ---- receive errors (IndicateError only, under the receive stream's lock) ----
    KnWorkItemEx mRxErrorWorkItem;  // RxErrorWorkItem
    ULONG mRxErrorCount;            // errors in the current burst
    ULONGLONG mLastRxErrorTime;     // system time of the last error, ms
};
