// Pool tags of every allocation of the driver, one per kind of object, so
// that allocations can be told apart in a memory dump.
#pragma once

#include "knmemory.h"

// The driver-wide object created by DriverEntry (new, non-paged).
constexpr ULONG KN_POOL_TAG_DRIVER = KN_TAG("MpDr");
// Copy of the driver's registry path in DriverEntry (KnBufferBlock, paged).
constexpr ULONG KN_POOL_TAG_REGISTRY_PATH = KN_TAG("regb");
// One MpAdapter per adapter (new, non-paged).
constexpr ULONG KN_POOL_TAG_ADAPTER = KN_TAG("MpAd");
// The DeviceContNcm object and the adapter's multicast list (new / new[]).
constexpr ULONG KN_POOL_TAG_NCM = KN_TAG("NCMC");
// The transfer buffer objects of a stream's pool (new, non-paged).
constexpr ULONG KN_POOL_TAG_USB_BUFFER = KN_TAG("UBUF");
// The temporary multicast list of SendPacketFilter (new[], non-paged).
constexpr ULONG KN_POOL_TAG_MULTICAST_LIST = KN_TAG("MFiL");
// The trace log buffer's control object (new, non-paged).
constexpr ULONG KN_POOL_TAG_TRACE_LOG = KN_TAG("KnTl");
// The library's default tag; the descriptor buffer of
// GetStringDescriptorString (KnBufferBlock, non-paged).
constexpr ULONG KN_POOL_TAG_DEFAULT = KN_TAG("KnKn");
// Configuration descriptor blocks, interface lists, select-interface URBs
// and InterfaceInfo records (KnAllocateMemory, non-paged).
constexpr ULONG KN_POOL_TAG_USB_CONFIG = KN_TAG("UsbC");
// The URB of each transfer buffer (KnAllocateMemory, non-paged).
constexpr ULONG KN_POOL_TAG_URB = KN_TAG("UrbB");
// The memory of each KnMdlMappedBuffer (KnAllocateMemory, non-paged).
constexpr ULONG KN_POOL_TAG_MDL_BUFFER = KN_TAG("MMBf");

static_assert(KN_POOL_TAG_ADAPTER == 0x6441704D, "pool tags are little-endian four-character literals");
