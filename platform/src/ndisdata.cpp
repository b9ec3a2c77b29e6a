// The network stack's data path over an adapter: packets with their buffer
// chains, sends and their completions, receive and status indications.
//
// Packets, their buffers and MDLs are host memory, so the driver's pool
// ledger and fault injection see none of them.
#include "ndis_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#define KPLAT_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KPLAT_ASAN 1
#endif
#endif
#ifdef KPLAT_ASAN
#include <sanitizer/asan_interface.h>
#define POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define POISON(p, n) ((void)(p), (void)(n))
#define UNPOISON(p, n) ((void)(p), (void)(n))
#endif

using namespace kplat_internal;

namespace kplat {

using namespace ndis;

namespace {

using Lock = std::lock_guard<std::mutex>;

// The receive indication the calling thread is inside, for TransferData.
struct Indication {
    NdisAdapter::Impl* adapter;
    NDIS_HANDLE receiveContext;
};
thread_local Indication tIndication = {nullptr, nullptr};

// A buffer of host memory described by an MDL built as for non-paged pool,
// or (unmapped) locked but with no system address yet, so that
// MmGetSystemAddressForMdlSafe maps it.
size_t MdlSize(const uint8_t* va, size_t length) {
    ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(va, length);
    if (pages == 0) pages = 1;  // an empty buffer still names its page
    return sizeof(MDL) + pages * sizeof(PFN_NUMBER);
}

// Builds the MDL in `mdl`, which has room for MdlSize(va, length).
void BuildMdlAt(PMDL mdl, uint8_t* va, ULONG length, bool unmapped) {
    const size_t size = MdlSize(va, length);
    const ULONG pages = (ULONG)((size - sizeof(MDL)) / sizeof(PFN_NUMBER));
    memset(mdl, 0, size);
    mdl->Size = (CSHORT)size;
    mdl->StartVa = PAGE_ALIGN(va);
    mdl->ByteCount = length;
    mdl->ByteOffset = BYTE_OFFSET(va);
    for (ULONG i = 0; i < pages; i++) MmGetMdlPfnArray(mdl)[i] = ((ULONG_PTR)mdl->StartVa >> PAGE_SHIFT) + i;
    if (unmapped)
        mdl->MdlFlags = MDL_PAGES_LOCKED;
    else
        MmBuildMdlForNonPagedPool(mdl);
}

PMDL BuildMdl(uint8_t* va, ULONG length, bool unmapped) {
    auto mdl = (PMDL)::operator new(MdlSize(va, length));
    BuildMdlAt(mdl, va, length, unmapped);
    return mdl;
}

}  // namespace

void ndis::FreeHostPacket(HostPacket* host) {
    for (PMDL mdl : host->mdls) ::operator delete(mdl);
    for (uint8_t* data : host->data) {
        if (host->pooled) UNPOISON(data, kPooledBytes);
        delete[] data;
    }
    delete host;
}

HostPacket* NdisAdapter::Impl::TakePooledLocked() {
    HostPacket* host;
    if (!pool.empty()) {
        host = pool.back();
        pool.pop_back();
        host->inPool = false;
        host->completed = false;
        host->freeOnCompletion = false;
    } else {
        host = new HostPacket();
        host->pooled = true;
        auto* bytes = new uint8_t[kPooledBytes];
        host->data.push_back(bytes);
        host->mdls.push_back((PMDL)::operator new(MdlSize(bytes, kPooledBytes)));
        packets.insert(host);
    }
    return host;
}

void ndis::FillPooled(HostPacket* host, const uint8_t* data, size_t length) {
    memset(&host->packet, 0, sizeof(host->packet));
    memset(host->protocolReservedRoom, 0, sizeof(host->protocolReservedRoom));
    uint8_t* bytes = host->data.front();
    UNPOISON(bytes, length != 0 ? length : 1);
    if (length != 0) memcpy(bytes, data, length);
    POISON(bytes + length, kPooledBytes - length);
    BuildMdlAt(host->mdls.front(), bytes, (ULONG)length, false);
    NDIS_PACKET_PRIVATE& p = host->packet.Private;
    p.Head = p.Tail = host->mdls.front();
    p.TotalLength = (UINT)length;
    p.Count = p.PhysicalCount = 1;
    p.ValidCounts = TRUE;
}

void NdisAdapter::Impl::RetireLocked(HostPacket* host) {
    if (host->pooled) host->inPool = true;  // no longer allocated; into the pool by RecycleLocked
    else packets.erase(host);
}

HostPacket* NdisAdapter::Impl::RecycleLocked(HostPacket* host) {
    if (!host->pooled) return host;
    if (pool.size() >= kPoolKeep) {
        packets.erase(host);
        return host;
    }
    POISON(host->data.front(), kPooledBytes);
    pool.push_back(host);
    return nullptr;
}

// ---------------------------------------------------------------------------
// Packets and sends
// ---------------------------------------------------------------------------
PNDIS_PACKET NdisAdapter::AllocatePacket(const uint8_t* data, size_t length, const PacketLayout& layout) {
    if (layout.splits.empty() && !layout.unmapped && layout.validCounts && length <= kPooledBytes) {
        HostPacket* host;
        {
            Lock lock(mImpl->mutex);
            host = mImpl->TakePooledLocked();
        }
        FillPooled(host, data, length);
        return &host->packet;
    }
    auto* host = new HostPacket();
    std::vector<size_t> lengths;
    size_t left = length;
    for (UINT split : layout.splits) {
        lengths.push_back(std::min<size_t>(split, left));
        left -= lengths.back();
    }
    lengths.push_back(left);
    size_t offset = 0;
    for (size_t n : lengths) {
        auto* bytes = new uint8_t[n != 0 ? n : 1];
        if (n != 0) memcpy(bytes, data + offset, n);
        offset += n;
        PMDL mdl = BuildMdl(bytes, (ULONG)n, layout.unmapped);
        if (!host->mdls.empty()) host->mdls.back()->Next = mdl;
        host->mdls.push_back(mdl);
        host->data.push_back(bytes);
    }
    NDIS_PACKET_PRIVATE& p = host->packet.Private;
    p.Head = host->mdls.front();
    p.Tail = host->mdls.back();
    if (layout.validCounts) {
        p.TotalLength = (UINT)length;
        p.Count = p.PhysicalCount = (UINT)host->mdls.size();
        p.ValidCounts = TRUE;
    }
    Lock lock(mImpl->mutex);
    mImpl->packets.insert(host);
    return &host->packet;
}

void NdisAdapter::FreePacket(PNDIS_PACKET packet) {
    HostPacket* host = HostOf(packet);
    HostPacket* release = nullptr;
    bool ours;
    {
        Lock lock(mImpl->mutex);
        ours = mImpl->packets.count(host) != 0 && !host->inPool && mImpl->owned.count(packet) == 0;
        if (ours) {
            mImpl->RetireLocked(host);
            release = mImpl->RecycleLocked(host);
        }
    }
    if (!ours) {
        VerifierFailed(Handle(), (ULONG_PTR)packet, 0,
                       "NdisAdapter::FreePacket: %p is no packet of this adapter, or the miniport owns it", packet);
        return;
    }
    if (release != nullptr) FreeHostPacket(release);
}

std::vector<uint8_t> NdisAdapter::PacketBytes(PNDIS_PACKET packet) {
    std::vector<uint8_t> bytes;
    for (PMDL mdl = packet->Private.Head; mdl != nullptr; mdl = mdl->Next) {
        auto va = (const uint8_t*)((mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))
                                       ? mdl->MappedSystemVa
                                       : MmGetMdlVirtualAddress(mdl));
        bytes.insert(bytes.end(), va, va + mdl->ByteCount);
    }
    return bytes;
}

// A send to an adapter that is not initialized never reaches the miniport:
// NDIS fails it at once.
void NdisAdapter::Send(PNDIS_PACKET* packets, UINT count) {
    Impl& a = *mImpl;
    const uint64_t now = Now();
    Impl::Acceptance acceptance;
    {
        Lock lock(a.mutex);
        a.AcceptLocked(packets, count, now, &acceptance);
    }
    a.Deliver(packets, count, acceptance);
}

void NdisAdapter::Impl::AcceptLocked(PNDIS_PACKET* list, UINT count, uint64_t now, Acceptance* result) {
    for (UINT i = 0; i < count; i++)
        if (list[i] != nullptr && owned.count(list[i]) != 0) result->again = list[i];
    if (result->again == nullptr && initialized) {
        const uint64_t deadline = now + kSendDeadline;
        for (UINT i = 0; i < count; i++) {
            if (list[i] == nullptr) continue;
            if (!spareOwned.empty()) {
                auto node = std::move(spareOwned.back());
                spareOwned.pop_back();
                node.key() = list[i];
                node.mapped() = Owned{deadline, false};
                owned.insert(std::move(node));
            } else {
                owned[list[i]] = Owned{deadline, false};
            }
            if (packets.count(HostOf(list[i])) != 0 && !HostOf(list[i])->inPool) HostOf(list[i])->completed = false;
            sent++;
            ArmVerifierLocked(deadline);
        }
        ownedCount.store(owned.size(), std::memory_order_relaxed);
    } else if (result->again == nullptr) {
        for (UINT i = 0; i < count; i++)
            if (list[i] != nullptr) result->refused.push_back(list[i]);
    }
    result->context = context;
    result->deliver = result->again == nullptr && initialized && count != 0;
    if (result->deliver) EnterCallLocked();  // the halt waits for the call to return
}

void NdisAdapter::Impl::Deliver(PNDIS_PACKET* list, UINT count, const Acceptance& acceptance) {
    if (acceptance.again != nullptr) {
        VerifierFailed(Handle(), (ULONG_PTR)acceptance.again, 0,
                       "NdisAdapter::Send: the miniport owns packet %p already", acceptance.again);
        return;
    }
    if (!acceptance.deliver) {
        for (PNDIS_PACKET packet : acceptance.refused) Finish(packet, NDIS_STATUS_FAILURE);
        return;
    }
    {
        AtDispatch raised;
        Chars().Ndis50Chars.Ndis40Chars.SendPacketsHandler(acceptance.context, list, count);
    }
    LeaveCall();
}

// A frame of the default layout gets a pooled packet, filled outside the
// adapter's lock (the copy of the frame is the longest part of a send, and
// the completions of other threads wait for that lock).
void NdisAdapter::SendFrame(const uint8_t* frame, size_t length, const PacketLayout& layout) {
    PNDIS_PACKET packet = AllocatePacket(frame, length, layout);
    HostOf(packet)->freeOnCompletion = true;
    Send(&packet, 1);
}

PNDIS_PACKET NdisAdapter::AllocateFramePacket(const uint8_t* frame, size_t length) {
    if (length > kPooledBytes) return nullptr;
    PNDIS_PACKET packet = AllocatePacket(frame, length);
    HostOf(packet)->freeOnCompletion = true;
    return packet;
}

// The stack's side of a completion: the callback, then the packet of a
// SendFrame is freed.
void NdisAdapter::Impl::Finish(PNDIS_PACKET packet, NDIS_STATUS status) {
    std::shared_ptr<const SendCallback> callback;
    bool free;
    {
        Lock lock(mutex);
        callback = onSendComplete;
        free = packets.count(HostOf(packet)) != 0 && !HostOf(packet)->inPool && HostOf(packet)->freeOnCompletion;
        if (free) RetireLocked(HostOf(packet));
    }
    if (callback) (*callback)(packet, status);
    if (!free) return;
    HostPacket* release;
    {
        Lock lock(mutex);
        release = RecycleLocked(HostOf(packet));
    }
    if (release != nullptr) FreeHostPacket(release);
}

// One lock for the bookkeeping and, without a completion callback, for
// giving a SendFrame packet back as well.
void NdisAdapter::Impl::SendComplete(PNDIS_PACKET packet, NDIS_STATUS status) {
    bool owner, twice = false, free = false;
    std::shared_ptr<const SendCallback> callback;
    HostPacket* release = nullptr;
    {
        Lock lock(mutex);
        auto it = owned.find(packet);
        owner = it != owned.end();
        HostPacket* host =
            packets.count(HostOf(packet)) != 0 && !HostOf(packet)->inPool ? HostOf(packet) : nullptr;
        if (owner) {
            if (spareOwned.size() < kPoolKeep) spareOwned.push_back(owned.extract(it));
            else owned.erase(it);
            ownedCount.store(owned.size(), std::memory_order_relaxed);
            completed++;
            completedWith[status]++;
            if (host != nullptr) host->completed = true;
            // The stack's side (as Finish).
            callback = onSendComplete;
            free = host != nullptr && host->freeOnCompletion;
            if (free) {
                RetireLocked(host);
                if (!callback) release = RecycleLocked(host);
            }
        } else {
            twice = host != nullptr && host->completed;
        }
    }
    if (owner) {
        if (callback) {
            (*callback)(packet, status);
            if (free) {
                Lock lock(mutex);
                release = RecycleLocked(HostOf(packet));
            }
        }
        if (release != nullptr) FreeHostPacket(release);
    } else if (twice) {
        VerifierFailed(Handle(), (ULONG_PTR)packet, (ULONG_PTR)status, "NdisMSendComplete: packet %p completed twice",
                       packet);
    } else {
        VerifierFailed(Handle(), (ULONG_PTR)packet, (ULONG_PTR)status,
                       "NdisMSendComplete: packet %p is not owned by the miniport (never sent to it)", packet);
    }
}

void NdisAdapter::OnSendComplete(std::function<void(PNDIS_PACKET packet, NDIS_STATUS status)> callback) {
    Lock lock(mImpl->mutex);
    mImpl->onSendComplete = callback ? std::make_shared<const SendCallback>(std::move(callback)) : nullptr;
}

uint64_t NdisAdapter::PacketsSent() const { Lock l(mImpl->mutex); return mImpl->sent; }
uint64_t NdisAdapter::PacketsCompleted() const { Lock l(mImpl->mutex); return mImpl->completed; }
uint64_t NdisAdapter::PacketsOutstanding() const { return mImpl->ownedCount.load(std::memory_order_relaxed); }
uint64_t NdisAdapter::PacketsCompletedWith(NDIS_STATUS status) const {
    Lock lock(mImpl->mutex);
    auto it = mImpl->completedWith.find(status);
    return it == mImpl->completedWith.end() ? 0 : it->second;
}

// ---------------------------------------------------------------------------
// Receive and status indications
// ---------------------------------------------------------------------------
void NdisAdapter::Impl::IndicateReceive(NDIS_HANDLE receiveContext, const uint8_t* header, UINT headerSize,
                                        const uint8_t* lookahead, UINT lookaheadSize, UINT packetSize) {
    receiveIndications.fetch_add(1, std::memory_order_relaxed);
    std::shared_ptr<const ReceiveCallback> callback = std::atomic_load(&onReceive);
    if (!callback) {
        ReceivedFrame frame;
        frame.header.assign(header, header + headerSize);
        frame.lookahead.assign(lookahead, lookahead + lookaheadSize);
        frame.packetSize = packetSize;
        Lock lock(mutex);
        frames.push_back(std::move(frame));
        return;
    }
    Indication outer = tIndication;
    tIndication = Indication{this, receiveContext};
    (*callback)(receiveContext, header, headerSize, lookahead, lookaheadSize, packetSize);
    tIndication = outer;
}

void NdisAdapter::OnReceive(std::function<void(NDIS_HANDLE receiveContext, const uint8_t* header, UINT headerSize,
                                               const uint8_t* lookahead, UINT lookaheadSize, UINT packetSize)>
                                callback) {
    std::atomic_store(&mImpl->onReceive,
                      callback ? std::make_shared<const ReceiveCallback>(std::move(callback)) : nullptr);
}

// Only inside the indication of that receive context, on its thread.
NDIS_STATUS NdisAdapter::TransferData(NDIS_HANDLE receiveContext, UINT byteOffset, UINT bytesToTransfer,
                                      PNDIS_PACKET packet, UINT* bytesTransferred) {
    *bytesTransferred = 0;
    W_TRANSFER_DATA_HANDLER transfer = mImpl->Chars().Ndis50Chars.Ndis40Chars.Ndis30Chars.TransferDataHandler;
    if (tIndication.adapter != mImpl || tIndication.receiveContext != receiveContext || transfer == nullptr)
        return NDIS_STATUS_FAILURE;
    return transfer(packet, bytesTransferred, Context(), receiveContext, byteOffset, bytesToTransfer);
}

std::vector<ReceivedFrame> NdisAdapter::TakeReceivedFrames() {
    Lock lock(mImpl->mutex);
    std::vector<ReceivedFrame> out;
    out.swap(mImpl->frames);
    return out;
}

uint64_t NdisAdapter::ReceiveIndications() const { return mImpl->receiveIndications.load(std::memory_order_relaxed); }
uint64_t NdisAdapter::ReceiveCompletes() const { return mImpl->receiveCompletes.load(std::memory_order_relaxed); }

void NdisAdapter::Impl::IndicateStatus(NDIS_STATUS status) {
    std::shared_ptr<const StatusCallback> callback;
    {
        Lock lock(mutex);
        statuses.push_back(status);
        callback = onStatus;
    }
    if (callback) (*callback)(status);
}

void NdisAdapter::OnStatus(std::function<void(NDIS_STATUS status)> callback) {
    Lock lock(mImpl->mutex);
    mImpl->onStatus = callback ? std::make_shared<const StatusCallback>(std::move(callback)) : nullptr;
}

std::vector<NDIS_STATUS> NdisAdapter::StatusIndications() const { Lock l(mImpl->mutex); return mImpl->statuses; }
uint64_t NdisAdapter::StatusCompletes() const { Lock l(mImpl->mutex); return mImpl->statusCompletes; }

}  // namespace kplat
