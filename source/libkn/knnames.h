// Names of numeric codes for traces: NTSTATUS, NDIS status, OID, medium, PnP
// event, power profile and USB status values, and the packet filter dump.
//
// Each lookup returns a constant zero-terminated text, never NULL: the
// published symbolic name, or the lookup's fallback for codes it does not
// know. Pure functions: no state, no allocation, callable at any IRQL.
#pragma once

#include <ntddk.h>

// NTSTATUS name, "unknown" if none (used by the %N directive).
const char* KnNtStatusName(NTSTATUS status);
// NDIS_STATUS name, "NDIS_STATUS_unknown" if none.
const char* NdStatusName(ULONG status);
// NDIS OID name, "OID_unknown" if none.
const char* NdOidName(ULONG oid);
// NDIS_MEDIUM name ("NdisMedium802_3", ...), "unknown" if none.
const char* NdMediumName(ULONG medium);
// NDIS_DEVICE_PNP_EVENT name ("NdisDevicePnPEventQueryRemoved", ...),
// "unknown" if none.
const char* NdPnPEventName(ULONG pnpEvent);
// NDIS_POWER_PROFILE name ("NdisPowerProfileBattery", ...), "unknown" if none.
const char* NdPowerProfileName(ULONG powerProfile);
// USBD_STATUS name, "unknown" if none.
const char* KnUsbdStatusName(ULONG usbdStatus);

// Prints "  PacketFilter 0x%D\n" and then "    NDIS_PACKET_TYPE_...\n" for
// each known bit that is set, through the print entry. Tests no mask bit
// (callers do).
void NdDumpPacketFilter(ULONG filter);
