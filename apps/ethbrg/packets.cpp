#include "packets.h"

#include <ethsim/network.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace ethbrg {

namespace {

void Put16(uint8_t* p, uint16_t v)
{
    p[0] = (uint8_t)(v >> 8);
    p[1] = (uint8_t)v;
}
uint16_t Get16(const uint8_t* p) { return (uint16_t)(p[0] << 8 | p[1]); }

}  // namespace

uint16_t EtherType(const uint8_t* frame, size_t length) { return length >= 14 ? Get16(frame + 12) : 0; }

std::string MacText(const uint8_t* m)
{
    char b[18];
    snprintf(b, sizeof(b), "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return b;
}

std::vector<uint8_t> ArpRequest(const Mac& source, const Ip4& sourceIp, const Ip4& targetIp)
{
    std::vector<uint8_t> f(60, 0);
    memset(f.data(), 0xFF, 6);
    memcpy(&f[6], source.data(), 6);
    Put16(&f[12], 0x0806);
    Put16(&f[14], 1);       // Ethernet
    Put16(&f[16], 0x0800);  // IPv4
    f[18] = 6;
    f[19] = 4;
    Put16(&f[20], 1);  // request
    memcpy(&f[22], source.data(), 6);
    memcpy(&f[28], sourceIp.data(), 4);
    memcpy(&f[38], targetIp.data(), 4);
    return f;
}

std::optional<Mac> ParseArpReply(const uint8_t* f, size_t length, const Ip4& fromIp)
{
    if (length < 42 || EtherType(f, length) != 0x0806 || Get16(f + 20) != 2 || memcmp(f + 28, fromIp.data(), 4) != 0) {
        return std::nullopt;
    }
    Mac mac;
    memcpy(mac.data(), f + 22, 6);
    return mac;
}

std::vector<uint8_t> EchoRequest(const Mac& source, const Mac& destination, const Ip4& sourceIp,
                                 const Ip4& destinationIp, uint16_t id, uint16_t sequence, size_t payload)
{
    std::vector<uint8_t> f(14 + 20 + 8 + payload, 0);
    memcpy(&f[0], destination.data(), 6);
    memcpy(&f[6], source.data(), 6);
    Put16(&f[12], 0x0800);
    uint8_t* ip = &f[14];
    ip[0] = 0x45;
    Put16(ip + 2, (uint16_t)(20 + 8 + payload));
    Put16(ip + 4, sequence);
    ip[8] = 64;
    ip[9] = 1;  // ICMP
    memcpy(ip + 12, sourceIp.data(), 4);
    memcpy(ip + 16, destinationIp.data(), 4);
    Put16(ip + 10, ethsim::InternetChecksum(ip, 20));
    uint8_t* icmp = ip + 20;
    icmp[0] = 8;
    Put16(icmp + 4, id);
    Put16(icmp + 6, sequence);
    for (size_t i = 0; i < payload; i++) icmp[8 + i] = (uint8_t)i;
    Put16(icmp + 2, ethsim::InternetChecksum(icmp, 8 + payload));
    return f;
}

std::optional<uint16_t> ParseEchoReply(const uint8_t* f, size_t length, uint16_t id)
{
    if (length < 14 + 20 + 8 || EtherType(f, length) != 0x0800) return std::nullopt;
    const uint8_t* ip = f + 14;
    size_t ihl = (ip[0] & 0x0F) * 4;
    if (ip[9] != 1 || length < 14 + ihl + 8) return std::nullopt;
    const uint8_t* icmp = ip + ihl;
    if (icmp[0] != 0 || Get16(icmp + 4) != id) return std::nullopt;
    return Get16(icmp + 6);
}

}  // namespace ethbrg
