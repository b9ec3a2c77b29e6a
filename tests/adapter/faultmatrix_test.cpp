// The fault matrix: bring-up with each allocation failing in turn, with each
// control request failing in each way, surprise removal at each of the first
// bus calls, and each pipe failing while frames flow. After every cell: every
// packet completed exactly once, and after halt and unload no IRP, work item
// or pool block left. A cell that breaks an invariant names itself.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "testbed.h"

using testbed::Bed;
using testbed::Frame;
using testbed::Traits;

namespace {

enum class Fault { None, Stall, Hold, Gone, Short, Error };
const char* Name(Fault f)
{
    static const char* names[] = {"none", "stall", "time-out", "device gone", "short answer", "USBD error"};
    return names[(int)f];
}

// Forwards to the function; the n-th control transfer fails as chosen, or
// the device disappears at the n-th bus call of any kind.
class FaultDevice : public kplat::UsbDevice {
public:
    FaultDevice(ethsim::NcmDevice* inner, Fault fault, uint64_t controlAt, uint64_t removeAt)
        : mInner(inner), mFault(fault), mControlAt(controlAt), mRemoveAt(removeAt) {}
    void Attached(kplat::UsbDevicePort* port) override { mPort = port, mInner->Attached(port); }
    void Detached() override { mInner->Detached(); }
    kplat::UsbSpeed Speed() const override { return mInner->Speed(); }
    void ControlTransfer(kplat::UsbControlTransfer* t) override
    {
        if (Call()) return mPort->CompleteControl(t, true);
        uint64_t n = ++mControls;
        if (n == mControlAt) {
            fired = true;
            switch (mFault) {
            case Fault::Stall: return mPort->CompleteControl(t, true);
            case Fault::Hold: return;  // never answered: the host times out
            case Fault::Gone: return mPort->Disconnect();
            case Fault::Short: t->actual = 0; return mPort->CompleteControl(t, false);
            case Fault::Error: return mPort->FailControl(t, USBD_STATUS_XACT_ERROR);
            case Fault::None: break;
            }
        }
        mInner->ControlTransfer(t);
    }
    kplat::UsbHandshake OutPacket(uint8_t ep, const uint8_t* d, uint32_t l) override
    {
        return Call() ? kplat::UsbHandshake::Stall : mInner->OutPacket(ep, d, l);
    }
    kplat::UsbHandshake InPacket(uint8_t ep, uint8_t* b, uint32_t m, uint32_t* l) override
    {
        return Call() ? kplat::UsbHandshake::Stall : mInner->InPacket(ep, b, m, l);
    }
    void EndpointAborted(uint8_t ep) override { mInner->EndpointAborted(ep); }
    uint64_t Controls() const { return mControls; }
    uint64_t Calls() const { return mCalls; }
    std::atomic<bool> fired{false};

private:
    // Counts a bus call; true once the device is gone.
    bool Call()
    {
        uint64_t n = ++mCalls;
        if (n == mRemoveAt) {
            fired = true;
            mPort->Disconnect();
        }
        return mRemoveAt != 0 && n >= mRemoveAt;
    }
    ethsim::NcmDevice* mInner;
    kplat::UsbDevicePort* mPort = nullptr;
    Fault mFault;
    uint64_t mControlAt, mRemoveAt;
    std::atomic<uint64_t> mControls{0}, mCalls{0};
};

// Traffic both ways, then the end of the adapter (surprise removal when the
// device went away), the driver's unload and the invariants.
void RunAndCheck(Bed& bed, bool removed, const std::string& cell)
{
    SCOPED_TRACE(cell);
    if (bed.HasAdapter() && bed.Adapter().IsInitialized()) {
        for (uint32_t i = 0; i < 12; i++) bed.Adapter().SendFrame(Frame(60 + i * 100, i).data(), 60 + i * 100);
        bed.Settle(3000);
        kplat::NdisAdapter& a = bed.Adapter();
        if (removed) a.SurpriseRemove(); else a.Halt();
        EXPECT_EQ(a.PacketsOutstanding(), 0u);
        EXPECT_EQ(a.PacketsCompleted(), a.PacketsSent());
    }
    bed.Unplug();
    bed.Driver().Unload();
    bed.Bus().Unplug();  // the device in front of the function dies before the bed
    kplat::RunUntilIdle();
    kplat::ObjectCounts objects = kplat::GetObjectCounts();
    EXPECT_EQ(objects.irps, 0u);
    EXPECT_EQ(objects.workItems, 0u);
    EXPECT_EQ(Bed::DriverLedger(), "");
}

Traits Detached()
{
    Traits t;
    t.attach = false;
    t.plug = false;
    return t;
}

}  // namespace

TEST(FaultMatrix, EveryAllocationOfBringUpFailingInTurn)
{
    uint64_t allocations;
    {
        Bed bed(Detached());
        bed.Bus().Attach(&bed.Device());
        uint64_t before = kplat::PoolAllocationCount();
        ASSERT_EQ(bed.Plug(), NDIS_STATUS_SUCCESS);
        allocations = kplat::PoolAllocationCount() - before;
    }
    ASSERT_GT(allocations, 10u);
    RecordProperty("cells", (int)allocations);
    for (uint64_t n = 1; n <= allocations; n++) {
        Bed bed(Detached());
        bed.Bus().Attach(&bed.Device());
        kplat::FailNthAllocation(n);
        bed.Plug();
        kplat::ClearFaults();
        RunAndCheck(bed, false, "allocation " + std::to_string(n));
    }
}

TEST(FaultMatrix, EveryControlRequestOfBringUpFailingEachWay)
{
    uint64_t controls;
    {
        Bed bed(Detached());
        FaultDevice probe(&bed.Device(), Fault::None, 0, 0);
        bed.Bus().Attach(&probe);
        ASSERT_EQ(bed.Plug(), NDIS_STATUS_SUCCESS);
        controls = probe.Controls();
        bed.Unplug();
        bed.Bus().Unplug();
    }
    ASSERT_GT(controls, 5u);
    RecordProperty("cells", (int)controls * 5);
    for (Fault f : {Fault::Stall, Fault::Hold, Fault::Gone, Fault::Short, Fault::Error}) {
        for (uint64_t k = 1; k <= controls; k++) {
            Bed bed(Detached());
            FaultDevice device(&bed.Device(), f, k, 0);
            bed.Bus().Attach(&device);
            bed.Plug();
            RunAndCheck(bed, f == Fault::Gone, std::string(Name(f)) + " at control request " + std::to_string(k));
        }
    }
}

TEST(FaultMatrix, SurpriseRemovalAtEachOfTheFirst200BusCalls)
{
    for (uint64_t k = 1; k <= 200; k++) {
        Bed bed(Detached());
        FaultDevice device(&bed.Device(), Fault::None, 0, k);
        bed.Bus().Attach(&device);
        bed.Plug();
        RunAndCheck(bed, device.fired, "removal at bus call " + std::to_string(k));
    }
}

TEST(FaultMatrix, EachPipeFailingEachWayWhileFramesFlow)
{
    const uint8_t pipes[] = {0x81, 0x82, 0x02};
    const kplat::UsbHandshake kinds[] = {kplat::UsbHandshake::Stall, kplat::UsbHandshake::Nak};
    for (uint8_t ep : pipes) {
        for (int kind = 0; kind < 3; kind++) {
            Bed bed;
            for (uint32_t i = 0; i < 8; i++) bed.Adapter().SendFrame(Frame(500, i).data(), 500);
            if (kind < 2) {
                bed.Device().FailNextTransfers(ep, 3, kinds[kind]);
            } else {
                bed.Device().HaltEndpoint(ep);
            }
            bed.Settle(5000);
            // Frames of a failed transfer are lost; the ones after it arrive.
            for (uint32_t i = 0; i < 4; i++) bed.Send({Frame(300, 90 + i)}, 2000);
            std::vector<testbed::Bytes> back = bed.Received();
            std::string cell = "pipe " + std::to_string(ep) + " kind " + std::to_string(kind);
            EXPECT_TRUE(!back.empty() && back.back() == Frame(300, 93)) << cell << ": traffic resumes";
            RunAndCheck(bed, false, cell);
        }
    }
}

// A reset or a power change whose work item cannot be allocated still
// completes, once, as failed; the adapter goes on after it.
TEST(FaultMatrix, RequestsWhoseWorkCannotBeScheduledComplete)
{
    struct Row {
        const char* cell;
        ULONG powerState;  // 0: a reset instead of a power set
        uint64_t failAt;   // the allocation that fails, counted from the request
    };
    const Row rows[] = {
        {"reset, stop not scheduled", 0, 1},
        {"power D3, stop not scheduled", NdisDeviceStateD3, 1},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.cell);
        Bed bed;
        kplat::NdisAdapter& a = bed.Adapter();
        kplat::FailNthAllocation(r.failAt);
        if (r.powerState == 0) {
            EXPECT_EQ(a.Reset(), NDIS_STATUS_PENDING);
        } else {
            ULONG state = r.powerState, read = 0, needed = 0;
            EXPECT_EQ(a.Set(OID_PNP_SET_POWER, &state, sizeof(state), &read, &needed), NDIS_STATUS_PENDING);
        }
        kplat::ClearFaults();
        bed.Settle(100);
        if (r.powerState == 0) {
            EXPECT_FALSE(a.ResetPending());
            EXPECT_EQ(a.LastResetStatus(), NDIS_STATUS_HARD_ERRORS);
        } else {
            EXPECT_FALSE(a.SetPending());
            EXPECT_EQ(a.SetCompletions(), 1u);
            EXPECT_EQ(a.LastSetCompletionStatus(), NDIS_STATUS_RESOURCES);
        }
        RunAndCheck(bed, false, r.cell);
    }
}
