// The simulated function's NTB checker: a good NTB (built by the reference
// encoder) broken one rule at a time, each break found as its own kind; and
// the function's descriptors and requests as the USB library reads them.
#include <ethsim/ntb.h>
#include <gtest/gtest.h>

#include <functional>

#include "knusbconfigdescriptor.h"
#include "ntb_reference.h"
#include "testbed.h"

using ethsim::OutRules;
using ethsim::Violation;
using testbed::Bytes;

namespace {

// Two 60-byte datagrams at 14 and 74 (divisor 4), the NDP16 at 136, 156 bytes.
Bytes Good16()
{
    ntbref::EncodeParams p;
    p.divisor = 4;
    std::vector<std::vector<uint8_t>> frames = {testbed::Frame(60, 1), testbed::Frame(60, 2)};
    return ntbref::Encode(frames, p).bytes;
}

TEST(Checker, FindsEachBrokenRuleAsItsKind)
{
    struct Row {
        Violation kind;
        std::function<void(Bytes&)> edit;
        std::function<void(OutRules&)> rules;
    };
    auto put16 = [](Bytes& b, size_t at, uint16_t v) { ethsim::Put16(&b[at], v); };
    const Row rows[] = {
        {Violation::TransferTooShort, [](Bytes& b) { b.resize(10); }, nullptr},
        {Violation::NthSignature, [](Bytes& b) { b[0] = 'X'; }, nullptr},
        {Violation::NthHeaderLength, [&](Bytes& b) { put16(b, 4, 16); }, nullptr},
        {Violation::BlockLength, [&](Bytes& b) { put16(b, 8, 150); }, nullptr},
        {Violation::BlockTooLarge, nullptr, [](OutRules& r) { r.maxSize = 100; }},
        {Violation::NdpIndex, [&](Bytes& b) { put16(b, 10, 4); }, nullptr},
        {Violation::NdpAlignment, nullptr, [](OutRules& r) { r.alignment = 16; }},
        {Violation::NdpSignature, [](Bytes& b) { b[136] = 'X'; }, nullptr},
        {Violation::NdpLength, [&](Bytes& b) { put16(b, 140, 14); }, nullptr},
        {Violation::NdpTerminator, [&](Bytes& b) { put16(b, 152, 1); put16(b, 154, 1); }, nullptr},
        {Violation::NdpEmpty, [&](Bytes& b) { put16(b, 144, 0); put16(b, 146, 0); }, nullptr},
        {Violation::DatagramEntry, [&](Bytes& b) { put16(b, 146, 0); }, nullptr},
        {Violation::DatagramOutOfBlock, [&](Bytes& b) { put16(b, 148, 150); }, nullptr},
        {Violation::DatagramOverlapsHeaders, [&](Bytes& b) { put16(b, 144, 4); }, nullptr},
        {Violation::DatagramsOverlap, [&](Bytes& b) { put16(b, 148, 50); }, nullptr},
        {Violation::DatagramPlacement, nullptr, [](OutRules& r) { r.remainder = 2; }},
        {Violation::DatagramTooLong, nullptr, [](OutRules& r) { r.maxDatagramLength = 59; }},
        {Violation::TooManyDatagrams, nullptr, [](OutRules& r) { r.maxDatagrams = 1; }},
        {Violation::CrcMode, [](Bytes& b) { b[139] = '1'; }, nullptr},
    };
    Bytes good = Good16();
    ASSERT_TRUE(ethsim::CheckNtb(good.data(), good.size(), OutRules()).findings.empty());
    for (const Row& r : rows) {
        Bytes b = good;
        OutRules rules;
        if (r.edit) r.edit(b);
        if (r.rules) r.rules(rules);
        ethsim::CheckResult c = ethsim::CheckNtb(b.data(), b.size(), rules);
        bool found = false;
        for (const ethsim::Finding& f : c.findings) found |= f.kind == r.kind;
        EXPECT_TRUE(found) << ethsim::ViolationName(r.kind);
    }
}

TEST(Function, DescriptorsAndStringsFollowTheProfile)
{
    for (kplat::UsbSpeed speed : {kplat::UsbSpeed::Full, kplat::UsbSpeed::High, kplat::UsbSpeed::Super}) {
        testbed::Traits t;
        t.layer = testbed::Layer::Bus;
        t.profile.speed = speed;
        t.profile.interfaceAssociation = speed == kplat::UsbSpeed::Super;
        testbed::Bed bed(t);
        KnUsbConfigDescriptor d;
        ASSERT_EQ(d.Load(&bed.Lower(), 0, NonPagedPool, 500), STATUS_SUCCESS);
        PUSB_INTERFACE_DESCRIPTOR data = d.FindInterfaceDescriptor(nullptr, 1, 1, 0x0A, 0, 1);
        ASSERT_NE(data, nullptr);
        auto* in = (PUSB_ENDPOINT_DESCRIPTOR)d.FindDescriptor(data, USB_ENDPOINT_DESCRIPTOR_TYPE);
        ASSERT_NE(in, nullptr);
        EXPECT_EQ(in->bEndpointAddress, 0x82);
        EXPECT_EQ(in->wMaxPacketSize, t.profile.BulkMaxPacket());
        EXPECT_NE(d.FindInterfaceDescriptor(nullptr, 0, 0, 0x02, 0x0D, 0), nullptr) << "the NCM communication interface";
        EXPECT_EQ(d.FindDescriptor(nullptr, 0x0B) != nullptr, t.profile.interfaceAssociation);
        d.Free();
    }
}

}  // namespace
