// Selection of a USB configuration and of the alternate settings of its
// interfaces through the USB bus driver, with a private copy of the
// interface information of every selected interface (pipe handles, endpoint
// addresses, transfer limits) and lookups of interfaces and pipes.
//
// Selection and unconfiguration run at PASSIVE_LEVEL on one thread at a
// time; the lookups may run at DISPATCH_LEVEL but not concurrently with a
// selection. No lock: the owner serializes.
#pragma once

#include <ntddk.h>
#include <usbdi.h>
#include <usbdlib.h>

#include "QbDlList.h"
#include "knusbconfigdescriptor.h"

class KnPnPLowerDeviceUsb;

// The current interface information of one selected interface. One
// allocation holds the record and, right behind it, the copy of the
// USBD_INTERFACE_INFORMATION (mInterfaceInformation points to it).
class InterfaceInfo {
public:
    // Contract: IRQL <= DISPATCH_LEVEL. A zero-filled record with room for
    // a copy of informationLength bytes, unlinked; NULL when out of memory.
    static InterfaceInfo* Create(ULONG informationLength, ULONG* allocationSize);
    // Contract: IRQL <= DISPATCH_LEVEL; the record is in no list.
    static void Destroy(InterfaceInfo* info);

    // ---- list ----
    QbDlListEntry mListEntry;  // in KnUsbConfiguration::mInterfaceInfoList
    // ---- interface ----
    PUSB_INTERFACE_DESCRIPTOR mInterfaceDescriptor;     // inside the configuration's descriptor block
    PUSBD_INTERFACE_INFORMATION mInterfaceInformation;  // the copy behind this record

private:
    InterfaceInfo() : mInterfaceDescriptor(NULL), mInterfaceInformation(NULL) {}
};

class KnUsbConfiguration {
public:
    // Contract: any IRQL. Empty, not configured.
    KnUsbConfiguration();
    // Contract: PASSIVE_LEVEL. Must not be configured (Unconfigure first).
    ~KnUsbConfiguration();
    KnUsbConfiguration(const KnUsbConfiguration&) = delete;
    KnUsbConfiguration& operator=(const KnUsbConfiguration&) = delete;

    // Contract for the selection operations: PASSIVE_LEVEL; no lock held;
    // the owner serializes all calls on this object. Time-outs in ms.

    // PrepareSelectConfiguration, then SelectConfiguration.
    NTSTATUS PrepareAndSelectConfiguration(KnPnPLowerDeviceUsb* device, UCHAR configIndex, ULONG timeoutMs,
                                           ULONG defaultMaxTransferSize);
    // Loads configuration descriptor configIndex and builds the
    // select-configuration request for alternate setting 0 of every
    // interface. Every failure releases the whole preparation.
    NTSTATUS PrepareSelectConfiguration(KnPnPLowerDeviceUsb* device, UCHAR configIndex, ULONG timeoutMs,
                                        ULONG defaultMaxTransferSize);
    // Sends the prepared select-configuration request; on success the
    // records carry the pipe handles. A failed request stays prepared.
    NTSTATUS SelectConfiguration(KnPnPLowerDeviceUsb* device, ULONG timeoutMs);
    // Builds the select-interface request for one interface (configured
    // state only) and replaces the interface's record.
    NTSTATUS PrepareSelectInterface(KnPnPLowerDeviceUsb* device, UCHAR interfaceNumber, UCHAR alternateSetting,
                                    ULONG defaultMaxTransferSize);
    // Sends the prepared select-interface request. A failed request stays
    // prepared.
    NTSTATUS SelectInterface(KnPnPLowerDeviceUsb* device, ULONG timeoutMs);
    // Drops the records and the configured state; with sendRequest the
    // device is unconfigured first. The descriptor stays loaded.
    NTSTATUS Unconfigure(KnPnPLowerDeviceUsb* device, bool sendRequest, ULONG timeoutMs);

    // Contract: any IRQL.
    bool IsConfigured() const { return mIsConfigured; }
    USBD_CONFIGURATION_HANDLE GetConfigurationHandle() const { return mConfigurationHandle; }
    UCHAR GetConfigurationValue() const { return mConfigurationValue; }
    // Contract: any IRQL; not concurrently with a preparation.
    const KnUsbConfigDescriptor* GetConfigDescriptor() const { return &mConfigDescriptor; }

    // Contract for the lookups: IRQL <= DISPATCH_LEVEL; no selection at the
    // same time. A negative criterion matches anything. The results point
    // into the records and are valid until the next selection or
    // Unconfigure.

    // The first record's interface information that matches.
    PUSBD_INTERFACE_INFORMATION LookupInterfaceInfo(LONG interfaceNumber, LONG alternateSetting, LONG interfaceClass,
                                                    LONG interfaceSubClass, LONG interfaceProtocol) const;
    // The first pipe, in record and pipe order, of pipeType whose endpoint
    // direction is IN exactly when `in`, within matching interfaces.
    PUSBD_PIPE_INFORMATION LookupPipeInfoByTypeAndDirection(ULONG pipeType, bool in, LONG interfaceNumber,
                                                            LONG alternateSetting) const;
    // The first pipe with this endpoint address.
    PUSBD_PIPE_INFORMATION LookupPipeInfoByAddress(UCHAR endpointAddress) const;

    // Contract: PASSIVE_LEVEL; the owner serializes. Appends a record with a
    // copy of ifInfo whose pipes are filled from the endpoint descriptors
    // behind ifDesc (MaximumTransferSize = defaultMaxTransferSize).
    bool AddInterfaceInfo(PUSBD_INTERFACE_INFORMATION ifInfo, PUSB_INTERFACE_DESCRIPTOR ifDesc,
                          ULONG defaultMaxTransferSize);
    // Contract: PASSIVE_LEVEL. Unlinks and frees the first record of the
    // interface; false when there is none.
    bool RemoveInterfaceInfo(UCHAR interfaceNumber);
    // Contract: PASSIVE_LEVEL. Unlinks and frees every record.
    void FreeInterfaceInfos();

private:
    // Contract: PASSIVE_LEVEL; not configured. Drops everything prepared,
    // including the descriptor block.
    void Release();
    // Contract: PASSIVE_LEVEL. The record of the interface, NULL if none.
    InterfaceInfo* FindInterfaceInfo(UCHAR interfaceNumber) const;
    // Contract: any IRQL. Prints the interface information (no prefix, no
    // mask test: the caller tests trace mask bit 0x8).
    static void DumpInterfaceInformation(const USBD_INTERFACE_INFORMATION* info);
    static void FreeSelectInterfaceUrb(PURB* urb);

    // ---- descriptor ----
    KnUsbConfigDescriptor mConfigDescriptor;  // the selected configuration's block

    // ---- preparation (between PrepareSelectConfiguration and SelectConfiguration) ----
    PUSBD_INTERFACE_LIST_ENTRY mUsbdInterfaceList;       // N entries and an empty terminating one
    PUSBD_INTERFACE_LIST_ENTRY mUsbdInterfaceListLimit;  // the terminating entry
    PURB mSelectConfigurationUrb;                        // from USBD_CreateConfigurationRequestEx
    PURB mSelectInterfaceUrb;                            // from PrepareSelectInterface

    // ---- selected interfaces ----
    // Records in selection order. No lock: the owner serializes selections,
    // and lookups run only while no selection does.
    QbDlListOf<InterfaceInfo> mInterfaceInfoList;

    // ---- configuration ----
    bool mIsConfigured;
    USBD_CONFIGURATION_HANDLE mConfigurationHandle;
    UCHAR mConfigurationValue;
};
