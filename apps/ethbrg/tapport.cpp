#include "tapport.h"

#include "host.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <net/if_arp.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ethbrg {

namespace {

std::string Why(int error)
{
    std::string s = strerror(error);
    if (error == EPERM || error == EACCES) s += " (creating and configuring a TAP interface needs CAP_NET_ADMIN)";
    return s;
}

// An ioctl on the interface through a socket of the current namespace.
void InterfaceIoctl(const std::string& name, unsigned long request, ifreq* ifr, const char* what)
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) throw UsageError("TAP " + name + ": socket: " + Why(errno));
    strncpy(ifr->ifr_name, name.c_str(), IFNAMSIZ - 1);
    int rc = ioctl(s, request, ifr);
    int error = errno;
    close(s);
    if (rc < 0) throw UsageError("TAP " + name + ": cannot " + what + ": " + Why(error));
}

// The ports a HeldWakes of this thread owes a wake-up, and whether one is
// active.
constexpr int kHeldPorts = 4;
thread_local TapPort* tHeld[kHeldPorts];
thread_local int tHeldCount = -1;  // -1: no HeldWakes

}  // namespace

TapPort::HeldWakes::HeldWakes() { tHeldCount = 0; }

TapPort::HeldWakes::~HeldWakes()
{
    const int n = tHeldCount;
    tHeldCount = -1;
    for (int i = 0; i < n; i++) tHeld[i]->Wake();
}

void TapPort::Wake()
{
    uint64_t one = 1;
    (void)!write(mWakeFd, &one, sizeof(one));
}

TapPort::TapPort(const std::string& name) : mName(name)
{
    if (name.empty() || name.size() >= IFNAMSIZ) {
        throw UsageError("TAP name \"" + name + "\": 1 to " + std::to_string(IFNAMSIZ - 1) + " characters");
    }
    mFd = open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (mFd < 0) throw UsageError("cannot open /dev/net/tun for TAP " + name + ": " + Why(errno));
    ifreq ifr{};
    ifr.ifr_flags = IFF_TAP | IFF_NO_PI;
    strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (ioctl(mFd, TUNSETIFF, &ifr) < 0) {
        int error = errno;
        close(mFd);
        throw UsageError("cannot create TAP " + name + ": " + Why(error));
    }
    // No offloads: the stack hands over finished Ethernet frames only.
    if (ioctl(mFd, TUNSETOFFLOAD, 0UL) < 0) {
        int error = errno;
        close(mFd);
        throw UsageError("TAP " + name + ": cannot switch offloads off: " + Why(error));
    }
    mWakeFd = eventfd(0, EFD_CLOEXEC);
    int rc = mWakeFd < 0 ? -errno : io_uring_queue_init(kRingEntries, &mRing, 0);
    if (rc < 0) {
        if (mWakeFd >= 0) close(mWakeFd);
        close(mFd);
        throw UsageError("TAP " + name + ": io_uring set-up failed: " + strerror(-rc));
    }
    mMemory.assign((size_t)(kReads + kWrites) * kBufferSize, 0);
    mOps.resize(kReads + kWrites);
    for (unsigned i = 0; i < kReads + kWrites; i++) {
        mOps[i].kind = i < kReads ? Op::Read : Op::Write;
        mOps[i].buffer = &mMemory[(size_t)i * kBufferSize];
        if (i >= kReads) mFreeWrites.push_back(&mOps[i]);
    }
    mQueuedWrites.reserve(kWrites);
    mTaking.reserve(kWrites);
}

TapPort::~TapPort()
{
    Stop();
    io_uring_queue_exit(&mRing);
    close(mWakeFd);
    close(mFd);
}

void TapPort::SetMac(const uint8_t mac[6])
{
    ifreq ifr{};
    ifr.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    memcpy(ifr.ifr_hwaddr.sa_data, mac, 6);
    InterfaceIoctl(mName, SIOCSIFHWADDR, &ifr, "set the MAC address");
}

void TapPort::SetMtu(unsigned mtu)
{
    ifreq ifr{};
    ifr.ifr_mtu = (int)mtu;
    InterfaceIoctl(mName, SIOCSIFMTU, &ifr, "set the MTU");
}

void TapPort::SetUp()
{
    ifreq ifr{};
    InterfaceIoctl(mName, SIOCGIFFLAGS, &ifr, "read the flags");
    ifr.ifr_flags |= IFF_UP;
    InterfaceIoctl(mName, SIOCSIFFLAGS, &ifr, "bring the interface up");
}

void TapPort::SetCarrier(bool on)
{
    int value = on ? 1 : 0;
    if (ioctl(mFd, TUNSETCARRIER, &value) < 0) {
        fprintf(stderr, "ethbrg: TAP %s: cannot set the carrier: %s\n", mName.c_str(), strerror(errno));
    }
}

io_uring_sqe* TapPort::Sqe()
{
    io_uring_sqe* sqe = io_uring_get_sqe(&mRing);
    if (sqe == nullptr) {
        io_uring_submit(&mRing);
        sqe = io_uring_get_sqe(&mRing);
    }
    return sqe;
}

void TapPort::PostRead(Op* op)
{
    io_uring_sqe* sqe = Sqe();
    io_uring_prep_read(sqe, mFd, op->buffer, kBufferSize, 0);
    io_uring_sqe_set_data(sqe, op);
}

void TapPort::PostWake()
{
    io_uring_sqe* sqe = Sqe();
    io_uring_prep_read(sqe, mWakeFd, &mWakeValue, sizeof(mWakeValue), 0);
    io_uring_sqe_set_data(sqe, &mWakeOp);
}

void TapPort::Start(Receiver receiver, BatchHook batch)
{
    mReceiver = std::move(receiver);
    mBatch = std::move(batch);
    for (unsigned i = 0; i < kReads; i++) PostRead(&mOps[i]);
    PostWake();
    io_uring_submit(&mRing);
    mThread = std::thread([this] { Run(); });
}

void TapPort::Stop()
{
    if (!mThread.joinable()) return;
    mStopping.store(true);
    uint64_t one = 1;
    (void)!write(mWakeFd, &one, sizeof(one));
    mThread.join();
    std::lock_guard<std::mutex> lock(mWriteMutex);
    mWritesDropped += mQueuedWrites.size();
    mQueuedWrites.clear();
}

// One frame: one turn of the lock, the copy made under it (it is short).
bool TapPort::Write(const uint8_t* frame, size_t length)
{
    if (length > kBufferSize || mStopping.load(std::memory_order_relaxed)) {
        mWritesDropped++;
        return false;
    }
    bool wake;
    {
        std::lock_guard<std::mutex> lock(mWriteMutex);
        if (mFreeWrites.empty()) {
            mWritesDropped++;
            return false;
        }
        Op* op = mFreeWrites.back();
        mFreeWrites.pop_back();
        memcpy(op->buffer, frame, length);
        op->length = (uint16_t)length;
        wake = mQueuedWrites.empty();
        mQueuedWrites.push_back(op);
    }
    if (wake) WakeOrHold();
    return true;
}

// Several frames: the lock is held to take buffers and to queue them, not
// for the copies, so the port's thread and the writers meet on it twice a
// batch.
size_t TapPort::WriteMany(const uint8_t* const* frames, const size_t* lengths, size_t count)
{
    if (mStopping.load(std::memory_order_relaxed)) {
        mWritesDropped += count;
        return 0;
    }
    Op* ops[kWriteBatch];
    size_t written = 0;
    while (count > 0) {
        const size_t n = std::min(count, kWriteBatch);
        size_t taken = 0;
        {
            std::lock_guard<std::mutex> lock(mWriteMutex);
            while (taken < n && !mFreeWrites.empty()) {
                ops[taken++] = mFreeWrites.back();
                mFreeWrites.pop_back();
            }
        }
        size_t filled = 0;
        for (size_t i = 0; i < n; i++) {
            if (i >= taken || lengths[i] > kBufferSize) {
                mWritesDropped++;
                continue;
            }
            memcpy(ops[filled]->buffer, frames[i], lengths[i]);
            ops[filled]->length = (uint16_t)lengths[i];
            filled++;
        }
        bool wake;
        {
            std::lock_guard<std::mutex> lock(mWriteMutex);
            for (size_t i = filled; i < taken; i++) mFreeWrites.push_back(ops[i]);  // too long: not used
            wake = mQueuedWrites.empty() && filled != 0;
            mQueuedWrites.insert(mQueuedWrites.end(), ops, ops + filled);
        }
        written += filled;
        if (wake) WakeOrHold();
        frames += n;
        lengths += n;
        count -= n;
    }
    return written;
}

void TapPort::WakeOrHold()
{
    if (tHeldCount >= 0) {
        for (int i = 0; i < tHeldCount; i++)
            if (tHeld[i] == this) return;
        if (tHeldCount < kHeldPorts) {
            tHeld[tHeldCount++] = this;
            return;
        }
    }
    Wake();
}

void TapPort::SubmitWrites()
{
    {
        std::lock_guard<std::mutex> lock(mWriteMutex);
        mTaking.swap(mQueuedWrites);
    }
    for (Op* op : mTaking) {
        io_uring_sqe* sqe = Sqe();
        io_uring_prep_write(sqe, mFd, op->buffer, op->length, 0);
        io_uring_sqe_set_data(sqe, op);
    }
    mTaking.clear();
}

void TapPort::Run()
{
    std::vector<Op*> freed;
    freed.reserve(kWrites);
    while (!mStopping.load()) {
        io_uring_submit_and_wait(&mRing, 1);
        io_uring_cqe* cqe;
        unsigned head, seen = 0;
        bool wake = false, batch = false;
        io_uring_for_each_cqe(&mRing, head, cqe)
        {
            seen++;
            Op* op = static_cast<Op*>(io_uring_cqe_get_data(cqe));
            const int res = cqe->res;
            if (op->kind == Op::Read) {
                if (res > 0) {
                    mFramesRead.fetch_add(1, std::memory_order_relaxed);
                    mBytesRead.fetch_add((uint64_t)res, std::memory_order_relaxed);
                    if (!batch && mBatch) {
                        batch = true;
                        mBatch(true);
                    }
                    mReceiver(op->buffer, (size_t)res);
                }
                if (!mStopping.load(std::memory_order_relaxed)) PostRead(op);
            } else if (op->kind == Op::Write) {
                if (res > 0) {
                    mFramesWritten.fetch_add(1, std::memory_order_relaxed);
                    mBytesWritten.fetch_add((uint64_t)res, std::memory_order_relaxed);
                } else {
                    mWritesDropped.fetch_add(1, std::memory_order_relaxed);
                }
                freed.push_back(op);
            } else {
                wake = true;
            }
        }
        io_uring_cq_advance(&mRing, seen);
        if (batch) mBatch(false);
        if (!freed.empty()) {
            std::lock_guard<std::mutex> lock(mWriteMutex);
            mFreeWrites.insert(mFreeWrites.end(), freed.begin(), freed.end());
            freed.clear();
        }
        if (wake) {
            SubmitWrites();
            PostWake();
        }
    }
}

}  // namespace ethbrg
