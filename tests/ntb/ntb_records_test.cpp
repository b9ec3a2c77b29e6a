// Tests of the NTB record definitions of the driver (ntb.h) against the
// reference's own byte-level encoding.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ntb.h"
#include "ntb_reference.h"

namespace {

TEST(NtbRecords, SignaturesSpellTheirText)
{
    auto text = [](ULONG signature) {
        char bytes[5] = {};
        memcpy(bytes, &signature, 4);
        return std::string(bytes);
    };
    EXPECT_EQ(text(NTH16_SIGNATURE), "NCMH");
    EXPECT_EQ(text(NTH32_SIGNATURE), "ncmh");
    EXPECT_EQ(text(NDP16_SIGNATURE_NO_CRC), "NCM0");
    EXPECT_EQ(text(NDP16_SIGNATURE_CRC), "NCM1");
    EXPECT_EQ(text(NDP32_SIGNATURE_NO_CRC), "ncm0");
    EXPECT_EQ(text(NDP32_SIGNATURE_CRC), "ncm1");
}

TEST(NtbRecords, DerivedLengths)
{
    EXPECT_EQ(sizeof(NtbParameters), 28u);
    EXPECT_EQ(Ndp16Length(3), 24u);
    EXPECT_EQ(Ndp32Length(3), 48u);
    EXPECT_EQ(Ndp16EntryCount(15), 0u);
    EXPECT_EQ(Ndp16EntryCount(17), 1u);
    EXPECT_EQ(Ndp32EntryCount(31), 0u);
    EXPECT_EQ(Ndp32EntryCount(32), 1u);
    EXPECT_GE(NTB_TX_NDP_SCRATCH_LENGTH, Ndp32Length(NTB_MAX_TX_DATAGRAMS));
}

TEST(NtbRecords, OffsetsFollowTheReferenceEncoder)
{
    EXPECT_EQ(RoundUp(75, 6), 78u);
    for (ULONG divisor = 1; divisor <= 9; divisor++) {
        for (ULONG remainder = 0; remainder < divisor; remainder++) {
            ntbref::EncodeParams params;
            params.divisor = divisor;
            params.remainder = remainder;
            ntbref::EncodedNtb ntb = ntbref::Encode({std::vector<uint8_t>(33, 1), std::vector<uint8_t>(7, 2)}, params);
            ASSERT_EQ(ntb.entries.size(), 2u);
            EXPECT_EQ(ntb.entries[0].index, NtbDatagramOffset(NTH16_LENGTH, divisor, remainder));
            EXPECT_EQ(ntb.entries[1].index, NtbDatagramOffset(ntb.entries[0].index + 33, divisor, remainder));
            EXPECT_EQ(ntb.ndpOffset, RoundUp(ntb.entries[1].index + 7, 4));
        }
    }
}

TEST(NtbRecords, RecordsMatchTheWireLayout)
{
    std::vector<uint8_t> wire;
    ntbref::PutNth(wire, ntbref::Form::Ntb16, 0x1234, 0x0456, 0x789A);
    Nth16 nth16 = NtbLoad<Nth16>(wire.data());
    EXPECT_EQ(nth16.dwSignature, NTH16_SIGNATURE);
    EXPECT_EQ(nth16.wHeaderLength, 12);
    EXPECT_EQ(nth16.wSequence, 0x789A);
    EXPECT_EQ(nth16.wBlockLength, 0x1234);
    EXPECT_EQ(nth16.wNdpIndex, 0x0456);

    wire.clear();
    ntbref::PutNth(wire, ntbref::Form::Ntb32, 0x12345678, 0x9ABCDEF0, 0x1111);
    Nth32 nth32 = NtbLoad<Nth32>(wire.data());
    EXPECT_EQ(nth32.dwSignature, NTH32_SIGNATURE);
    EXPECT_EQ(nth32.wHeaderLength, 16);
    EXPECT_EQ(nth32.wSequence, 0x1111);
    EXPECT_EQ(nth32.dwBlockLength, 0x12345678u);
    EXPECT_EQ(nth32.dwNdpIndex, 0x9ABCDEF0u);

    wire.clear();
    ntbref::PutNdp(wire, ntbref::Form::Ntb16, 0, {{0x0102, 0x0304}}, 0x0506, true);
    Ndp16Header ndp16 = NtbLoad<Ndp16Header>(wire.data());
    EXPECT_EQ(ndp16.dwSignature, NDP16_SIGNATURE_CRC);
    EXPECT_EQ(ndp16.wLength, 16);
    EXPECT_EQ(ndp16.wNextNdpIndex, 0x0506);
    Ndp16Entry entry16 = NtbLoad<Ndp16Entry>(wire.data() + NDP16_HEADER_LENGTH);
    EXPECT_EQ(entry16.wDatagramIndex, 0x0102);
    EXPECT_EQ(entry16.wDatagramLength, 0x0304);

    wire.clear();
    ntbref::PutNdp(wire, ntbref::Form::Ntb32, 0, {{0x01020304, 0x05060708}}, 0x0A0B0C0D, false);
    Ndp32Header ndp32 = NtbLoad<Ndp32Header>(wire.data());
    EXPECT_EQ(ndp32.dwSignature, NDP32_SIGNATURE_NO_CRC);
    EXPECT_EQ(ndp32.wLength, 32);
    EXPECT_EQ(ndp32.wReserved6, 0);
    EXPECT_EQ(ndp32.dwNextNdpIndex, 0x0A0B0C0Du);
    EXPECT_EQ(ndp32.dwReserved12, 0u);
    Ndp32Entry entry32 = NtbLoad<Ndp32Entry>(wire.data() + NDP32_HEADER_LENGTH);
    EXPECT_EQ(entry32.dwDatagramIndex, 0x01020304u);
    EXPECT_EQ(entry32.dwDatagramLength, 0x05060708u);
}

TEST(NtbRecords, StoreWritesLittleEndianAtAnyAlignment)
{
    UCHAR bytes[16];
    memset(bytes, 0xCC, sizeof(bytes));
    NtbStore32(bytes + 1, 0x11223344);
    NtbStore16(bytes + 6, 0xAABB);
    EXPECT_EQ(bytes[0], 0xCC);
    EXPECT_EQ(bytes[1], 0x44);
    EXPECT_EQ(bytes[4], 0x11);
    EXPECT_EQ(bytes[5], 0xCC);
    EXPECT_EQ(bytes[6], 0xBB);
    EXPECT_EQ(bytes[7], 0xAA);
    EXPECT_EQ(NtbLoad32(bytes + 1), 0x11223344u);
    EXPECT_EQ(NtbLoad16(bytes + 6), 0xAABB);

    Nth16 nth = {};
    nth.dwSignature = NTH16_SIGNATURE;
    nth.wHeaderLength = NTH16_LENGTH;
    nth.wBlockLength = 88;
    nth.wNdpIndex = 72;
    std::vector<uint8_t> out(13, 0);
    NtbStore(out.data() + 1, nth);
    std::vector<uint8_t> expected;
    ntbref::PutNth(expected, ntbref::Form::Ntb16, 88, 72, 0);
    EXPECT_EQ(std::vector<uint8_t>(out.begin() + 1, out.end()), expected);
    EXPECT_EQ(NtbLoad16(out.data() + 1 + offsetof(Nth16, wNdpIndex)), 72);
}

TEST(NtbRecords, NtbParametersLayout)
{
    const UCHAR wire[28] = {28, 0, 0x02, 0x00, 0x00, 0x40, 0, 0,  // wLength, formats, dwNtbInMaxSize 16384
                            4,  0, 0,    0,    4,    0,    0, 0,  // in divisor, remainder, alignment, reserved
                            0x00, 0x20, 0, 0,                     // dwNtbOutMaxSize 8192
                            4,  0, 2,    0,    0,    0,    16, 0};
    NtbParameters params = NtbLoad<NtbParameters>(wire);
    EXPECT_EQ(params.wLength, 28);
    EXPECT_EQ(params.bmNtbFormatsSupported & NTB_FORMAT_NTB32_SUPPORTED, NTB_FORMAT_NTB32_SUPPORTED);
    EXPECT_EQ(params.dwNtbInMaxSize, 16384u);
    EXPECT_EQ(params.wNdpInDivisor, 4);
    EXPECT_EQ(params.wNdpInAlignment, 4);
    EXPECT_EQ(params.dwNtbOutMaxSize, 8192u);
    EXPECT_EQ(params.wNdpOutDivisor, 4);
    EXPECT_EQ(params.wNdpOutPayloadRemainder, 2);
    EXPECT_EQ(params.wNdpOutAlignment, 0);
    EXPECT_EQ(params.wNtbOutMaxDatagrams, 16);
}

}  // namespace
