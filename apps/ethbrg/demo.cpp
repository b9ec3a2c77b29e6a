#include "demo.h"

#include "packets.h"
#include "summary.h"

#include <ethsim/network.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace ethbrg {

namespace {

using Clock = std::chrono::steady_clock;

const Ip4 kHostIp = {192, 168, 77, 1};
const Ip4 kDeviceSideIp = {192, 168, 77, 2};
const ethsim::MacAddress kDeviceSideMac = {0x02, 0x45, 0x54, 0x48, 0xFE, 0x02};
constexpr uint16_t kPingId = 0xEB01;
constexpr int kPings = 4;

// Frame lengths of the "mixed" size: small, large and in between, in a fixed
// order so that every run is the same.
constexpr size_t kMixed[] = {60, 1514, 128, 590, 64, 1280, 256, 1500, 90, 1024, 512, 1514, 60, 800, 1400, 300};

// The device's network side: numbered frames go to the counting generator,
// everything else to the responder (ARP, ping).
class DemoPeer : public ethsim::FrameSink {
public:
    DemoPeer(ethsim::FrameSink* counting, ethsim::FrameSink* responder) : mCounting(counting), mResponder(responder) {}
    void OnFrame(const uint8_t* frame, size_t length) override
    {
        (EtherType(frame, length) == ethsim::kEtherTypeCounting ? mCounting : mResponder)->OnFrame(frame, length);
    }

private:
    ethsim::FrameSink* mCounting;
    ethsim::FrameSink* mResponder;
};

// The stack's side of the numbered frames: what the host generator emits is
// sent through the adapter.
class AdapterSink : public ethsim::FrameSink {
public:
    explicit AdapterSink(Host& host) : mHost(host) {}
    void OnFrame(const uint8_t* frame, size_t length) override { mHost.Send(frame, length); }

private:
    Host& mHost;
};

struct Snapshot {
    double t = 0;
    uint64_t txFrames = 0, txBytes = 0, rxFrames = 0, rxBytes = 0;
    ethsim::TrafficCounters device;
};

std::string StatusLine(Host& host, const Snapshot& a, const Snapshot& b, uint64_t errors)
{
    const double dt = std::max(b.t - a.t, 1e-6);
    const double outNtbs = (double)(b.device.outNtbs - a.device.outNtbs);
    const double inNtbs = (double)(b.device.inNtbs - a.device.inNtbs);
    const double outPer = outNtbs > 0 ? (b.device.outDatagrams - a.device.outDatagrams) / outNtbs : 0;
    const double inPer = inNtbs > 0 ? (b.device.inDatagrams - a.device.inDatagrams) / inNtbs : 0;
    const uint64_t speed = host.QueryNumber(OID_GEN_LINK_SPEED).value_or(0) * 100;
    char line[320];
    snprintf(line, sizeof(line),
             "%5.1fs link %s %s | tx %7.0f f/s %7.1f Mbit/s | rx %7.0f f/s %7.1f Mbit/s | NTB out %6.0f/s x%4.1f "
             "in %6.0f/s x%4.1f | errors %llu",
             b.t, host.MediaConnected() ? "up" : "down", FormatBitRate(speed).c_str(),
             (b.txFrames - a.txFrames) / dt, (b.txBytes - a.txBytes) * 8 / dt / 1e6, (b.rxFrames - a.rxFrames) / dt,
             (b.rxBytes - a.rxBytes) * 8 / dt / 1e6, outNtbs / dt, outPer, inNtbs / dt, inPer,
             (unsigned long long)errors);
    return line;
}

// With a real device (--usb) the device's network side is out of the
// program's reach: there is no generator to number frames on it and no
// responder to ping. The demo then does what the host side alone can: the
// adapter comes up to media connect, the frames the device sends up are
// counted for the duration, and the adapter halts and unloads as usual.
int RunDemoOnDevice(Host& host, const DemoOptions& options, bool linked)
{
    std::atomic<uint64_t> frames{0}, bytes{0};
    host.OnFrame([&](const uint8_t*, size_t length) {
        frames++;
        bytes += length;
    });
    const auto start = Clock::now();
    host.WaitFor([&] { return host.DeviceGone(); }, (uint64_t)(options.seconds * 1000));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    Summary summary;
    summary.SetFrames("device to host", frames.load(), bytes.load(), 0, seconds);
    summary.SetRealDevice(*host.Usb());
    summary.SetOids(host);
    if (!linked) summary.AddProblem("media never connected");
    host.Shutdown();
    summary.SetShutdown(host);
    if (!options.json.empty()) summary.WriteJson(options.json);
    if (options.json != "-") printf("%s", summary.Text().c_str());
    return summary.Passed() ? 0 : 1;
}

}  // namespace

int RunDemo(const DemoOptions& options)
{
    size_t fixedSize = 0;
    if (options.frameSize != "mixed") {
        char* end = nullptr;
        unsigned long v = strtoul(options.frameSize.c_str(), &end, 10);
        if (options.frameSize.empty() || *end != 0 || v < 60 || v > 1514) {
            throw UsageError("--frame-size " + options.frameSize + ": expected \"mixed\" or a length from 60 to 1514");
        }
        fixedSize = v;
    }
    if (!(options.seconds > 0) || options.seconds > 86400) {
        throw UsageError("--seconds: expected a duration above 0 and at most 86400");
    }

    Host host(options.common);
    ethsim::Responder responder(kDeviceSideMac, kDeviceSideIp);
    std::unique_ptr<ethsim::CountingGenerator> deviceGenerator;
    std::unique_ptr<ethsim::CountingGenerator> hostGenerator;
    AdapterSink toAdapter(host);

    // Frames for the stack: numbered ones to the host generator, the rest to
    // the protocol below.
    std::mutex protocolMutex;
    std::optional<Mac> arpAnswer;
    std::vector<Clock::time_point> pingSent(kPings), pingAnswered(kPings);
    std::atomic<uint64_t> foreignFrames{0};
    std::atomic<ethsim::CountingGenerator*> hostCounter{nullptr};
    host.OnFrame([&](const uint8_t* frame, size_t length) {
        if (EtherType(frame, length) == ethsim::kEtherTypeCounting) {
            if (ethsim::CountingGenerator* c = hostCounter.load()) c->OnFrame(frame, length);
            return;
        }
        std::lock_guard<std::mutex> lock(protocolMutex);
        if (auto mac = ParseArpReply(frame, length, kDeviceSideIp)) {
            arpAnswer = mac;
        } else if (auto seq = ParseEchoReply(frame, length, kPingId)) {
            if (*seq < kPings) pingAnswered[*seq] = Clock::now();
        } else {
            foreignFrames++;
        }
    });

    const bool tty = isatty(STDOUT_FILENO) && !options.quiet && options.json != "-";
    const bool plain = !tty && !options.quiet && options.json != "-";
    auto say = [&](const std::string& text) {
        if (tty || plain) printf("%s\n", text.c_str());
    };

    NDIS_STATUS status = host.Plug();
    if (status != NDIS_STATUS_SUCCESS) {
        fprintf(stderr, "ethbrg: the adapter did not initialize: 0x%08lX %s\n", (unsigned long)status,
                NdisStatusText(status).c_str());
        host.Shutdown();
        return 1;
    }
    const Mac hostMac = host.CurrentAddress();
    host.SetPacketFilter(NDIS_PACKET_TYPE_DIRECTED | NDIS_PACKET_TYPE_MULTICAST | NDIS_PACKET_TYPE_BROADCAST);
    bool linked = host.WaitFor([&] { return host.MediaConnected(); }, 3000);
    say("adapter up: " + MacText(hostMac.data()) + ", media " + (linked ? "connected" : "disconnected") + ", " +
        FormatBitRate(host.QueryNumber(OID_GEN_LINK_SPEED).value_or(0) * 100));
    if (host.RealDevice()) return RunDemoOnDevice(host, options, linked);

    // Wire the device's network side.
    deviceGenerator.reset(new ethsim::CountingGenerator(kDeviceSideMac, hostMac));
    hostGenerator.reset(new ethsim::CountingGenerator(hostMac, kDeviceSideMac));
    DemoPeer peer(deviceGenerator.get(), &responder);
    host.Device().Connect(&peer);
    responder.Connect(&host.Device());
    deviceGenerator->Connect(&host.Device());
    hostGenerator->Connect(&toAdapter);
    hostCounter.store(hostGenerator.get());

    // ARP, then ping.
    Summary summary;
    std::vector<uint8_t> arp = ArpRequest(hostMac, kHostIp, kDeviceSideIp);
    host.Send(arp.data(), arp.size());
    bool arpOk = host.WaitFor([&] { std::lock_guard<std::mutex> l(protocolMutex); return arpAnswer.has_value(); }, 1000);
    Mac peerMac = kDeviceSideMac;
    int pingsAnswered = 0;
    std::vector<double> rtts;
    if (arpOk) {
        peerMac = *arpAnswer;
        for (int i = 0; i < kPings; i++) {
            pingSent[i] = Clock::now();
            std::vector<uint8_t> echo = EchoRequest(hostMac, peerMac, kHostIp, kDeviceSideIp, kPingId, (uint16_t)i, 56);
            host.Send(echo.data(), echo.size());
            if (host.WaitFor([&] { std::lock_guard<std::mutex> l(protocolMutex); return pingAnswered[i] != Clock::time_point(); }, 1000)) {
                pingsAnswered++;
                rtts.push_back(std::chrono::duration<double, std::milli>(pingAnswered[i] - pingSent[i]).count());
            }
        }
    }
    {
        char line[160];
        double avg = 0;
        for (double r : rtts) avg += r;
        avg = rtts.empty() ? 0 : avg / rtts.size();
        snprintf(line, sizeof(line), "arp %s: %s is at %s; ping: %d/%d answered, rtt avg %.3f ms",
                 arpOk ? "answered" : "NOT answered", "192.168.77.2", MacText(peerMac.data()).c_str(), pingsAnswered,
                 kPings, avg);
        say(line);
        summary.SetPing(arpOk, kPings, pingsAnswered, rtts);
    }

    // Numbered frames both ways, each direction held to a window of frames in
    // flight so that no queue overflows: the device keeps at most its queue
    // limit for the host, the adapter owns what it was given until it
    // completes it.
    const uint64_t inWindow = std::max<uint64_t>(8, std::min<uint64_t>(512, host.Profile().in.queueLimit / 2));
    const uint64_t outWindow = 256;
    std::atomic<bool> running{true};
    auto sizeOf = [&](uint64_t n) { return fixedSize != 0 ? fixedSize : kMixed[n % (sizeof(kMixed) / sizeof(kMixed[0]))]; };
    std::atomic<uint64_t> txBytes{0}, deviceTxBytes{0};
    auto pump = [&](ethsim::CountingGenerator* gen, std::function<uint64_t()> inFlight, uint64_t window,
                    std::atomic<uint64_t>* bytes) {
        uint64_t n = 0;
        while (running.load()) {
            if (inFlight() >= window) {
                std::this_thread::yield();
                continue;
            }
            size_t length = sizeOf(n++);
            gen->Generate(1, length);
            *bytes += length;
        }
    };
    const Clock::time_point start = Clock::now();
    std::thread up(pump, hostGenerator.get(), [&] { return host.Adapter().PacketsOutstanding(); }, outWindow, &txBytes);
    std::thread down(pump, deviceGenerator.get(),
                     [&] { return deviceGenerator->Sent() - hostGenerator->Received(); }, inWindow, &deviceTxBytes);

    auto snap = [&] {
        Snapshot s;
        s.t = std::chrono::duration<double>(Clock::now() - start).count();
        s.txFrames = hostGenerator->Sent();
        s.txBytes = txBytes.load();
        s.rxFrames = hostGenerator->Received();
        s.rxBytes = hostGenerator->ReceivedBytes();
        s.device = host.Device().Traffic();
        return s;
    };
    Snapshot last = snap();
    const auto period = std::chrono::milliseconds(tty ? 250 : 1000);
    while (true) {
        auto now = Clock::now();
        double elapsed = std::chrono::duration<double>(now - start).count();
        if (elapsed >= options.seconds) break;
        std::this_thread::sleep_for(std::min<Clock::duration>(
            period, std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds - elapsed))));
        Snapshot s = snap();
        uint64_t errors = host.Device().TotalViolations() + hostGenerator->Corrupt() + deviceGenerator->Corrupt() +
                          hostGenerator->OutOfOrder() + deviceGenerator->OutOfOrder();
        std::string line = StatusLine(host, last, s, errors);
        if (tty) {
            printf("\r\033[K%s", line.c_str());
            fflush(stdout);
        } else if (plain) {
            printf("%s\n", line.c_str());
        }
        last = s;
    }
    running.store(false);
    up.join();
    down.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (tty) printf("\n");
    // Let what is in flight arrive.
    host.WaitFor([&] {
        return hostGenerator->Received() >= deviceGenerator->Sent() &&
               deviceGenerator->Received() >= hostGenerator->Sent() && host.Adapter().PacketsOutstanding() == 0;
    }, 3000);

    summary.SetTraffic("host to device", hostGenerator->Sent(), txBytes.load(), *deviceGenerator, seconds);
    summary.SetTraffic("device to host", deviceGenerator->Sent(), deviceTxBytes.load(), *hostGenerator, seconds);
    summary.SetDevice(host.Device());
    summary.SetOids(host);
    summary.SetForeign(foreignFrames.load() + host.FramesTruncated());

    hostCounter.store(nullptr);
    host.Device().Connect(nullptr);
    host.Shutdown();
    summary.SetShutdown(host);

    if (!options.json.empty()) summary.WriteJson(options.json);
    if (options.json != "-") printf("%s", summary.Text().c_str());
    return summary.Passed() ? 0 : 1;
}

}  // namespace ethbrg
