// DeviceContBase configuration: the Ethernet Networking Functional
// Descriptor accessors, the functional descriptor search, the MAC address
// read from the device, SET_NET_ADDRESS, Exit and destruction.
#include "devicecontbase_fixture.h"

namespace dcbtest {
namespace {

using ethsim::DeviceProfile;
using ethsim::MacAddress;

// ---------------------------------------------------------------------------
// Accessors
// ---------------------------------------------------------------------------
class DcbAccessorTest : public DeviceContTest {};

TEST_F(DcbAccessorTest, WithoutEthernetDescriptorDefaultsAndNoStatistics)
{
    DeviceProfile p;
    p.rawConfiguration = ConfigurationWithoutEthernetDescriptor(p);
    p.bmEthernetStatistics = 0x1FFFFFFF;
    mConfig.StatisticsUpdateInterval = 100;
    CreateAndStart(p);
    EXPECT_EQ(nullptr, mCont->mEthernetDescriptor);
    EXPECT_EQ(1514u, mCont->GetMaxSegmentSize());
    EXPECT_EQ(0u, mCont->GetNumberMCFilters());
    EXPECT_TRUE(mCont->IsStarted());

    kplat::AdvanceTime(10000);
    EXPECT_TRUE(mWrapper->Requests(CDC_GET_ETHERNET_STATISTIC).empty());
    ULONG value = 0xDEAD;
    EXPECT_FALSE(mCont->GetEthernetStatistic(1, &value));
    EXPECT_EQ(0xDEADu, value);

    // The packet filter still goes out; no multicast list without the descriptor.
    EXPECT_TRUE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).size());
    EXPECT_TRUE(mWrapper->Requests(CDC_SET_ETHERNET_MULTICAST_FILTERS).empty());
    EXPECT_TRUE(mNotify.MulticastMaxAsked().empty());
}

TEST_F(DcbAccessorTest, DescriptorValues)
{
    // The filter count keeps 15 bits; bit 15 is imperfect filtering.
    for (uint16_t filters : {0x8010, 0xFFFF}) {
        DeviceProfile p;
        p.wMaxSegmentSize = 1600;
        p.wNumberMCFilters = filters;
        ASSERT_EQ(STATUS_SUCCESS, Create(p));
        EXPECT_EQ(1600u, mCont->GetMaxSegmentSize());
        EXPECT_EQ(filters & 0x7FFFu, mCont->GetNumberMCFilters());
        Destroy();
    }
}

// A descriptor that ends before the fields reads them as 0 rather than
// reading the bytes behind it.
TEST_F(DcbAccessorTest, ShortEthernetDescriptorReadsMissingFieldsAsZero)
{
    DeviceProfile p;
    Bytes config = ethsim::BuildConfigurationDescriptor(p, p.speed);
    Bytes out;
    for (size_t i = 0; i < config.size(); i += config[i]) {
        if (config[i + 1] == 0x24 && config[i + 2] == 0x0F) {
            // bLength 9: iMACAddress and bmEthernetStatistics, no sizes.
            out.insert(out.end(), config.begin() + i, config.begin() + i + 8);
            out[out.size() - 8] = 9;
            out.push_back(0x00);
        } else {
            out.insert(out.end(), config.begin() + i, config.begin() + i + config[i]);
        }
    }
    ethsim::Put16(out.data() + 2, (uint16_t)out.size());
    p.rawConfiguration = out;
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    ASSERT_NE(nullptr, mCont->mEthernetDescriptor);
    EXPECT_EQ(9, mCont->mEthernetDescriptor[0]);
    EXPECT_EQ(0u, mCont->GetMaxSegmentSize());
    EXPECT_EQ(0u, mCont->GetNumberMCFilters());
}

// ---------------------------------------------------------------------------
// FindFunctionalDescriptor
// ---------------------------------------------------------------------------
class DcbFunctionalDescriptorTest : public DeviceContTest {
protected:
    PVOID FirstInterface() { return mCont->mDescriptors.FindInterfaceDescriptor(NULL, -1, -1, -1, -1, -1); }
};

TEST_F(DcbFunctionalDescriptorTest, FindsBySubtypeBehindStart)
{
    ASSERT_EQ(STATUS_SUCCESS, Create());
    PUCHAR ethernet = mCont->FindFunctionalDescriptor(FirstInterface(), 0x24, 0x0F);
    ASSERT_NE(nullptr, ethernet);
    EXPECT_EQ(ethernet, mCont->mEthernetDescriptor);
    EXPECT_EQ(13, ethernet[0]);
    PUCHAR ncm = mCont->FindFunctionalDescriptor(FirstInterface(), 0x24, 0x1A);
    ASSERT_NE(nullptr, ncm);
    EXPECT_EQ(0x24, ncm[1]);
    EXPECT_EQ(0x1A, ncm[2]);
    // From the NCM descriptor itself: the search includes start.
    EXPECT_EQ(ncm, mCont->FindFunctionalDescriptor(ncm, 0x24, 0x1A));
    // Nothing of that subtype, and nothing behind the last one.
    EXPECT_EQ(nullptr, mCont->FindFunctionalDescriptor(FirstInterface(), 0x24, 0x77));
    EXPECT_EQ(nullptr, mCont->FindFunctionalDescriptor(ncm + ncm[0], 0x24, 0x0F));
    // From the start of the block (NULL).
    EXPECT_EQ(ethernet, mCont->FindFunctionalDescriptor(NULL, 0x24, 0x0F));
}

TEST_F(DcbFunctionalDescriptorTest, SearchGoesPastTheNextInterface)
{
    // The Ethernet descriptor moved behind the data interface's descriptors.
    DeviceProfile p;
    Bytes config = ethsim::BuildConfigurationDescriptor(p, p.speed);
    Bytes ethernet, rest;
    for (size_t i = 0; i < config.size(); i += config[i]) {
        Bytes d(config.begin() + i, config.begin() + i + config[i]);
        (d[1] == 0x24 && d[2] == 0x0F ? ethernet : rest).insert((d[1] == 0x24 && d[2] == 0x0F ? ethernet : rest).end(),
                                                                 d.begin(), d.end());
    }
    rest.insert(rest.end(), ethernet.begin(), ethernet.end());
    p.rawConfiguration = rest;
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    PUCHAR found = mCont->FindFunctionalDescriptor(FirstInterface(), 0x24, 0x0F);
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(mCont->mDescriptors.GetConfigDescLength() - 13,
              (ULONG)(found - reinterpret_cast<PUCHAR>(mCont->mDescriptors.GetConfigDesc())));
}

TEST_F(DcbFunctionalDescriptorTest, DescriptorShorterThanThreeBytesEndsTheSearch)
{
    // A 2-byte descriptor of type 0x24 right behind the interface descriptor.
    DeviceProfile p;
    Bytes config = ethsim::BuildConfigurationDescriptor(p, p.speed);
    Bytes out(config.begin(), config.begin() + 9);
    size_t i = 9;
    out.insert(out.end(), config.begin() + i, config.begin() + i + config[i]);  // the interface
    i += config[i];
    out.push_back(2);
    out.push_back(0x24);
    out.insert(out.end(), config.begin() + i, config.end());
    ethsim::Put16(out.data() + 2, (uint16_t)out.size());
    p.rawConfiguration = out;
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_EQ(nullptr, mCont->mEthernetDescriptor);
    EXPECT_EQ(nullptr, mCont->FindFunctionalDescriptor(FirstInterface(), 0x24, 0x0F));
    EXPECT_EQ(nullptr, mCont->FindFunctionalDescriptor(FirstInterface(), 0x24, 0x1A));
    // Other types are not affected: the endpoint descriptors are found.
    EXPECT_EQ(nullptr, mCont->FindFunctionalDescriptor(FirstInterface(), 0x05, 0xFF));
}

// ---------------------------------------------------------------------------
// MAC address
// ---------------------------------------------------------------------------
class DcbMacAddressTest : public DeviceContTest {
protected:
    // The GET_DESCRIPTOR requests for string descriptors: (index, language).
    std::vector<std::pair<int, int>> StringRequests()
    {
        std::vector<std::pair<int, int>> out;
        for (const kplat::UsbSetupPacket& s : mWrapper->Requests(kGetDescriptor)) {
            if ((s.wValue >> 8) == kDescString) {
                out.push_back({s.wValue & 0xFF, s.wIndex});
            }
        }
        return out;
    }
    MacAddress Address()
    {
        MacAddress mac{};
        EXPECT_TRUE(mCont->GetMacAddress(mac.data()));
        return mac;
    }
};

struct MacCase {
    const char* text;
    MacAddress expected;  // all zero: no address
};

class DcbMacStringTest : public DcbMacAddressTest, public ::testing::WithParamInterface<MacCase> {};

TEST_P(DcbMacStringTest, Converts)
{
    DeviceProfile p;
    p.macString = GetParam().text;
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    const bool valid = GetParam().expected != MacAddress{};
    EXPECT_EQ(valid, mCont->mMacAddressValid);
    if (valid) {
        EXPECT_EQ(GetParam().expected, Address());
    } else {
        // Twelve characters that are not all hexadecimal digits fail as a conversion.
        EXPECT_EQ(strlen(GetParam().text) == 12,
                  Traced(std::string("ethbrg:DeviceContBase::ReadMacAddress: Conversion of MAC address fails: ") +
                         GetParam().text + "\n"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Strings, DcbMacStringTest,
    ::testing::Values(MacCase{"001122AABBCC", {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC}},
                      MacCase{"aabbccddeeff", {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}},
                      MacCase{"0300000000FF", {0x02, 0x00, 0x00, 0x00, 0x00, 0xFF}},
                      // Only bit 0 is cleared; the locally administered bit stays.
                      MacCase{"FFFFFFFFFFFF", {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
                      MacCase{"00112233445G", {}}, MacCase{"ZZZZZZZZZZZZ", {}}, MacCase{"-1-1-1-1-1-1", {}},
                      MacCase{"+1+1+1+1+1+1", {}}, MacCase{" 1 1 1 1 1 1", {}}, MacCase{"0011223344 5", {}},
                      MacCase{"00112233445", {}}, MacCase{"0011223344556", {}}));

TEST_F(DcbMacAddressTest, GroupAddressIsCorrectedWithATrace)
{
    DeviceProfile p;
    p.macString = "0300000000FF";
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::ReadMacAddress: Device reports a multi-cast MAC address, correct it!\n"));
}

TEST_F(DcbMacAddressTest, UnicastAddressIsNotCorrected)
{
    DeviceProfile p;
    p.macString = "001122AABBCC";
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_FALSE(Traced("correct it!"));
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 0}, {4, 0x0409}}), StringRequests());
}

TEST_F(DcbMacAddressTest, WrongLengthGivesNoAddress)
{
    for (const char* text : {"001122AABBC", "001122AABBCC0", ""}) {
        DeviceProfile p;
        p.macString = text;
        ASSERT_EQ(STATUS_SUCCESS, Create(p)) << text;
        EXPECT_FALSE(mCont->mMacAddressValid) << text;
        MacAddress mac{};
        mac.fill(0x5A);
        EXPECT_FALSE(mCont->GetMacAddress(mac.data())) << text;
        EXPECT_EQ(0x5A, mac[0]) << "nothing copied";
        EXPECT_TRUE(Traced("ethbrg:DeviceContBase::ReadMacAddress: GetStringDescriptor[4,0409] failed 0x00000000 "
                           "(STATUS_SUCCESS)\n"))
            << text;
        Destroy();
        mCapture.Take();
    }
}

TEST_F(DcbMacAddressTest, StringLongerThanTheBufferFails)
{
    DeviceProfile p;
    p.macString = std::string(40, 'A');
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_FALSE(mCont->mMacAddressValid);
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::ReadMacAddress: GetStringDescriptor[4,0409] failed 0x00000000"));
}

TEST_F(DcbMacAddressTest, MissingStringTracesTheFailure)
{
    Plug();
    mWrapper->StallIf([](const kplat::UsbSetupPacket& s) { return s.bRequest == kGetDescriptor && s.wValue == 0x0304; });
    ASSERT_EQ(STATUS_SUCCESS, InitCont());
    EXPECT_FALSE(mCont->mMacAddressValid);
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::ReadMacAddress: GetStringDescriptor[4,0409] failed 0xC0000001 "
                       "(STATUS_UNSUCCESSFUL)\n"));
}

TEST_F(DcbMacAddressTest, IndexZeroSendsNoRequest)
{
    DeviceProfile p;
    p.iMACAddress = 0;
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_FALSE(mCont->mMacAddressValid);
    EXPECT_TRUE(StringRequests().empty());
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::ReadMacAddress: device does not report a MAC address\n"));
}

TEST_F(DcbMacAddressTest, NoLanguageListAsksWithLanguageZero)
{
    DeviceProfile p;
    p.languages.clear();  // no string descriptor 0
    p.macString = "001122334455";
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::ReadMacAddress: GetLanguageIdList FAILED 0xC0000001 "
                       "(STATUS_UNSUCCESSFUL)\n"));
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 0}, {4, 0}}), StringRequests());
    EXPECT_EQ((MacAddress{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}), Address());
}

TEST_F(DcbMacAddressTest, EmptyLanguageListAsksWithLanguageZero)
{
    DeviceProfile p;
    p.rawStrings[0] = Bytes{2, 3};  // a language list without IDs
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::ReadMacAddress: GetLanguageIdList FAILED 0x00000000 (STATUS_SUCCESS)\n"));
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 0}, {4, 0}}), StringRequests());
    EXPECT_TRUE(mCont->mMacAddressValid);
}

TEST_F(DcbMacAddressTest, LongLanguageListUsesTheFirst)
{
    DeviceProfile p;
    p.languages = {0x0407, 0x0409, 0x040C, 0x0410, 0x0411, 0x0412, 0x0413, 0x0414, 0x0415, 0x0416, 0x0419, 0x041D};
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 0}, {4, 0x0407}}), StringRequests());
    EXPECT_TRUE(mCont->mMacAddressValid);
    EXPECT_FALSE(Traced("GetLanguageIdList FAILED"));
}

// ---------------------------------------------------------------------------
// SET_NET_ADDRESS
// ---------------------------------------------------------------------------
class DcbNetAddressTest : public DeviceContTest {};

TEST_F(DcbNetAddressTest, SendsTheSixBytes)
{
    ASSERT_EQ(STATUS_SUCCESS, Create());
    const UCHAR address[6] = {0x02, 0x10, 0x20, 0x30, 0x40, 0x50};
    mWrapper->ClearSetups();
    EXPECT_EQ(STATUS_SUCCESS, mCont->SetNetAddress(address));
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Setups();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(0x21, sent[0].bmRequestType);
    EXPECT_EQ(CDC_SET_NET_ADDRESS, sent[0].bRequest);
    EXPECT_EQ(0, sent[0].wValue);
    EXPECT_EQ(mCont->mControlInterface, sent[0].wIndex);
    EXPECT_EQ(6, sent[0].wLength);
    EXPECT_EQ((MacAddress{0x02, 0x10, 0x20, 0x30, 0x40, 0x50}), mDevice->GetState().netAddress);
}

TEST_F(DcbNetAddressTest, FailureIsTracedAndReturned)
{
    ASSERT_EQ(STATUS_SUCCESS, Create());
    mWrapper->StallIf([](const kplat::UsbSetupPacket& s) { return s.bRequest == CDC_SET_NET_ADDRESS; });
    const UCHAR address[6] = {0x02, 0, 0, 0, 0, 1};
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mCont->SetNetAddress(address));
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::SetNetAddress failed 0xC0000001 (STATUS_UNSUCCESSFUL)\n"));
    // The mutex was released: a second request gets through.
    mWrapper->StallIf(nullptr);
    EXPECT_EQ(STATUS_SUCCESS, mCont->SetNetAddress(address));
}

TEST_F(DcbNetAddressTest, RequestsGoToTheCommunicationInterface)
{
    DeviceProfile p;
    p.communicationInterface = 3;
    p.dataInterface = 4;
    ASSERT_EQ(STATUS_SUCCESS, Create(p));
    EXPECT_EQ(3, mCont->mControlInterface);
    EXPECT_EQ(4, mCont->mDataInterface);
    const UCHAR address[6] = {0x02, 0, 0, 0, 0, 1};
    mWrapper->ClearSetups();
    EXPECT_EQ(STATUS_SUCCESS, mCont->SetNetAddress(address));
    ASSERT_EQ(1u, mWrapper->Setups().size());
    EXPECT_EQ(3, mWrapper->Setups()[0].wIndex);
}

// ---------------------------------------------------------------------------
// Exit and destruction
// ---------------------------------------------------------------------------
class DcbExitTest : public DeviceContTest {};

TEST_F(DcbExitTest, WithoutConfigurationSendsNothing)
{
    Plug();
    mCont = new (NonPagedPool, KN_POOL_TAG_NCM) TestDeviceCont();
    ASSERT_NE(nullptr, mCont);
    EXPECT_EQ(STATUS_SUCCESS, mCont->Exit());
    EXPECT_TRUE(mWrapper->Setups().empty());
    delete mCont;
    mCont = nullptr;
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_NCM).liveCount);
}

TEST_F(DcbExitTest, SelectsSettingZeroThenUnconfigures)
{
    CreateAndStart();
    mCont->Stop();
    mWrapper->ClearSetups();
    EXPECT_EQ(STATUS_SUCCESS, mCont->Exit());
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Setups();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(kSetInterface, sent[0].bRequest);
    EXPECT_EQ(0, sent[0].wValue);
    EXPECT_EQ(mCont->mDataInterface, sent[0].wIndex);
    EXPECT_EQ(kSetConfiguration, sent[1].bRequest);
    EXPECT_EQ(0, sent[1].wValue);
    EXPECT_EQ(0, mBus->ConfigurationValue());
    EXPECT_FALSE(mCont->mConfiguration.IsConfigured());

    // A second Exit (a second halt) finds nothing selected.
    mWrapper->ClearSetups();
    EXPECT_EQ(STATUS_SUCCESS, mCont->Exit());
    EXPECT_TRUE(mWrapper->Setups().empty());
    // A second Stop finds the streams stopped.
    mCont->Stop();
    EXPECT_TRUE(mWrapper->Setups().empty());
}

TEST_F(DcbExitTest, FailedInterfaceSelectionDoesNotStopTheExit)
{
    CreateAndStart();
    mCont->Stop();
    mWrapper->StallIf([](const kplat::UsbSetupPacket& s) { return s.bRequest == kSetInterface; });
    EXPECT_EQ(STATUS_SUCCESS, mCont->Exit());
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::Exit: SelectInterface failed: 0xC0000001 (STATUS_UNSUCCESSFUL)\n"));
    EXPECT_EQ(2u, mWrapper->Requests(kSetConfiguration).size());  // Init's, then Exit's
    EXPECT_EQ(0, mBus->ConfigurationValue());
}

TEST_F(DcbExitTest, GoneDeviceStillGivesUpTheConfiguration)
{
    CreateAndStart();
    mCont->Stop();
    mBus->Unplug();
    EXPECT_NE(STATUS_SUCCESS, mCont->Exit());
    EXPECT_FALSE(mCont->mConfiguration.IsConfigured());
    EXPECT_EQ(STATUS_SUCCESS, mCont->Exit());
}

TEST_F(DcbExitTest, DestructionWithoutExitLeavesTheDeviceConfigured)
{
    ASSERT_EQ(STATUS_SUCCESS, Create());
    delete mCont;
    mCont = nullptr;
    EXPECT_TRUE(Traced("ASSERTION FAILED: (!mIsConfigured)"));
    EXPECT_EQ(1, mBus->ConfigurationValue());
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_USB_CONFIG).liveCount);
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_NCM).liveCount);
}

TEST_F(DcbExitTest, FullLifeLeavesNothingAllocated)
{
    kplat::ObjectCounts before = kplat::GetObjectCounts();
    CreateAndStart();
    mCont->SetPacketFilter(0x0B);
    kplat::AdvanceTime(6000);
    Destroy();
    kplat::ObjectCounts after = kplat::GetObjectCounts();
    EXPECT_EQ(before.irps, after.irps);
    EXPECT_EQ(before.mdls, after.mdls);
    EXPECT_EQ(before.workItems, after.workItems);
    for (ULONG tag : {KN_POOL_TAG_NCM, KN_POOL_TAG_USB_BUFFER, KN_POOL_TAG_MULTICAST_LIST, KN_POOL_TAG_USB_CONFIG,
                      KN_POOL_TAG_URB, KN_POOL_TAG_MDL_BUFFER}) {
        EXPECT_EQ(0u, kplat::GetPoolTagStats(tag).liveCount) << kplat::TagToString(tag);
    }
}

}  // namespace
}  // namespace dcbtest
