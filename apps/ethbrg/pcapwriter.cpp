#include "pcapwriter.h"

#include "host.h"

#include <sys/time.h>

namespace ethbrg {

PcapWriter::PcapWriter(const std::string& path)
{
    mPcap = pcap_open_dead(DLT_EN10MB, 65535);
    if (mPcap == nullptr) throw UsageError("--pcap " + path + ": libpcap cannot open a writer");
    mDumper = pcap_dump_open(mPcap, path.c_str());
    if (mDumper == nullptr) {
        std::string why = pcap_geterr(mPcap);
        pcap_close(mPcap);
        throw UsageError("--pcap " + path + ": " + why);
    }
}

PcapWriter::~PcapWriter()
{
    pcap_dump_close(mDumper);
    pcap_close(mPcap);
}

void PcapWriter::Write(const uint8_t* frame, size_t length)
{
    pcap_pkthdr header{};
    gettimeofday(&header.ts, nullptr);
    header.caplen = header.len = (bpf_u_int32)length;
    std::lock_guard<std::mutex> lock(mMutex);
    pcap_dump(reinterpret_cast<u_char*>(mDumper), &header, frame);
}

}  // namespace ethbrg
