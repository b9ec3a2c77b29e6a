#include "tracering.h"

#include <kntracelogbuffer.h>

#include <cstdio>
#include <cstring>

namespace ethbrg {

bool WriteTraceDump(const std::string& path, std::string* error)
{
    KnTraceLogBuffer* ring = KnTraceLogBuffer::Instance();
    if (ring == nullptr || ring->Memory() == nullptr) {
        *error = "the driver has no trace ring";
        return false;
    }
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        *error = strerror(errno);
        return false;
    }
    bool ok = fwrite(ring->Memory(), 1, ring->Size(), f) == ring->Size();
    ok = (fclose(f) == 0) && ok;
    if (!ok) *error = "short write";
    return ok;
}

bool DecodeTraceDump(const std::vector<uint8_t>& dump, std::string* text, std::string* error)
{
    KnTraceLogControlBlock cb;
    if (dump.size() < sizeof(cb)) {
        *error = "shorter than the 256-byte control block (" + std::to_string(dump.size()) + " bytes)";
        return false;
    }
    memcpy(&cb, dump.data(), sizeof(cb));
    if (memcmp(cb.mSignature, KN_TRACE_LOG_SIGNATURE, sizeof(cb.mSignature)) != 0) {
        *error = "no trace ring signature at offset 0";
        return false;
    }
    if (cb.mVersion != KN_TRACE_LOG_VERSION || cb.mControlBlockSize != KN_TRACE_LOG_CONTROL_BLOCK_SIZE) {
        *error = "unknown control block version " + std::to_string(cb.mVersion);
        return false;
    }
    const size_t start = cb.mRingStart, end = cb.mRingEnd, write = cb.mWritePosition;
    if (start < sizeof(cb) || end > dump.size() || start >= end || write < start || write >= end) {
        *error = "ring bounds out of the file (start " + std::to_string(start) + ", end " + std::to_string(end) +
                 ", write " + std::to_string(write) + ", file " + std::to_string(dump.size()) + ")";
        return false;
    }
    // The newest message ends at the write position, where the end marker
    // sits; the oldest bytes follow the marker, around the ring. Bytes never
    // written are zero and are skipped.
    const size_t ringLength = end - start;
    const size_t markerLength = strlen(KN_TRACE_LOG_END_MARKER);
    size_t pos = (write - start + markerLength) % ringLength;
    const size_t stop = write - start;
    std::string out;
    out.reserve(ringLength);
    for (size_t n = 0; n < ringLength && pos != stop; n++, pos = (pos + 1) % ringLength) {
        char c = (char)dump[start + pos];
        if (c != 0) out.push_back(c);
    }
    // Once the ring has wrapped, the oldest message is cut: start at the
    // first whole line.
    const bool wrapped = dump[start + (write - start + markerLength) % ringLength] != 0;
    if (wrapped) {
        size_t newline = out.find('\n');
        out.erase(0, newline == std::string::npos ? out.size() : newline + 1);
    }
    *text = out;
    return true;
}

}  // namespace ethbrg
