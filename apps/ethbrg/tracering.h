// The driver's in-memory trace ring, written to a file as it lies in memory
// (the 256-byte control block, then the ring) and turned back into text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ethbrg {

// Writes the driver-wide trace ring; false (with the reason) when there is
// none or the file cannot be written. Call while the driver is loaded.
bool WriteTraceDump(const std::string& path, std::string* error);

// The messages of a dump, oldest first, each ending in a newline. False with
// the reason when the bytes are not a trace ring (signature, version, sizes).
bool DecodeTraceDump(const std::vector<uint8_t>& dump, std::string* text, std::string* error);

}  // namespace ethbrg
