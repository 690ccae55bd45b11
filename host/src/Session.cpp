// Heap memory behind the library's callbacks, counted and limited.
//
// Every block stands behind a small header that remembers its size and where the heap's block
// begins; a buffer's identifier stands in front of its bytes in the same block. Counters are
// atomic, so callbacks may run on any thread.
#include "kel/host/session.hpp"

#include <kel/KelMemory.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "KeptBlocks.hpp"
#include "kel/host/errors.hpp"

namespace kel::host {
namespace {

struct Ledger {
  std::atomic<bool> running{false};
  std::atomic<std::uint64_t> limit{0}, current{0}, peak{0};
  KelMemFuncs callbacks;
  KeptBlocks kept;
};

Ledger ledger;

/// Adds to what is held; false, with nothing changed, when the limit does not allow it.
bool Charge(std::uint64_t bytes) {
  const std::uint64_t limit = ledger.limit.load(std::memory_order_relaxed);
  std::uint64_t before = ledger.current.load(std::memory_order_relaxed);
  do {
    if (limit != 0 && (bytes > limit || before > limit - bytes)) return false;
  } while (!ledger.current.compare_exchange_weak(before, before + bytes));
  std::uint64_t peak = ledger.peak.load(std::memory_order_relaxed);
  while (peak < before + bytes && !ledger.peak.compare_exchange_weak(peak, before + bytes)) {
  }
  return true;
}

void Refund(std::uint64_t bytes) {
  ledger.current.fetch_sub(bytes);
}

/// Stands in front of every block.
struct BlockHeader {
  std::uint64_t size;      ///< as asked for
  KeptBlocks::Block heap;  ///< what it stands in
};
constexpr std::size_t kHeaderBytes = 32;
static_assert(sizeof(BlockHeader) <= kHeaderBytes);

BlockHeader* HeaderOf(void* address) {
  return reinterpret_cast<BlockHeader*>(static_cast<char*>(address) - kHeaderBytes);
}

/// A block whose address is a multiple of the alignment, a power of two.
void* Take(std::uint64_t size, std::size_t alignment) {
  alignment = std::max(alignment, kHeaderBytes);
  const std::uint64_t total = size + kHeaderBytes + alignment;
  if (total > PTRDIFF_MAX || !Charge(size)) return nullptr;
  const KeptBlocks::Block heap = ledger.kept.Take(static_cast<std::size_t>(total));
  if (heap.start == nullptr) {
    Refund(size);
    return nullptr;
  }
  const auto start = reinterpret_cast<std::uintptr_t>(heap.start);
  const std::uintptr_t aligned = (start + kHeaderBytes + alignment - 1) / alignment * alignment;
  void* address = static_cast<char*>(heap.start) + (aligned - start);
  new (HeaderOf(address)) BlockHeader{size, heap};
  return address;
}

void Give(void* address) {
  if (address == nullptr) return;
  const BlockHeader header = *HeaderOf(address);
  Refund(header.size);
  ledger.kept.Return(header.heap);
}

/// Room for a buffer's identifier in front of its bytes, which stay aligned to it.
constexpr std::size_t kIdentifierBytes = 64;
static_assert(sizeof(KelBufID_I) <= kIdentifierBytes);

KelBufID_I* TakeBuffer(KelULong size, KelULong alignment) {
  const std::size_t lead = std::max<std::size_t>(kIdentifierBytes, alignment);
  void* block = Take(std::uint64_t{size} + lead, lead);
  if (block == nullptr) return nullptr;
  auto* buffer = new (block) KelBufID_I;
  buffer->bufType = 1;
  buffer->clientRef = reinterpret_cast<std::uintptr_t>(static_cast<char*>(block) + lead);
  return buffer;
}

void FillCallbacks(KelMemFuncs& callbacks) {
  callbacks.AllocBuf = [](KelULong size) { return TakeBuffer(size, kIdentifierBytes); };
  callbacks.AllocAlignedBuf = TakeBuffer;
  callbacks.LockBuf = [](KelBufID_I* buffer) { return reinterpret_cast<void*>(buffer->clientRef); };
  callbacks.UnlockBuf = [](KelBufID_I*) {};
  callbacks.FreeBuf = [](KelBufID_I* buffer) { Give(buffer); };
  callbacks.Malloc = [](KelULong size) { return Take(size, kHeaderBytes); };
  callbacks.Free = Give;
  callbacks.AlignedMalloc = [](KelULong size, KelULong alignment) { return Take(size, alignment); };
  callbacks.AlignedFree = Give;
  callbacks.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  callbacks.MemSet = [](void* to, KelLong value, KelULong n) { std::memset(to, value, n); };
}

}  // namespace

Session::Session(std::uint64_t memoryLimit) {
  if (ledger.running.exchange(true)) {
    throw Error(Failure::kParameter, "a session is running already in this process");
  }
  ledger.limit = memoryLimit;
  ledger.current = 0;
  ledger.peak = 0;
  FillCallbacks(ledger.callbacks);
  KelLibInit(&ledger.callbacks);
}

Session::~Session() {
  KelLibShutDown();
  ledger.kept.GiveBack(SIZE_MAX);
  ledger.limit = 0;
  ledger.running = false;
}

bool Session::IsRunning() {
  return ledger.running;
}
std::uint64_t Session::Limit() {
  return ledger.limit;
}
std::uint64_t Session::CurrentBytes() {
  return ledger.current;
}
std::uint64_t Session::PeakBytes() {
  return ledger.peak;
}
std::uint64_t Session::KeptBytes() {
  return ledger.kept.Bytes();
}
void Session::ResetPeak() {
  ledger.peak = ledger.current.load();
}

MemoryReservation::MemoryReservation(std::uint64_t bytes, const char* purpose) {
  if (!Session::IsRunning()) return;
  if (!Charge(bytes)) {
    throw Error(Failure::kMemory, FormatBytes(bytes) + " are needed for " + purpose +
                                      ", more than the memory limit of " +
                                      FormatBytes(Session::Limit()) + " leaves");
  }
  bytes_ = bytes;
}

MemoryReservation::~MemoryReservation() {
  Refund(bytes_);
}

MemoryReservation::MemoryReservation(MemoryReservation&& other) noexcept
    : bytes_(std::exchange(other.bytes_, 0)) {}

MemoryReservation& MemoryReservation::operator=(MemoryReservation&& other) noexcept {
  std::swap(bytes_, other.bytes_);
  return *this;
}

}  // namespace kel::host
