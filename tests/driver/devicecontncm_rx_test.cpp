// DeviceContNcm, receive: NTBs from the simulated function through the bulk
// IN stream (frames the device packs, and raw transfers injected as they
// are), and the parser on its own (the harness) against the reference
// decoder over tables of well-formed and broken NTBs.
#include <random>

#include "devicecontncm_fixture.h"
#include "devicecontncm_harness.h"

namespace ncmtest {
namespace {

using ntbref::Entry;
using ntbref::Form;

// Lays out an NTB: transfer header, the datagrams of every NDP (4-aligned),
// then the NDPs (4-aligned), chained in order. crc: with-CRC signatures.
Bytes BuildNtb(Form form, const std::vector<std::vector<Bytes>>& ndps, bool crc = false)
{
    const bool n32 = form == Form::Ntb32;
    Bytes b(n32 ? 16 : 12, 0);
    std::vector<std::vector<Entry>> tables;
    size_t at = b.size();
    for (const auto& frames : ndps) {
        std::vector<Entry> table;
        for (const Bytes& f : frames) {
            at = (at + 3) / 4 * 4;
            if (b.size() < at + f.size()) b.resize(at + f.size(), 0);
            std::copy(f.begin(), f.end(), b.begin() + at);
            table.push_back({(uint32_t)at, (uint32_t)f.size()});
            at += f.size();
        }
        tables.push_back(table);
    }
    std::vector<size_t> offsets;
    for (const auto& table : tables) {
        at = (at + 3) / 4 * 4;
        offsets.push_back(at);
        at += (n32 ? 16 + 8 * (table.size() + 1) : 8 + 4 * (table.size() + 1));
    }
    b.resize(at, 0);
    for (size_t i = 0; i < tables.size(); i++) {
        uint32_t next = i + 1 < offsets.size() ? (uint32_t)offsets[i + 1] : 0;
        ntbref::PutNdp(b, form, offsets[i], tables[i], next, crc);
    }
    ntbref::PutNth(b, form, (uint32_t)b.size(), (uint32_t)offsets[0]);
    return b;
}

std::vector<Bytes> Frames(size_t count, size_t length, uint32_t seed)
{
    std::vector<Bytes> out;
    for (size_t i = 0; i < count; i++) out.push_back(MakeFrame(length + i, seed + (uint32_t)i));
    return out;
}

// ===========================================================================
// Through the bus
// ===========================================================================

class NcmRxTest : public NcmTest {
protected:
    void Inject(const Bytes& ntb) { mDevice->InjectInTransfer(ntb); }
    bool IsNtb32() { return Peer::Use32BitHeaders(*mCont); }
    Form HostForm() { return IsNtb32() ? Form::Ntb32 : Form::Ntb16; }
};

TEST_F(NcmRxTest, FramesFromTheNetworkArriveInOrder)
{
    for (bool ntb32 : {true, false}) {
        SCOPED_TRACE(ntb32 ? "NTB32" : "NTB16");
        Destroy();
        CreateAndStart(ntb32 ? ethsim::DeviceProfile() : Ntb16Profile());
        ASSERT_EQ(ntb32, IsNtb32());
        mAdapter.ClearReceived();
        std::vector<Bytes> frames = Frames(40, ntb32 ? 60 : 1400, ntb32 ? 1 : 2);
        for (const Bytes& f : frames) FromNetwork(f);
        kplat::RunUntilIdle();
        EXPECT_EQ(frames, mAdapter.ReceivedData());
        EXPECT_EQ(0u, mAdapter.secondDatagramWhileOutstanding);
        for (const RxFrame& f : mAdapter.Received()) {
            EXPECT_TRUE(f.viewConsistent);
            EXPECT_EQ(f.size, f.length);
        }
    }
}

TEST_F(NcmRxTest, ChainedNdpsOfTheDeviceDeliverEveryDatagramInOrder)
{
    for (ethsim::NdpPosition position : {ethsim::NdpPosition::AfterDatagrams, ethsim::NdpPosition::BeforeDatagrams}) {
        for (bool ntb32 : {false, true}) {
            SCOPED_TRACE(ntb32 ? "NTB32" : "NTB16");
            Destroy();
            ethsim::DeviceProfile p = ntb32 ? ethsim::DeviceProfile() : Ntb16Profile();
            p.in.ndpCount = 3;
            p.in.ndpPosition = position;
            CreateAndStart(p);
            mAdapter.ClearReceived();
            std::vector<Bytes> frames = Frames(30, 100, 3);
            for (const Bytes& f : frames) FromNetwork(f);
            kplat::RunUntilIdle();
            EXPECT_EQ(frames, mAdapter.ReceivedData());
        }
    }
}

TEST_F(NcmRxTest, TwoDatagramsInEachOfThreeNtbsGiveSixCallsAndEachBufferReturnsAfterItsLast)
{
    CreateAndStart();
    mAdapter.hold = true;
    std::vector<Bytes> frames = Frames(6, 70, 4);
    for (int i = 0; i < 3; i++) Inject(BuildNtb(Form::Ntb32, {{frames[2 * i], frames[2 * i + 1]}}));
    kplat::RunUntilIdle();
    // While the adapter holds a datagram, the other NTBs only queue.
    ASSERT_EQ(1u, mAdapter.Received().size());
    for (size_t n = 2; n <= 6; n++) {
        mAdapter.Release(1);
        kplat::RunUntilIdle();
        ASSERT_EQ(n, mAdapter.Received().size()) << "the next datagram follows the return at once";
    }
    EXPECT_EQ(frames, mAdapter.ReceivedData());
    EXPECT_EQ(0u, mAdapter.secondDatagramWhileOutstanding);
    // The buffer of an NTB is idle again only once its second datagram is
    // back (nothing is resubmitted meanwhile: SubmitRxBuffers is not called).
    std::vector<ULONG> expected = {0, 0, 1, 1, 2, 2};
    EXPECT_EQ(expected, mAdapter.idleRxBuffersAtCall);
    StreamIn& in = Peer::InStream(*mCont);
    mAdapter.Release(1);
    EXPECT_EQ(3u, in.GetBufPool()->GetCurrentCount());
    EXPECT_EQ(nullptr, Peer::CurrentRxBuffer(*mCont));
    mAdapter.Release(0, true);  // SubmitRxBuffers: all back on the pipe
    kplat::RunUntilIdle();
    EXPECT_EQ(0u, in.GetBufPool()->GetCurrentCount());
    EXPECT_EQ(mConfig.RxBuffers, in.GetPendingCount());
}

// A block of the other format is refused, its buffer goes back on the pipe
// and the next NTB is taken as usual.
TEST_F(NcmRxTest, ABlockOfTheOtherFormatIsNotAccepted)
{
    for (bool ntb32 : {true, false}) {
        SCOPED_TRACE(ntb32 ? "NTB32" : "NTB16");
        Destroy();
        CreateAndStart(ntb32 ? ethsim::DeviceProfile() : Ntb16Profile());
        mAdapter.ClearReceived();
        Inject(BuildNtb(ntb32 ? Form::Ntb16 : Form::Ntb32, {Frames(1, 60, 5)}));
        kplat::RunUntilIdle();
        EXPECT_TRUE(mAdapter.Received().empty());
        EXPECT_TRUE(Traced(ntb32 ? "ethbrg:DeviceContNcm::InitNdp32EnumeratorFromBuffer: invalid NTH signature: "
                                   "0x484d434e\n"
                                 : "ethbrg:DeviceContNcm::InitNdp16EnumeratorFromBuffer: invalid NTH signature: "
                                   "0x686d636e\n"))
            << mCapture.Text();
        EXPECT_EQ(mConfig.RxBuffers, Peer::InStream(*mCont).GetPendingCount());
        std::vector<Bytes> frames = Frames(2, 60, 6);
        Inject(BuildNtb(HostForm(), {frames}));
        kplat::RunUntilIdle();
        EXPECT_EQ(frames, mAdapter.ReceivedData());
    }
}

TEST_F(NcmRxTest, AnNtb16Of23BytesIsRejectedByItsLength)
{
    CreateAndStart(Ntb16Profile());
    Bytes b = BuildNtb(Form::Ntb16, {Frames(1, 60, 8)});
    b.resize(23);
    Inject(b);
    kplat::RunUntilIdle();
    EXPECT_TRUE(mAdapter.Received().empty());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::InitNdp16EnumeratorFromBuffer: invalid length: 0x17\n"))
        << mCapture.Text();
}

TEST_F(NcmRxTest, ASecondNdpOutsideTheTransferDeliversTheFirstOnly)
{
    CreateAndStart();
    std::vector<Bytes> first = Frames(2, 64, 9), second = Frames(2, 64, 11);
    Bytes b = BuildNtb(Form::Ntb32, {first, second});
    // Point the first NDP's next index beyond the transfer.
    uint32_t ndp = ntbref::Get32(b, 12);
    ntbref::Put32(b, ndp + 8, (uint32_t)b.size() + 8);
    Inject(b);
    kplat::RunUntilIdle();
    EXPECT_EQ(first, mAdapter.ReceivedData());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp32Valid: ndp32 not in buffer\n"));
    // The buffer went back: reads are pending again.
    EXPECT_EQ(mConfig.RxBuffers, Peer::InStream(*mCont).GetPendingCount());
}

// With-CRC signatures: the last four bytes of each datagram are dropped (a
// datagram of four bytes keeps them), with a trace once per datagram that
// names the NDP format.
TEST_F(NcmRxTest, WithCrcSignatureTheLastFourBytesAreDroppedOncePerDatagram)
{
    for (bool ntb32 : {false, true}) {
        SCOPED_TRACE(ntb32 ? "NTB32" : "NTB16");
        Destroy();
        CreateAndStart(ntb32 ? ethsim::DeviceProfile() : Ntb16Profile());
        mAdapter.ClearReceived();
        mCapture.Take();
        Bytes big = MakeFrame(64, 12), tiny = {1, 2, 3, 4};
        Inject(BuildNtb(HostForm(), {{big, tiny, big}}, true));
        kplat::RunUntilIdle();
        std::vector<RxFrame> got = mAdapter.Received();
        ASSERT_EQ(3u, got.size());
        EXPECT_EQ(64u, got[0].size);
        EXPECT_EQ(60u, got[0].length);
        EXPECT_EQ(Bytes(big.begin(), big.begin() + 60), got[0].data);
        EXPECT_EQ(4u, got[1].size);
        EXPECT_EQ(4u, got[1].length);
        EXPECT_EQ(2u, TraceCount(std::string("ethbrg:DeviceContNcm::ProcessRxBuffers: the device sends ") +
                                 (ntb32 ? "NDP32" : "NDP16") + " with CRC but it is configured to send without!\n"));
    }
}

TEST_F(NcmRxTest, PayloadBytesHandedOverAreCountedForTheBandwidthTick)
{
    CreateAndStart();
    std::vector<Bytes> frames = Frames(5, 100, 14);
    Inject(BuildNtb(Form::Ntb32, {frames}));
    kplat::RunUntilIdle();
    EXPECT_EQ(100u + 101 + 102 + 103 + 104, Peer::RxByteCount(*mCont));
}

TEST_F(NcmRxTest, StopGivesQueuedAndCurrentBuffersBack)
{
    CreateAndStart();
    mAdapter.hold = true;
    for (int i = 0; i < 3; i++) Inject(BuildNtb(Form::Ntb32, {Frames(2, 80, 20 + i)}));
    kplat::RunUntilIdle();
    ASSERT_EQ(1u, mAdapter.Received().size());
    // The adapter gives its datagram back only after Stop (as Halt does).
    mCont->Stop();
    EXPECT_EQ(nullptr, Peer::CurrentRxBuffer(*mCont));
    EXPECT_TRUE(Peer::RxListEmpty(*mCont));
    StreamIn& in = Peer::InStream(*mCont);
    EXPECT_EQ(0u, in.GetPendingCount());
    mAdapter.Release();
    EXPECT_EQ(1u, mAdapter.Received().size());
    EXPECT_EQ(0u, in.GetPendingCount());
    mCont->Exit();
    delete mCont;
    mCont = nullptr;
}

// The reference decoder and the driver agree on injected transfers.
TEST_F(NcmRxTest, InjectedTransfersMatchTheReferenceDecoder)
{
    for (bool ntb32 : {false, true}) {
        SCOPED_TRACE(ntb32 ? "NTB32" : "NTB16");
        Destroy();
        CreateAndStart(ntb32 ? ethsim::DeviceProfile() : Ntb16Profile());
        Form form = HostForm();
        std::vector<Bytes> cases;
        cases.push_back(BuildNtb(form, {Frames(3, 60, 30)}));
        cases.push_back(BuildNtb(form, {Frames(2, 1514, 31), Frames(3, 64, 32)}));
        cases.push_back(BuildNtb(form, {Frames(1, 60, 33)}, true));
        Bytes loop = BuildNtb(form, {Frames(1, 60, 34), Frames(1, 61, 35)});
        // The second NDP points back to the first: a loop.
        uint32_t first = ntb32 ? ntbref::Get32(loop, 12) : ntbref::Get16(loop, 10);
        uint32_t second = ntb32 ? ntbref::Get32(loop, first + 8) : ntbref::Get16(loop, first + 6);
        if (ntb32) ntbref::Put32(loop, second + 8, first); else ntbref::Put16(loop, second + 6, first);
        cases.push_back(loop);
        for (const Bytes& c : cases) {
            mAdapter.ClearReceived();
            Inject(c);
            kplat::RunUntilIdle();
            ntbref::DecodeResult ref = ntbref::Decode(c, form);
            std::vector<Bytes> expected;
            for (const auto& d : ref.datagrams) expected.push_back(d.payload);
            EXPECT_EQ(expected, mAdapter.ReceivedData()) << ntbref::ReasonName(ref.reason);
        }
        EXPECT_TRUE(Traced(ntb32 ? "ethbrg:DeviceContNcm::GetNextNdp32Entry: next NDP at"
                                 : "ethbrg:DeviceContNcm::GetNextNdp16Entry: next NDP at"));
    }
}

// ===========================================================================
// The parser on its own
// ===========================================================================

class NcmParserTest : public ::testing::Test {
protected:
    NcmParserTest()
    {
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_ERROR);
    }
    ~NcmParserTest() override { KnSetTraceMask(KN_TRACE_MASK_DEFAULT); }

    // Feeds one transfer to a fresh parser and checks it against the
    // reference; returns what the driver handed over.
    std::vector<NcmRxHarness::Datagram> Check(const Bytes& transfer, Form form)
    {
        NcmRxHarness h(form == Form::Ntb32, 65535);
        EXPECT_EQ(STATUS_SUCCESS, h.AllocateStatus());
        EXPECT_TRUE(h.Feed(transfer.data(), (ULONG)transfer.size()));
        ntbref::DecodeResult ref = ntbref::Decode(transfer, form);
        EXPECT_EQ(ref.datagrams.size(), h.datagrams.size()) << ntbref::ReasonName(ref.reason) << " " << ref.reasonText;
        for (size_t i = 0; i < std::min(ref.datagrams.size(), h.datagrams.size()); i++) {
            EXPECT_EQ(ref.datagrams[i].index, h.datagrams[i].offset) << i;
            EXPECT_EQ(ref.datagrams[i].length, h.datagrams[i].size) << i;
            EXPECT_EQ(ref.datagrams[i].payloadLength, h.datagrams[i].length) << i;
            EXPECT_EQ(ref.datagrams[i].payload, h.datagrams[i].payload) << i;
            EXPECT_TRUE(h.datagrams[i].viewConsistent) << i;
        }
        EXPECT_EQ(0u, h.outsideTransfer);
        EXPECT_EQ(0u, h.secondWhileOutstanding);
        EXPECT_EQ(0u, h.Pool().GetItemsOut()) << "every buffer is back in its pool";
        return h.datagrams;
    }
    // Traces of the last Check contain text.
    bool Traced(const std::string& text) const { return mCapture.Contains(text); }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
};

TEST_F(NcmParserTest, AnEmptyTransferGoesStraightBackToThePool)
{
    NcmRxHarness h(false, 2048);
    ASSERT_TRUE(h.Feed(nullptr, 0));
    EXPECT_TRUE(h.datagrams.empty());
    EXPECT_EQ(0u, h.Pool().GetItemsOut());
    EXPECT_EQ("", mCapture.Text());
}

TEST_F(NcmParserTest, Ntb16WithNdpIndexZeroIsNotInBuffer)
{
    Bytes b = BuildNtb(Form::Ntb16, {Frames(1, 60, 40)});
    ntbref::Put16(b, 10, 0);
    EXPECT_TRUE(Check(b, Form::Ntb16).empty());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp16Valid: ndp16 not in buffer\n"));
}

TEST_F(NcmParserTest, Ndp16LengthArithmetic)
{
    Bytes base = BuildNtb(Form::Ntb16, {Frames(1, 60, 41)});
    uint32_t ndp = ntbref::Get16(base, 10);
    {
        // wLength 15: (15 - 12) / 4 = 0 entries: empty.
        Bytes b = base;
        ntbref::Put16(b, ndp + 4, 15);
        EXPECT_TRUE(Check(b, Form::Ntb16).empty());
        EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp16Valid: empty NTP16\n"));
    }
    {
        // wLength 17: one entry, terminator at NDP offset 12 (it is zero).
        Bytes b = base;
        ntbref::Put16(b, ndp + 4, 17);
        b.resize(std::max<size_t>(b.size(), ndp + 17));
        EXPECT_EQ(1u, Check(b, Form::Ntb16).size());
    }
    {
        // wLength 16, a non-zero terminator at NDP offset 12.
        Bytes b = base;
        ntbref::Put16(b, ndp + 12, 0x0040);
        EXPECT_TRUE(Check(b, Form::Ntb16).empty());
        EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp16Valid: NDP16 no zero termination\n"));
    }
    {
        // wLength 11: below the header and terminator.
        Bytes b = base;
        ntbref::Put16(b, ndp + 4, 11);
        EXPECT_TRUE(Check(b, Form::Ntb16).empty());
        EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp16Valid: invalid table len: 0xb\n"));
    }
    {
        // wLength beyond the transfer.
        Bytes b = base;
        ntbref::Put16(b, ndp + 4, (uint32_t)(b.size() - ndp + 4));
        EXPECT_TRUE(Check(b, Form::Ntb16).empty());
        EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp16Valid: NDP16 not complete in buffer: ndp.wLength:"));
    }
}

TEST_F(NcmParserTest, TheFirstBadEntryDecidesWhichCheckReportsIt)
{
    std::vector<Bytes> f = Frames(3, 60, 42);
    Bytes base = BuildNtb(Form::Ntb16, {f});
    uint32_t ndp = ntbref::Get16(base, 10);
    {
        // Entry 1 out of the transfer, entry 2 with length 0: "not in buffer".
        Bytes b = base;
        ntbref::Put16(b, ndp + 8 + 4 + 2, 0xF000);
        ntbref::Put16(b, ndp + 8 + 8 + 2, 0);
        EXPECT_TRUE(Check(b, Form::Ntb16).empty());
        EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp16Valid: NDP16 datagram not in buffer\n"));
        EXPECT_FALSE(Traced("NDP16 invalid content"));
    }
    mCapture.Take();
    {
        // Entry 0 with index 0 first: "invalid content".
        Bytes b = base;
        ntbref::Put16(b, ndp + 8, 0);
        ntbref::Put16(b, ndp + 8 + 4 + 2, 0xF000);
        EXPECT_TRUE(Check(b, Form::Ntb16).empty());
        EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp16Valid: NDP16 invalid content\n"));
        EXPECT_FALSE(Traced("datagram not in buffer"));
    }
}

TEST_F(NcmParserTest, Ndp32IndexPlusLengthBeyondFourGigabytesIsNotInBuffer)
{
    Bytes b = BuildNtb(Form::Ntb32, {Frames(1, 60, 43)});
    uint32_t ndp = ntbref::Get32(b, 12);
    ntbref::Put32(b, ndp + 16 + 4, 0xFFFFFFF0u);  // index + length wraps in 32 bits
    EXPECT_TRUE(Check(b, Form::Ntb32).empty());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IsNdp32Valid: NDP32 datagram not in buffer\n"));
}

TEST_F(NcmParserTest, Ntb32ChecksAndTheirTraces)
{
    Bytes base = BuildNtb(Form::Ntb32, {Frames(2, 60, 44)});
    uint32_t ndp = ntbref::Get32(base, 12);
    struct Case {
        std::function<void(Bytes&)> change;
        const char* trace;
    };
    std::vector<Case> cases = {
        {[](Bytes& b) { b.resize(39); }, "InitNdp32EnumeratorFromBuffer: invalid length: 0x27\n"},
        {[&](Bytes& b) { ntbref::Put32(b, 12, (uint32_t)b.size() - 24); }, "IsNdp32Valid: ndp32 not in buffer\n"},
        {[&](Bytes& b) { ntbref::Put16(b, ndp + 4, 23); }, "IsNdp32Valid: invalid table len: 0x17\n"},
        {[&](Bytes& b) { ntbref::Put16(b, ndp + 4, 0x8000); }, "IsNdp32Valid: NDP32 not complete in buffer\n"},
        {[&](Bytes& b) { ntbref::Put16(b, ndp + 4, 31); }, "IsNdp32Valid: empty NTP32\n"},
        {[&](Bytes& b) { ntbref::Put32(b, ndp + 16 + 16 + 4, 1); }, "IsNdp32Valid: NDP32 no zero termination\n"},
        {[&](Bytes& b) { ntbref::Put32(b, ndp + 16 + 4, 0); }, "IsNdp32Valid: NDP32 invalid content\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.trace);
        mCapture.Take();
        Bytes b = base;
        c.change(b);
        EXPECT_TRUE(Check(b, Form::Ntb32).empty());
        EXPECT_TRUE(Traced(std::string("ethbrg:DeviceContNcm::") + c.trace)) << mCapture.Text();
    }
}

TEST_F(NcmParserTest, AChainThatLoopsBackEndsAfterTheDatagramsOfEachNdpOnce)
{
    for (Form form : {Form::Ntb16, Form::Ntb32}) {
        SCOPED_TRACE(ntbref::FormName(form));
        std::vector<Bytes> a = Frames(2, 60, 45), c = Frames(1, 70, 46);
        Bytes b = BuildNtb(form, {a, c});
        bool n32 = form == Form::Ntb32;
        uint32_t first = n32 ? ntbref::Get32(b, 12) : ntbref::Get16(b, 10);
        uint32_t second = n32 ? ntbref::Get32(b, first + 8) : ntbref::Get16(b, first + 6);
        for (uint32_t target : {first, second}) {  // back to the first, or to itself
            Bytes looped = b;
            if (n32) ntbref::Put32(looped, second + 8, target); else ntbref::Put16(looped, second + 6, target);
            std::vector<NcmRxHarness::Datagram> got = Check(looped, form);
            ASSERT_EQ(3u, got.size());
            EXPECT_EQ(a[0], got[0].payload);
            EXPECT_EQ(a[1], got[1].payload);
            EXPECT_EQ(c[0], got[2].payload);
        }
    }
}

TEST_F(NcmParserTest, DatagramsMayOverlapTheHeaders)
{
    // Not checked: a datagram that covers the transfer header is delivered.
    Bytes b = BuildNtb(Form::Ntb16, {Frames(1, 60, 47)});
    uint32_t ndp = ntbref::Get16(b, 10);
    ntbref::Put16(b, ndp + 8, 1);
    EXPECT_EQ(1u, Check(b, Form::Ntb16).size());
}

// A table of broken NTBs, derived from good ones by deterministic mutation,
// decoded by the driver and by the reference.
TEST_F(NcmParserTest, MutatedNtbsMatchTheReferenceDecoder)
{
    std::mt19937 random(20240521);
    for (Form form : {Form::Ntb16, Form::Ntb32}) {
        for (int round = 0; round < 400; round++) {
            std::vector<std::vector<Bytes>> ndps;
            int ndpCount = 1 + round % 3;
            for (int n = 0; n < ndpCount; n++) ndps.push_back(Frames(1 + random() % 4, 14 + random() % 200, round));
            Bytes b = BuildNtb(form, ndps, round % 5 == 0);
            int mutations = 1 + random() % 4;
            for (int m = 0; m < mutations; m++) {
                size_t at = random() % b.size();
                switch (random() % 4) {
                case 0: b[at] = (uint8_t)random(); break;
                case 1: b[at] ^= (uint8_t)(1u << (random() % 8)); break;
                case 2: b.resize(std::max<size_t>(1, b.size() - random() % 16)); break;
                default: b[at] = (uint8_t)(random() % 3 == 0 ? 0 : b[at] + 4); break;
                }
            }
            SCOPED_TRACE(testing::Message() << ntbref::FormName(form) << " round " << round);
            Check(b, form);
        }
    }
}

}  // namespace
}  // namespace ncmtest
