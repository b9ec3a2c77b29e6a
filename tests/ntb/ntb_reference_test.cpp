// Tests of the reference NTB encoder and decoder (tests/common), which the
// driver's transmit builder and receive parser are checked against.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ntb_reference.h"

using namespace ntbref;

namespace {

std::vector<uint8_t> Frame(size_t length, uint8_t seed = 1)
{
    std::vector<uint8_t> frame(length);
    for (size_t i = 0; i < length; i++) {
        frame[i] = (uint8_t)(seed * 31 + i * 7);
    }
    return frame;
}

std::vector<std::vector<uint8_t>> Frames(size_t count, size_t length)
{
    std::vector<std::vector<uint8_t>> frames;
    for (size_t i = 0; i < count; i++) {
        frames.push_back(Frame(length, (uint8_t)i));
    }
    return frames;
}

EncodeParams Params16()
{
    EncodeParams params;
    params.form = Form::Ntb16;
    params.bufferSize = 16384;
    return params;
}

EncodeParams Params32()
{
    EncodeParams params = Params16();
    params.form = Form::Ntb32;
    return params;
}

// An NTB16 with one NDP at 72 listing a 60-byte datagram at 12; 88 bytes.
std::vector<uint8_t> OneDatagram16()
{
    std::vector<uint8_t> ntb(88, 0);
    std::vector<uint8_t> frame = Frame(60);
    std::copy(frame.begin(), frame.end(), ntb.begin() + 12);
    PutNth(ntb, Form::Ntb16, 88, 72);
    PutNdp(ntb, Form::Ntb16, 72, {{12, 60}});
    return ntb;
}

// The same in NTB32: datagram at 16, NDP at 76; 100 bytes.
std::vector<uint8_t> OneDatagram32()
{
    std::vector<uint8_t> ntb(100, 0);
    std::vector<uint8_t> frame = Frame(60);
    std::copy(frame.begin(), frame.end(), ntb.begin() + 16);
    PutNth(ntb, Form::Ntb32, 100, 76);
    PutNdp(ntb, Form::Ntb32, 76, {{16, 60}});
    return ntb;
}

// ---------------------------------------------------------------------------
// Encoder: placement
// ---------------------------------------------------------------------------

TEST(NtbReferenceEncode, Ntb16HeaderAndSingleDatagram)
{
    EncodeParams params = Params16();
    params.sequence = 0x1234;
    EncodedNtb ntb = Encode({Frame(60)}, params);
    ASSERT_EQ(ntb.entries.size(), 1u);
    EXPECT_EQ(ntb.entries[0], (Entry{12, 60}));
    // End 72 is aligned to 4 already.
    EXPECT_EQ(ntb.ndpOffset, 72u);
    EXPECT_EQ(ntb.ndpLength, 16u);
    EXPECT_EQ(ntb.blockLength, 88u);
    ASSERT_EQ(ntb.bytes.size(), 88u);
    const std::vector<uint8_t> header = {'N', 'C', 'M', 'H', 12, 0, 0x34, 0x12, 88, 0, 72, 0};
    EXPECT_EQ(std::vector<uint8_t>(ntb.bytes.begin(), ntb.bytes.begin() + 12), header);
    const std::vector<uint8_t> ndp = {'N', 'C', 'M', '0', 16, 0, 0, 0, 12, 0, 60, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(ntb.bytes.begin() + 72, ntb.bytes.end()), ndp);
    std::vector<uint8_t> frame = Frame(60);
    EXPECT_EQ(std::vector<uint8_t>(ntb.bytes.begin() + 12, ntb.bytes.begin() + 72), frame);
}

TEST(NtbReferenceEncode, Ntb32HeaderAndSingleDatagram)
{
    EncodeParams params = Params32();
    params.sequence = 7;
    EncodedNtb ntb = Encode({Frame(60)}, params);
    ASSERT_EQ(ntb.entries.size(), 1u);
    EXPECT_EQ(ntb.entries[0], (Entry{16, 60}));
    EXPECT_EQ(ntb.ndpOffset, 76u);
    EXPECT_EQ(ntb.blockLength, 76u + 8 + 24);
    const std::vector<uint8_t> header = {'n', 'c', 'm', 'h', 16, 0, 7, 0, 108, 0, 0, 0, 76, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(ntb.bytes.begin(), ntb.bytes.begin() + 16), header);
    const std::vector<uint8_t> ndp = {'n', 'c', 'm', '0', 32, 0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 0,
                                      16,  0,   0,   0,   60, 0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(ntb.bytes.begin() + 76, ntb.bytes.end()), ndp);
}

TEST(NtbReferenceEncode, Divisor4Remainder0GivesOffsets14And74)
{
    EncodeParams params = Params16();
    params.divisor = 4;
    params.remainder = 0;
    EncodedNtb ntb = Encode(Frames(2, 60), params);
    ASSERT_EQ(ntb.entries.size(), 2u);
    EXPECT_EQ(ntb.entries[0], (Entry{14, 60}));   // payload at 28
    EXPECT_EQ(ntb.entries[1], (Entry{74, 60}));   // RoundUp(74 + 14, 4) - 14
    // Gap bytes 12 and 13 are left alone.
    EXPECT_FALSE(ntb.written[12]);
    EXPECT_FALSE(ntb.written[13]);
    EXPECT_TRUE(ntb.written[14]);
}

TEST(NtbReferenceEncode, NdpAt76AfterEnd75)
{
    EncodeParams params = Params16();
    EncodedNtb ntb = Encode({Frame(63)}, params);   // 12 + 63 = 75
    ASSERT_EQ(ntb.entries.size(), 1u);
    EXPECT_EQ(ntb.ndpOffset, 76u);
    EXPECT_EQ(ntb.blockLength, 76u + 4 * 1 + 12);
    EXPECT_FALSE(ntb.written[75]);
    EXPECT_EQ(ntb.bytes[75], params.gapFill);
}

TEST(NtbReferenceEncode, AlignmentBelow4Becomes4And6Stays6)
{
    for (uint32_t alignment = 0; alignment < 4; alignment++) {
        EncodeParams params = Params16();
        params.alignment = alignment;
        EXPECT_EQ(Corrected(params).alignment, 4u) << alignment;
        EncodedNtb ntb = Encode({Frame(63)}, params);
        EXPECT_EQ(ntb.ndpOffset, 76u) << alignment;
    }
    EncodeParams params = Params16();
    params.alignment = 6;
    EXPECT_EQ(Corrected(params).alignment, 6u);
    EncodedNtb ntb = Encode({Frame(63)}, params);
    EXPECT_EQ(ntb.ndpOffset, 78u);   // RoundUp(75, 6)
    EXPECT_EQ(ntb.blockLength, 78u + 16);
}

TEST(NtbReferenceEncode, DivisorAndRemainderCorrections)
{
    EncodeParams params = Params16();
    params.divisor = 0;
    params.remainder = 3;
    EncodeParams fixed = Corrected(params);
    EXPECT_EQ(fixed.divisor, 1u);
    EXPECT_EQ(fixed.remainder, 0u);

    params.divisor = 4;
    params.remainder = 6;
    fixed = Corrected(params);
    EXPECT_EQ(fixed.divisor, 4u);
    EXPECT_EQ(fixed.remainder, 2u);
    EXPECT_EQ(Encode({Frame(60)}, params).entries[0].index, 16u);

    params.remainder = 3;
    EXPECT_EQ(Corrected(params).remainder, 3u);
}

TEST(NtbReferenceEncode, DatagramLimitOf169)
{
    EncodeParams params = Params32();
    params.bufferSize = 65536;
    params.maxSegmentSize = 64;
    EncodedNtb ntb = Encode(Frames(200, 1), params);
    EXPECT_EQ(ntb.framesUsed, 169u);
    EXPECT_EQ(ntb.entries.size(), 169u);
    EXPECT_EQ(ntb.ndpLength, 24u + 8 * 169);

    const uint32_t cases[][2] = {{200, 169}, {169, 169}, {168, 168}, {16, 16}, {0, 169}};
    for (const auto& c : cases) {
        params.maxDatagrams = c[0];
        EXPECT_EQ(Encode(Frames(200, 1), params).framesUsed, c[1]) << c[0];
    }
}

TEST(NtbReferenceEncode, EncodeAllSplitsAtTheLimitAndCountsSequence)
{
    EncodeParams params = Params16();
    params.maxDatagrams = 16;
    params.sequence = 65534;
    std::vector<EncodedNtb> ntbs = EncodeAll(Frames(40, 10), params);
    ASSERT_EQ(ntbs.size(), 3u);
    EXPECT_EQ(ntbs[0].framesUsed, 16u);
    EXPECT_EQ(ntbs[1].framesUsed, 16u);
    EXPECT_EQ(ntbs[2].framesUsed, 8u);
    EXPECT_EQ(ntbs[0].sequence, 65534);
    EXPECT_EQ(ntbs[1].sequence, 65535);
    EXPECT_EQ(ntbs[2].sequence, 0);
    EXPECT_EQ(Get16(ntbs[2].bytes, 6), 0u);
    EXPECT_EQ(Get16(ntbs[1].bytes, 6), 65535u);
}

TEST(NtbReferenceEncode, OneByteTerminationOnMultipleOfMaxPacket)
{
    // 12 + 36 = 48 = NDP offset; block 48 + 16 = 64.
    EncodeParams params = Params16();
    params.maxPacket = 64;
    params.oneByteTermination = true;
    EncodedNtb ntb = Encode({Frame(36)}, params);
    EXPECT_TRUE(ntb.terminationByte);
    EXPECT_EQ(ntb.blockLength, 65u);
    ASSERT_EQ(ntb.bytes.size(), 65u);
    EXPECT_EQ(ntb.bytes[64], 0);
    EXPECT_TRUE(ntb.written[64]);
    EXPECT_EQ(Get16(ntb.bytes, 8), 65u);
    // The NDP is not moved by the extra byte.
    EXPECT_EQ(Get16(ntb.bytes, 10), 48u);

    params.oneByteTermination = false;
    ntb = Encode({Frame(36)}, params);
    EXPECT_FALSE(ntb.terminationByte);
    EXPECT_EQ(ntb.blockLength, 64u);
    EXPECT_EQ(Get16(ntb.bytes, 8), 64u);

    // Not a multiple: unchanged.
    params.oneByteTermination = true;
    ntb = Encode({Frame(37)}, params);
    EXPECT_FALSE(ntb.terminationByte);
    EXPECT_EQ(ntb.blockLength, 68u);
}

TEST(NtbReferenceEncode, FullIsDecidedWithTheMaximumSegmentSize)
{
    // First datagram at 12; needed = 12 + M + (4 + 12) + 4 + 1.
    EncodeParams params = Params16();
    params.maxSegmentSize = 100;
    params.bufferSize = 12 + 100 + 16 + 4 + 1;
    EXPECT_EQ(Encode({Frame(10)}, params).entries.size(), 1u);
    params.bufferSize -= 1;
    EncodedNtb ntb = Encode({Frame(10)}, params);
    EXPECT_EQ(ntb.entries.size(), 0u);
    EXPECT_EQ(ntb.framesUsed, 0u);
    EXPECT_TRUE(ntb.bytes.empty());
    EXPECT_TRUE(EncodeAll({Frame(10)}, params).empty());
}

TEST(NtbReferenceEncode, SecondDatagramNeedsRoomForALargerNdp)
{
    EncodeParams params = Params16();
    params.maxSegmentSize = 100;
    // After a 10-byte frame the end is 22; needed = 22 + 100 + (8 + 12) + 4 + 1 = 147.
    params.bufferSize = 147;
    EXPECT_EQ(Encode(Frames(2, 10), params).entries.size(), 2u);
    params.bufferSize = 146;
    EXPECT_EQ(Encode(Frames(2, 10), params).entries.size(), 1u);
}

TEST(NtbReferenceEncode, LongFrameIsCutToTheMaximumSegmentSize)
{
    EncodeParams params = Params16();
    params.maxSegmentSize = 64;
    EncodedNtb ntb = Encode({Frame(100)}, params);
    ASSERT_EQ(ntb.entries.size(), 1u);
    EXPECT_EQ(ntb.entries[0].length, 64u);
}

TEST(NtbReferenceEncode, RoundTripThroughTheDecoder)
{
    for (Form form : {Form::Ntb16, Form::Ntb32}) {
        EncodeParams params = form == Form::Ntb16 ? Params16() : Params32();
        params.divisor = 4;
        params.remainder = 2;
        params.alignment = 8;
        params.bufferSize = 4096;
        std::vector<std::vector<uint8_t>> frames;
        for (size_t i = 0; i < 30; i++) {
            frames.push_back(Frame(14 + i * 13, (uint8_t)i));
        }
        std::vector<EncodedNtb> ntbs = EncodeAll(frames, params);
        size_t next = 0;
        for (const EncodedNtb& ntb : ntbs) {
            DecodeResult result = Decode(ntb.bytes, form);
            ASSERT_EQ(result.outcome, Outcome::Accepted) << result.reasonText;
            for (const Datagram& d : result.datagrams) {
                ASSERT_LT(next, frames.size());
                EXPECT_EQ(d.payload, frames[next]) << next;
                EXPECT_EQ((d.index + 14) % 4, 2u);
                next++;
            }
        }
        EXPECT_EQ(next, frames.size()) << FormName(form);
    }
}

// ---------------------------------------------------------------------------
// Decoder: transfer header
// ---------------------------------------------------------------------------

TEST(NtbReferenceDecode, AcceptsOneDatagramInBothForms)
{
    DecodeResult result = Decode(OneDatagram16(), Form::Ntb16);
    ASSERT_EQ(result.outcome, Outcome::Accepted) << result.reasonText;
    ASSERT_EQ(result.datagrams.size(), 1u);
    EXPECT_EQ(result.datagrams[0].index, 12u);
    EXPECT_EQ(result.datagrams[0].length, 60u);
    EXPECT_EQ(result.datagrams[0].payloadLength, 60u);
    EXPECT_EQ(result.datagrams[0].payload, Frame(60));
    EXPECT_EQ(result.ndpOffsets, std::vector<uint32_t>{72});

    result = Decode(OneDatagram32(), Form::Ntb32);
    ASSERT_EQ(result.outcome, Outcome::Accepted) << result.reasonText;
    ASSERT_EQ(result.datagrams.size(), 1u);
    EXPECT_EQ(result.datagrams[0].index, 16u);
    EXPECT_EQ(result.datagrams[0].payload, Frame(60));
}

TEST(NtbReferenceDecode, SignatureMustMatchTheForm)
{
    DecodeResult result = Decode(OneDatagram16(), Form::Ntb32);
    EXPECT_EQ(result.outcome, Outcome::Rejected);
    EXPECT_EQ(result.reason, Reason::InvalidNthSignature);
    EXPECT_EQ(result.reasonText, "invalid NTH signature: 0x484d434e");

    result = Decode(OneDatagram32(), Form::Ntb16);
    EXPECT_EQ(result.outcome, Outcome::Rejected);
    EXPECT_EQ(result.reason, Reason::InvalidNthSignature);
    EXPECT_EQ(result.reasonText, "invalid NTH signature: 0x686d636e");
}

TEST(NtbReferenceDecode, MinimumTransferLengths)
{
    std::vector<uint8_t> ntb = OneDatagram16();
    DecodeResult result = Decode(ntb.data(), 23, Form::Ntb16);
    EXPECT_EQ(result.reason, Reason::InvalidLength);
    EXPECT_EQ(result.reasonText, "invalid length: 0x17");
    // 24 bytes pass the length check and fail later.
    EXPECT_NE(Decode(ntb.data(), 24, Form::Ntb16).reason, Reason::InvalidLength);

    ntb = OneDatagram32();
    result = Decode(ntb.data(), 39, Form::Ntb32);
    EXPECT_EQ(result.reason, Reason::InvalidLength);
    EXPECT_EQ(result.reasonText, "invalid length: 0x27");
    EXPECT_NE(Decode(ntb.data(), 40, Form::Ntb32).reason, Reason::InvalidLength);
    EXPECT_EQ(Decode(nullptr, 0, Form::Ntb32).reason, Reason::InvalidLength);
}

TEST(NtbReferenceDecode, FieldsThatAreNotChecked)
{
    // NTH length/sequence/block length, NDP signature and NDP32 reserved fields.
    std::vector<uint8_t> ntb = OneDatagram16();
    Put16(ntb, 4, 0xFFFF);
    Put16(ntb, 6, 0xABCD);
    Put16(ntb, 8, 3);
    Put32(ntb, 72, 0x12345678);
    DecodeResult result = Decode(ntb, Form::Ntb16);
    ASSERT_EQ(result.outcome, Outcome::Accepted);
    EXPECT_FALSE(result.datagrams[0].crcSignature);

    ntb = OneDatagram32();
    Put16(ntb, 76 + 6, 0xFFFF);
    Put32(ntb, 76 + 12, 0xFFFFFFFF);
    EXPECT_EQ(Decode(ntb, Form::Ntb32).outcome, Outcome::Accepted);
}

// ---------------------------------------------------------------------------
// Decoder: NDP checks
// ---------------------------------------------------------------------------

TEST(NtbReferenceDecode, NdpIndexZeroIsNotInBuffer)
{
    std::vector<uint8_t> ntb = OneDatagram16();
    Put16(ntb, 10, 0);
    DecodeResult result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.outcome, Outcome::Rejected);
    EXPECT_EQ(result.reason, Reason::NdpNotInBuffer);
    EXPECT_EQ(result.reasonText, "ndp16 not in buffer");

    ntb = OneDatagram32();
    Put32(ntb, 12, 0xFFFFFFF0);
    EXPECT_EQ(Decode(ntb, Form::Ntb32).reason, Reason::NdpNotInBuffer);
}

TEST(NtbReferenceDecode, NdpMustStartBeforeEndMinusItsSmallestLength)
{
    // NDP16 with one entry at L - 16: accepted. At L - 12: not in buffer even
    // though a 12-byte NDP would fit.
    std::vector<uint8_t> ntb(40, 0);
    PutNth(ntb, Form::Ntb16, 40, 24);
    PutNdp(ntb, Form::Ntb16, 24, {{12, 8}});
    EXPECT_EQ(Decode(ntb, Form::Ntb16).outcome, Outcome::Accepted);

    std::vector<uint8_t> atEnd(40, 0);
    PutNth(atEnd, Form::Ntb16, 40, 28);
    PutNdp(atEnd, Form::Ntb16, 28, {});
    EXPECT_EQ(Decode(atEnd, Form::Ntb16).reason, Reason::NdpNotInBuffer);

    std::vector<uint8_t> ntb32(60, 0);
    PutNth(ntb32, Form::Ntb32, 60, 36);
    PutNdp(ntb32, Form::Ntb32, 36, {});
    EXPECT_EQ(Decode(ntb32, Form::Ntb32).reason, Reason::NdpNotInBuffer);
    EXPECT_EQ(Decode(ntb32, Form::Ntb32).reasonText, "ndp32 not in buffer");
}

TEST(NtbReferenceDecode, TableLengthBelowMinimum)
{
    std::vector<uint8_t> ntb = OneDatagram16();
    Put16(ntb, 72 + 4, 11);
    DecodeResult result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.reason, Reason::InvalidTableLength);
    EXPECT_EQ(result.reasonText, "invalid table len: 0xb");

    ntb = OneDatagram32();
    Put16(ntb, 76 + 4, 23);
    EXPECT_EQ(Decode(ntb, Form::Ntb32).reason, Reason::InvalidTableLength);
}

TEST(NtbReferenceDecode, NdpNotCompleteInBuffer)
{
    std::vector<uint8_t> ntb = OneDatagram16();
    Put16(ntb, 72 + 4, 20);   // 72 + 20 > 88
    DecodeResult result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.reason, Reason::NdpNotComplete);
    EXPECT_EQ(result.reasonText, "NDP16 not complete in buffer: ndp.wLength:20, bufferSize:88");
    Put16(ntb, 72 + 4, 0xFFFF);   // larger than the transfer
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reason, Reason::NdpNotComplete);

    ntb = OneDatagram32();
    Put16(ntb, 76 + 4, 0xFFFF);
    EXPECT_EQ(Decode(ntb, Form::Ntb32).reason, Reason::NdpNotComplete);
}

TEST(NtbReferenceDecode, Ndp16Length15IsEmptyAnd17HasOneEntry)
{
    std::vector<uint8_t> ntb(96, 0);
    PutNth(ntb, Form::Ntb16, 96, 72);
    PutNdp(ntb, Form::Ntb16, 72, {}, 0, false, 15);
    DecodeResult result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.reason, Reason::EmptyNdp);
    EXPECT_EQ(result.reasonText, "empty NTP16");

    PutNdp(ntb, Form::Ntb16, 72, {{12, 60}}, 0, false, 17);
    ntb[72 + 16] = 0x5A;   // the surplus byte is ignored
    result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.outcome, Outcome::Accepted) << result.reasonText;
    EXPECT_EQ(result.datagrams.size(), 1u);

    // The terminator is read at offset 12 of the NDP.
    Put16(ntb, 72 + 12, 1);
    result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.reason, Reason::NoZeroTermination);
    EXPECT_EQ(result.reasonText, "NDP16 no zero termination");
    Put16(ntb, 72 + 12, 0);
    Put16(ntb, 72 + 14, 1);
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reason, Reason::NoZeroTermination);
}

TEST(NtbReferenceDecode, Ndp32EntryCountFromLength)
{
    std::vector<uint8_t> ntb = OneDatagram32();
    Put16(ntb, 76 + 4, 31);   // (31 - 24) / 8 = 0
    EXPECT_EQ(Decode(ntb, Form::Ntb32).reason, Reason::EmptyNdp);
    EXPECT_EQ(Decode(ntb, Form::Ntb32).reasonText, "empty NTP32");

    ntb = OneDatagram32();
    Put32(ntb, 76 + 28, 1);   // high word of the terminator
    EXPECT_EQ(Decode(ntb, Form::Ntb32).reason, Reason::NoZeroTermination);
}

TEST(NtbReferenceDecode, ZeroIndexOrLengthIsInvalidContent)
{
    std::vector<uint8_t> ntb = OneDatagram16();
    Put16(ntb, 72 + 10, 0);
    DecodeResult result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.reason, Reason::InvalidContent);
    // A zero index with a non-zero length is invalid content, too (it is not
    // a terminator before entry n).
    ntb = OneDatagram16();
    Put16(ntb, 72 + 8, 0);
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reason, Reason::InvalidContent);
}

TEST(NtbReferenceDecode, ContentAndBoundsAreCheckedEntryByEntry)
{
    std::vector<uint8_t> ntb(96, 0);
    PutNth(ntb, Form::Ntb16, 96, 72);
    // Entry 0 out of the buffer, entry 1 zero: the first decides.
    PutNdp(ntb, Form::Ntb16, 72, {{12, 200}, {12, 0}});
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reason, Reason::DatagramNotInBuffer);
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reasonText, "NDP16 datagram not in buffer (entry 0)");
    PutNdp(ntb, Form::Ntb16, 72, {{12, 0}, {12, 200}});
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reason, Reason::InvalidContent);
}

TEST(NtbReferenceDecode, DatagramMayEndExactlyAtTheTransferEnd)
{
    std::vector<uint8_t> ntb = OneDatagram16();
    Put16(ntb, 72 + 10, 88 - 12);   // overlaps the NDP: not checked
    EXPECT_EQ(Decode(ntb, Form::Ntb16).outcome, Outcome::Accepted);
    Put16(ntb, 72 + 10, 88 - 11);
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reason, Reason::DatagramNotInBuffer);
}

TEST(NtbReferenceDecode, Ndp16IndexPlusLengthBeyond16Bits)
{
    std::vector<uint8_t> ntb = OneDatagram16();
    Put16(ntb, 72 + 8, 0xFFF0);
    Put16(ntb, 72 + 10, 0x0020);   // 0x10010, 0x0010 in 16 bits
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reason, Reason::DatagramNotInBuffer);
    Put16(ntb, 72 + 8, 0xFF00);
    Put16(ntb, 72 + 10, 0x0100);   // 0x10000, 0 in 16 bits
    EXPECT_EQ(Decode(ntb, Form::Ntb16).reason, Reason::DatagramNotInBuffer);
}

TEST(NtbReferenceDecode, Ndp32IndexPlusLengthBeyond32BitsIsNotInBuffer)
{
    std::vector<uint8_t> ntb = OneDatagram32();
    Put32(ntb, 76 + 16, 0xFFFFFFF0);
    Put32(ntb, 76 + 20, 0x20);   // 0x1_0000_0010, 0x10 in 32 bits
    DecodeResult result = Decode(ntb, Form::Ntb32);
    EXPECT_EQ(result.outcome, Outcome::Rejected);
    EXPECT_EQ(result.reason, Reason::DatagramNotInBuffer);
    EXPECT_EQ(result.reasonText, "NDP32 datagram not in buffer (entry 0)");
    Put32(ntb, 76 + 16, 16);
    Put32(ntb, 76 + 20, 0xFFFFFFFF);
    EXPECT_EQ(Decode(ntb, Form::Ntb32).reason, Reason::DatagramNotInBuffer);
}

// ---------------------------------------------------------------------------
// Decoder: CRC rule
// ---------------------------------------------------------------------------

TEST(NtbReferenceDecode, CrcSignatureDropsTheLastFourBytes)
{
    std::vector<uint8_t> ntb(112, 0);
    PutNth(ntb, Form::Ntb16, 112, 80);
    PutNdp(ntb, Form::Ntb16, 80, {{12, 64}, {76, 4}, {20, 5}}, 0, true);
    DecodeResult result = Decode(ntb, Form::Ntb16);
    ASSERT_EQ(result.outcome, Outcome::Accepted) << result.reasonText;
    ASSERT_EQ(result.datagrams.size(), 3u);
    EXPECT_TRUE(result.datagrams[0].crcSignature);
    EXPECT_EQ(result.datagrams[0].length, 64u);
    EXPECT_EQ(result.datagrams[0].payloadLength, 60u);
    EXPECT_EQ(result.datagrams[1].payloadLength, 4u);   // a 4-byte datagram keeps its length
    EXPECT_EQ(result.datagrams[2].payloadLength, 1u);
}

TEST(NtbReferenceDecode, CrcSignatureOfTheOtherFormDoesNotCount)
{
    std::vector<uint8_t> ntb = OneDatagram16();
    Put32(ntb, 72, 0x316D636E);   // "ncm1"
    DecodeResult result = Decode(ntb, Form::Ntb16);
    ASSERT_EQ(result.outcome, Outcome::Accepted);
    EXPECT_EQ(result.datagrams[0].payloadLength, 60u);

    ntb = OneDatagram32();
    Put32(ntb, 76, 0x314D434E);   // "NCM1"
    result = Decode(ntb, Form::Ntb32);
    EXPECT_EQ(result.datagrams[0].payloadLength, 60u);
    Put32(ntb, 76, 0x316D636E);   // "ncm1"
    result = Decode(ntb, Form::Ntb32);
    EXPECT_EQ(result.datagrams[0].payloadLength, 56u);
}

// ---------------------------------------------------------------------------
// Decoder: chained NDPs
// ---------------------------------------------------------------------------

// NTB16: datagram A (60 bytes at 12), NDP at 72 -> NDP at 88, datagram B (32
// bytes at 104); 136 bytes. secondNext is the second NDP's next index.
std::vector<uint8_t> TwoNdps16(uint32_t secondNext)
{
    std::vector<uint8_t> ntb(136, 0);
    std::vector<uint8_t> a = Frame(60, 1);
    std::vector<uint8_t> b = Frame(32, 2);
    std::copy(a.begin(), a.end(), ntb.begin() + 12);
    std::copy(b.begin(), b.end(), ntb.begin() + 104);
    PutNth(ntb, Form::Ntb16, 136, 72);
    PutNdp(ntb, Form::Ntb16, 72, {{12, 60}}, 88);
    PutNdp(ntb, Form::Ntb16, 88, {{104, 32}}, secondNext);
    return ntb;
}

TEST(NtbReferenceDecode, ChainedNdpsDeliverInOrder)
{
    DecodeResult result = Decode(TwoNdps16(0), Form::Ntb16);
    ASSERT_EQ(result.outcome, Outcome::Accepted) << result.reasonText;
    EXPECT_EQ(result.ndpOffsets, (std::vector<uint32_t>{72, 88}));
    ASSERT_EQ(result.datagrams.size(), 2u);
    EXPECT_EQ(result.datagrams[0].payload, Frame(60, 1));
    EXPECT_EQ(result.datagrams[1].payload, Frame(32, 2));
    EXPECT_EQ(result.datagrams[1].ndpOffset, 88u);
}

TEST(NtbReferenceDecode, ChainedNdpOutsideTheTransferDeliversTheFirstOnly)
{
    std::vector<uint8_t> ntb = TwoNdps16(0);
    Put16(ntb, 72 + 6, 0x8000);
    DecodeResult result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.outcome, Outcome::ChainCut);
    EXPECT_EQ(result.reason, Reason::NdpNotInBuffer);
    EXPECT_EQ(result.failedNdpOffset, 0x8000u);
    ASSERT_EQ(result.datagrams.size(), 1u);
    EXPECT_EQ(result.datagrams[0].payload, Frame(60, 1));

    ntb = TwoNdps16(0);
    Put16(ntb, 88 + 4, 12);   // the second NDP is empty
    result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.outcome, Outcome::ChainCut);
    EXPECT_EQ(result.reason, Reason::EmptyNdp);
    EXPECT_EQ(result.datagrams.size(), 1u);
}

TEST(NtbReferenceDecode, LoopingChainEndsForwardOnly)
{
    // 72 -> 88 -> 72: the way back is not followed.
    DecodeResult result = Decode(TwoNdps16(72), Form::Ntb16);
    EXPECT_EQ(result.outcome, Outcome::ChainCut);
    EXPECT_EQ(result.reason, Reason::ChainBound);
    EXPECT_EQ(result.ndpOffsets, (std::vector<uint32_t>{72, 88}));
    EXPECT_EQ(result.datagrams.size(), 2u);

    // A self loop.
    std::vector<uint8_t> ntb = OneDatagram16();
    Put16(ntb, 72 + 6, 72);
    result = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(result.outcome, Outcome::ChainCut);
    EXPECT_EQ(result.datagrams.size(), 1u);
}

TEST(NtbReferenceDecode, LoopingChainEndsAtTheCountLimit)
{
    DecodeOptions options;
    options.chainRule = ChainRule::CountLimit;
    options.maxNdps = 5;
    DecodeResult result = Decode(TwoNdps16(72), Form::Ntb16, options);
    EXPECT_EQ(result.outcome, Outcome::ChainCut);
    EXPECT_EQ(result.reason, Reason::ChainBound);
    EXPECT_EQ(result.ndpOffsets, (std::vector<uint32_t>{72, 88, 72, 88, 72}));
    EXPECT_EQ(result.datagrams.size(), 5u);

    // A chain of exactly maxNdps NDPs is complete.
    options.maxNdps = 2;
    EXPECT_EQ(Decode(TwoNdps16(0), Form::Ntb16, options).outcome, Outcome::Accepted);
}

TEST(NtbReferenceDecode, BackwardChainDependsOnTheRule)
{
    // First NDP at 88 points back to 72, which ends the chain.
    std::vector<uint8_t> ntb = TwoNdps16(72);
    Put16(ntb, 10, 88);
    Put16(ntb, 72 + 6, 0);
    DecodeResult forward = Decode(ntb, Form::Ntb16);
    EXPECT_EQ(forward.outcome, Outcome::ChainCut);
    EXPECT_EQ(forward.datagrams.size(), 1u);

    DecodeOptions options;
    options.chainRule = ChainRule::CountLimit;
    DecodeResult counted = Decode(ntb, Form::Ntb16, options);
    EXPECT_EQ(counted.outcome, Outcome::Accepted);
    EXPECT_EQ(counted.ndpOffsets, (std::vector<uint32_t>{88, 72}));
}

TEST(NtbReferenceDecode, Ntb32ChainAndLoop)
{
    std::vector<uint8_t> ntb(180, 0);
    PutNth(ntb, Form::Ntb32, 180, 76);
    PutNdp(ntb, Form::Ntb32, 76, {{16, 60}}, 108);
    PutNdp(ntb, Form::Ntb32, 108, {{140, 40}}, 0);
    DecodeResult result = Decode(ntb, Form::Ntb32);
    EXPECT_EQ(result.outcome, Outcome::Accepted);
    EXPECT_EQ(result.datagrams.size(), 2u);

    Put32(ntb, 108 + 8, 76);
    result = Decode(ntb, Form::Ntb32);
    EXPECT_EQ(result.outcome, Outcome::ChainCut);
    EXPECT_EQ(result.reason, Reason::ChainBound);
    EXPECT_EQ(result.datagrams.size(), 2u);

    Put32(ntb, 108 + 8, 0xFFFFFFFF);
    result = Decode(ntb, Form::Ntb32);
    EXPECT_EQ(result.outcome, Outcome::ChainCut);
    EXPECT_EQ(result.reason, Reason::NdpNotInBuffer);
}

}  // namespace
