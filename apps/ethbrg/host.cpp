#include "host.h"

#include "pcapwriter.h"
#include "tracering.h"

#include <ethsim/profile.h>

#include <kntrace.h>
#include <kntracelogbuffer.h>
#include <mpmain.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#ifndef ETHBRG_PROFILE_DIR
#define ETHBRG_PROFILE_DIR "profiles"
#endif

namespace ethbrg {

namespace {

bool IsFile(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string ExecutableDirectory()
{
    char buffer[4096];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (n <= 0) return ".";
    buffer[n] = 0;
    std::string path(buffer);
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Pool blocks live now beyond those of `baseline`, one line per tag (""
// when none).
std::string LedgerNow(const std::map<ULONG, std::pair<uint64_t, uint64_t>>& baseline = {})
{
    std::string ledger;
    for (const kplat::PoolTagStats& s : kplat::GetPoolStats()) {
        auto it = baseline.find(s.tag);
        const uint64_t count = s.liveCount - (it == baseline.end() ? 0 : it->second.first);
        const uint64_t bytes = s.liveBytes - (it == baseline.end() ? 0 : it->second.second);
        if (count != 0) {
            ledger += kplat::TagToString(s.tag) + ": " + std::to_string((int64_t)count) + " blocks, " +
                      std::to_string((int64_t)bytes) + " bytes\n";
        }
    }
    return ledger;
}

std::string Hex8(uint32_t v)
{
    char b[9];
    snprintf(b, sizeof(b), "%08x", v);
    return b;
}

}  // namespace

std::vector<std::string> ProfileDirectories()
{
    std::vector<std::string> dirs;
    if (const char* env = getenv("ETHBRG_PROFILE_DIR")) dirs.push_back(env);
    dirs.push_back(ExecutableDirectory() + "/profiles");
    dirs.push_back(ETHBRG_PROFILE_DIR);
    return dirs;
}

ethsim::DeviceProfile ResolveProfile(const std::string& nameOrFile)
{
    if (nameOrFile.empty()) return ethsim::DeviceProfile();
    std::string path;
    if (IsFile(nameOrFile)) {
        path = nameOrFile;
    } else {
        for (const std::string& dir : ProfileDirectories()) {
            if (IsFile(dir + "/" + nameOrFile + ".json")) {
                path = dir + "/" + nameOrFile + ".json";
                break;
            }
        }
    }
    if (path.empty()) {
        throw UsageError("--profile " + nameOrFile + ": no such file, and no profile of that name in " +
                         ProfileDirectories().back() + " (ethbrg profile list shows them)");
    }
    try {
        return ethsim::LoadProfile(path);
    } catch (const ethsim::ProfileError& e) {
        throw UsageError(e.what());
    }
}

// The parameters the driver reads, with the range it holds each to. Values
// outside the range would be silently clamped by the driver; the program
// refuses them so that a user never runs with something other than asked.
const std::vector<ParameterSpec>& Parameters()
{
    static const std::vector<ParameterSpec> table = {
        {"RxBuffers", 4, 2, 128, "receive transfer buffers"},
        {"TxBuffers", 4, 2, 128, "transmit transfer buffers"},
        {"DefaultMediaState", 0, 0, 1, "media state before the device reports one (replaced at bring-up)"},
        {"OneByteTermination", 0, 0, 1, "end an NTB on a packet boundary with one extra byte instead of a ZLP"},
        {"ConfigurationIndex", 0, 0, 255, "index of the USB configuration descriptor"},
        {"SendClearEpHaltOnStart", 0, 0, 1, "reset the bulk pipes when the data path starts"},
        {"StatisticsUpdateInterval", 5000, 100, UINT32_MAX, "ms between two reads of the device statistics"},
        {"TxTimeout", 5000, 0, UINT32_MAX, "transmit watchdog in ms (0: off)"},
        {"*WakeOnMagicPacket", 1, 0, 1, "offer magic-packet wake-up"},
        {"PnPCapabilities", 0, 0, UINT32_MAX, "stored only"},
        {"DefaultLinkSpeed", 1000000, 0, UINT32_MAX, "link speed before the device reports one (100 bit/s)"},
        {"VlanID", 0, 0, 4094, "VLAN ID (0: no tagging)"},
        {"VlanEnabled", 0, 0, 1, "VLAN tag handling"},
        {"NcmTxPeriod", 0, 0, UINT32_MAX, "transmit timer period in ms (0: no timer)"},
        {"TputThreshold", 40, 0, UINT32_MAX, "adaptive transmit timing threshold (Mbit/s)"},
        {"TputHysteresis", 2, 0, UINT32_MAX, "adaptive transmit timing hysteresis (Mbit/s)"},
        {"RxMeasurementPeriod", 0, 50, UINT32_MAX, "receive bandwidth measurement period in ms"},
    };
    return table;
}

std::string ParameterToRegistry(const std::string& assignment)
{
    size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0) {
        throw UsageError("--param " + assignment + ": expected Name=Value");
    }
    const std::string name = assignment.substr(0, eq);
    const std::string value = assignment.substr(eq + 1);
    if (name == "NetworkAddress") {
        bool hex = value.size() == 12;
        for (char c : value) hex = hex && isxdigit((unsigned char)c);
        if (!hex) throw UsageError("--param NetworkAddress=" + value + ": expected 12 hex digits");
        if (std::stoul(value.substr(0, 2), nullptr, 16) & 1) {
            throw UsageError("--param NetworkAddress=" + value + ": a group address is not a station address");
        }
        return "\"NetworkAddress\"=\"" + value + "\"\n";
    }
    if (name == "VendorDescription") {
        if (value.size() > 127 || value.find('"') != std::string::npos) {
            throw UsageError("--param VendorDescription: at most 127 characters, no quotes");
        }
        return "\"VendorDescription\"=\"" + value + "\"\n";
    }
    for (const ParameterSpec& p : Parameters()) {
        if (name != p.name) continue;
        char* end = nullptr;
        errno = 0;
        unsigned long long v = strtoull(value.c_str(), &end, 0);
        if (value.empty() || *end != 0 || errno != 0 || value[0] == '-' || v > UINT32_MAX) {
            throw UsageError("--param " + assignment + ": expected an unsigned 32-bit number");
        }
        if (v < p.min || v > p.max) {
            throw UsageError("--param " + assignment + ": out of range " + std::to_string(p.min) + ".." +
                             std::to_string(p.max));
        }
        return "\"" + name + "\"=dword:" + Hex8((uint32_t)v) + "\n";
    }
    throw UsageError("--param " + name + ": unknown parameter (ethbrg info --params lists them)");
}

Host::Host(const CommonOptions& options, kplat::ClockMode clock) : mOptions(options)
{
    mProfile = ResolveProfile(options.profile);
    std::string adapterText;
    for (const std::string& p : options.params) adapterText += ParameterToRegistry(p);
    if (!options.pcap.empty()) mPcap.reset(new PcapWriter(options.pcap));

    kplat::SetCheckHandler([this](const kplat::CheckFailure& f) {
        fprintf(stderr, "ethbrg: check failure 0x%08lX: %s\n", (unsigned long)f.code, f.text.c_str());
        mChecks.push_back(f.text);
    });
    // Traces go to the ring always (for --trace-dump) and to standard error
    // only when asked for with --trace-mask without a dump file.
    if (options.traceMask != 0 && options.traceDump.empty()) {
        kplat::SetDebugSinkStderr();
    } else {
        kplat::SetDebugSinkCallback([](const char*) {});
    }
    mScope.reset(new kplat::Scope(kplat::Options{clock}));
    kplat::RegistryClear();
    kplat::ClearErrorLog();
    KnSetTraceMask(options.traceMask);
    std::string text = "[" + kplat::ServiceKeyPath(kServiceName) + "]\n\"TraceMask\"=dword:" +
                       Hex8(options.traceMask) + "\n[" + kplat::AdapterKeyPath(0) + "]\n" + adapterText;
    std::string error;
    if (kplat::RegistryLoadText(text, &error) != STATUS_SUCCESS) throw UsageError("registry: " + error);

    if (!options.usb.empty()) {
        mUsb = kplat::LibusbDevice::Open(options.usb, &error);
        if (!mUsb) throw UsageError(error);
    } else {
        mDevice.reset(new ethsim::NcmDevice(mProfile));
    }
    mBus.reset(new kplat::UsbBus());
    if (!options.usbCapture.empty() && !mBus->StartCapture(options.usbCapture, &error)) {
        throw UsageError("--usb-capture " + options.usbCapture + ": " + error);
    }
    if (mUsb) {
        mBus->Attach(mUsb.get());
    } else {
        mBus->Attach(mDevice.get());
        mService.reset(new ethsim::ServiceTimer(*mDevice));
    }
    mDriver.reset(new kplat::NdisDriver(DriverEntry, kServiceName));
    if (!mDriver->IsRegistered()) {
        throw UsageError("the driver did not register (DriverEntry status 0x" + Hex8(mDriver->EntryStatus()) + ")");
    }
}

Host::~Host() { Shutdown(); }

NDIS_STATUS Host::Plug()
{
    mDriverBlocks.clear();
    for (const kplat::PoolTagStats& s : kplat::GetPoolStats()) mDriverBlocks[s.tag] = {s.liveCount, s.liveBytes};
    kplat::AdapterOptions options;
    options.parametersKey = kplat::AdapterKeyPath(0);
    {
        std::lock_guard<std::mutex> lock(mMediaMutex);
        mMediaIndicated = false;
    }
    mAdapter.reset(new kplat::NdisAdapter(*mDriver, *mBus, options));
    mAdapter->OnStatus([this](NDIS_STATUS status) {
        if (status != NDIS_STATUS_MEDIA_CONNECT && status != NDIS_STATUS_MEDIA_DISCONNECT) return;
        SetMedia(status == NDIS_STATUS_MEDIA_CONNECT);
    });
    mAdapter->OnReceive([this](NDIS_HANDLE, const uint8_t* header, UINT headerSize, const uint8_t* lookahead,
                               UINT lookaheadSize, UINT packetSize) {
        // The driver indicates the whole frame as look-ahead; a shorter one
        // would need MPTransferData, which the program does not do.
        if (lookaheadSize < packetSize) mTruncated++;
        uint8_t frame[65536];
        size_t n = std::min<size_t>(headerSize, sizeof(frame));
        memcpy(frame, header, n);
        size_t m = std::min<size_t>(lookaheadSize, sizeof(frame) - n);
        memcpy(frame + n, lookahead, m);
        if (mPcap) mPcap->Write(frame, n + m);
        if (mOnFrame) mOnFrame(frame, n + m);
    });
    // As NDIS does after initialization: the state the device reported
    // while MPInitialize still ran comes with no indication.
    // An indication that comes meanwhile is newer and wins. The query is made
    // outside the lock: no driver code runs under it.
    if (mAdapter->IsInitialized()) {
        ULONG state = 0, written = 0, needed = 0;
        const bool known = mAdapter->Query(OID_GEN_MEDIA_CONNECT_STATUS, &state, sizeof(state), &written,
                                           &needed) == NDIS_STATUS_SUCCESS;
        std::lock_guard<std::mutex> lock(mMediaMutex);
        if (known && !mMediaIndicated) {
            mConnected.store(state == NdisMediaStateConnected);
            if (mOnMedia) mOnMedia(state == NdisMediaStateConnected);
        }
    }
    return mAdapter->InitializeStatus();
}

void Host::Shutdown()
{
    if (mShutDown) return;
    mShutDown = true;
    if (mAdapter) {
        Flush();
        mAdapter->Halt();
        mOutstandingAtHalt = mAdapter->PacketsOutstanding();
        mAdapter.reset();
    }
    kplat::RunUntilIdle();
    if (!mOptions.traceDump.empty()) {
        std::string error;
        if (!WriteTraceDump(mOptions.traceDump, &error)) {
            fprintf(stderr, "ethbrg: --trace-dump %s: %s\n", mOptions.traceDump.c_str(), error.c_str());
        }
    }
    mDriver.reset();
    mService.reset();
    if (mBus) mBus->StopCapture();
    mBus.reset();
    mUsb.reset();
    mLedger = LedgerNow();
    mScope.reset();
    mDevice.reset();
    kplat::SetCheckHandler(nullptr);
    kplat::SetDebugSinkStderr();
}

void Host::SetMedia(bool connected)
{
    std::lock_guard<std::mutex> lock(mMediaMutex);
    mMediaIndicated = true;
    mConnected.store(connected);
    if (mOnMedia) mOnMedia(connected);
}

void Host::RemoveAdapter()
{
    if (!mAdapter) return;
    Flush();  // the miniport completes them, with the device gone or not
    mAdapter->SurpriseRemove();
    mOutstandingAtHalt = mAdapter->PacketsOutstanding();
    mAdapter.reset();
    kplat::RunUntilIdle();
    std::lock_guard<std::mutex> lock(mMediaMutex);
    mConnected.store(false);
    mLedger = LedgerNow(mDriverBlocks);
}

bool Host::Replug(uint64_t ms, const std::function<bool()>& stop)
{
    if (!mUsb || mAdapter) return false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    // The kernel needs a moment after the device appears before it can be
    // opened (its node and configuration come a little later).
    while (!stop()) {
        if (kplat::LibusbDevice::Present(mOptions.usb)) {
            std::string error;
            std::unique_ptr<kplat::LibusbDevice> device = kplat::LibusbDevice::Open(mOptions.usb, &error);
            if (device) {
                if (mBus->IsAttached()) mBus->Unplug();
                mUsb = std::move(device);
                mBus->Attach(mUsb.get());
                return Plug() == NDIS_STATUS_SUCCESS;
            }
        }
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

bool Host::WaitFor(const std::function<bool()>& pred, uint64_t ms)
{
    if (kplat::GetClockMode() == kplat::ClockMode::Virtual) {
        for (uint64_t t = 0; t < ms && !pred(); t++) kplat::AdvanceTime(1);
        return pred();
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

void Host::Send(const uint8_t* frame, size_t length)
{
    if (mPcap) mPcap->Write(frame, length);
    mAdapter->SendFrame(frame, length);
}

void Host::Queue(const uint8_t* frame, size_t length)
{
    if (mPcap) mPcap->Write(frame, length);
    PNDIS_PACKET packet = mAdapter->AllocateFramePacket(frame, length);
    if (packet == nullptr) {
        mAdapter->SendFrame(frame, length);  // too long for a pooled packet: on its own
        return;
    }
    mQueued[mQueuedCount++] = packet;
    if (mQueuedCount == kQueuedSends) Flush();
}

void Host::Flush()
{
    if (mQueuedCount == 0 || !mAdapter) return;
    const UINT count = (UINT)mQueuedCount;
    mQueuedCount = 0;
    mAdapter->Send(mQueued, count);
}

void Host::OnFrame(std::function<void(const uint8_t* frame, size_t length)> callback)
{
    mOnFrame = std::move(callback);
}

std::optional<uint64_t> Host::QueryNumber(NDIS_OID oid)
{
    uint64_t v = 0;
    ULONG written = 0, needed = 0;
    NDIS_STATUS s = mAdapter->Query(oid, &v, sizeof(v), &written, &needed);
    if (s != NDIS_STATUS_SUCCESS) return std::nullopt;
    if (written == 4) v &= 0xFFFFFFFFu;
    return v;
}

bool Host::QueryBytes(NDIS_OID oid, std::vector<uint8_t>* out)
{
    out->assign(1024, 0);
    ULONG written = 0, needed = 0;
    NDIS_STATUS s = mAdapter->Query(oid, out->data(), (ULONG)out->size(), &written, &needed);
    if (s == NDIS_STATUS_INVALID_LENGTH) {
        out->assign(needed, 0);
        s = mAdapter->Query(oid, out->data(), (ULONG)out->size(), &written, &needed);
    }
    if (s != NDIS_STATUS_SUCCESS) return false;
    out->resize(written);
    return true;
}

NDIS_STATUS Host::SetPacketFilter(ULONG filter)
{
    ULONG read = 0, needed = 0;
    NDIS_STATUS status = mAdapter->Set(OID_GEN_CURRENT_PACKET_FILTER, &filter, sizeof(filter), &read, &needed);
    kplat::RunUntilIdle();
    return status;
}

std::array<uint8_t, 6> Host::CurrentAddress()
{
    std::array<uint8_t, 6> mac{};
    std::vector<uint8_t> bytes;
    if (QueryBytes(OID_802_3_CURRENT_ADDRESS, &bytes) && bytes.size() == 6) {
        std::copy(bytes.begin(), bytes.end(), mac.begin());
    }
    return mac;
}

}  // namespace ethbrg
