// DeviceContBase notifications: decoding of the interrupt IN transfers into
// adapter calls, through the simulated function and fed directly, and the
// notification stream's error handling.
#include "devicecontbase_fixture.h"

namespace dcbtest {
namespace {

using ethsim::DeviceProfile;

class DcbNotificationTest : public DeviceContTest {
protected:
    // Starts and forgets what the start's own link notifications did.
    void Start(const DeviceProfile& profile = DeviceProfile())
    {
        CreateAndStart(profile);
        mStates = mNotify.States().size();
        mSpeeds = mNotify.Speeds().size();
        mCapture.Take();
    }
    std::vector<bool> NewStates()
    {
        std::vector<bool> all = mNotify.States();
        return std::vector<bool>(all.begin() + mStates, all.end());
    }
    std::vector<std::pair<ULONG, ULONG>> NewSpeeds()
    {
        std::vector<std::pair<ULONG, ULONG>> all = mNotify.Speeds();
        return std::vector<std::pair<ULONG, ULONG>>(all.begin() + mSpeeds, all.end());
    }
    void Inject(const Bytes& bytes)
    {
        mDevice->InjectNotification(bytes);
        kplat::RunUntilIdle();
    }

    size_t mStates = 0;
    size_t mSpeeds = 0;
};

// ---------------------------------------------------------------------------
// Through the device
// ---------------------------------------------------------------------------
TEST_F(DcbNotificationTest, StartReportsTheLink)
{
    CreateAndStart();
    EXPECT_EQ((std::vector<bool>{true}), mNotify.States());
    EXPECT_EQ(1u, mNotify.Speeds().size());
}

TEST_F(DcbNotificationTest, ConnectionStates)
{
    // Every notification is passed on, repeated ones too; value 2 is traced
    // as connected but reported as disconnected.
    Start();
    for (uint16_t value : {0, 1, 1, 2}) {
        mCapture.Take();
        mDevice->NotifyNetworkConnection(value);
        kplat::RunUntilIdle();
        EXPECT_TRUE(Traced(std::string("ethbrg:DeviceContBase::OnProcessNotification: adapter reports ") +
                           (value == 0 ? "disconnected\n" : "connected\n")))
            << value;
    }
    EXPECT_EQ((std::vector<bool>{false, true, true, false}), NewStates());
}

TEST_F(DcbNotificationTest, SpeedChangeOfSixteenBytes)
{
    Start();
    Inject(SpeedChange(100000000, 300000000));
    EXPECT_EQ((std::vector<std::pair<ULONG, ULONG>>{{100000000, 300000000}}), NewSpeeds());
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::OnProcessNotification: adapter reports CONNECTION_SPEED_CHANGE "
                       "upstream:100000000 downstream:300000000\n"));
    EXPECT_TRUE(NewStates().empty());
}

TEST_F(DcbNotificationTest, LongerSpeedChangeIgnoresTheExtraBytes)
{
    DeviceProfile p;
    p.notifyMaxPacket = 64;
    Start(p);
    Bytes b = SpeedChange(0xFFFFFFFF, 12);
    b.insert(b.end(), {1, 2, 3, 4, 5, 6, 7, 8});
    Inject(b);
    EXPECT_EQ((std::vector<std::pair<ULONG, ULONG>>{{0xFFFFFFFF, 12}}), NewSpeeds());
    EXPECT_FALSE(Traced("unexpected length"));
}

TEST_F(DcbNotificationTest, EightByteSpeedChangeIsDroppedAndItsDataDecodedAlone)
{
    // An 8-byte endpoint delivers the 16-byte notification in two transfers.
    DeviceProfile p;
    p.notifyMaxPacket = 8;
    p.linkUp = false;  // the start's notification fits one packet
    Start(p);
    // The data: 00 00 01 00 | 00 00 00 00, read as a NETWORK_CONNECTION
    // with wValue 1.
    Inject(SpeedChange(0x00010000, 0));
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::OnProcessNotification: get CONNECTION_SPEED_CHANGE notification with "
                       "unexpected length 8\n"));
    EXPECT_TRUE(NewSpeeds().empty());
    EXPECT_EQ((std::vector<bool>{true}), NewStates());
    EXPECT_TRUE(Traced("adapter reports connected"));
}

TEST_F(DcbNotificationTest, TwoBackToBackDecodeTheFirstOnly)
{
    Start();
    Bytes b = Notification(0x00, 0);
    Bytes second = Notification(0x00, 1);
    b.insert(b.end(), second.begin(), second.end());
    Inject(b);
    EXPECT_EQ((std::vector<bool>{false}), NewStates());
    EXPECT_EQ(1u, TraceCount("adapter reports"));
}

TEST_F(DcbNotificationTest, ZeroLengthTransferIsSkippedSilently)
{
    Start();
    Inject(Bytes());
    EXPECT_EQ("", mCapture.Text());
    mDevice->NotifyNetworkConnection(0);
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<bool>{false}), NewStates());
}

TEST_F(DcbNotificationTest, ResponseAvailableFetchesNothing)
{
    Start();
    mWrapper->ClearSetups();
    mDevice->NotifyResponseAvailable();
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::OnProcessNotification: adapter reports RESPONSE_AVAILABLE\n"));
    EXPECT_TRUE(mWrapper->Setups().empty());
    EXPECT_TRUE(NewStates().empty());
    EXPECT_TRUE(NewSpeeds().empty());
}

TEST_F(DcbNotificationTest, UnknownCodeIsTracedAndDropped)
{
    Start();
    Inject(Notification(0x77, 1));
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::OnProcessNotification: unexpected notification code 119\n"));
    EXPECT_TRUE(NewStates().empty());
    // The endpoint is read again.
    mDevice->NotifyNetworkConnection(1);
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<bool>{true}), NewStates());
}

// ---------------------------------------------------------------------------
// Fed directly
// ---------------------------------------------------------------------------
class DcbDecodeTest : public DcbNotificationTest {
protected:
    // Decodes one transfer and checks that its buffer went home.
    void Decode(const Bytes& bytes)
    {
        LoneBuffer buffer(bytes);
        mCont->OnProcessNotification(buffer.Get());
        EXPECT_TRUE(buffer.Returned());
    }
};

TEST_F(DcbDecodeTest, ShortTransfersAreTracedWithADump)
{
    Start();
    for (size_t n = 1; n < 8; n++) {
        Bytes b = Notification(0x00, 1);
        b.resize(n);
        Decode(b);
        EXPECT_TRUE(Traced("ethbrg:DeviceContBase::OnProcessNotification: get a notification with unexpected length " +
                           std::to_string(n) + "\n"))
            << n;
    }
    EXPECT_TRUE(Traced("0000: A1 00 01 00  00 00 00 "));  // the 7-byte dump
    EXPECT_TRUE(NewStates().empty());
}

TEST_F(DcbDecodeTest, ZeroLengthTracesNothing)
{
    Start();
    Decode(Bytes());
    EXPECT_EQ("", mCapture.Text());
}

TEST_F(DcbDecodeTest, ShortSpeedChangesAreDropped)
{
    Start();
    for (size_t n = 8; n < 16; n++) {
        Bytes b = SpeedChange(1, 2);
        b.resize(n);
        Decode(b);
        EXPECT_TRUE(Traced("get CONNECTION_SPEED_CHANGE notification with unexpected length " + std::to_string(n) +
                           "\n"))
            << n;
    }
    EXPECT_TRUE(NewSpeeds().empty());
}

TEST_F(DcbDecodeTest, HeaderFieldsOtherThanCodeAndValueDoNotMatter)
{
    Start();
    // bmRequestType 0, wIndex 0x1234, wLength claiming 100 bytes.
    Bytes b = Notification(0x00, 1, Bytes(), 0x00, 0x1234);
    ethsim::Put16(b.data() + 6, 100);
    Decode(b);
    // A speed change whose wLength says 0.
    Bytes speed = SpeedChange(7, 9);
    ethsim::Put16(speed.data() + 6, 0);
    speed[0] = 0xFF;
    Decode(speed);
    EXPECT_EQ((std::vector<bool>{true}), NewStates());
    EXPECT_EQ((std::vector<std::pair<ULONG, ULONG>>{{7, 9}}), NewSpeeds());
}

TEST_F(DcbDecodeTest, WorksAtDispatchLevel)
{
    Start();
    LoneBuffer buffer(SpeedChange(5, 6));
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    mCont->OnProcessNotification(buffer.Get());
    KeLowerIrql(old);
    EXPECT_TRUE(buffer.Returned());
    EXPECT_EQ((std::vector<std::pair<ULONG, ULONG>>{{5, 6}}), NewSpeeds());
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

// ---------------------------------------------------------------------------
// Errors of the notification stream
// ---------------------------------------------------------------------------
TEST_F(DcbNotificationTest, FailedReadRestartsTheStream)
{
    Start();
    mWrapper->ClearSetups();
    mDevice->FailNextTransfers(0x81, 1, kplat::UsbHandshake::Stall);
    mDevice->NotifyNetworkConnection(0);
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:NotificationBase::IndicateError: 0xC0000001 (STATUS_UNSUCCESSFUL), removed:false\n"));
    // The restart cleared the halt and reads again.
    std::vector<kplat::UsbSetupPacket> clears = mWrapper->Requests(kClearFeature);
    ASSERT_EQ(1u, clears.size());
    EXPECT_EQ(0x81, clears[0].wIndex);
    EXPECT_TRUE(mCont->mNotificationStream.IsStreamEnabled());
    mDevice->NotifyNetworkConnection(1);
    kplat::RunUntilIdle();
    ASSERT_FALSE(NewStates().empty());
    EXPECT_TRUE(NewStates().back());
}

TEST_F(DcbNotificationTest, RemovedDeviceEndsReading)
{
    Start();
    mBus->Unplug();
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:NotificationBase::IndicateError: 0xC000009D (STATUS_DEVICE_NOT_CONNECTED), "
                       "removed:true\n"));
    EXPECT_TRUE(mCont->mNotificationStream.IsDeviceRemoved());
    EXPECT_FALSE(mCont->mNotificationStream.IsRestartPending());
    EXPECT_EQ(0u, mCont->mNotificationStream.GetRestartQueuedCount());
    EXPECT_TRUE(NewStates().empty());
}

TEST_F(DcbNotificationTest, HandlerWithoutParentAssertsAndDoesNothing)
{
    NotificationBase handler;
    EXPECT_EQ(nullptr, handler.mParent);
    handler.IndicateError(STATUS_UNSUCCESSFUL, false);
    EXPECT_TRUE(Traced("ASSERTION FAILED: (mParent != NULL)"));
    EXPECT_TRUE(Traced("ethbrg:NotificationBase::IndicateError: 0xC0000001 (STATUS_UNSUCCESSFUL), removed:false\n"));
}

}  // namespace
}  // namespace dcbtest
