// DeviceContNcm, Init and Start against the simulated function: a good
// device, broken descriptors, NTB parameters to repair or refuse, sizes
// clamped, class requests that fail.
#include "devicecontncm_fixture.h"

namespace ncmtest {
namespace {

// The descriptors of a configuration block, one by one.
std::vector<Bytes> SplitDescriptors(const Bytes& config)
{
    std::vector<Bytes> out;
    for (size_t i = 0; i < config.size() && config[i] != 0;) {
        out.push_back(Bytes(config.begin() + i, config.begin() + i + config[i]));
        i += config[i];
    }
    return out;
}

Bytes JoinDescriptors(const std::vector<Bytes>& parts)
{
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    ethsim::Put16(out.data() + 2, (uint16_t)out.size());
    return out;
}

bool IsFunctional(const Bytes& d, uint8_t subtype) { return d.size() >= 3 && d[1] == 0x24 && d[2] == subtype; }

class NcmInitTest : public NcmTest {
protected:
    Bytes GeneratedConfig(const ethsim::DeviceProfile& p = ethsim::DeviceProfile())
    {
        return ethsim::BuildConfigurationDescriptor(p, p.speed);
    }
    // A profile whose configuration descriptor is the generated one, changed.
    ethsim::DeviceProfile WithConfig(std::function<void(std::vector<Bytes>&)> change,
                                     ethsim::DeviceProfile p = ethsim::DeviceProfile())
    {
        std::vector<Bytes> parts = SplitDescriptors(GeneratedConfig(p));
        change(parts);
        p.rawConfiguration = JoinDescriptors(parts);
        return p;
    }
    void ExpectInitFailsUnconfigured(const ethsim::DeviceProfile& p, NTSTATUS expected, const std::string& trace)
    {
        EXPECT_EQ(expected, Create(p));
        EXPECT_TRUE(Traced(trace)) << mCapture.Text();
        EXPECT_FALSE(Peer::IsConfigured(*mCont));
        EXPECT_EQ(0, mBus->ConfigurationValue());
    }
};

TEST_F(NcmInitTest, AGoodDeviceInitialisesAndStarts)
{
    ASSERT_EQ(STATUS_SUCCESS, Create());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Init: NCM Interface found\n"));
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Init: Use 32 bit headers\n"));
    EXPECT_TRUE(Traced("ethbrgDeviceContNcm::Init InputBufferSize :16384 InputBufferCount :4\n"));
    EXPECT_TRUE(Traced("ethbrgDeviceContNcm::Init OutputBufferSize:16384 OutputBufferCount:4\n"));
    EXPECT_TRUE(Traced("ethbrgDeviceContNcm::Init wNdpOutDivisor:4 wNdpOutReminder:0\n"));
    EXPECT_TRUE(Traced("ethbrgDeviceContNcm::Init wNdpOutAlignment:4\n"));
    EXPECT_EQ(0, Peer::ControlInterface(*mCont));
    EXPECT_EQ(1, Peer::DataInterface(*mCont));
    EXPECT_TRUE(Peer::Use32BitHeaders(*mCont));
    EXPECT_EQ(169u, Peer::MaxTxDatagrams(*mCont));
    EXPECT_EQ(1514u, mCont->GetMaxSegmentSize());
    UCHAR mac[6];
    ASSERT_TRUE(mCont->GetMacAddress(mac));
    EXPECT_EQ(0, std::memcmp(mac, mProfile.macAddress.data(), 6));
    EXPECT_EQ(1, mBus->ConfigurationValue());

    ASSERT_EQ(STATUS_SUCCESS, Start());
    kplat::RunUntilIdle();
    ethsim::NcmDevice::State s = mDevice->GetState();
    EXPECT_EQ(1, s.dataAlternate);
    EXPECT_TRUE(s.ntb32);
    EXPECT_EQ(16384u, s.ntbInputSize);
    EXPECT_FALSE(s.crcMode);
    EXPECT_EQ(1u, mRecorder->CountRequests(0x86));
    EXPECT_EQ(1u, mRecorder->CountRequests(0x84, 1));
    EXPECT_EQ(1u, mRecorder->CountRequests(0x8A, 0)) << "the function announces SetCrcMode";
    EXPECT_TRUE(Peer::IsStarted(*mCont));
    EXPECT_EQ(mConfig.RxBuffers, Peer::InStream(*mCont).GetPendingCount()) << "reads pending";
    EXPECT_EQ(16384u, Peer::InStream(*mCont).GetReadSize());

    mCont->Stop();
    EXPECT_FALSE(Peer::IsStarted(*mCont));
    EXPECT_EQ(0u, Peer::InStream(*mCont).GetPendingCount());
    EXPECT_EQ(STATUS_SUCCESS, mCont->Exit());
    EXPECT_EQ(0, mBus->ConfigurationValue());
    EXPECT_EQ(0, mDevice->GetState().dataAlternate);
    mStartCalled = false;
}

TEST_F(NcmInitTest, ADeviceWithoutNtb32UsesNtb16)
{
    CreateAndStart(Ntb16Profile());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Init: Use 16 bit headers\n"));
    EXPECT_FALSE(Peer::Use32BitHeaders(*mCont));
    EXPECT_EQ(1u, mRecorder->CountRequests(0x84, 0));
    EXPECT_FALSE(mDevice->GetState().ntb32);
}

TEST_F(NcmInitTest, ADeviceWithoutTheCrcCapabilityNeverHearsSetCrcMode)
{
    ethsim::DeviceProfile p;
    p.bmNetworkCapabilities = 0x0B;
    CreateAndStart(p);
    EXPECT_EQ(0u, mRecorder->CountRequests(0x8A));
}

TEST_F(NcmInitTest, TheDataInterfaceFirstIsNotAnNcmFunction)
{
    ethsim::DeviceProfile p = WithConfig([](std::vector<Bytes>& d) {
        // Move the communication interface block (interface .. its endpoint)
        // behind the data interface.
        std::vector<Bytes> comm(d.begin() + 1, d.begin() + 7);
        d.erase(d.begin() + 1, d.begin() + 7);
        d.insert(d.end(), comm.begin(), comm.end());
    });
    ExpectInitFailsUnconfigured(p, STATUS_UNSUCCESSFUL,
                                "ethbrg:DeviceContNcm::Init: this is not a NCM interface class:0a, subclass:00, "
                                "Prot:01 \n");
    EXPECT_EQ(0u, mRecorder->CountRequests(0x80)) << "nothing asked of the device";
}

// Broken descriptors: Init fails with the trace and gives the
// configuration up.
TEST_F(NcmInitTest, BrokenDescriptorsFailInit)
{
    auto remove = [](uint8_t subtype) {
        return [subtype](std::vector<Bytes>& d) {
            d.erase(std::remove_if(d.begin(), d.end(), [&](const Bytes& x) { return IsFunctional(x, subtype); }),
                    d.end());
        };
    };
    ethsim::DeviceProfile smallFrames;
    smallFrames.wMaxSegmentSize = 63;
    const std::vector<std::pair<ethsim::DeviceProfile, std::string>> cases = {
        // An ECM communication interface.
        {WithConfig([](std::vector<Bytes>& d) { d[1][6] = 0x06; }),
         "this is not a NCM interface class:02, subclass:06, Prot:00 \n"},
        {WithConfig([](std::vector<Bytes>& d) {
             d.resize(1);
             d[0][4] = 0;
         }),
         "Cannot get first interface descriptor\n"},
        {WithConfig(remove(0x0F)), "cannot find the Ethernet functional descriptor\n"},
        // An Ethernet descriptor of 8 bytes has no frame size.
        {WithConfig([](std::vector<Bytes>& d) {
             for (Bytes& x : d) {
                 if (IsFunctional(x, 0x0F)) {
                     x.resize(8);
                     x[0] = 8;
                 }
             }
         }),
         "device reports frame size that is too small: 0\n"},
        {smallFrames, "device reports frame size that is too small: 63\n"},
        {WithConfig(remove(0x1A)), "cannot find the NCM functional descriptor\n"},
        // The data interface is vendor-specific.
        {WithConfig([](std::vector<Bytes>& d) {
             for (Bytes& x : d) {
                 if (x[1] == 4 && x[5] == 0x0A) x[5] = 0xFF;
             }
         }),
         "LookupInterfaceInfo for data interface failed: \n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        Destroy();
        mCapture.Take();
        ExpectInitFailsUnconfigured(c.first, STATUS_UNSUCCESSFUL, "ethbrg:DeviceContNcm::Init: " + c.second);
    }
}

TEST_F(NcmInitTest, AnNcmDescriptorOfType0x22IsAccepted)
{
    ethsim::DeviceProfile p;
    p.ncmDescriptorType = 0x22;
    CreateAndStart(p);
    ASSERT_NE(nullptr, Peer::NcmDescriptor(*mCont));
    EXPECT_EQ(0x22, Peer::NcmDescriptor(*mCont)[1]);
    EXPECT_EQ(1u, mRecorder->CountRequests(0x8A, 0)) << "its capabilities are read";
}

TEST_F(NcmInitTest, TwentySixBytesOfNtbParametersFailInitAndGiveTheConfigurationUp)
{
    ethsim::DeviceProfile p;
    p.ntbParametersAnswerLength = 26;
    ExpectInitFailsUnconfigured(p, STATUS_UNSUCCESSFUL,
                                "ethbrg:DeviceContNcm::GetNtbParameters device reports invalid NTB parameters\n");
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Init: GetNtbParameters failed: 0xC0000001"));
}

TEST_F(NcmInitTest, AStalledGetNtbParametersFailsInit)
{
    Plug();
    mRecorder->StallRequest(0x80);
    EXPECT_NE(STATUS_SUCCESS, CreateOnly());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Init: GetNtbParameters failed: "));
    EXPECT_EQ(0, mBus->ConfigurationValue());
}

TEST_F(NcmInitTest, OutputParametersAreRepaired)
{
    {
        ethsim::DeviceProfile p;
        p.ntb.wNdpOutAlignment = 2;
        p.ntb.wNdpOutDivisor = 0;
        p.ntb.wNdpOutPayloadRemainder = 3;
        ASSERT_EQ(STATUS_SUCCESS, Create(p));
        EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Init: invalid NtbParameters.wNdpOutAlignment\n"));
        EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Init: invalid NtbParameters.wNdpOutDivisor == 0\n"));
        EXPECT_EQ(4, Peer::Parameters(*mCont).wNdpOutAlignment);
        EXPECT_EQ(1, Peer::Parameters(*mCont).wNdpOutDivisor);
        EXPECT_EQ(0, Peer::Parameters(*mCont).wNdpOutPayloadRemainder);
    }
    for (uint16_t alignment : {0, 1, 3}) {
        Destroy();
        mCapture.Take();
        ethsim::DeviceProfile p;
        p.ntb.wNdpOutAlignment = alignment;
        p.ntb.wNdpOutPayloadRemainder = 5;
        ASSERT_EQ(STATUS_SUCCESS, Create(p));
        EXPECT_EQ(4, Peer::Parameters(*mCont).wNdpOutAlignment);
        EXPECT_EQ(1, Peer::Parameters(*mCont).wNdpOutPayloadRemainder) << "5 mod 4";
        EXPECT_FALSE(Traced("wNdpOutDivisor == 0"));
    }
    Destroy();
    mCapture.Take();
    ethsim::DeviceProfile p;
    p.ntb.wNdpOutAlignment = 6;
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_EQ(6, Peer::Parameters(*mCont).wNdpOutAlignment);
    EXPECT_FALSE(Traced("wNdpOutAlignment\n"));
}

TEST_F(NcmInitTest, BufferSizesAreClamped)
{
    struct Case {
        uint16_t formats;
        uint32_t inMax, outMax;
        ULONG in, out;
    };
    for (const Case& c : std::vector<Case>{{0x0001, 16384, 16384, 16384, 16384},
                                           {0x0003, 300000, 1000000, 256000, 256000},
                                           {0x0001, 100000, 70000, 65535, 65535},
                                           {0x0003, 100000, 8192, 100000, 8192},
                                           {0x0001, 2048, 65535, 2048, 65535}}) {
        SCOPED_TRACE(c.inMax);
        Destroy();
        ethsim::DeviceProfile p;
        p.ntb.bmNtbFormatsSupported = c.formats;
        p.ntb.dwNtbInMaxSize = c.inMax;
        p.ntb.dwNtbOutMaxSize = c.outMax;
        CreateAndStart(p);
        EXPECT_EQ(c.in, Peer::InputBufferSize(*mCont));
        EXPECT_EQ(c.out, Peer::OutputBufferSize(*mCont));
        EXPECT_EQ(c.in, mDevice->GetState().ntbInputSize);
        EXPECT_EQ(c.out, Peer::OutStream(*mCont).GetBufPool()->GetBufferSize());
    }
}

TEST_F(NcmInitTest, ABufferSizeBelow24IsRefused)
{
    ethsim::DeviceProfile p;
    p.ntb.dwNtbInMaxSize = 23;
    ExpectInitFailsUnconfigured(p, STATUS_UNSUCCESSFUL,
                                "ethbrg:DeviceContNcm::Init: invalid NtbParameters, buffer size\n");
}

TEST_F(NcmInitTest, AnOutputSizeThatCannotHoldOneLargestDatagramIsRefused)
{
    // NTB16, divisor 4: the first datagram at 14, 1514 bytes, an NDP of 16
    // bytes, alignment 4 and one: 1549 bytes are needed.
    ethsim::DeviceProfile p = Ntb16Profile();
    p.ntb.dwNtbOutMaxSize = 1548;
    ExpectInitFailsUnconfigured(p, STATUS_UNSUCCESSFUL,
                                "ethbrg:DeviceContNcm::Init: OutputBufferSize 1548 cannot hold a datagram of 1514 "
                                "bytes (needs 1549)\n");
    Destroy();
    p.ntb.dwNtbOutMaxSize = 1549;
    CreateAndStart(p);
    Send(MakeFrame(1514, 1));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mNetwork.Count()) << "just large enough";
    ExpectConformingNtbs();
}

TEST_F(NcmInitTest, TheDatagramLimitOfTheDevice)
{
    for (auto c : std::vector<std::pair<uint16_t, ULONG>>{{0, 169}, {200, 169}, {169, 169}, {168, 168}, {32, 32}}) {
        Destroy();
        ethsim::DeviceProfile p;
        p.ntb.wNtbOutMaxDatagrams = c.first;
        ASSERT_EQ(STATUS_SUCCESS, Create(p));
        EXPECT_EQ(c.second, Peer::MaxTxDatagrams(*mCont)) << c.first;
    }
}

TEST_F(NcmInitTest, SetNtbFormatRefusedUnderNtb16StartsAnyway)
{
    Plug(Ntb16Profile());
    mRecorder->StallRequest(0x84);
    ASSERT_EQ(STATUS_SUCCESS, CreateOnly());
    EXPECT_EQ(STATUS_SUCCESS, Start());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Start: SetNtbFormat failed: 0xC0000001"));
    kplat::RunUntilIdle();
    Send(MakeFrame(60, 1));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mNetwork.Count());
    ExpectConformingNtbs();
}

TEST_F(NcmInitTest, SetNtbFormatRefusedUnderNtb32FailsStart)
{
    Plug();
    mRecorder->StallRequest(0x84);
    ASSERT_EQ(STATUS_SUCCESS, CreateOnly());
    EXPECT_EQ(STATUS_UNSUCCESSFUL, Start());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Start: SetNtbFormat failed: 0xC0000001"));
    EXPECT_FALSE(Peer::IsStarted(*mCont));
}

TEST_F(NcmInitTest, SetNtbInputSizeOrSetCrcModeRefusedFailsStart)
{
    for (uint8_t request : {0x86, 0x8A}) {
        Destroy();
        Plug();
        mRecorder->StallRequest(request);
        ASSERT_EQ(STATUS_SUCCESS, CreateOnly());
        EXPECT_EQ(STATUS_UNSUCCESSFUL, Start());
        EXPECT_TRUE(Traced(request == 0x86 ? "ethbrg:DeviceContNcm::Start: SetNtbInputSize failed: 0xC0000001"
                                           : "ethbrg:DeviceContNcm::Start: SetCrcMode(false) failed: 0xC0000001"));
        EXPECT_FALSE(Peer::IsStarted(*mCont));
    }
}

TEST_F(NcmInitTest, SelectingTheDataInterfaceFails)
{
    Plug();
    mRecorder->StallRequest(0x0B, 1);
    ASSERT_EQ(STATUS_SUCCESS, CreateOnly());
    EXPECT_NE(STATUS_SUCCESS, Start());
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::Start: SelectInterface failed: "));
}

TEST_F(NcmInitTest, TheRegistryAddressGoesToTheDeviceAndItsFailureDoesNotStopStart)
{
    mConfig.AddressFromRegistry = true;
    const UCHAR address[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::memcpy(mConfig.CurrentAddress, address, 6);
    CreateAndStart();
    ethsim::NcmDevice::State s = mDevice->GetState();
    EXPECT_EQ(0, std::memcmp(s.netAddress.data(), address, 6));
    Destroy();
    Plug();
    mRecorder->StallRequest(0x82);
    ASSERT_EQ(STATUS_SUCCESS, CreateOnly());
    EXPECT_EQ(STATUS_SUCCESS, Start());
}

TEST_F(NcmInitTest, AMissingInterruptPipeFailsStart)
{
    ethsim::DeviceProfile p = WithConfig([](std::vector<Bytes>& d) {
        for (size_t i = 0; i < d.size(); i++) {
            if (d[i][1] == 4 && d[i][5] == 0x02) d[i][4] = 0;  // no endpoint
            if (d[i][1] == 5 && (d[i][3] & 3) == 3) {
                d.erase(d.begin() + i);
                i--;
            }
        }
    });
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, Start());
    EXPECT_TRUE(Traced(
        "ethbrg:DeviceContNcm::Start: LookupPipeInfoByTypeAndDirection for interrupt IN pipe failed\n"));
}

TEST_F(NcmInitTest, AStartAfterStopAnnouncesTheFullInputSizeAgain)
{
    CreateAndStart();
    mCont->Stop();
    ASSERT_EQ(STATUS_SUCCESS, Start());
    kplat::RunUntilIdle();
    EXPECT_EQ(2u, mRecorder->CountRequests(0x86));
    EXPECT_EQ(16384u, mDevice->GetState().ntbInputSize);
    FromNetwork(MakeFrame(60, 1));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mAdapter.Received().size());
}

}  // namespace
}  // namespace ncmtest
