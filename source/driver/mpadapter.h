// The adapter: one per USB device that NDIS binds to the miniport. It owns
// the device control (DeviceContNcm) and implements DeviceNotify for it;
// towards NDIS it keeps the transmit queue with its watchdog, the receive
// queue indicated from a zero-delay timer, the media state and the values the
// OID requests answer.
//
// Lock. mLock (an NdSpinlock) is the adapter lock, shared with the device
// control: it guards the transmit and receive queues, mTxEnabled,
// mRxEnabled, the multicast table and every value the OID requests read or
// write. It is never held across an NDIS indication or completion, nor across
// ProcessTxPackets or SubmitTxPackets of the device control.
#pragma once

#include <ndis.h>

#include "NdSpinlock.h"
#include "QbDlList.h"
#include "adapterconfig.h"
#include "deviceinterfaces.h"
#include "knmemory.h"
#include "knusbpnplowerdevice.h"

class DeviceContNcm;
class UsbBuf;

#define MPADAPTER_SIGNATURE "MpAd"
#define MPADAPTER_DEFAULT_ADDRESS {0xAE, 0xDE, 0x48, 0x02, 0x01, 0x00}
#define MPADAPTER_ETH_HEADER_SIZE 14
#define MPADAPTER_VLAN_TAG_SIZE 4
#define MPADAPTER_HANG_CHECK_SECONDS 2
#define MPADAPTER_STATUS_DELAY_MS 100
#define MPADAPTER_VENDOR_DESCRIPTION_SIZE 128

// Error log codes and the values that name the failed step.
#define MPADAPTER_ERRLOG_UNSUPPORTED_MEDIA 0xC0010019
#define MPADAPTER_ERRLOG_NO_ADAPTER 0xE0070301
#define MPADAPTER_ERRLOG_CONFIGURATION 0xE0070302
#define MPADAPTER_ERRLOG_INITIALIZE 0xE0070303
#define MPADAPTER_ERRLOG_TX_HANG 0xE0070304
#define MPADAPTER_ERRLOG_CREATED 0x60070100

// The driver-wide vendor description: "NDIS Adapter" until an adapter reads
// a VendorDescription; the last adapter initialized decides.
extern CHAR gMpVendorDescription[MPADAPTER_VENDOR_DESCRIPTION_SIZE];

class MpAdapter : public DeviceNotify, public KnObject {
public:
    // Contract: PASSIVE_LEVEL. Initializes the four NDIS timers.
    explicit MpAdapter(NDIS_HANDLE adapterHandle);
    // Contract: PASSIVE_LEVEL; halted, or never started.
    virtual ~MpAdapter();
    MpAdapter(const MpAdapter&) = delete;
    MpAdapter& operator=(const MpAdapter&) = delete;

    // Contract: any IRQL. A non-null pointer to an adapter with its signature.
    static bool IsValid(const MpAdapter* adapter);

    // ---- lifecycle ----
    // Contract: PASSIVE_LEVEL; mLock not held. Reads the configuration and
    // brings the device up; on failure the adapter is left for deletion.
    NDIS_STATUS Initialize(NDIS_HANDLE wrapperConfigurationContext);
    // Contract: PASSIVE_LEVEL; mLock not held. Stops everything; safe to run
    // twice (surprise removal, then halt).
    void Halt();
    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held. Completes the queued
    // packets and stops the device control asynchronously; the reset ends in
    // StartCompleted.
    void Reset();
    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held.
    BOOLEAN CheckForHang();

    // ---- transmit ----
    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held.
    void SendPackets(PPNDIS_PACKET packets, UINT count);
    // Contract: mLock held. Completes every queued packet with
    // NDIS_STATUS_ADAPTER_NOT_FOUND, releasing mLock around each completion.
    void CleanupTxQueue();

    // ---- receive ----
    // Contract: IRQL <= DISPATCH_LEVEL (the miniport's transfer-data handler).
    NDIS_STATUS TransferData(PNDIS_PACKET packet, PUINT bytesTransferred, NDIS_HANDLE receiveContext,
                             UINT byteOffset, UINT bytesToTransfer);

    // ---- DeviceNotify ----
    void NetworkStateChanged(bool connected) override;
    void ConnectionSpeedChanged(ULONG upstreamBitRate, ULONG downstreamBitRate) override;
    ULONG SubmitTxPackets(UCHAR* destination, ULONG maxLength) override;
    void ProcessReceivedData(UsbBuf* datagram) override;
    void StartCompleted(NTSTATUS status) override;
    void StopCompleted() override;
    ULONG GetMulticastList(ULONG maxCount, UCHAR* destination) override;

    // ---- OID requests (mprequest.cpp) ----
    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held (taken inside).
    NDIS_STATUS QueryInformation(NDIS_OID oid, PVOID buffer, ULONG length, PULONG bytesWritten,
                                 PULONG bytesNeeded);
    NDIS_STATUS SetInformation(NDIS_OID oid, PVOID buffer, ULONG length, PULONG bytesRead, PULONG bytesNeeded);

    // Contract: any IRQL.
    PDEVICE_OBJECT GetFunctionalDeviceObject() const { return mFunctionalDeviceObject; }
    const UCHAR* GetCurrentAddress() const { return mConfig.CurrentAddress; }
    const AdapterConfig& GetConfig() const { return mConfig; }
    static ULONG_PTR ListEntryOffset() { return QB_DLLIST_ENTRY_OFFSET(MpAdapter, mListEntry); }

    // Contract: IRQL <= DISPATCH_LEVEL. Copies count bytes of the packet from
    // packetOffset into flat memory; returns the bytes copied.
    static ULONG CopyPacketToBuffer(PUCHAR destination, ULONG destinationSize, PNDIS_PACKET packet,
                                    ULONG packetOffset, ULONG count);
    // Contract: IRQL <= DISPATCH_LEVEL. Copies count bytes from flat memory
    // into the packet's buffers from packetOffset; returns the bytes copied.
    static ULONG CopyBufferToPacket(PNDIS_PACKET packet, ULONG packetOffset, const UCHAR* source, ULONG count);
    // The buffer walk of both copies: count bytes between flat memory and
    // the packet from packetOffset, in the direction toPacket says.
    static ULONG CopyPacketBytes(PNDIS_PACKET packet, ULONG packetOffset, PUCHAR flat, ULONG count, bool toPacket);

private:
    // The handlers of the miniport frame number, list, find and flag adapters.
    friend NDIS_STATUS NTAPI MPInitialize(PNDIS_STATUS, PUINT, PNDIS_MEDIUM, UINT, NDIS_HANDLE, NDIS_HANDLE);
    friend void NTAPI MPHalt(NDIS_HANDLE);
    friend NDIS_STATUS NTAPI MPReset(PBOOLEAN, NDIS_HANDLE);
    friend NTSTATUS DispatchPnP(PDEVICE_OBJECT, PIRP);
    friend class MpDriver;

    // ---- configuration (mpconfig.cpp) ----
    NDIS_STATUS ReadConfiguration(NDIS_HANDLE wrapperConfigurationContext);
    static bool ReadDword(NDIS_HANDLE configuration, PCWSTR name, PULONG value);
    static bool ReadString(NDIS_HANDLE configuration, PCWSTR name, PUCHAR destination, PUSHORT length,
                           USHORT capacity);

    // ---- transmit ----
    PNDIS_PACKET DequeueTxPacket();       // mLock held; the queue not empty
    bool TxQueueLooksEmpty() const;       // without mLock; steers the watchdog only
    void SendComplete(PNDIS_PACKET packet, NDIS_STATUS status);
    void TxTimer();
    static void NTAPI TxTimerFunction(PVOID, PVOID context, PVOID, PVOID);

    // ---- receive ----
    void RxDpc();
    void ULReceiveIndication(UsbBuf* datagram);
    static void NTAPI RxTimerFunction(PVOID, PVOID context, PVOID, PVOID);

    // ---- media state ----
    ULONG SetMediaState(ULONG state);
    void IndicateMediaStatus();
    static void NTAPI StatusTimerFunction(PVOID, PVOID context, PVOID, PVOID);

    // ---- deferred completion (mprequest.cpp) ----
    // Contract: mLock held. The pending power set completes with status from
    // the start/stop completion timer.
    void CompleteSetLater(NDIS_STATUS status);
    static void NTAPI CompleteStartStop_Callback(PVOID, PVOID context, PVOID, PVOID);
    void CompleteStartStop();

    static void ArmTimer(PNDIS_MINIPORT_TIMER timer, UINT delayMs) { NdisSetTimer((PNDIS_TIMER)timer, delayMs); }
    static void CancelTimer(PNDIS_MINIPORT_TIMER timer)
    {
        BOOLEAN cancelled;
        NdisMCancelTimer(timer, &cancelled);
    }
    void WriteErrorLog(ULONG code, ULONG count, ULONG value1 = 0, ULONG value2 = 0);
    bool IsTxQueueEmpty() const { return mTxPacketQueue.Flink == &mTxPacketQueue; }
    static PLIST_ENTRY PacketLink(PNDIS_PACKET packet)
    {
        return reinterpret_cast<PLIST_ENTRY>(packet->MiniportReserved);
    }
    static PNDIS_PACKET PacketOfLink(PLIST_ENTRY link)
    {
        return reinterpret_cast<PNDIS_PACKET>(reinterpret_cast<PUCHAR>(link) - offsetof(NDIS_PACKET, MiniportReserved));
    }

    // ---- members, in their fixed order ----
    NDIS_HANDLE mConfigurationContext;      // WrapperConfigurationContext
    QbDlListEntry mListEntry;               // in the driver's adapter list; the driver's lock
    NdSpinlock mLock;                       // the adapter lock (see the top of this file)
    bool mInitialized;                      // set last by MPInitialize, cleared first by MPHalt
    ULONG mAdapterNumber;                   // the driver's lock
    PDEVICE_OBJECT mFunctionalDeviceObject;  // the FDO; found by the surprise-removal hook
    NDIS_HANDLE mAdapterHandle;              // MiniportAdapterHandle
    ULONG mHardwareStatus;                   // NDIS_HARDWARE_STATUS
    ULONG mMediaState;                       // 0 connected, 1 disconnected; written without the lock
    ULONG mTransmitBufferSpace;              // TxBuffers * MTU
    ULONG mReceiveBufferSpace;               // RxBuffers * MTU
    UCHAR mPermanentAddress[6];
    ULONG mLinkSpeed;                        // 100 bit/s units; written without the lock
    bool mSpeedKnown;                        // the device reported its bit rates since the last disconnect
    ULONG mMtu;                              // maximum frame size less 14
    ULONG mMaxFrameSize;
    ULONG mPacketFilter;                     // NDIS packet type bits; mLock
    PUCHAR mMulticastTable;                  // 6-byte entries, room for mMulticastFilterCount; mLock
    ULONG mMulticastFilterCount;
    ULONG mMulticastAddressCount;            // mLock
    ULONG mWakeUpMagicPacket;                // NDIS_DEVICE_POWER_STATE
    ULONG mWakeUpPatternMatch;
    ULONG mWakeUpLinkChange;
    ULONG mWakeUpFlags;                      // enabled wake-up flags; mLock
    AdapterConfig mConfig;                   // registry parameters and the current address

    // Transmit. Packets are linked through the first 16 bytes of their
    // MiniportReserved area; mTxPacketQueue and mTxEnabled under mLock.
    bool mTxEnabled;
    LIST_ENTRY mTxPacketQueue;
    ULONG mTxQueuedCount;  // packets in mTxPacketQueue; written under mLock, read without
    NDIS_MINIPORT_TIMER mTxWatchdogTimer;
    bool mTxHangDetected;

    // Receive. Datagram records of the device control, under mLock.
    bool mRxEnabled;
    QbDlListOf<UsbBuf> mRxBufferQueue;
    NDIS_MINIPORT_TIMER mRxTimer;

    // Statistics, counted under mLock (mTxFramesOk without it), read by the
    // OID queries.
    ULONG mTxFramesOk;
    ULONG mTxErrors;     // never counted
    ULONG mRxFramesOk;
    ULONG mRxFrameErrors;
    ULONG mRxNoBuffer;   // never counted

    KnPnPLowerDeviceUsb mLowerDevice;
    DeviceContNcm* mDeviceCont;
    NDIS_MINIPORT_TIMER mStartStopTimer;
    NDIS_MINIPORT_TIMER mStatusTimer;
    bool mStartStopPending;  // a power set is pending; mLock
    bool mResetPending;      // a reset is in progress
    CHAR mSignature[4];      // "MpAd"

    // What the start/stop completion timer completes, under mLock: a pended
    // power set (with its status), and a reset whose work could not be
    // scheduled (completed as failed).
    bool mSetCompletionDue;
    NDIS_STATUS mSetCompletionStatus;
    bool mResetFailed;
    // The pending reset's stop has completed, so the next StartCompleted is
    // its start's (a start of a power request that was already under way
    // when the reset came does not complete the reset); mLock.
    bool mResetStopped;
};
