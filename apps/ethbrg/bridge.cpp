// `ethbrg bridge`: the adapter as a TAP interface of the Linux stack. Frames
// the stack sends on the TAP go to MPSendPackets; receive indications are
// written to the TAP. The device's network side is the built-in responder
// or a second TAP, so that two network namespaces exchange real traffic
// through the driver, NTBs and the simulated device. With --usb the device is
// a real one and its network side is its own; --wait-device then survives
// the device leaving: the adapter is surprise-removed, and when the device
// comes back a new adapter comes up on it.
//
// `ethbrg forward`: the same TAP code joining two TAPs directly, without the
// driver: the baseline the bridge is measured against.
#include "host.h"
#include "packets.h"
#include "summary.h"
#include "tapport.h"

#include <ethsim/network.h>

#include <CLI/CLI.hpp>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <mutex>
#include <cstdio>
#include <thread>

namespace ethbrg {

namespace {

std::atomic<int> gSignal{0};

void OnSignal(int signal) { gSignal.store(signal); }

// Waits for SIGINT or SIGTERM, or until `seconds` (0: no limit) have gone.
void WaitForEnd(double seconds)
{
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    auto start = std::chrono::steady_clock::now();
    while (gSignal.load() == 0) {
        if (seconds > 0 && std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >= seconds) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// A batch of frames read together is handed on at DISPATCH_LEVEL, as a
// protocol sends from a DPC: the inline bus then runs once when the batch
// is done (kplat/usbbus.h), so that the driver packs the batch's frames into
// few NTBs and the device packs those for the host into few NTBs, instead of
// one transfer per frame. One per TAP thread.
class DispatchBatch {
public:
    void Hook(bool begin)
    {
        if (begin) {
            KeRaiseIrql(DISPATCH_LEVEL, &mOld);
            mRaised = true;
        } else if (mRaised) {
            mRaised = false;
            TapPort::HeldWakes burst;  // the frames the bus now delivers
            KeLowerIrql(mOld);          // the bus works on the batch here
        }
    }
    // Lets the bus work off what the batch has so far (to make room).
    void Drain()
    {
        if (!mRaised) return;
        KeLowerIrql(mOld);
        KeRaiseIrql(DISPATCH_LEVEL, &mOld);
    }

private:
    KIRQL mOld = PASSIVE_LEVEL;
    bool mRaised = false;
};

// Frames the device sends to its network side, handed to the peer TAP.
class TapSink : public ethsim::FrameSink {
public:
    explicit TapSink(TapPort& port) : mPort(port) {}
    void OnFrame(const uint8_t* frame, size_t length) override { mPort.Write(frame, length); }
    // The datagrams of one NTB go to the port together.
    void OnFrames(const ethsim::FrameBatch& batch) override
    {
        const uint8_t* frames[64];
        size_t lengths[64];
        for (size_t at = 0; at < batch.Count();) {
            size_t n = 0;
            for (; n < 64 && at < batch.Count(); n++, at++) {
                frames[n] = batch.Frame(at);
                lengths[n] = batch.Length(at);
            }
            mPort.WriteMany(frames, lengths, n);
        }
    }

private:
    TapPort& mPort;
};

// A real device's receive path that stopped: 2 s or more after the adapter
// came up, NTBs have come in but not one frame has reached the stack. The
// usual cause is a datagram the device sent while the adapter was still
// initializing: the adapter holds it, and takes nothing after it, until the
// device's next connect notification. Said once per adapter.
class StallWatch {
public:
    explicit StallWatch(Host& host)
        : mHost(&host), mStart(std::chrono::steady_clock::now()) {}
    void Check()
    {
        const auto now = std::chrono::steady_clock::now();
        if (mDone || !mHost->HasAdapter() || now - mStart < std::chrono::seconds(2) ||
            now - mLastLook < std::chrono::seconds(1))
            return;
        mLastLook = now;
        if (mHost->QueryNumber(OID_GEN_RCV_OK).value_or(1) != 0) {
            mDone = true;  // frames go up: nothing to watch any more
            return;
        }
        // The device is opened anew for each adapter: its counts start with it.
        const uint64_t in = mHost->Usb()->Stats().inTransfers;
        if (in == 0) return;
        mDone = true;
        printf("warning: the device sent %llu bulk IN transfers but no frame reached the stack; a datagram it sent "
               "while the adapter was initializing holds the receive path until the device's next connect "
               "notification (keep the device quiet during bring-up: README, \"A real device\")\n",
               (unsigned long long)in);
        fflush(stdout);
    }

private:
    Host* mHost;
    std::chrono::steady_clock::time_point mStart, mLastLook;
    bool mDone = false;
};

struct BridgeOptions {
    CommonOptions common;
    std::string tap;
    std::string peerTap;
    std::string responder;
    double seconds = 0;
    std::string json;
    unsigned maxOutstanding = 1024;
    bool waitDevice = false;
};

bool Ended(double seconds, std::chrono::steady_clock::time_point start)
{
    return gSignal.load() != 0 ||
           (seconds > 0 && std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >= seconds);
}

int RunBridge(const BridgeOptions& o)
{
    const bool real = !o.common.usb.empty();
    if (real && (!o.peerTap.empty() || !o.responder.empty())) {
        throw UsageError("--usb: a real device's network side is its own; --peer-tap and --responder do not go with it");
    }
    if (o.waitDevice && !real) throw UsageError("--wait-device goes with --usb");
    if (!real && o.peerTap.empty() == o.responder.empty()) {
        throw UsageError("give the device's network side: --responder IP or --peer-tap NAME (one of them)");
    }
    Ip4 responderIp{};
    if (!o.responder.empty() && inet_pton(AF_INET, o.responder.c_str(), responderIp.data()) != 1) {
        throw UsageError("--responder " + o.responder + ": expected an IPv4 address");
    }
    // The TAPs first: a missing permission is the most likely error.
    TapPort tap(o.tap);
    std::unique_ptr<TapPort> peer;
    if (!o.peerTap.empty()) peer.reset(new TapPort(o.peerTap));

    Host host(o.common);
    // The simulated device's bus works on each request inside the call that
    // submits it: the frame goes from the TAP reader through the driver and
    // the device to the peer TAP without waiting for the bus's DPC.
    if (!real) host.Bus().SetInlineCompletion(true);
    std::atomic<uint64_t> sendsDropped{0};
    // Guards the adapter's presence: the TAP reader sends under it, removal
    // and re-plugging of a real device change the adapter under it.
    std::mutex adapterLock;
    host.OnFrame([&](const uint8_t* frame, size_t length) { tap.Write(frame, length); });
    host.OnMediaChange([&](bool connected) { tap.SetCarrier(connected); });
    tap.SetCarrier(false);
    NDIS_STATUS status = host.Plug();
    if (status != NDIS_STATUS_SUCCESS) {
        fprintf(stderr, "ethbrg: the adapter did not initialize: 0x%08lX %s\n", (unsigned long)status,
                NdisStatusText(status).c_str());
        return 1;
    }
    const ULONG filter = NDIS_PACKET_TYPE_DIRECTED | NDIS_PACKET_TYPE_MULTICAST | NDIS_PACKET_TYPE_ALL_MULTICAST |
                         NDIS_PACKET_TYPE_BROADCAST;
    host.SetPacketFilter(filter);
    const Mac mac = host.CurrentAddress();
    const unsigned mtu = (unsigned)host.QueryNumber(OID_GEN_MAXIMUM_FRAME_SIZE).value_or(1500);
    tap.SetMac(mac.data());
    tap.SetMtu(mtu);
    tap.SetUp();

    // The device's network side.
    const ethsim::MacAddress responderMac = {0x02, 0x45, 0x54, 0x48, 0xFE, 0x02};
    std::unique_ptr<ethsim::Responder> responder;
    std::unique_ptr<TapSink> peerSink;
    DispatchBatch tapBatch, peerBatch;
    if (real) {
        // The device's network side is the device's own.
    } else if (peer) {
        peer->SetMtu(mtu);
        peer->SetUp();
        peer->SetCarrier(true);
        peerSink.reset(new TapSink(*peer));
        host.Device().Connect(peerSink.get());
        peer->Start([&](const uint8_t* frame, size_t length) { host.Device().OnFrame(frame, length); },
                    [&](bool begin) { peerBatch.Hook(begin); });
    } else {
        responder.reset(new ethsim::Responder(responderMac, responderIp));
        host.Device().Connect(responder.get());
        responder->Connect(&host.Device());
    }
    // The stack's side: every frame read from the TAP is sent. While the
    // miniport holds as many packets as a protocol would give it, the reader
    // waits (the TAP's own queue then holds the stack back, as a full
    // transmit ring would); after 100 ms without room the frame is dropped.
    // A batch of reads holds adapterLock from its first frame to its end (the
    // port calls the batch hook around every batch), so that the adapter
    // cannot go in the middle of it; the lock is taken once a batch, not once
    // a frame. At its end the batch's frames go to the miniport in one
    // MPSendPackets, and the bus works on them as the IRQL drops.
    std::unique_lock<std::mutex> batchLock(adapterLock, std::defer_lock);  // the TAP thread's
    tap.Start([&](const uint8_t* frame, size_t length) {
        if (!host.HasAdapter()) {
            sendsDropped++;
            return;
        }
        if (host.Adapter().PacketsOutstanding() >= o.maxOutstanding) {
            host.Flush();
            tapBatch.Drain();
            auto start = std::chrono::steady_clock::now();
            while (host.Adapter().PacketsOutstanding() >= o.maxOutstanding) {
                if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(100)) {
                    sendsDropped++;
                    return;
                }
                std::this_thread::yield();
            }
        }
        if (real) {
            host.Send(frame, length);
        } else {
            host.Queue(frame, length);
        }
    }, [&](bool begin) {
        if (begin) {
            batchLock.lock();
            if (!real) tapBatch.Hook(true);
            return;
        }
        host.Flush();
        batchLock.unlock();
        if (!real) tapBatch.Hook(false);
    });
    const std::string side = real ? "USB device " + host.Usb()->Description()
                             : "simulated device <-> " + (peer ? "TAP " + o.peerTap : "responder " + o.responder);
    printf("bridge up: %s (%s, MTU %u, carrier %s) <-> adapter <-> %s\n", o.tap.c_str(), MacText(mac.data()).c_str(),
           mtu, host.MediaConnected() ? "on" : "off", side.c_str());
    fflush(stdout);

    const auto start = std::chrono::steady_clock::now();
    if (!real) {
        WaitForEnd(o.seconds);
    } else {
        struct sigaction sa {};
        sa.sa_handler = OnSignal;
        sigaction(SIGINT, &sa, nullptr);
        sigaction(SIGTERM, &sa, nullptr);
        bool connected = host.MediaConnected();
        StallWatch stall(host);
        while (!Ended(o.seconds, start)) {
            if (host.MediaConnected() != connected) {
                connected = !connected;
                printf("media %s\n", connected ? "connected" : "disconnected");
                fflush(stdout);
            }
            stall.Check();
            if (!host.DeviceGone()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                continue;
            }
            {
                std::lock_guard<std::mutex> lock(adapterLock);
                host.RemoveAdapter();
            }
            tap.SetCarrier(false);
            connected = false;
            printf("device removed: %llu packets outstanding at halt; pool-tag ledger: %s\n",
                   (unsigned long long)host.OutstandingAtHalt(),
                   host.Ledger().empty() ? "empty" : ("\n" + host.Ledger()).c_str());
            fflush(stdout);
            if (!o.waitDevice) break;
            bool back;
            {
                std::lock_guard<std::mutex> lock(adapterLock);
                back = host.Replug(UINT32_MAX, [&] { return Ended(o.seconds, start); });
                if (back) host.SetPacketFilter(filter);
            }
            if (!back) break;
            printf("device back: %s\n", host.Usb()->Description().c_str());
            fflush(stdout);
            stall = StallWatch(host);
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (gSignal.load()) printf("signal %d: halting the adapter\n", gSignal.load());

    // Stop the sources, then halt: every packet the miniport holds is
    // completed before the adapter goes.
    tap.Stop();
    if (peer) peer->Stop();
    Summary summary;
    summary.SetFrames("stack to device", tap.FramesRead(), tap.BytesRead(), sendsDropped.load(), seconds);
    summary.SetFrames("device to stack", tap.FramesWritten(), tap.BytesWritten(), tap.WritesDropped(), seconds);
    if (peer) {
        summary.SetFrames("peer to device", peer->FramesRead(), peer->BytesRead(), 0, seconds);
        summary.SetFrames("device to peer", peer->FramesWritten(), peer->BytesWritten(), peer->WritesDropped(), seconds);
    }
    if (real) {
        summary.SetRealDevice(*host.Usb());
    } else {
        summary.SetDevice(host.Device());
    }
    if (host.HasAdapter()) summary.SetOids(host);
    if (!real) host.Device().Connect(nullptr);
    host.Shutdown();
    summary.SetShutdown(host);
    if (!o.json.empty()) summary.WriteJson(o.json);
    if (o.json != "-") printf("%s", summary.Text().c_str());
    return summary.Passed() ? 0 : 1;
}

struct ForwardOptions {
    std::string tap;
    std::string peerTap;
    double seconds = 0;
};

int RunForward(const ForwardOptions& o)
{
    TapPort a(o.tap), b(o.peerTap);
    for (TapPort* p : {&a, &b}) {
        p->SetMtu(1500);
        p->SetUp();
        p->SetCarrier(true);
    }
    a.Start([&](const uint8_t* frame, size_t length) { b.Write(frame, length); });
    b.Start([&](const uint8_t* frame, size_t length) { a.Write(frame, length); });
    printf("forward up: %s <-> %s\n", o.tap.c_str(), o.peerTap.c_str());
    fflush(stdout);
    WaitForEnd(o.seconds);
    a.Stop();
    b.Stop();
    printf("%s -> %s: %llu frames (%llu dropped); %s -> %s: %llu frames (%llu dropped)\n", o.tap.c_str(),
           o.peerTap.c_str(), (unsigned long long)b.FramesWritten(), (unsigned long long)b.WritesDropped(),
           o.peerTap.c_str(), o.tap.c_str(), (unsigned long long)a.FramesWritten(),
           (unsigned long long)a.WritesDropped());
    return 0;
}

}  // namespace

void AddBridgeCommands(CLI::App& app, CommonOptions& common, std::function<int()>* run)
{
    static BridgeOptions bridge;
    (void)common;
    CLI::App* cmd = app.add_subcommand("bridge", "make the adapter a TAP interface of the Linux network stack");
    cmd->add_option("--tap", bridge.tap, "TAP interface for the adapter (created if needed)")->required();
    cmd->add_option("--peer-tap", bridge.peerTap, "TAP interface for the device's network side");
    cmd->add_option("--responder", bridge.responder, "IPv4 address of a built-in host on the device's network side "
                                                     "that answers ARP and ping");
    cmd->add_option("--seconds", bridge.seconds, "stop after this long (default: at SIGINT or SIGTERM)");
    cmd->add_option("--json", bridge.json, "write the summary as JSON to FILE (\"-\": standard output)");
    cmd->add_option("--profile", bridge.common.profile, "device profile: a name from profiles/ or a JSON file");
    cmd->add_option("--param", bridge.common.params, "adapter registry parameter Name=Value (repeatable)");
    cmd->add_option("--trace-mask", bridge.common.traceMask, "driver trace mask");
    cmd->add_option("--trace-dump", bridge.common.traceDump, "write the driver's trace ring to FILE at exit");
    cmd->add_option("--usb-capture", bridge.common.usbCapture, "write every URB as a usbmon pcap");
    cmd->add_option("--usb", bridge.common.usb, "a real USB device through libusb instead of the simulated one: "
                                                "VID:PID (hex, as lsusb -d) or BUS:ADDR (decimal, as lsusb lists them)");
    cmd->add_flag("--wait-device", bridge.waitDevice, "with --usb: when the device goes away, remove the adapter "
                                                      "and bring a new one up when the device comes back");
    cmd->add_option("--pcap", bridge.common.pcap, "write the frames at the adapter's upper edge as an Ethernet pcap");
    cmd->callback([run] { *run = [] { return RunBridge(bridge); }; });

    static ForwardOptions forward;
    CLI::App* fwd = app.add_subcommand("forward", "join two TAP interfaces directly with the bridge's TAP code "
                                                  "(no driver): the baseline for measurements");
    fwd->add_option("--tap", forward.tap, "first TAP interface")->required();
    fwd->add_option("--peer-tap", forward.peerTap, "second TAP interface")->required();
    fwd->add_option("--seconds", forward.seconds, "stop after this long (default: at SIGINT or SIGTERM)");
    fwd->callback([run] { *run = [] { return RunForward(forward); }; });
}

}  // namespace ethbrg
