// Network sources push frames from their own threads while the bus reads
// the device: nothing is lost, nothing is duplicated, and (under TSan) no
// race.
#include "sim_harness.h"

#include <atomic>
#include <thread>

using namespace simtest;

namespace {

class ThreadPort : public kplat::UsbDevicePort {
public:
    void FailControl(kplat::UsbControlTransfer*, uint32_t) override {}
    void CompleteControl(kplat::UsbControlTransfer*, bool stall) override
    {
        completed.fetch_add(1);
        stalled.fetch_add(stall ? 1 : 0);
    }
    void EndpointReady(uint8_t) override { ready.fetch_add(1); }
    void Disconnect() override {}
    uint64_t Now() const override { return 0; }

    std::atomic<int> completed{0};
    std::atomic<int> stalled{0};
    std::atomic<int> ready{0};
};

void Control(ethsim::NcmDevice& dev, uint8_t type, uint8_t request, uint16_t value, uint16_t index)
{
    uint8_t buffer[8] = {};
    kplat::UsbControlTransfer t{};
    t.setup = {type, request, value, index, 0};
    t.data = buffer;
    dev.ControlTransfer(&t);
}

}  // namespace

TEST(Threads, ConcurrentSourcesAndBusReads)
{
    ethsim::DeviceProfile p;
    p.in.queueLimit = 100000;
    ethsim::NcmDevice dev(p);
    ThreadPort port;
    dev.Attached(&port);
    Control(dev, 0x00, ethsim::usb::kSetConfiguration, 1, 0);
    Control(dev, 0x01, ethsim::usb::kSetInterface, 1, 1);
    ASSERT_EQ(port.stalled.load(), 0);

    constexpr uint64_t kPerThread = 2000;
    const ethsim::MacAddress a = {0x02, 0, 0, 0, 0, 0xA}, b = {0x02, 0, 0, 0, 0, 0xB};
    ethsim::CountingGenerator genA(a, p.macAddress), genB(b, p.macAddress);
    genA.Connect(&dev);
    genB.Connect(&dev);
    std::thread ta([&] { genA.Generate(kPerThread, 100); });
    std::thread tb([&] { genB.Generate(kPerThread, 300); });

    // The bus side: read NTBs and count frames per source, checking that
    // each source's numbers arrive in order.
    uint64_t fromA = 0, fromB = 0;
    bool inOrder = true;
    const uint32_t mps = p.BulkMaxPacket();
    Bytes transfer, packet(mps);
    while (fromA + fromB < 2 * kPerThread) {
        uint32_t length = 0;
        kplat::UsbHandshake h = dev.InPacket(p.bulkInEndpoint & 0x0F, packet.data(), mps, &length);
        if (h == kplat::UsbHandshake::Nak) {
            std::this_thread::yield();
            continue;
        }
        ASSERT_EQ(h, kplat::UsbHandshake::Ack);
        transfer.insert(transfer.end(), packet.begin(), packet.begin() + length);
        if (length == mps) {
            continue;
        }
        Decoded d = Decode(transfer, false);
        ASSERT_TRUE(d.ok);
        for (const Bytes& f : d.frames) {
            uint64_t seq = 0;
            for (int i = 0; i < 8; ++i) {
                seq = seq << 8 | f[14 + i];
            }
            uint64_t& count = f[11] == 0xA ? fromA : fromB;
            inOrder = inOrder && seq == count;
            ++count;
        }
        transfer.clear();
    }
    ta.join();
    tb.join();
    EXPECT_EQ(fromA, kPerThread);
    EXPECT_EQ(fromB, kPerThread);
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(dev.Traffic().inDatagrams, 2 * kPerThread);
    EXPECT_EQ(dev.GetState().framesQueued, 0u);
    dev.Detached();
}
