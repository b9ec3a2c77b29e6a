// Fixture of the DeviceContBase tests: the stand-in on its virtual clock, a
// simulated NCM function on the stand-in's USB bus (behind a thin wrapper
// that can stall chosen control transfers and logs every set-up packet), a
// recording adapter (DeviceNotify) and a small device control that derives
// from DeviceContBase with just enough Init/Start/Stop to drive it.
#pragma once

#include <ethsim/descriptors.h>
#include <ethsim/ncm.h>
#include <ethsim/ncm_device.h>
#include <gtest/gtest.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "devicecontbase.h"
#include "fixture_common.h"
#include "knpooltags.h"
#include "kntrace.h"

namespace dcbtest {

using ethsim::Bytes;

constexpr UCHAR kGetDescriptor = 0x06;
constexpr UCHAR kSetConfiguration = 0x09;
constexpr UCHAR kSetInterface = 0x0B;
constexpr UCHAR kClearFeature = 0x01;
constexpr UCHAR kDescString = 0x03;

// The adapter side: records every call; the multicast list it answers with
// is set by the test. Called from worker threads and DPCs, read by the test
// while the stand-in is idle; the mutex keeps both sides ordered.
class RecordingNotify : public DeviceNotify {
public:
    void NetworkStateChanged(bool connected) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStates.push_back(connected);
    }
    void ConnectionSpeedChanged(ULONG upstream, ULONG downstream) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSpeeds.push_back({upstream, downstream});
    }
    ULONG SubmitTxPackets(UCHAR* destination, ULONG maxLength) override
    {
        (void)destination;
        (void)maxLength;
        return 0;
    }
    void ProcessReceivedData(UsbBuf* datagram) override { (void)datagram; }
    void StartCompleted(NTSTATUS status) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStartCompleted.push_back(status);
    }
    void StopCompleted() override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopCompleted++;
    }
    ULONG GetMulticastList(ULONG maxCount, UCHAR* destination) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mMulticastMaxAsked.push_back(maxCount);
        ULONG n = std::min<ULONG>(maxCount, (ULONG)mMulticast.size());
        for (ULONG i = 0; i < n; i++) {
            std::memcpy(destination + 6 * i, mMulticast[i].data(), 6);
        }
        return n;
    }

    void SetMulticast(std::vector<ethsim::MacAddress> list)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mMulticast = std::move(list);
    }
    std::vector<bool> States()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mStates;
    }
    std::vector<std::pair<ULONG, ULONG>> Speeds()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mSpeeds;
    }
    std::vector<NTSTATUS> StartCompletions()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mStartCompleted;
    }
    int StopCompletions()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mStopCompleted;
    }
    std::vector<ULONG> MulticastMaxAsked()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMulticastMaxAsked;
    }

private:
    std::mutex mMutex;
    std::vector<bool> mStates;
    std::vector<std::pair<ULONG, ULONG>> mSpeeds;
    std::vector<NTSTATUS> mStartCompleted;
    int mStopCompleted = 0;
    std::vector<ethsim::MacAddress> mMulticast;
    std::vector<ULONG> mMulticastMaxAsked;
};

// The pass-through device that can also answer chosen IN requests itself.
class WrapperDevice : public drvtest::PassThroughDevice {
public:
    using PassThroughDevice::PassThroughDevice;

    // Answers the matching IN requests itself with these bytes.
    void AnswerIf(std::function<bool(const kplat::UsbSetupPacket&)> predicate, Bytes answer)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mAnswerIf = std::move(predicate);
        mAnswer = std::move(answer);
    }
    // The set-up packets with this bRequest.
    std::vector<kplat::UsbSetupPacket> Requests(UCHAR request)
    {
        std::vector<kplat::UsbSetupPacket> out;
        for (const kplat::UsbSetupPacket& s : Setups()) {
            if (s.bRequest == request) out.push_back(s);
        }
        return out;
    }

protected:
    bool Answer(kplat::UsbControlTransfer* transfer) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mAnswerIf || !mAnswerIf(transfer->setup)) return false;
        uint32_t n = std::min<uint32_t>((uint32_t)mAnswer.size(), transfer->setup.wLength);
        if (n != 0) std::memcpy(transfer->data, mAnswer.data(), n);
        transfer->actual = n;
        return true;
    }

private:
    std::function<bool(const kplat::UsbSetupPacket&)> mAnswerIf;
    Bytes mAnswer;
};

// A device control with the least that DeviceContBase needs around it:
// Init loads the descriptors, finds the functional descriptors, reads the
// MAC address and selects the configuration; Start selects the data
// interface, configures the streams and calls StartBase; Stop calls
// StopBase. The data path just recycles buffers.
class TestDeviceCont : public DeviceContBase {
public:
    NTSTATUS Init(PDEVICE_OBJECT functionalDeviceObject, PDEVICE_OBJECT physicalDeviceObject,
                  PDEVICE_OBJECT lowerDeviceObject, DeviceNotify* deviceNotify, AdapterConfig* parameters,
                  NdSpinlock* adapterLock) override
    {
        mFunctionalDeviceObject = functionalDeviceObject;
        mUsbDevice.SetPhysicalDeviceObject(physicalDeviceObject);
        mUsbDevice.SetDeviceObject(lowerDeviceObject);
        mDeviceNotify = deviceNotify;
        mParameters = parameters;
        mLock = adapterLock;

        NTSTATUS status = mDescriptors.Load(&mUsbDevice, 0, NonPagedPool, 500);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        PUSB_INTERFACE_DESCRIPTOR ifDesc = mDescriptors.FindInterfaceDescriptor(NULL, -1, -1, -1, -1, -1);
        if (ifDesc == NULL) {
            return STATUS_UNSUCCESSFUL;
        }
        mControlInterface = ifDesc->bInterfaceNumber;
        mEthernetDescriptor = FindFunctionalDescriptor(ifDesc, CDC_CS_INTERFACE, CDC_ETHERNET_NETWORKING_FUNC_DESC);
        if (mEthernetDescriptor != NULL) {
            ReadMacAddress();
        }
        status = mConfiguration.PrepareAndSelectConfiguration(&mUsbDevice, 0, 5000, 4096);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        PUSBD_INTERFACE_INFORMATION data = mConfiguration.LookupInterfaceInfo(-1, -1, 0x0A, -1, -1);
        if (data == NULL) {
            return STATUS_UNSUCCESSFUL;
        }
        mDataInterface = data->InterfaceNumber;
        return STATUS_SUCCESS;
    }

    NTSTATUS Start() override
    {
        __atomic_add_fetch(&mStartCalls, 1, __ATOMIC_SEQ_CST);
        NTSTATUS status = mConfiguration.PrepareSelectInterface(&mUsbDevice, mDataInterface, 1, 4096);
        if (NT_SUCCESS(status)) {
            status = mConfiguration.SelectInterface(&mUsbDevice, 500);
        }
        if (!NT_SUCCESS(status)) {
            return status;
        }
        PUSBD_PIPE_INFORMATION notify =
            mConfiguration.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeInterrupt, true, -1, -1);
        PUSBD_PIPE_INFORMATION in = mConfiguration.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, true, -1, -1);
        PUSBD_PIPE_INFORMATION out = mConfiguration.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, false, -1, -1);
        if (notify == NULL || in == NULL || out == NULL) {
            return STATUS_UNSUCCESSFUL;
        }
        status = mNotificationStream.Configure(&mUsbDevice, &mConfiguration, notify->EndpointAddress,
                                               mFunctionalDeviceObject, &mNotificationHandler, 1,
                                               notify->MaximumPacketSize);
        if (NT_SUCCESS(status)) {
            status = mInStream.Configure(&mUsbDevice, &mConfiguration, in->EndpointAddress, mFunctionalDeviceObject,
                                         static_cast<StreamInClient*>(this), 2, 2048);
        }
        if (NT_SUCCESS(status)) {
            status = mOutStream.Configure(&mUsbDevice, &mConfiguration, out->EndpointAddress,
                                          mFunctionalDeviceObject, static_cast<StreamOutClient*>(this), 2, 2048);
        }
        if (!NT_SUCCESS(status)) {
            return status;
        }
        return StartBase();
    }

    void Stop() override
    {
        __atomic_add_fetch(&mStopCalls, 1, __ATOMIC_SEQ_CST);
        StopBase();
    }

    void ReturnRxBuffer(UsbBuf* datagram) override { (void)datagram; }
    void SubmitRxBuffers() override {}
    bool IsTxPathIdle() override { return true; }
    void BufferReceived(UsbBuf* buffer) override
    {
        buffer->ReturnToPool();
        mInStream.ResubmitReadBuffers();
    }
    void IndicateError(NTSTATUS status, bool removed) override
    {
        (void)status;
        (void)removed;
    }
    void BufferSent(NTSTATUS status, bool removed) override
    {
        (void)status;
        (void)removed;
    }

    int StartCalls() const { return __atomic_load_n(&mStartCalls, __ATOMIC_SEQ_CST); }
    int StopCalls() const { return __atomic_load_n(&mStopCalls, __ATOMIC_SEQ_CST); }
    int TxPasses() const { return __atomic_load_n(&mTxPasses, __ATOMIC_SEQ_CST); }

    // What the tests look at and call directly.
    using DeviceContBase::FindFunctionalDescriptor;
    using DeviceContBase::IsStarted;
    using DeviceContBase::ReadEthernetStatistics;
    using DeviceContBase::ReadMacAddress;
    using DeviceContBase::SendPacketFilter;
    using DeviceContBase::SendPacketFilterRoutine;
    using DeviceContBase::SetNetAddress;
    using DeviceContBase::StartBase;
    using DeviceContBase::StopBase;
    using DeviceContBase::mCdcPacketFilter;
    using DeviceContBase::mConfiguration;
    using DeviceContBase::mControlInterface;
    using DeviceContBase::mDataInterface;
    using DeviceContBase::mDescriptors;
    using DeviceContBase::mEthernetDescriptor;
    using DeviceContBase::mInStream;
    using DeviceContBase::mMacAddress;
    using DeviceContBase::mMacAddressValid;
    using DeviceContBase::mNotificationHandler;
    using DeviceContBase::mNotificationStream;
    using DeviceContBase::mOutStream;
    using DeviceContBase::mPacketFilterWorkItem;
    using DeviceContBase::mStatistics;
    using DeviceContBase::mStatisticsRequested;
    using DeviceContBase::mStatisticsSupported;

protected:
    void DoProcessTxPackets() override { __atomic_add_fetch(&mTxPasses, 1, __ATOMIC_SEQ_CST); }

private:
    int mStartCalls = 0;
    int mStopCalls = 0;
    int mTxPasses = 0;
};

using drvtest::DelayedQueueBlocker;

// A transfer buffer of exactly `bytes` bytes of pool memory in a pool of its
// own, for feeding OnProcessNotification directly.
class LoneBuffer {
public:
    explicit LoneBuffer(const Bytes& bytes)
    {
        UsbBuf* buffer = new (NonPagedPool, KN_POOL_TAG_USB_BUFFER) UsbBuf();
        EXPECT_EQ(STATUS_SUCCESS, buffer->Allocate(1, STREAM_URB_SIZE, bytes.empty() ? 1 : (ULONG)bytes.size(), false));
        mPool.AddItem(buffer);
        mBuffer = mPool.GetBuffer();
        if (!bytes.empty()) {
            std::memcpy(mBuffer->Buffer(), bytes.data(), bytes.size());
        }
        mBuffer->SetDataLength((ULONG)bytes.size());
    }
    ~LoneBuffer() { mPool.FreeAll(); }
    UsbBuf* Get() { return mBuffer; }
    // The buffer went back to its pool.
    bool Returned() { return mPool.GetItemsOut() == 0; }

private:
    UsbBufPool mPool;
    UsbBuf* mBuffer;
};

// A notification header (8 bytes) and its data.
inline Bytes Notification(uint8_t code, uint16_t value, const Bytes& data = Bytes(), uint8_t requestType = 0xA1,
                          uint16_t index = 0)
{
    Bytes b = {requestType, code};
    ethsim::Append16(b, value);
    ethsim::Append16(b, index);
    ethsim::Append16(b, (uint16_t)data.size());
    b.insert(b.end(), data.begin(), data.end());
    return b;
}
inline Bytes SpeedChange(uint32_t upstream, uint32_t downstream)
{
    Bytes data;
    ethsim::Append32(data, upstream);
    ethsim::Append32(data, downstream);
    return Notification(0x2A, 0, data);
}

// The generated configuration descriptor of a profile with the Ethernet
// Networking Functional Descriptor taken out (wTotalLength fixed).
inline Bytes ConfigurationWithoutEthernetDescriptor(const ethsim::DeviceProfile& profile)
{
    Bytes config = ethsim::BuildConfigurationDescriptor(profile, profile.speed);
    Bytes out;
    for (size_t i = 0; i < config.size();) {
        uint8_t length = config[i];
        bool ethernet = length >= 3 && config[i + 1] == 0x24 && config[i + 2] == 0x0F;
        if (!ethernet) {
            out.insert(out.end(), config.begin() + i, config.begin() + i + length);
        }
        i += length;
    }
    ethsim::Put16(out.data() + 2, (uint16_t)out.size());
    return out;
}

class DeviceContTest : public ::testing::Test {
protected:
    DeviceContTest()
    {
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_ERROR | KN_TRACE_INFO);
        mDriver = kplat::CreateDriverObject(u"\\Driver\\ethbrg");
        EXPECT_EQ(STATUS_SUCCESS, IoCreateDevice(mDriver, 0, NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &mFdo));
    }
    ~DeviceContTest() override
    {
        Destroy();
        mBus.reset();
        mWrapper.reset();
        mDevice.reset();
        IoDeleteDevice(mFdo);
        kplat::DeleteDriverObject(mDriver);
        kplat::ClearFaults();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
    }

    // Plugs a simulated function with this profile into a new bus.
    void Plug(const ethsim::DeviceProfile& profile = ethsim::DeviceProfile())
    {
        if (mWrapper != nullptr) {
            // A new device on a new bus; the old ones go first.
            mBus.reset();
            mWrapper.reset();
            mDevice.reset();
            mBus.reset(new kplat::UsbBus());
        }
        mDevice.reset(new ethsim::NcmDevice(profile));
        mWrapper.reset(new WrapperDevice(mDevice.get()));
        mBus->Attach(mWrapper.get());
    }
    // Plugs, creates and initialises the device control.
    NTSTATUS Create(const ethsim::DeviceProfile& profile = ethsim::DeviceProfile())
    {
        Plug(profile);
        return InitCont();
    }
    // Creates and initialises the device control on the plugged device.
    NTSTATUS InitCont()
    {
        mCont = new (NonPagedPool, KN_POOL_TAG_NCM) TestDeviceCont();
        EXPECT_NE(nullptr, mCont);
        return mCont->Init(mFdo, mBus->Pdo(), mBus->Pdo(), &mNotify, &mConfig, &mAdapterLock);
    }
    // Create and Start; the link notifications of the start are decoded.
    void CreateAndStart(const ethsim::DeviceProfile& profile = ethsim::DeviceProfile())
    {
        ASSERT_EQ(STATUS_SUCCESS, Create(profile));
        ASSERT_EQ(STATUS_SUCCESS, mCont->Start());
        kplat::RunUntilIdle();
    }
    // Stop (if started), Exit and delete.
    void Destroy()
    {
        if (mCont == nullptr) {
            return;
        }
        kplat::RunUntilIdle();
        mCont->Stop();
        mCont->Exit();
        delete mCont;
        mCont = nullptr;
    }

    bool Traced(const std::string& text) const { return mCapture.Contains(text); }
    size_t TraceCount(const std::string& text) const { return drvtest::CountOccurrences(mCapture.Text(), text); }

    kplat::Scope mScope;  // virtual clock; stopped last
    kplat::DebugCapture mCapture;
    PDRIVER_OBJECT mDriver = nullptr;
    PDEVICE_OBJECT mFdo = nullptr;
    std::unique_ptr<ethsim::NcmDevice> mDevice;
    std::unique_ptr<WrapperDevice> mWrapper;
    std::unique_ptr<kplat::UsbBus> mBus{new kplat::UsbBus()};
    RecordingNotify mNotify;
    AdapterConfig mConfig;
    NdSpinlock mAdapterLock;
    TestDeviceCont* mCont = nullptr;
};

}  // namespace dcbtest
