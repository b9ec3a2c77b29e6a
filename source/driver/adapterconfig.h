// The adapter's configuration record: read once from the adapter's registry
// key at initialization, then read by the adapter and the device control.
// The field names are the registry parameter names.
#pragma once

#include <ntddk.h>

struct AdapterConfig {
    UCHAR CurrentAddress[6] = {0xAE, 0xDE, 0x48, 0x02, 0x01, 0x00};
    ULONG RxBuffers = 4;                    // 2..128 receive transfer buffers
    ULONG TxBuffers = 4;                    // 2..128 transmit transfer buffers
    ULONG OneByteTermination = 0;           // 0 or 1
    ULONG ConfigurationIndex = 0;           // low byte: configuration descriptor index
    ULONG SendClearEpHaltOnStart = 0;       // reset the pipes when the streams start
    ULONG StatisticsUpdateInterval = 5000;  // ms, at least 100
    ULONG TxTimeout = 5000;                 // ms, 0 = no transmit watchdog
    ULONG VlanEnabled = 0;
    ULONG VlanID = 0;                       // 0..4094
    ULONG WakeOnMagicPacket = 1;
    ULONG PnPCapabilities = 0;
    ULONG DefaultLinkSpeed = 1000000;       // 100 bit/s units
    bool AddressFromRegistry = false;       // CurrentAddress came from the registry
    ULONG NcmTxPeriod = 0;                  // ms, 0 = no transmit timer
    ULONG TputThreshold = 40;               // Mbit/s
    ULONG TputHysteresis = 2;               // Mbit/s
    ULONG RxMeasurementPeriod = 0;          // ms, 0 = no receive bandwidth measurement
};
