// An Ethernet pcap (link type EN10MB) of the frames at the adapter's upper
// edge, written through libpcap. Safe to call from any thread.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <mutex>
#include <string>

namespace ethbrg {

class PcapWriter {
public:
    // Throws UsageError when the file cannot be created.
    explicit PcapWriter(const std::string& path);
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    void Write(const uint8_t* frame, size_t length);

private:
    std::mutex mMutex;  // guards the dumper
    pcap_t* mPcap = nullptr;
    pcap_dumper_t* mDumper = nullptr;
};

}  // namespace ethbrg
