// Heap memory behind the library's callbacks, counted and limited.
//
// Every block stands behind a small header that remembers its size and where the heap's block
// begins, and who was charged for it; a buffer's identifier stands in front of its bytes in the
// same block. Counters are atomic, so callbacks may run on any thread.
#include "kel/host/session.hpp"

#include <kel/KelMemory.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "KeptBlocks.hpp"
#include "kel/host/errors.hpp"

namespace kel::host {

/// What a session holds. It lives until the session and the last block charged to it are gone.
struct Account {
  explicit Account(std::uint64_t memoryLimit) : limit(memoryLimit) {}
  const std::uint64_t limit;
  std::atomic<std::uint64_t> current{0}, peak{0};
  std::atomic<std::uint64_t> users{1};
};

namespace {

/// The sessions that live, oldest first, and the threads that made them; no thread's id for those
/// that only scopes lead to.
struct Registry {
  std::mutex mutex;
  std::vector<std::pair<std::thread::id, Account*>> sessions;
  std::atomic<std::uint64_t> changes{1};
};

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

/// What a thread works for, as of so many changes of the registry.
thread_local Account* bound = nullptr;
thread_local unsigned numScopes = 0;
thread_local Account* found = nullptr;
thread_local std::uint64_t foundAt = 0;

Account* AccountOfThread() {
  if (bound != nullptr) return bound;
  Registry& registry = TheRegistry();
  const std::uint64_t changes = registry.changes.load(std::memory_order_acquire);
  if (foundAt == changes) return found;
  const std::lock_guard lock(registry.mutex);
  found = nullptr;
  for (const auto& [thread, account] : registry.sessions) {
    if (thread == std::thread::id()) continue;
    if (found == nullptr || thread == std::this_thread::get_id()) found = account;
  }
  foundAt = registry.changes.load(std::memory_order_relaxed);
  return found;
}

void Release(Account* account) {
  if (account != nullptr && account->users.fetch_sub(1) == 1) delete account;
}

/// Adds to what is held; false, with nothing changed, when the limit does not allow it. Nothing is
/// counted without an account.
bool Charge(Account* account, std::uint64_t bytes) {
  if (account == nullptr) return true;
  std::uint64_t before = account->current.load(std::memory_order_relaxed);
  do {
    const std::uint64_t limit = account->limit;
    if (limit != 0 && (bytes > limit || before > limit - bytes)) return false;
  } while (!account->current.compare_exchange_weak(before, before + bytes));
  std::uint64_t peak = account->peak.load(std::memory_order_relaxed);
  while (peak < before + bytes && !account->peak.compare_exchange_weak(peak, before + bytes)) {
  }
  account->users.fetch_add(1);
  return true;
}

void Refund(Account* account, std::uint64_t bytes) {
  if (account == nullptr) return;
  account->current.fetch_sub(bytes);
  Release(account);
}

/// Freed blocks, of all sessions.
KeptBlocks& Kept() {
  static KeptBlocks kept;
  return kept;
}

/// Stands in front of every block.
struct BlockHeader {
  std::uint64_t size;      ///< as asked for
  KeptBlocks::Block heap;  ///< what it stands in
  Account* account;        ///< charged for it
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
  Account* account = AccountOfThread();
  if (total > PTRDIFF_MAX || !Charge(account, size)) return nullptr;
  const KeptBlocks::Block heap = Kept().Take(static_cast<std::size_t>(total));
  if (heap.start == nullptr) {
    Refund(account, size);
    return nullptr;
  }
  const auto start = reinterpret_cast<std::uintptr_t>(heap.start);
  const std::uintptr_t aligned = (start + kHeaderBytes + alignment - 1) / alignment * alignment;
  void* address = static_cast<char*>(heap.start) + (aligned - start);
  new (HeaderOf(address)) BlockHeader{size, heap, account};
  return address;
}

void Give(void* address) {
  if (address == nullptr) return;
  const BlockHeader header = *HeaderOf(address);
  Refund(header.account, header.size);
  Kept().Return(header.heap);
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

KelMemFuncs MakeCallbacks() {
  KelMemFuncs callbacks;
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
  return callbacks;
}

/// Made once: threads read them at any time.
KelMemFuncs& Callbacks() {
  static KelMemFuncs callbacks = MakeCallbacks();
  return callbacks;
}

}  // namespace

Session::Session(std::uint64_t memoryLimit) : account_(new Account(memoryLimit)) {
  Registry& registry = TheRegistry();
  const std::lock_guard lock(registry.mutex);
  const bool isPrivate = numScopes > 0;
  registry.sessions.emplace_back(isPrivate ? std::thread::id() : std::this_thread::get_id(),
                                 account_);
  KelLibJoin(&Callbacks());
  ++registry.changes;
  if (isPrivate) bound = account_;
}

Session::~Session() {
  Registry& registry = TheRegistry();
  {
    const std::lock_guard lock(registry.mutex);
    std::erase_if(registry.sessions, [&](const auto& entry) { return entry.second == account_; });
    KelLibLeave();
    ++registry.changes;
    if (registry.sessions.empty()) Kept().GiveBack(SIZE_MAX);
  }
  if (bound == account_) bound = nullptr;
  Release(account_);
}

bool Session::IsRunning() {
  return AccountOfThread() != nullptr;
}
std::uint64_t Session::Limit() {
  const Account* account = AccountOfThread();
  return account == nullptr ? 0 : account->limit;
}
std::uint64_t Session::CurrentBytes() {
  const Account* account = AccountOfThread();
  return account == nullptr ? 0 : account->current.load();
}
std::uint64_t Session::PeakBytes() {
  const Account* account = AccountOfThread();
  return account == nullptr ? 0 : account->peak.load();
}
std::uint64_t Session::KeptBytes() {
  return Kept().Bytes();
}
void Session::ResetPeak() {
  if (Account* account = AccountOfThread()) account->peak = account->current.load();
}

SessionScope::SessionScope(Account* account) : before_(std::exchange(bound, account)) {
  ++numScopes;
}

SessionScope::~SessionScope() {
  --numScopes;
  bound = before_;
}

Account* SessionScope::Current() {
  return AccountOfThread();
}

MemoryReservation::MemoryReservation(std::uint64_t bytes, const char* purpose) {
  Account* account = AccountOfThread();
  if (!Charge(account, bytes)) {
    throw Error(Failure::kMemory, FormatBytes(bytes) + " are needed for " + purpose +
                                      ", more than the memory limit of " +
                                      FormatBytes(Session::Limit()) + " leaves");
  }
  account_ = account;
  bytes_ = bytes;
}

MemoryReservation::~MemoryReservation() {
  Refund(account_, bytes_);
}

MemoryReservation::MemoryReservation(MemoryReservation&& other) noexcept
    : account_(std::exchange(other.account_, nullptr)), bytes_(std::exchange(other.bytes_, 0)) {}

MemoryReservation& MemoryReservation::operator=(MemoryReservation&& other) noexcept {
  std::swap(account_, other.account_);
  std::swap(bytes_, other.bytes_);
  return *this;
}

}  // namespace kel::host
