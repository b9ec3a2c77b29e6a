// The named seeds of the NTB fuzz corpus: each one must still reach the case
// it is named for, under the reference decoder. Byte 0 of a seed is the fuzz
// configuration (bit 0: NTB32; bit 1: count limit; bits 2..5: limit - 1).
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "devicecontncm_harness.h"
#include "ntb_reference.h"
#include "testbed.h"

using namespace ntbref;

namespace {

struct Seed {
    const char* name;
    Outcome outcome;
    Reason reason;
    size_t datagrams;
};

const Seed kSeeds[] = {
    {"ntb16_valid_one_datagram", Outcome::Accepted, Reason::None, 1},
    {"ntb16_valid_two_ndps", Outcome::Accepted, Reason::None, 2},
    {"ntb16_crc_ndp", Outcome::Accepted, Reason::None, 2},
    {"ntb16_wlength_17_one_entry", Outcome::Accepted, Reason::None, 1},
    {"ntb16_wlength_15_empty", Outcome::Rejected, Reason::EmptyNdp, 0},
    {"ntb16_table_past_end", Outcome::Rejected, Reason::NdpNotComplete, 0},
    {"ntb16_ndp_at_end", Outcome::Rejected, Reason::NdpNotInBuffer, 0},
    {"ntb16_ndp_index_zero", Outcome::Rejected, Reason::NdpNotInBuffer, 0},
    {"ntb16_wlength_huge", Outcome::Rejected, Reason::NdpNotComplete, 0},
    {"ntb16_no_zero_termination", Outcome::Rejected, Reason::NoZeroTermination, 0},
    {"ntb16_zero_length_entry", Outcome::Rejected, Reason::InvalidContent, 0},
    {"ntb16_index_length_overflow16", Outcome::Rejected, Reason::DatagramNotInBuffer, 0},
    {"ntb16_index_length_wrap_to_zero", Outcome::Rejected, Reason::DatagramNotInBuffer, 0},
    {"ntb16_datagram_past_end", Outcome::Rejected, Reason::DatagramNotInBuffer, 0},
    {"ntb16_chain_loop_a_b_a", Outcome::ChainCut, Reason::ChainBound, 2},
    {"ntb16_chain_loop_count_limit", Outcome::ChainCut, Reason::ChainBound, 8},
    {"ntb16_chain_self_loop", Outcome::ChainCut, Reason::ChainBound, 1},
    {"ntb16_chain_second_outside", Outcome::ChainCut, Reason::NdpNotInBuffer, 1},
    {"ntb16_chain_backward", Outcome::ChainCut, Reason::ChainBound, 1},
    {"ntb16_chain_backward_count_limit", Outcome::Accepted, Reason::None, 2},
    {"ntb16_signature_ncmh_lower", Outcome::Rejected, Reason::InvalidNthSignature, 0},
    {"ntb16_23_bytes", Outcome::Rejected, Reason::InvalidLength, 0},
    {"ntb16_24_bytes_min", Outcome::Rejected, Reason::NdpNotInBuffer, 0},
    {"tiny_empty", Outcome::Rejected, Reason::InvalidLength, 0},
    {"tiny_one_byte", Outcome::Rejected, Reason::InvalidLength, 0},
    {"tiny_signature_only", Outcome::Rejected, Reason::InvalidLength, 0},
    {"tiny_ntb32_signature_only", Outcome::Rejected, Reason::InvalidLength, 0},
    {"ntb32_valid_one_datagram", Outcome::Accepted, Reason::None, 1},
    {"ntb32_valid_two_ndps", Outcome::Accepted, Reason::None, 2},
    {"ntb32_crc_ndp", Outcome::Accepted, Reason::None, 2},
    {"ntb32_table_past_end", Outcome::Rejected, Reason::NdpNotComplete, 0},
    {"ntb32_ndp_at_end", Outcome::Rejected, Reason::NdpNotInBuffer, 0},
    {"ntb32_index_length_overflow32", Outcome::Rejected, Reason::DatagramNotInBuffer, 0},
    {"ntb32_index_length_wrap_to_zero", Outcome::Rejected, Reason::DatagramNotInBuffer, 0},
    {"ntb32_ndp_index_huge", Outcome::Rejected, Reason::NdpNotInBuffer, 0},
    {"ntb32_next_index_huge", Outcome::ChainCut, Reason::NdpNotInBuffer, 1},
    {"ntb32_wlength_huge", Outcome::Rejected, Reason::NdpNotComplete, 0},
    {"ntb32_wlength_31_empty", Outcome::Rejected, Reason::EmptyNdp, 0},
    {"ntb32_chain_loop_a_b_a", Outcome::ChainCut, Reason::ChainBound, 2},
    {"ntb32_signature_ncmh_upper", Outcome::Rejected, Reason::InvalidNthSignature, 0},
    {"ntb32_39_bytes", Outcome::Rejected, Reason::InvalidLength, 0},
};

std::vector<uint8_t> ReadSeed(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.good()) << path;
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

class NtbCorpusSeed : public ::testing::TestWithParam<Seed> {};

TEST_P(NtbCorpusSeed, ReachesItsCase)
{
    const Seed& seed = GetParam();
    std::vector<uint8_t> bytes = ReadSeed(std::string(ETHBRG_FUZZ_CORPUS_DIR) + "/ntbref/" + seed.name);
    ASSERT_FALSE(bytes.empty());
    const uint8_t config = bytes[0];
    ASSERT_EQ(config & 0x80, 0) << "a decoding seed";
    const Form form = (config & 0x01) != 0 ? Form::Ntb32 : Form::Ntb16;
    DecodeOptions options;
    options.chainRule = (config & 0x02) != 0 ? ChainRule::CountLimit : ChainRule::ForwardOnly;
    options.maxNdps = 1 + ((config >> 2) & 0x0F);

    DecodeResult result = Decode(bytes.data() + 1, bytes.size() - 1, form, options);
    EXPECT_EQ(result.outcome, seed.outcome) << result.reasonText;
    EXPECT_EQ(result.reason, seed.reason) << ReasonName(result.reason) << ": " << result.reasonText;
    EXPECT_EQ(result.datagrams.size(), seed.datagrams);
}

INSTANTIATE_TEST_SUITE_P(Named, NtbCorpusSeed, ::testing::ValuesIn(kSeeds),
                         [](const ::testing::TestParamInfo<Seed>& info) { return std::string(info.param.name); });

TEST(NtbCorpus, RoundTripSeedsArePresent)
{
    for (const char* name : {"roundtrip16_div4_rem2", "roundtrip16_div4_rem0", "roundtrip16_termination",
                             "roundtrip32_align6_rem_mod", "roundtrip16_max16", "roundtrip16_no_room",
                             "roundtrip32_empty_frame", "roundtrip16_remainder_near_divisor",
                             "roundtrip32_remainder_near_divisor"}) {
        std::vector<uint8_t> bytes = ReadSeed(std::string(ETHBRG_FUZZ_CORPUS_DIR) + "/ntbref/" + name);
        ASSERT_FALSE(bytes.empty()) << name;
        EXPECT_EQ(bytes[0] & 0x80, 0x80) << name;
    }
}



// The driver's parser rejects each rejected seed for the reference's reason,
// as its trace says (the outcome alone would hide a check that is skipped
// when a later one catches the same transfer).
TEST(NtbCorpus, TheDriverRejectsForTheReferencesReason)
{
    const std::pair<Reason, const char*> texts[] = {
        {Reason::InvalidLength, "EnumeratorFromBuffer: invalid length"},
        {Reason::InvalidNthSignature, "EnumeratorFromBuffer: invalid NTH signature"},
        {Reason::NdpNotInBuffer, " not in buffer\n"},
        {Reason::InvalidTableLength, "invalid table len"},
        {Reason::NdpNotComplete, "not complete in buffer"},
        {Reason::EmptyNdp, "empty NTP"},
        {Reason::NoZeroTermination, "no zero termination"},
        {Reason::InvalidContent, "invalid content"},
        {Reason::DatagramNotInBuffer, "datagram not in buffer"},
    };
    testbed::Traits t;
    t.layer = testbed::Layer::Platform;
    t.traceMask = KN_TRACE_ERROR;
    testbed::Bed bed(t);
    size_t checked = 0;
    for (const Seed& seed : kSeeds) {
        if (seed.outcome != Outcome::Rejected) continue;
        std::vector<uint8_t> bytes = ReadSeed(std::string(ETHBRG_FUZZ_CORPUS_DIR) + "/ntbref/" + seed.name);
        // An empty transfer goes back unread; the driver follows chains forward only.
        if (bytes.size() < 2 || (bytes[0] & 0x02) != 0) continue;
        const bool ntb32 = (bytes[0] & 0x01) != 0;
        NcmRxHarness harness(ntb32, ntb32 ? 256000 : 65535, 1);
        bed.TakeTrace();
        ASSERT_TRUE(harness.Feed(bytes.data() + 1, (ULONG)bytes.size() - 1)) << seed.name;
        EXPECT_EQ(harness.datagramCount, 0u) << seed.name;
        for (const auto& text : texts) {
            if (text.first == seed.reason) {
                EXPECT_TRUE(bed.Traced(text.second)) << seed.name << ": " << bed.TakeTrace();
            }
        }
        checked++;
    }
    EXPECT_GT(checked, 15u);
}

}  // namespace
