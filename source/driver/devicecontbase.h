// The part of the device control that every CDC Ethernet function shares:
// the USB device access objects, the three USB streams, the deferred work
// (asynchronous start and stop, packet filter, statistics poll), the MAC
// address read from the device, the Ethernet class requests, and the
// decoding of the notifications of the interrupt IN endpoint into adapter
// calls. The NCM form (DeviceContNcm) derives from it and supplies Init,
// Start, Stop, the receive and transmit paths (DoProcessTxPackets).
//
// Locks:
//  - mLock (the adapter's spin lock) is never taken here; the NCM data path
//    takes it.
//  - mRequestMutex serialises every class request on the control pipe.
//  - mStateLock makes "started" and the queueing of deferred work one step:
//    the paths that queue class requests decide under it, and Stop clears
//    mStarted under it (nested inside mLock in the NCM Stop).
//  - mStarted, mCdcPacketFilter, mStatistics, mStatisticsSupported and
//    mStatisticsRequested are shared between the adapter's OID paths and
//    the worker threads without a lock; they are read and written only with
//    single atomic accesses (see the helpers below), so a value read while
//    it is written is either the old or the new one.
#pragma once

#include <ntddk.h>
#include <usbdi.h>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "NdSpinlock.h"
#include "adapterconfig.h"
#include "deviceinterfaces.h"
#include "knmemory.h"
#include "kntimedworkitemex.h"
#include "knusbconfigdescriptor.h"
#include "knusbconfiguration.h"
#include "knusbpnplowerdevice.h"
#include "knworkitemex.h"
#include "streamin.h"
#include "streamout.h"

class DeviceContBase;

// Class-specific interface descriptor type and the subtypes of the CDC
// functional descriptors that the device control looks for.
#define CDC_CS_INTERFACE 0x24
#define CDC_ETHERNET_NETWORKING_FUNC_DESC 0x0F
#define CDC_NCM_FUNC_DESC 0x1A

// Offsets and size of the Ethernet Networking Functional Descriptor fields.
#define CDC_ETH_DESC_IMACADDRESS 3
#define CDC_ETH_DESC_BMETHERNETSTATISTICS 4
#define CDC_ETH_DESC_WMAXSEGMENTSIZE 8
#define CDC_ETH_DESC_WNUMBERMCFILTERS 10
#define CDC_ETH_DESC_LENGTH 13

// CDC Ethernet class requests (to the communication interface).
#define CDC_SET_ETHERNET_MULTICAST_FILTERS 0x40
#define CDC_SET_ETHERNET_PACKET_FILTER 0x43
#define CDC_GET_ETHERNET_STATISTIC 0x44
#define CDC_SET_NET_ADDRESS 0x82

// CDC notification codes of the interrupt IN endpoint.
#define CDC_NOTIFICATION_NETWORK_CONNECTION 0x00
#define CDC_NOTIFICATION_RESPONSE_AVAILABLE 0x01
#define CDC_NOTIFICATION_CONNECTION_SPEED_CHANGE 0x2A

// CDC packet filter bits (SET_ETHERNET_PACKET_FILTER wValue).
#define CDC_PACKET_TYPE_PROMISCUOUS 0x01
#define CDC_PACKET_TYPE_ALL_MULTICAST 0x02
#define CDC_PACKET_TYPE_DIRECTED 0x04
#define CDC_PACKET_TYPE_BROADCAST 0x08
#define CDC_PACKET_TYPE_MULTICAST 0x10

// Time-out of every class request and interface selection, ms.
#define DEVICECONT_REQUEST_TIMEOUT_MS 500
// Default maximum transfer size of an interface selection.
#define DEVICECONT_DEFAULT_MAX_TRANSFER_SIZE 4096
// Number of statistic selectors (1 to 32) and of cache entries.
#define DEVICECONT_STATISTICS_COUNT 32
// Largest multicast list whose wLength (6 bytes an address) fits 16 bits.
#define DEVICECONT_MAX_MULTICAST_FILTERS 10922
// Language IDs read for the MAC address string, and the text buffer size in
// UTF-16 units (25 characters and the terminator).
#define DEVICECONT_MAX_LANGUAGE_IDS 10
#define DEVICECONT_MAC_STRING_CHARS 26

// The client of the interrupt IN stream: hands every completed notification
// read to its owner and restarts the stream after a failed one. No state
// but the owner.
class NotificationBase : public StreamInClient {
public:
    // Contract: any IRQL. mParent none until the owner sets it.
    NotificationBase();

    // Contract: IRQL <= DISPATCH_LEVEL (the stream's completion); the
    // stream's lock is not held. The owner decodes the buffer and returns it.
    void BufferReceived(UsbBuf* buffer) override;
    // Contract: IRQL <= DISPATCH_LEVEL; the stream's mLock is held, so this
    // only traces and schedules the stream's restart.
    void IndicateError(NTSTATUS status, bool removed) override;

    // ---- owner ----
    DeviceContBase* mParent;  // set by the DeviceContBase constructor
};

class DeviceContBase : public DeviceCont, public StreamOutClient, public StreamInClient, public KnObject {
public:
    // Contract: PASSIVE_LEVEL. Constructs the members in declaration order;
    // the object is not usable before Init.
    DeviceContBase();
    // Contract: PASSIVE_LEVEL; Exit has run (or Init never selected a
    // configuration). No stream runs, no work item is queued.
    ~DeviceContBase() override;
    DeviceContBase(const DeviceContBase&) = delete;
    DeviceContBase& operator=(const DeviceContBase&) = delete;

    // ---- life (DeviceCont) ----

    // Contract: PASSIVE_LEVEL; the streams are stopped. Cancels and waits
    // for every work item of its own, puts the data interface back to
    // alternate setting 0 and gives up the configuration. STATUS_SUCCESS
    // when none was selected.
    NTSTATUS Exit() override;
    // Contract: IRQL <= DISPATCH_LEVEL; no lock needed. Schedules Start (then
    // StartCompleted) / Stop (then StopCompleted) on mStartStopWorkItem; a
    // later request replaces one not yet run. False when the work item could
    // not be allocated: no completion call comes then.
    bool StartAsync() override;
    bool StopAsync() override;

    // ---- configuration (DeviceCont) ----

    // Contract: any IRQL; valid after a successful Init. Copies the device's
    // MAC address when it had a valid one; returns whether it did.
    bool GetMacAddress(UCHAR* macAddress) override;
    // Contract: any IRQL. wMaxSegmentSize; 1514 without a descriptor.
    ULONG GetMaxSegmentSize() override;
    // Contract: any IRQL. wNumberMCFilters without the imperfect-filtering
    // bit; 0 without a descriptor.
    ULONG GetNumberMCFilters() override;
    // Contract: IRQL <= DISPATCH_LEVEL; mStateLock not held (the adapter may
    // hold mLock); takes mStateLock. Stores the CDC form of the NDIS
    // filter; while started, schedules SendPacketFilter and
    // returns whether it was scheduled; false while stopped.
    bool SetPacketFilter(ULONG ndisPacketFilter) override;

    // ---- statistics (DeviceCont) ----

    // Contract: IRQL <= DISPATCH_LEVEL; no lock needed. The cached value of
    // a supported selector (1 to 32), which is read again at the next poll.
    bool GetEthernetStatistic(UCHAR selector, ULONG* value) override;

    // ---- send (DeviceCont) ----

    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held. DoProcessTxPackets.
    void ProcessTxPackets() override;

    // ---- notifications ----

    // Contract: IRQL <= DISPATCH_LEVEL, the notification stream's
    // completion; no lock held. Decodes one transfer into adapter calls,
    // then returns the buffer to its pool and reads the endpoint again.
    void OnProcessNotification(UsbBuf* buffer);

protected:
    // The notification handler restarts mNotificationStream.
    friend class NotificationBase;

    // ---- send ----

    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held. Implemented by the
    // function's transmit builder.
    virtual void DoProcessTxPackets() = 0;

    // ---- streams ----

    // Contract: PASSIVE_LEVEL; the streams are configured and stopped.
    // Starts mOutStream, mInStream, mNotificationStream (stopping those
    // started when one fails), sets mStarted and starts the statistics poll.
    NTSTATUS StartBase();
    // Contract: PASSIVE_LEVEL; not on mPacketFilterWorkItem or
    // mStatisticsWorkItem. Clears mStarted, stops the three streams and
    // waits for the packet filter and statistics work.
    void StopBase();

    // ---- configuration ----

    // Contract: any IRQL; mDescriptors loaded and not changed meanwhile. The
    // first descriptor of descriptorType at or behind start whose subtype
    // (byte 2) is subtype; NULL when none, or when a descriptor of that type
    // is shorter than 3 bytes.
    PUCHAR FindFunctionalDescriptor(PVOID start, UCHAR descriptorType, UCHAR subtype);
    // Contract: PASSIVE_LEVEL; mRequestMutex not held; mEthernetDescriptor
    // present; a freshly constructed object. Reads and converts the MAC
    // address string into mMacAddress / mMacAddressValid.
    void ReadMacAddress();
    // Contract: PASSIVE_LEVEL; no spin lock held (takes mRequestMutex).
    // Sends SET_NET_ADDRESS with the 6 bytes of address.
    NTSTATUS SetNetAddress(const UCHAR* address);
    // Contract: PASSIVE_LEVEL (work routine); mRequestMutex not held. Sends
    // the packet filter, then the multicast list.
    void SendPacketFilter();

    // ---- statistics ----

    // Contract: PASSIVE_LEVEL (work routine); mRequestMutex not held. Reads
    // the requested statistics and re-arms the poll while started.
    void ReadEthernetStatistics();

    // ---- shared flags (lock-free, see the top of the file) ----

    // Contract: any IRQL.
    bool IsStarted() const { return __atomic_load_n(&mStarted, __ATOMIC_ACQUIRE); }
    // Contract: any IRQL. Callers hold mStateLock.
    void SetStarted(bool started) { __atomic_store_n(&mStarted, started, __ATOMIC_RELEASE); }
    // Contract: IRQL <= DISPATCH_LEVEL; mStateLock not held (the NCM Stop
    // holds mLock). Clears mStarted: no deferred work is queued from here on.
    void ClearStarted();

    // Contract: any IRQL. A field of the Ethernet Networking Functional
    // Descriptor (little-endian, size 1, 2 or 4 bytes at offset); 0 without
    // a descriptor or when the descriptor ends before the field.
    ULONG GetEthernetDescriptorField(ULONG offset, ULONG size) const;

    // Contract: PASSIVE_LEVEL; mRequestMutex held. One class request to the
    // communication interface with the request time-out.
    NTSTATUS SendClassRequest(UCHAR request, USHORT value, bool in, PVOID buffer, ULONG length,
                              ULONG* bytesTransferred);

    // ---- work item routines (context: this object) ----
    static void StartAsyncRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument);
    static void StopAsyncRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument);
    static void SendPacketFilterRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument);
    static void ReadEthernetStatisticsRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument);

    // ---- locks ----
    NdSpinlock* mLock;      // the adapter's lock; guards the NCM data path (not taken here)
    KnMutex mRequestMutex;  // held around every class request
    KnSpinLock mStateLock;  // mStarted changes and deferred work queued while started

    // ---- USB device ----
    KnPnPLowerDeviceUsb mUsbDevice;  // device objects set by Init, cleared by the destructor
    KnUsbConfigDescriptor mDescriptors;  // loaded by Init

    // ---- MAC address ----
    UCHAR mMacAddress[6];    // as read from the device
    bool mMacAddressValid;   // mMacAddress holds a converted address

    // ---- streams ----
    bool mStarted;  // the streams run; atomic access only (IsStarted/SetStarted)

    // ---- configuration ----
    KnUsbConfiguration mConfiguration;  // selected by Init, given up by Exit
    UCHAR mControlInterface;            // wIndex of every class request
    UCHAR mDataInterface;               // the CDC data interface

    // ---- streams ----
    StreamIn mInStream;            // bulk IN; client: the StreamInClient base
    StreamOut mOutStream;          // bulk OUT; client: the StreamOutClient base
    StreamIn mNotificationStream;  // interrupt IN; client: mNotificationHandler

    // ---- adapter ----
    DeviceNotify* mDeviceNotify;             // set by Init
    PDEVICE_OBJECT mFunctionalDeviceObject;  // every work item is allocated for it

    // ---- notifications ----
    NotificationBase mNotificationHandler;  // mParent is this object

    // ---- configuration ----
    PUCHAR mEthernetDescriptor;  // inside mDescriptors; NULL when none

    // ---- deferred work ----
    KnWorkItemEx mStartStopWorkItem;     // StartAsync / StopAsync
    KnWorkItemEx mPacketFilterWorkItem;  // SendPacketFilter

    // ---- packet filter ----
    USHORT mCdcPacketFilter;  // CDC form of the adapter's filter; atomic access only

    // ---- configuration ----
    AdapterConfig* mParameters;  // the adapter's record, set by Init

    // ---- statistics ----
    // The three statistics fields: atomic access only.
    ULONG mStatistics[DEVICECONT_STATISTICS_COUNT];  // entry s - 1 for selector s
    ULONG mStatisticsSupported;                      // bmEthernetStatistics, set by StartBase
    ULONG mStatisticsRequested;                      // selectors of the next poll
    KnTimedWorkItemEx mStatisticsWorkItem;           // ReadEthernetStatistics
};
