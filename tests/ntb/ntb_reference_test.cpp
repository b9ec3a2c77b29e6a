// The reference NTB encoder and decoder (tests/common), which the driver's
// transmit builder and receive parser are checked against: a few placements
// worked out by hand, and every encoding held against the simulated device's
// own checker (written separately) and decoded back.
#include <ethsim/ntb.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ntb_reference.h"

using namespace ntbref;

namespace {

std::vector<std::vector<uint8_t>> Frames(size_t count, size_t length)
{
    std::vector<std::vector<uint8_t>> frames;
    for (size_t i = 0; i < count; i++) {
        std::vector<uint8_t> f(length + i % 7);
        for (size_t j = 0; j < f.size(); j++) f[j] = (uint8_t)(i * 31 + j * 7);
        frames.push_back(f);
    }
    return frames;
}

TEST(NtbReference, PlacementsWorkedOutByHand)
{
    struct Row {
        Form form;
        uint32_t divisor, remainder, alignment, frameLength;
        std::vector<Entry> entries;  // of two frames (or one, when length > 100)
        uint32_t ndpOffset, blockLength;
    };
    const Row rows[] = {
        {Form::Ntb16, 1, 0, 4, 60, {{12, 60}, {72, 60}}, 132, 132 + 20},
        {Form::Ntb16, 4, 0, 4, 60, {{14, 60}, {74, 60}}, 136, 136 + 20},
        {Form::Ntb16, 4, 6, 4, 60, {{16, 60}, {80, 60}}, 140, 140 + 20},  // remainder taken modulo 4
        {Form::Ntb16, 1, 0, 6, 63, {{12, 63}, {75, 63}}, 138, 138 + 20},
        {Form::Ntb16, 1, 0, 2, 63, {{12, 63}, {75, 63}}, 140, 140 + 20},  // alignment below 4 is 4
        {Form::Ntb32, 1, 0, 4, 60, {{16, 60}, {76, 60}}, 136, 136 + 40},
        {Form::Ntb32, 0, 0, 4, 60, {{16, 60}, {76, 60}}, 136, 136 + 40},  // divisor 0 is 1
    };
    for (const Row& r : rows) {
        EncodeParams p;
        p.form = r.form;
        p.divisor = r.divisor;
        p.remainder = r.remainder;
        p.alignment = r.alignment;
        std::vector<std::vector<uint8_t>> frames(2, std::vector<uint8_t>(r.frameLength, 0x5A));
        EncodedNtb ntb = Encode(frames, p);
        EXPECT_EQ(ntb.entries, r.entries) << r.divisor << "/" << r.remainder << "/" << r.alignment;
        EXPECT_EQ(ntb.ndpOffset, r.ndpOffset);
        EXPECT_EQ(ntb.blockLength, r.blockLength);
    }
}

TEST(NtbReference, LimitsAndOneByteTermination)
{
    EncodeParams p;
    p.form = Form::Ntb32;
    p.bufferSize = 65536;
    p.maxSegmentSize = 64;
    const uint32_t limits[][2] = {{0, 169}, {200, 169}, {169, 169}, {168, 168}, {16, 16}};
    for (const auto& l : limits) {
        p.maxDatagrams = l[0];
        EXPECT_EQ(Encode(Frames(200, 60), p).framesUsed, l[1]) << l[0];
    }
    p.maxDatagrams = 16;
    p.sequence = 65534;
    std::vector<EncodedNtb> all = EncodeAll(Frames(40, 60), p);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[2].framesUsed, 8u);
    EXPECT_EQ(all[2].sequence, 0) << "the sequence wraps";
    // A block of 512 bytes gets one more under one-byte termination.
    EncodeParams t;
    t.oneByteTermination = true;
    EncodedNtb ntb = Encode({std::vector<uint8_t>(484, 1)}, t);  // 12 + 484 + 16
    EXPECT_TRUE(ntb.terminationByte);
    EXPECT_EQ(ntb.blockLength, 513u);
}

TEST(NtbReference, EncodingsPassTheDeviceCheckerAndDecodeBack)
{
    for (Form form : {Form::Ntb16, Form::Ntb32}) {
        for (uint32_t divisor : {1u, 4u, 8u, 64u}) {
            for (uint32_t alignment : {4u, 8u, 16u}) {
                EncodeParams p;
                p.form = form;
                p.divisor = divisor;
                p.remainder = divisor - 2 < divisor ? divisor - 2 : 0;
                p.alignment = alignment;
                ethsim::OutRules rules;
                rules.ntb32 = form == Form::Ntb32;
                rules.divisor = (uint16_t)divisor;
                rules.remainder = (uint16_t)Corrected(p).remainder;
                rules.alignment = (uint16_t)alignment;
                std::vector<std::vector<uint8_t>> frames = Frames(30, 100 + divisor);
                for (const EncodedNtb& ntb : EncodeAll(frames, p)) {
                    ethsim::CheckResult c = ethsim::CheckNtb(ntb.bytes.data(), ntb.bytes.size(), rules);
                    EXPECT_TRUE(c.findings.empty()) << c.findings[0].detail;
                    DecodeResult d = Decode(ntb.bytes, form);
                    ASSERT_EQ(d.outcome, Outcome::Accepted) << d.reasonText;
                    ASSERT_EQ(d.datagrams.size(), ntb.entries.size());
                    for (size_t i = 0; i < ntb.entries.size(); i++) {
                        EXPECT_EQ(d.datagrams[i].index, ntb.entries[i].index);
                    }
                }
            }
        }
    }
}

}  // namespace
