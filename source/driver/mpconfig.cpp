// The adapter's parameters from its registry key: read once, at the start of
// the bring-up, into the AdapterConfig record that the device control reads
// too. Absent values keep their defaults; values read are held to their
// ranges (the limits apply to what was read, never to a default).
#include "knnames.h"
#include "kntrace.h"
#include "mpadapter.h"
#include "mpmain.h"

// The largest VendorDescription read, in bytes (128 characters).
#define MPCONFIG_VENDOR_DESCRIPTION_READ 256

// Contract: PASSIVE_LEVEL.
bool MpAdapter::ReadDword(NDIS_HANDLE configuration, PCWSTR name, PULONG value)
{
    NDIS_STATUS status;
    PNDIS_CONFIGURATION_PARAMETER param = NULL;
    NDIS_STRING keyword;
    RtlInitUnicodeString(&keyword, name);
    NdisReadConfiguration(&status, &param, configuration, &keyword, NdisParameterInteger);
    if (status != NDIS_STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_INFO, "%P: Config parameter '%S' does not exist, using default\n", name);
        return false;
    }
    KN_ASSERT(param!=NULL);
    if (param == NULL) {
        return false;
    }
    *value = param->ParameterData.IntegerData;
    KN_TRACE(KN_TRACE_INFO, "%P: DWORD config parameter '%S' successfully read, value: 0x%D\n", name, *value);
    return true;
}

// Contract: PASSIVE_LEVEL.
bool MpAdapter::ReadString(NDIS_HANDLE configuration, PCWSTR name, PUCHAR destination, PUSHORT length,
                           USHORT capacity)
{
    NDIS_STATUS status;
    PNDIS_CONFIGURATION_PARAMETER param = NULL;
    NDIS_STRING keyword;
    RtlInitUnicodeString(&keyword, name);
    NdisReadConfiguration(&status, &param, configuration, &keyword, NdisParameterString);
    if (status != NDIS_STATUS_SUCCESS || param == NULL || param->ParameterType != NdisParameterString) {
        KN_TRACE(KN_TRACE_INFO, "%P: Config parameter '%S' does not exist, using default\n", name);
        return false;
    }
    KN_ASSERT(param!=NULL);
    USHORT n = param->ParameterData.StringData.Length;
    if (n > capacity) {
        n = capacity;
    }
    RtlCopyMemory(destination, param->ParameterData.StringData.Buffer, n);
    *length = n;
    if (KnGetTraceMask() & KN_TRACE_INFO) {
        KnPrint("%P: string config parameter '%S' successfully read\n", name);
        KnHexDump(destination, n);
    }
    return true;
}

NDIS_STATUS MpAdapter::ReadConfiguration(NDIS_HANDLE wrapperConfigurationContext)
{
    IRQL_EQ_PASSIVE();
    NDIS_STATUS status;
    NDIS_HANDLE configuration = NULL;
    NdisOpenConfiguration(&status, &configuration, wrapperConfigurationContext);
    if (status != NDIS_STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::ReadConfiguration: NdisOpenConfiguration failed %D %s\n", status,
                 NdStatusName(status));
        return status;
    }

    AdapterConfig& c = mConfig;
    ULONG v;
    if (ReadDword(configuration, MP_WIDE("RxBuffers"), &v)) {
        c.RxBuffers = v < 2 ? 2 : (v > 128 ? 128 : v);
    }
    if (ReadDword(configuration, MP_WIDE("TxBuffers"), &v)) {
        c.TxBuffers = v < 2 ? 2 : (v > 128 ? 128 : v);
    }
    // Replaced by "disconnected" during the bring-up before anything reads it.
    if (ReadDword(configuration, MP_WIDE("DefaultMediaState"), &v)) {
        SetMediaState(v != 0 ? NdisMediaStateConnected : NdisMediaStateDisconnected);
    }
    if (ReadDword(configuration, MP_WIDE("OneByteTermination"), &v)) {
        c.OneByteTermination = v > 1 ? 1 : v;
    }
    if (ReadDword(configuration, MP_WIDE("ConfigurationIndex"), &v)) {
        c.ConfigurationIndex = v;
    }
    if (ReadDword(configuration, MP_WIDE("SendClearEpHaltOnStart"), &v)) {
        c.SendClearEpHaltOnStart = v;
    }
    if (ReadDword(configuration, MP_WIDE("StatisticsUpdateInterval"), &v)) {
        c.StatisticsUpdateInterval = v < 100 ? 100 : v;
    }
    if (ReadDword(configuration, MP_WIDE("TxTimeout"), &v)) {
        c.TxTimeout = v;
    }
    if (ReadDword(configuration, MP_WIDE("*WakeOnMagicPacket"), &v)) {
        c.WakeOnMagicPacket = v != 0 ? 1 : 0;
    }
    if (ReadDword(configuration, MP_WIDE("PnPCapabilities"), &v)) {
        c.PnPCapabilities = v;
    }
    if (ReadDword(configuration, MP_WIDE("DefaultLinkSpeed"), &v)) {
        c.DefaultLinkSpeed = v;
    }
    if (ReadDword(configuration, MP_WIDE("VlanID"), &v)) {
        c.VlanID = v >= 4094 ? 4094 : v;
    }
    if (ReadDword(configuration, MP_WIDE("VlanEnabled"), &v)) {
        c.VlanEnabled = v;
    }
    if (ReadDword(configuration, MP_WIDE("NcmTxPeriod"), &v)) {
        c.NcmTxPeriod = v;
    }
    if (ReadDword(configuration, MP_WIDE("TputThreshold"), &v)) {
        c.TputThreshold = v;
    }
    if (ReadDword(configuration, MP_WIDE("TputHysteresis"), &v)) {
        c.TputHysteresis = v;
    }
    if (ReadDword(configuration, MP_WIDE("RxMeasurementPeriod"), &v)) {
        c.RxMeasurementPeriod = v <= 50 ? 50 : v;
    }
    if (c.NcmTxPeriod == 0) {
        c.RxMeasurementPeriod = 0;
    }

    UCHAR description[MPCONFIG_VENDOR_DESCRIPTION_READ];
    USHORT descriptionLength = 0;
    if (ReadString(configuration, MP_WIDE("VendorDescription"), description, &descriptionLength,
                   sizeof(description))) {
        UNICODE_STRING wide;
        wide.Buffer = reinterpret_cast<PWCHAR>(description);
        wide.Length = descriptionLength & ~1;
        wide.MaximumLength = wide.Length;
        ANSI_STRING ansi;
        ansi.Buffer = gMpVendorDescription;
        ansi.Length = 0;
        ansi.MaximumLength = sizeof(gMpVendorDescription);
        RtlUnicodeStringToAnsiString(&ansi, &wide, FALSE);
        gMpVendorDescription[ansi.Length < sizeof(gMpVendorDescription) ? ansi.Length
                                                                       : sizeof(gMpVendorDescription) - 1] = 0;
    }

    PVOID address = NULL;
    UINT addressLength = 0;
    NdisReadNetworkAddress(&status, &address, &addressLength, configuration);
    if (status != NDIS_STATUS_SUCCESS || addressLength != 6) {
        KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::ReadConfiguration NdisReadNetworkAddress failed: %N\n", status);
    } else {
        const UCHAR* a = static_cast<const UCHAR*>(address);
        bool broadcast = a[0] == 0xFF && a[1] == 0xFF && a[2] == 0xFF && a[3] == 0xFF && a[4] == 0xFF && a[5] == 0xFF;
        if ((a[0] & 0x01) != 0 || broadcast) {
            KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::ReadConfiguration wrong network address, MULTI- or Broad cast\n");
        } else {
            RtlCopyMemory(mPermanentAddress, a, 6);
            RtlCopyMemory(c.CurrentAddress, a, 6);
            c.AddressFromRegistry = true;
            if (KnGetTraceMask() & KN_TRACE_INFO) {
                KnPrint("%P:MpAdapter::ReadConfiguration NdisReadNetworkAddress from Registry\n");
                KnHexDump(a, 6);
                KnPrint("\n");
            }
        }
    }
    NdisCloseConfiguration(configuration);
    return NDIS_STATUS_SUCCESS;
}
