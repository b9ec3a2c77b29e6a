// The few frames the program's own protocol uses: ARP requests and replies,
// ICMP echo requests and replies over IPv4.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ethbrg {

using Mac = std::array<uint8_t, 6>;
using Ip4 = std::array<uint8_t, 4>;

std::vector<uint8_t> ArpRequest(const Mac& source, const Ip4& sourceIp, const Ip4& targetIp);
// The sender's MAC address if frame is an ARP reply from targetIp.
std::optional<Mac> ParseArpReply(const uint8_t* frame, size_t length, const Ip4& fromIp);

std::vector<uint8_t> EchoRequest(const Mac& source, const Mac& destination, const Ip4& sourceIp,
                                 const Ip4& destinationIp, uint16_t id, uint16_t sequence, size_t payload);
// The sequence number if frame is an echo reply with this id.
std::optional<uint16_t> ParseEchoReply(const uint8_t* frame, size_t length, uint16_t id);

uint16_t EtherType(const uint8_t* frame, size_t length);
std::string MacText(const uint8_t* mac);

}  // namespace ethbrg
