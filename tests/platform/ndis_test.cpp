// The stand-in's NDIS under a small fake miniport: registration, timers on
// the virtual clock, configuration, packets, the adapter's life, and the
// verifier's checks.
#include <gtest/gtest.h>
#include <kplat/ndis.h>
#include <kplat/platform.h>

#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace {

// ---- a fake miniport: records its calls, keeps every packet sent to it ----
std::mutex gCallsMutex;  // guards Fake::calls (handlers run on the DPC thread too)
struct Fake {
    std::vector<std::string> calls;
    NDIS_HANDLE handle = nullptr, config = nullptr;
    std::vector<NDIS_MEDIUM> media;
    bool hang = false, noInitialize = false;
    NDIS_STATUS setResult = NDIS_STATUS_SUCCESS, registerStatus = NDIS_STATUS_FAILURE;
    UINT length = sizeof(NDIS51_MINIPORT_CHARACTERISTICS);
    UCHAR minor = 1;
    void Call(const std::string& what) { std::lock_guard<std::mutex> l(gCallsMutex); calls.push_back(what); }
    std::vector<std::string> Calls() { std::lock_guard<std::mutex> l(gCallsMutex); return calls; }
} gFake;
int gContext = 0;

NDIS_STATUS Initialize(PNDIS_STATUS, PUINT selected, PNDIS_MEDIUM media, UINT count, NDIS_HANDLE handle,
                       NDIS_HANDLE config) {
    gFake.media.assign(media, media + count);
    for (*selected = 0; *selected < count && media[*selected] != NdisMedium802_3;) ++*selected;
    gFake.handle = handle, gFake.config = config;
    NdisMSetAttributesEx(handle, &gContext, 0, 0xA0, NdisInterfaceInternal);
    NdisWriteErrorLogEntry(handle, 0x60070100, 2, 7, 9);
    gFake.Call("init");
    return NDIS_STATUS_SUCCESS;
}
void Halt(NDIS_HANDLE) { gFake.Call("halt"); }
BOOLEAN CheckForHang(NDIS_HANDLE) { return gFake.hang; }
NDIS_STATUS Reset(PBOOLEAN, NDIS_HANDLE) { gFake.Call("reset"); return NDIS_STATUS_PENDING; }
NDIS_STATUS Query(NDIS_HANDLE, NDIS_OID, PVOID, ULONG, PULONG, PULONG) { return NDIS_STATUS_SUCCESS; }
NDIS_STATUS Set(NDIS_HANDLE, NDIS_OID, PVOID, ULONG, PULONG, PULONG) { return gFake.setResult; }
void SendPackets(NDIS_HANDLE, PPNDIS_PACKET packets, UINT count) {
    for (UINT i = 0; i < count; i++) memset(packets[i]->MiniportReserved, 0xA5, 16);
}
NDIS_STATUS TransferData(PNDIS_PACKET, PUINT done, NDIS_HANDLE, NDIS_HANDLE receiveContext, UINT, UINT n) {
    *done = receiveContext == &gFake ? n : 0;
    return NDIS_STATUS_SUCCESS;
}
void PnPEvent(NDIS_HANDLE, NDIS_DEVICE_PNP_EVENT event, PVOID, ULONG) { gFake.Call("pnp" + std::to_string(event)); }
void Unload(PDRIVER_OBJECT) { gFake.Call("unload"); }

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING path) {
    NDIS_HANDLE wrapper;
    NdisInitializeWrapper(&wrapper, driver, path, nullptr);
    NDIS_MINIPORT_CHARACTERISTICS c = {};
    NDIS30_MINIPORT_CHARACTERISTICS& c30 = c.Ndis50Chars.Ndis40Chars.Ndis30Chars;
    c30.MajorNdisVersion = 5, c30.MinorNdisVersion = gFake.minor;
    c30.InitializeHandler = gFake.noInitialize ? nullptr : Initialize;
    c30.HaltHandler = Halt, c30.CheckForHangHandler = CheckForHang, c30.ResetHandler = Reset;
    c30.QueryInformationHandler = Query, c30.SetInformationHandler = Set, c30.TransferDataHandler = TransferData;
    c.Ndis50Chars.Ndis40Chars.SendPacketsHandler = SendPackets;
    c.PnPEventNotifyHandler = PnPEvent;
    gFake.registerStatus = NdisMRegisterMiniport(wrapper, &c, gFake.length);
    if (gFake.registerStatus != NDIS_STATUS_SUCCESS) {
        NdisTerminateWrapper(wrapper, nullptr);
        return STATUS_UNSUCCESSFUL;
    }
    NdisMRegisterUnloadHandler(wrapper, Unload);
    return STATUS_SUCCESS;
}

const std::string kKey = kplat::AdapterKeyPath(99);

class Ndis : public ::testing::Test {
protected:
    void SetUp() override {
        gFake = Fake();
        kplat::RegistryClear();
        kplat::ClearErrorLog();
    }
    void Up(kplat::AdapterOptions options = kplat::AdapterOptions()) {
        options.parametersKey = kKey;
        adapter.reset();
        driver.reset();
        driver = std::make_unique<kplat::NdisDriver>(Entry, "ethbrg");
        adapter = std::make_unique<kplat::NdisAdapter>(*driver, bus, options);
    }
    kplat::Scope scope;  // virtual clock
    kplat::UsbBus bus;
    std::unique_ptr<kplat::NdisDriver> driver;
    std::unique_ptr<kplat::NdisAdapter> adapter;
};

TEST_F(Ndis, AdapterArrivesChecksForHangsAndLeavesBySurprise) {
    kplat::AdapterOptions options;
    options.media = {NdisMediumDix, NdisMedium802_3};
    Up(options);
    ASSERT_EQ(NDIS_STATUS_SUCCESS, adapter->InitializeStatus());
    EXPECT_EQ(options.media, gFake.media);
    EXPECT_EQ(1u, adapter->SelectedMediumIndex());
    EXPECT_EQ(&gContext, adapter->Context());
    EXPECT_EQ(0xA0u, adapter->AttributeFlags());
    PDEVICE_OBJECT pdo, fdo, next;
    NdisMGetDeviceProperty(gFake.handle, &pdo, &fdo, &next, nullptr, nullptr);
    EXPECT_EQ(bus.Pdo(), pdo);
    EXPECT_EQ(adapter->Fdo(), fdo);
    EXPECT_EQ(bus.Pdo(), next);
    ASSERT_EQ(1u, kplat::ErrorLog().size());
    EXPECT_EQ(std::vector<ULONG>({7, 9}), kplat::ErrorLog()[0].values);
    // Hang check every 2 s (the default for 0); a hang resets; no check while the reset is pending.
    kplat::AdvanceTime(1999);
    EXPECT_EQ(0u, adapter->HangChecks());
    kplat::AdvanceTime(1);
    EXPECT_EQ(1u, adapter->HangChecks());
    gFake.hang = true;
    kplat::AdvanceTime(6000);
    EXPECT_EQ(2u, adapter->HangChecks());
    EXPECT_EQ(1u, adapter->Resets());
    EXPECT_TRUE(adapter->ResetPending());
    NdisMResetComplete(gFake.handle, NDIS_STATUS_SUCCESS, FALSE);
    EXPECT_FALSE(adapter->ResetPending());
    // Receives: recorded, or given to the callback that may transfer data.
    const uint8_t frame[20] = {1, 2, 3};
    NdisMEthIndicateReceive(gFake.handle, &gFake, (PCHAR)frame, 14, (PVOID)(frame + 14), 6, 20);
    NdisMEthIndicateReceiveComplete(gFake.handle);
    auto frames = adapter->TakeReceivedFrames();
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ(std::vector<uint8_t>(frame, frame + 14), frames[0].header);
    EXPECT_EQ(20u, frames[0].packetSize);
    UINT transferred = 0;
    adapter->OnReceive([&](NDIS_HANDLE context, const uint8_t*, UINT, const uint8_t*, UINT, UINT) {
        adapter->TransferData(context, 2, 4, nullptr, &transferred);
    });
    NdisMEthIndicateReceive(gFake.handle, &gFake, (PCHAR)frame, 14, (PVOID)(frame + 14), 6, 20);
    EXPECT_EQ(4u, transferred);
    EXPECT_EQ(2u, adapter->ReceiveIndications());
    EXPECT_EQ(NDIS_STATUS_FAILURE, adapter->TransferData(&gFake, 0, 1, nullptr, &transferred));
    NdisMIndicateStatus(gFake.handle, NDIS_STATUS_MEDIA_CONNECT, nullptr, 0);
    EXPECT_EQ(std::vector<NDIS_STATUS>{NDIS_STATUS_MEDIA_CONNECT}, adapter->StatusIndications());
    adapter->SurpriseRemove();
    EXPECT_EQ(std::vector<std::string>({"init", "reset", "pnp2", "halt"}), gFake.Calls());
    EXPECT_FALSE(adapter->IsInitialized());
}

TEST_F(Ndis, VerifierReportsBrokenRules) {
    kplat::CheckRecorder* recorder = nullptr;
    auto frame = [&] { return adapter->AllocatePacket((const uint8_t*)"frame", 5); };
    auto complete = [](PNDIS_PACKET p) { NdisMSendComplete(gFake.handle, p, NDIS_STATUS_SUCCESS); };
    struct Case { const char* expected; std::function<void()> scenario; } cases[] = {
        {"completed twice", [&] { PNDIS_PACKET p = frame(); adapter->Send(&p, 1); complete(p); complete(p); }},
        {"never sent", [&] { complete(frame()); }},
        {"holds 1 spin lock",
         [&] {
             KSPIN_LOCK lock;
             KIRQL irql;
             KeInitializeSpinLock(&lock);
             KeAcquireSpinLock(&lock, &irql);
             NdisMIndicateStatusComplete(gFake.handle);
             KeReleaseSpinLock(&lock, irql);
             NdisMIndicateStatusComplete(gFake.handle);
         }},
        {"not completed within 30 s",
         [&] {
             PNDIS_PACKET p = frame();
             adapter->Send(&p, 1);
             kplat::AdvanceTime(29999);
             EXPECT_EQ(0u, recorder->Count());
             kplat::AdvanceTime(1);
             complete(p);
         }},
        {"not completed within 12 s",
         [&] {
             gFake.setResult = NDIS_STATUS_PENDING;
             EXPECT_EQ(NDIS_STATUS_PENDING, adapter->Set(OID_GEN_CURRENT_PACKET_FILTER, nullptr, 0, nullptr, nullptr));
             kplat::AdvanceTime(11999);
             EXPECT_EQ(0u, recorder->Count());
             kplat::AdvanceTime(1);
             NdisMSetInformationComplete(gFake.handle, NDIS_STATUS_SUCCESS);
         }},
        {"without a set pending", [&] { NdisMSetInformationComplete(gFake.handle, NDIS_STATUS_SUCCESS); }},
        {"without a reset pending", [&] { NdisMResetComplete(gFake.handle, NDIS_STATUS_SUCCESS, FALSE); }},
        {"MPHalt returned while the miniport still owns 1 packet",
         [&] { adapter->SendFrame((const uint8_t*)"frame", 5); adapter->Halt(); }},
        {"still initialized", [&] { driver->Unload(); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        Up();
        kplat::CheckRecorder checks;
        recorder = &checks;
        c.scenario();
        auto failures = checks.Take();
        ASSERT_EQ(1u, failures.size());
        EXPECT_EQ(kplat::kNdisVerifier, failures[0].code);
        EXPECT_EQ((ULONG_PTR)gFake.handle, failures[0].p1);
        EXPECT_NE(std::string::npos, failures[0].text.find(c.expected)) << failures[0].text;
    }
}

}  // namespace
