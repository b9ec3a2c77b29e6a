// The end-of-run summary of `demo` and `bridge`: traffic both ways, NTB
// statistics, the device's conformance report, the OID view of the adapter,
// and what halt and unload left behind. Kept as JSON; the text form is
// rendered from it, so both always say the same.
#pragma once

#include "host.h"

#include <ethsim/network.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace ethbrg {

// "1 Gbit/s", "425.984 Mbit/s", "0 bit/s".
std::string FormatBitRate(uint64_t bitsPerSecond);
// "NDIS_STATUS_FAILURE" and the like, from the driver's name table.
std::string NdisStatusText(NDIS_STATUS status);

class Summary {
public:
    void SetPing(bool arpAnswered, int sent, int answered, const std::vector<double>& rttMs);
    // One direction of numbered frames: what the sender emitted and what the
    // receiving counter saw.
    void SetTraffic(const std::string& direction, uint64_t sent, uint64_t bytes,
                    const ethsim::CountingGenerator& receiver, double seconds);
    // Frames that crossed without a counter (bridge), per direction.
    void SetFrames(const std::string& direction, uint64_t frames, uint64_t bytes, uint64_t dropped, double seconds);
    void SetDevice(const ethsim::NcmDevice& device);
    // A real device (--usb): what it is and the transfers that crossed.
    void SetRealDevice(const kplat::LibusbDevice& device);
    void SetOids(Host& host);
    void SetForeign(uint64_t frames);
    void SetShutdown(const Host& host);

    void AddProblem(const std::string& problem) { mProblems.push_back(problem); }

    // Nothing lost or reordered, no violation, no leak, no check failure.
    bool Passed() const;
    std::string Text() const;
    // To a file, "-" for standard output.
    void WriteJson(const std::string& path) const;
    const nlohmann::json& Json() const { return mJson; }

private:
    nlohmann::json mJson = nlohmann::json::object();
    std::vector<std::string> mProblems;
};

}  // namespace ethbrg
