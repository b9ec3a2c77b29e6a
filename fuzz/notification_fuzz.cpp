// Fuzz target: the notification decoder of DeviceContBase
// (OnProcessNotification) fed arbitrary interrupt IN transfers, without a
// device. Each input is one transfer, copied into a transfer buffer of
// exactly its size in pool memory, so that a read past the transfer is a
// read past the allocation.
//
// Checks: the buffer is back in its pool afterwards; the adapter hears
// exactly what the transfer says (one NetworkStateChanged for a
// NETWORK_CONNECTION of at least 8 bytes, one ConnectionSpeedChanged with
// the two rates for a CONNECTION_SPEED_CHANGE of at least 16 bytes, nothing
// otherwise); no other adapter operation is called.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <kplat/platform.h>

#include "devicecontbase.h"
#include "knpooltags.h"
#include "fuzz_setup.h"
#include "kntrace.h"

namespace {

// The interrupt IN endpoint's largest packet (super speed).
constexpr size_t kMaxTransfer = 1024;

#define CHECK(cond)                                                                        \
    do {                                                                                   \
        if (!(cond)) {                                                                     \
            fprintf(stderr, "notification_fuzz:%d: check failed: %s\n", __LINE__, #cond);  \
            abort();                                                                       \
        }                                                                                  \
    } while (0)

// The adapter: counts the two notification calls and remembers their
// arguments; the rest must never be called by the decoder.
class FuzzNotify final : public DeviceNotify {
public:
    void NetworkStateChanged(bool connected) override
    {
        mStateCalls++;
        mConnected = connected;
    }
    void ConnectionSpeedChanged(ULONG upstream, ULONG downstream) override
    {
        mSpeedCalls++;
        mUpstream = upstream;
        mDownstream = downstream;
    }
    ULONG SubmitTxPackets(UCHAR*, ULONG) override
    {
        CHECK(!"SubmitTxPackets");
        return 0;
    }
    void ProcessReceivedData(UsbBuf*) override { CHECK(!"ProcessReceivedData"); }
    void StartCompleted(NTSTATUS) override { CHECK(!"StartCompleted"); }
    void StopCompleted() override { CHECK(!"StopCompleted"); }
    ULONG GetMulticastList(ULONG, UCHAR*) override
    {
        CHECK(!"GetMulticastList");
        return 0;
    }

    void Reset()
    {
        mStateCalls = 0;
        mSpeedCalls = 0;
    }

    int mStateCalls = 0;
    bool mConnected = false;
    int mSpeedCalls = 0;
    ULONG mUpstream = 0;
    ULONG mDownstream = 0;
};

// A device control with nothing behind it: only the decoder runs. Its
// notification stream is never configured, so the resubmission after each
// transfer finds it stopped and submits nothing.
class FuzzDeviceCont : public DeviceContBase {
public:
    explicit FuzzDeviceCont(DeviceNotify* notify) { mDeviceNotify = notify; }

    NTSTATUS Init(PDEVICE_OBJECT, PDEVICE_OBJECT, PDEVICE_OBJECT, DeviceNotify*, AdapterConfig*, NdSpinlock*) override
    {
        return STATUS_NOT_SUPPORTED;
    }
    NTSTATUS Start() override { return STATUS_NOT_SUPPORTED; }
    void Stop() override {}
    void ReturnRxBuffer(UsbBuf*) override {}
    void SubmitRxBuffers() override {}
    bool IsTxPathIdle() override { return true; }
    void BufferReceived(UsbBuf*) override {}
    void IndicateError(NTSTATUS, bool) override {}
    void BufferSent(NTSTATUS, bool) override {}

protected:
    void DoProcessTxPackets() override {}
};

FuzzNotify* gNotify;
FuzzDeviceCont* gCont;

uint32_t Le32(const uint8_t* p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

// At exit: the device control goes while the stand-in still runs.
void Shutdown()
{
    delete gCont;
    delete gNotify;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Every trace of the decoder and its hex dumps run too.
    fuzzsetup::Start(KN_TRACE_ERROR | KN_TRACE_INFO, Shutdown);
    gNotify = new FuzzNotify();
    gCont = new (NonPagedPool, KN_POOL_TAG_NCM) FuzzDeviceCont(gNotify);
    CHECK(gCont != NULL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > kMaxTransfer) {
        return 0;
    }

    UsbBufPool pool;
    UsbBuf* buffer = new (NonPagedPool, KN_POOL_TAG_USB_BUFFER) UsbBuf();
    CHECK(buffer != NULL);
    CHECK(buffer->Allocate(1, STREAM_URB_SIZE, size == 0 ? 1 : (ULONG)size, false) == STATUS_SUCCESS);
    pool.AddItem(buffer);
    UsbBuf* transfer = pool.GetBuffer();
    CHECK(transfer == buffer);
    if (size != 0) {
        memcpy(transfer->Buffer(), data, size);
    }
    transfer->SetDataLength((ULONG)size);

    gNotify->Reset();
    gCont->OnProcessNotification(transfer);

    CHECK(pool.GetItemsOut() == 0);
    const bool header = size >= 8;
    const uint8_t code = header ? data[1] : 0xFF;
    if (header && code == 0x00) {
        CHECK(gNotify->mStateCalls == 1);
        CHECK(gNotify->mConnected == ((data[2] | data[3] << 8) == 1));
    } else {
        CHECK(gNotify->mStateCalls == 0);
    }
    if (size >= 16 && code == 0x2A) {
        CHECK(gNotify->mSpeedCalls == 1);
        CHECK(gNotify->mUpstream == Le32(data + 8));
        CHECK(gNotify->mDownstream == Le32(data + 12));
    } else {
        CHECK(gNotify->mSpeedCalls == 0);
    }

    pool.FreeAll();
    return 0;
}
