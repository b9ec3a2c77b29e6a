// Fuzz target: DeviceContNcm's Init (configuration descriptor load and
// walks, the NCM function's descriptors, configuration selection, GET_NTB_
// PARAMETERS and its repairs) and, when Init succeeds, Start and Stop, on
// arbitrary descriptor bytes and NTB parameter blocks served by a minimal
// NCM function (AckNcmDevice) on the stand-in's USB bus.
//
// Input:
//   byte 0       bit 0 Start (and Stop) after a successful Init; bits 1-2
//                speed (0 full, 1 high, 2-3 super)
//   byte 1       bytes of the NTB parameters answered: value % 29
//   bytes 2-29   the NTB parameters block (28 bytes)
//   then         the configuration descriptor, as the device returns it
//
// Checks: nothing crashes or reads outside its block; a successful Init
// leaves a selected configuration, descriptors inside the loaded block, a
// frame size of at least 64, repaired output parameters and buffer sizes
// within their limits; a failed Init leaves the device control without a
// configuration; Exit always leaves it without one.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include "devicecontncm_ackdevice.h"
#include "devicecontncm_peer.h"
#include "knpooltags.h"
#include "fuzz_setup.h"
#include "kntrace.h"

namespace {

#define CHECK(cond)                                                                 \
    do {                                                                            \
        if (!(cond)) {                                                              \
            fprintf(stderr, "config_fuzz:%d: check failed: %s\n", __LINE__, #cond); \
            abort();                                                                \
        }                                                                           \
    } while (0)

constexpr size_t kHeader = 30;
constexpr size_t kMaxDescriptor = 4096 + 64;

class NullAdapter : public DeviceNotify {
public:
    void NetworkStateChanged(bool) override {}
    void ConnectionSpeedChanged(ULONG, ULONG) override {}
    ULONG SubmitTxPackets(UCHAR*, ULONG) override { return 0; }
    void ProcessReceivedData(UsbBuf*) override {}
    void StartCompleted(NTSTATUS) override {}
    void StopCompleted() override {}
    ULONG GetMulticastList(ULONG, UCHAR*) override { return 0; }
};

PDEVICE_OBJECT gFdo;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    gFdo = fuzzsetup::Start(KN_TRACE_ERROR | KN_TRACE_INFO | KN_TRACE_START, nullptr, true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < kHeader || size > kHeader + kMaxDescriptor) {
        return 0;
    }
    const uint8_t flags = data[0];
    const uint8_t speedBits = (flags >> 1) & 3;
    const kplat::UsbSpeed speed =
        speedBits == 0 ? kplat::UsbSpeed::Full : speedBits == 1 ? kplat::UsbSpeed::High : kplat::UsbSpeed::Super;
    AckNcmDevice::Bytes parameters(data + 2, data + 2 + 28);
    parameters.resize(data[1] % 29);
    AckNcmDevice::Bytes configuration(data + kHeader, data + size);

    kplat::UsbBus* bus = new kplat::UsbBus();
    AckNcmDevice* device = new AckNcmDevice(configuration, parameters, speed, false);
    bus->Attach(device);
    NdSpinlock lock;
    NullAdapter adapter;
    AdapterConfig config;
    DeviceContNcm* cont = new (NonPagedPool, KN_POOL_TAG_NCM) DeviceContNcm();

    NTSTATUS status = cont->Init(gFdo, bus->Pdo(), bus->Pdo(), &adapter, &config, &lock);
    if (NT_SUCCESS(status)) {
        // (The bus may still say 0: a descriptor can name configuration 0.)
        CHECK(DeviceContNcmPeer::IsConfigured(*cont));
        const KnUsbConfigDescriptor& loaded = DeviceContNcmPeer::Descriptors(*cont);
        const UCHAR* first = reinterpret_cast<const UCHAR*>(loaded.GetConfigDesc());
        const UCHAR* end = first + loaded.GetConfigDescLength();
        const UCHAR* ethernet = DeviceContNcmPeer::EthernetDescriptor(*cont);
        const UCHAR* ncm = DeviceContNcmPeer::NcmDescriptor(*cont);
        CHECK(ethernet != nullptr && ncm != nullptr);
        CHECK(ethernet > first && ethernet + ethernet[0] <= end);
        CHECK(ncm > first && ncm + ncm[0] <= end);
        CHECK(ethernet[1] == 0x24 && ethernet[2] == 0x0F && ethernet[0] >= 3);
        CHECK((ncm[1] == 0x24 || ncm[1] == 0x22) && ncm[2] == 0x1A && ncm[0] >= 3);
        CHECK(cont->GetMaxSegmentSize() >= 64);
        const NtbParameters& p = DeviceContNcmPeer::Parameters(*cont);
        CHECK(p.wNdpOutAlignment >= 4);
        CHECK(p.wNdpOutDivisor >= 1);
        CHECK(p.wNdpOutPayloadRemainder < p.wNdpOutDivisor);
        const bool ntb32 = DeviceContNcmPeer::Use32BitHeaders(*cont);
        const ULONG limit = ntb32 ? 256000 : 65535;
        CHECK(DeviceContNcmPeer::InputBufferSize(*cont) >= 24 && DeviceContNcmPeer::InputBufferSize(*cont) <= limit);
        CHECK(DeviceContNcmPeer::OutputBufferSize(*cont) >= 24 &&
              DeviceContNcmPeer::OutputBufferSize(*cont) <= limit);
        const ULONG maxTx = DeviceContNcmPeer::MaxTxDatagrams(*cont);
        CHECK(maxTx >= 1 && maxTx <= 169);
        if (flags & 1) {
            status = cont->Start();
            kplat::RunUntilIdle();
            if (NT_SUCCESS(status)) {
                CHECK(DeviceContNcmPeer::IsStarted(*cont));
                cont->ProcessTxPackets();
                kplat::RunUntilIdle();
                CHECK(cont->IsTxPathIdle());
            }
            cont->Stop();
            CHECK(!DeviceContNcmPeer::IsStarted(*cont));
        }
    } else {
        // (A selection that failed half way may leave the bus configured:
        // only a failure after the selection gives the configuration up.)
        CHECK(!DeviceContNcmPeer::IsConfigured(*cont));
    }
    cont->Exit();
    CHECK(!DeviceContNcmPeer::IsConfigured(*cont));
    kplat::RunUntilIdle();
    delete cont;
    delete bus;
    delete device;
    return 0;
}
