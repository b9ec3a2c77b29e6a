#include "summary.h"

#include "packets.h"

#include <knnames.h>

#include <cstdio>
#include <fstream>
#include <iostream>

namespace ethbrg {

using nlohmann::json;

std::string FormatBitRate(uint64_t bps)
{
    const char* units[] = {"bit/s", "kbit/s", "Mbit/s", "Gbit/s"};
    double v = (double)bps;
    int u = 0;
    while (v >= 1000 && u < 3) {
        v /= 1000;
        u++;
    }
    char b[48];
    snprintf(b, sizeof(b), "%.6g %s", v, units[u]);
    return b;
}

std::string NdisStatusText(NDIS_STATUS status) { return NdStatusName(status); }

void Summary::SetPing(bool arpAnswered, int sent, int answered, const std::vector<double>& rttMs)
{
    double min = 0, max = 0, sum = 0;
    for (size_t i = 0; i < rttMs.size(); i++) {
        min = i == 0 ? rttMs[i] : std::min(min, rttMs[i]);
        max = std::max(max, rttMs[i]);
        sum += rttMs[i];
    }
    mJson["ping"] = {{"arpAnswered", arpAnswered}, {"sent", sent}, {"answered", answered},
                     {"rttMs", {{"min", min}, {"avg", rttMs.empty() ? 0 : sum / rttMs.size()}, {"max", max}}}};
    if (!arpAnswered) mProblems.push_back("ARP not answered");
    if (answered != sent) mProblems.push_back("ping: " + std::to_string(sent - answered) + " not answered");
}

void Summary::SetTraffic(const std::string& direction, uint64_t sent, uint64_t bytes,
                         const ethsim::CountingGenerator& receiver, double seconds)
{
    const uint64_t received = receiver.Received();
    const uint64_t lost = sent > received ? sent - received : 0;
    mJson["traffic"][direction] = {{"sent", sent},
                                   {"received", received},
                                   {"lost", lost},
                                   {"reordered", receiver.OutOfOrder()},
                                   {"corrupt", receiver.Corrupt()},
                                   {"bytes", bytes},
                                   {"seconds", seconds},
                                   {"framesPerSecond", seconds > 0 ? received / seconds : 0},
                                   {"mbitPerSecond", seconds > 0 ? receiver.ReceivedBytes() * 8 / seconds / 1e6 : 0}};
    if (lost) mProblems.push_back(direction + ": " + std::to_string(lost) + " frames lost");
    if (receiver.OutOfOrder()) mProblems.push_back(direction + ": " + std::to_string(receiver.OutOfOrder()) + " reordered");
    if (receiver.Corrupt()) mProblems.push_back(direction + ": " + std::to_string(receiver.Corrupt()) + " corrupt");
}

void Summary::SetFrames(const std::string& direction, uint64_t frames, uint64_t bytes, uint64_t dropped,
                        double seconds)
{
    mJson["traffic"][direction] = {{"frames", frames},
                                   {"bytes", bytes},
                                   {"dropped", dropped},
                                   {"seconds", seconds},
                                   {"framesPerSecond", seconds > 0 ? frames / seconds : 0},
                                   {"mbitPerSecond", seconds > 0 ? bytes * 8 / seconds / 1e6 : 0}};
}

void Summary::SetDevice(const ethsim::NcmDevice& device)
{
    const ethsim::TrafficCounters t = device.Traffic();
    auto per = [](uint64_t d, uint64_t n) { return n ? (double)d / n : 0.0; };
    mJson["ntb"] = {
        {"out", {{"transfers", t.outTransfers}, {"ntbs", t.outNtbs}, {"datagrams", t.outDatagrams},
                 {"datagramsPerNtb", per(t.outDatagrams, t.outNtbs)}, {"rejected", t.outRejected}}},
        {"in", {{"ntbs", t.inNtbs}, {"datagrams", t.inDatagrams}, {"datagramsPerNtb", per(t.inDatagrams, t.inNtbs)},
                {"droppedQueueFull", t.inQueueFull}, {"droppedTooLong", t.inTooLong}, {"filtered", t.inFiltered}}},
        {"notifications", t.notifications}};
    json kinds = json::object();
    const auto counts = device.Violations();
    for (size_t k = 0; k < counts.size(); k++) {
        if (counts[k]) kinds[ethsim::ViolationName((ethsim::Violation)k)] = counts[k];
    }
    mJson["conformance"] = {{"violations", device.TotalViolations()}, {"byKind", kinds}};
    if (device.TotalViolations()) {
        mProblems.push_back("the device saw " + std::to_string(device.TotalViolations()) + " violations");
    }
}

void Summary::SetRealDevice(const kplat::LibusbDevice& device)
{
    const kplat::LibusbDeviceStats t = device.Stats();
    mJson["usb"] = {{"device", device.Description()},
                    {"controlTransfers", t.controlTransfers},
                    {"out", {{"transfers", t.outTransfers}, {"bytes", t.outBytes}}},
                    {"in", {{"transfers", t.inTransfers}, {"bytes", t.inBytes}}},
                    {"interruptPackets", t.interruptPackets},
                    {"stalls", t.stalls},
                    {"ntbInSize", t.ntbInSize},
                    {"ntbOutSize", t.ntbOutSize},
                    {"gone", device.Gone()}};
}

void Summary::SetOids(Host& host)
{
    json o = json::object();
    std::vector<uint8_t> bytes;
    if (host.QueryBytes(OID_802_3_PERMANENT_ADDRESS, &bytes) && bytes.size() == 6) {
        o["permanentAddress"] = MacText(bytes.data());
    }
    if (host.QueryBytes(OID_802_3_CURRENT_ADDRESS, &bytes) && bytes.size() == 6) {
        o["currentAddress"] = MacText(bytes.data());
    }
    auto number = [&](const char* name, NDIS_OID oid) {
        if (auto v = host.QueryNumber(oid)) o[name] = *v;
    };
    if (auto v = host.QueryNumber(OID_GEN_LINK_SPEED)) o["linkSpeed"] = FormatBitRate(*v * 100);
    if (auto v = host.QueryNumber(OID_GEN_MEDIA_CONNECT_STATUS)) {
        o["mediaState"] = *v == NdisMediaStateConnected ? "connected" : "disconnected";
    }
    number("maximumFrameSize", OID_GEN_MAXIMUM_FRAME_SIZE);
    number("xmitOk", OID_GEN_XMIT_OK);
    number("rcvOk", OID_GEN_RCV_OK);
    number("xmitError", OID_GEN_XMIT_ERROR);
    number("rcvError", OID_GEN_RCV_ERROR);
    number("rcvNoBuffer", OID_GEN_RCV_NO_BUFFER);
    mJson["oids"] = o;
}

void Summary::SetForeign(uint64_t frames) { mJson["unexpectedFrames"] = frames; }

void Summary::SetShutdown(const Host& host)
{
    json errors = json::array();
    for (const kplat::ErrorLogEntry& e : kplat::ErrorLog()) {
        char code[16];
        snprintf(code, sizeof(code), "0x%08lX", (unsigned long)e.code);
        errors.push_back(code);
    }
    mJson["halt"] = {{"packetsOutstanding", host.OutstandingAtHalt()},
                     {"ledger", host.Ledger()},
                     {"checkFailures", host.CheckFailures()},
                     {"errorLog", errors}};
    if (host.OutstandingAtHalt()) mProblems.push_back("packets still owned by the miniport at halt");
    if (!host.Ledger().empty()) mProblems.push_back("pool blocks left after unload");
    if (!host.CheckFailures().empty()) mProblems.push_back("check failures");
    mJson["result"] = Passed() ? "pass" : "fail";
    mJson["problems"] = mProblems;
}

bool Summary::Passed() const { return mProblems.empty(); }

std::string Summary::Text() const
{
    std::string s;
    char line[256];
    s += "\n== summary\n";
    if (mJson.contains("ping")) {
        const json& p = mJson["ping"];
        snprintf(line, sizeof(line), "ping        arp %s, %d/%d echo replies, rtt min/avg/max %.3f/%.3f/%.3f ms\n",
                 p["arpAnswered"].get<bool>() ? "answered" : "NOT answered", p["answered"].get<int>(),
                 p["sent"].get<int>(), p["rttMs"]["min"].get<double>(), p["rttMs"]["avg"].get<double>(),
                 p["rttMs"]["max"].get<double>());
        s += line;
    }
    if (mJson.contains("traffic")) {
        for (auto& [direction, t] : mJson["traffic"].items()) {
            if (t.contains("sent")) {
                snprintf(line, sizeof(line),
                         "%-15s sent %llu, received %llu, lost %llu, reordered %llu, corrupt %llu  (%.0f frames/s, "
                         "%.1f Mbit/s)\n",
                         direction.c_str(), t["sent"].get<unsigned long long>(),
                         t["received"].get<unsigned long long>(), t["lost"].get<unsigned long long>(),
                         t["reordered"].get<unsigned long long>(), t["corrupt"].get<unsigned long long>(),
                         t["framesPerSecond"].get<double>(), t["mbitPerSecond"].get<double>());
            } else {
                snprintf(line, sizeof(line), "%-15s %llu frames, %llu bytes, %llu dropped  (%.0f frames/s, %.1f Mbit/s)\n",
                         direction.c_str(), t["frames"].get<unsigned long long>(), t["bytes"].get<unsigned long long>(),
                         t["dropped"].get<unsigned long long>(), t["framesPerSecond"].get<double>(),
                         t["mbitPerSecond"].get<double>());
            }
            s += line;
        }
    }
    if (mJson.contains("ntb")) {
        const json& n = mJson["ntb"];
        snprintf(line, sizeof(line),
                 "NTBs        out %llu (%.2f datagrams each, %llu datagrams rejected), in %llu (%.2f datagrams each, "
                 "%llu frames dropped on a full queue); %llu notifications\n",
                 n["out"]["ntbs"].get<unsigned long long>(), n["out"]["datagramsPerNtb"].get<double>(),
                 n["out"]["rejected"].get<unsigned long long>(), n["in"]["ntbs"].get<unsigned long long>(),
                 n["in"]["datagramsPerNtb"].get<double>(), n["in"]["droppedQueueFull"].get<unsigned long long>(),
                 n["notifications"].get<unsigned long long>());
        s += line;
    }
    if (mJson.contains("usb")) {
        const json& u = mJson["usb"];
        snprintf(line, sizeof(line),
                 "usb         %s: %llu control; out %llu transfers, %llu bytes; in %llu transfers, %llu bytes; "
                 "%llu interrupt packets; %llu stalls; NTB in/out %u/%u bytes%s\n",
                 u["device"].get<std::string>().c_str(), u["controlTransfers"].get<unsigned long long>(),
                 u["out"]["transfers"].get<unsigned long long>(), u["out"]["bytes"].get<unsigned long long>(),
                 u["in"]["transfers"].get<unsigned long long>(), u["in"]["bytes"].get<unsigned long long>(),
                 u["interruptPackets"].get<unsigned long long>(), u["stalls"].get<unsigned long long>(),
                 u["ntbInSize"].get<unsigned>(), u["ntbOutSize"].get<unsigned>(), u["gone"].get<bool>() ? "; gone" : "");
        s += line;
    }
    if (mJson.contains("conformance")) {
        const json& c = mJson["conformance"];
        s += "conformance " + std::to_string(c["violations"].get<uint64_t>()) + " violations";
        for (auto& [kind, count] : c["byKind"].items()) s += "; " + kind + ": " + std::to_string(count.get<uint64_t>());
        s += "\n";
    }
    if (mJson.contains("oids")) {
        s += "adapter    ";
        for (auto& [name, v] : mJson["oids"].items()) {
            s += " " + name + "=" + (v.is_string() ? v.get<std::string>() : v.dump());
        }
        s += "\n";
        if (mJson["oids"].contains("xmitOk")) {
            // The driver answers these from the device's own counters when the
            // device keeps them, as it last read them: they lag behind, and
            // stay 0 before the first read.
            s += "            (xmit/rcv counts: the device's counters when it keeps them, read every "
                 "StatisticsUpdateInterval ms; else the driver's own)\n";
        }
    }
    if (mJson.contains("halt")) {
        const json& h = mJson["halt"];
        const std::string ledger = h["ledger"].get<std::string>();
        s += "halt        " + std::to_string(h["packetsOutstanding"].get<uint64_t>()) +
             " packets outstanding; pool-tag ledger after unload: " + (ledger.empty() ? "empty" : "\n" + ledger);
        if (ledger.empty()) s += "\n";
        if (!h["errorLog"].empty()) s += "error log   " + h["errorLog"].dump() + "\n";
        for (const auto& f : h["checkFailures"]) s += "check       " + f.get<std::string>() + "\n";
    }
    s += "result      " + std::string(Passed() ? "PASS" : "FAIL");
    for (const std::string& p : mProblems) s += "; " + p;
    s += "\n";
    return s;
}

void Summary::WriteJson(const std::string& path) const
{
    if (path == "-") {
        std::cout << mJson.dump(2) << std::endl;
        return;
    }
    std::ofstream out(path);
    if (!out) throw UsageError("--json " + path + ": cannot be written");
    out << mJson.dump(2) << std::endl;
}

}  // namespace ethbrg
