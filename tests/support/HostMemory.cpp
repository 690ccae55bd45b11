#include "HostMemory.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace test {
namespace {

constexpr int kPaint = 0xCD;

HostMemory::Ledger* ledger = nullptr;

/// An identifier as this host makes them: the data stand behind it in the ledger's block.
struct Buffer : KelBufID_I {
  void* data = nullptr;
};

void* Take(std::size_t size, std::size_t alignment) {
  ++ledger->requests;
  ledger->largest = std::max(ledger->largest, size);
  const bool refuse = (ledger->refuseAt != 0 && --ledger->refuseAt == 0) ||
                      (ledger->limit != 0 && ledger->bytes + size > ledger->limit);
  if (refuse) {
    ledger->refused = true;
    return nullptr;
  }
  // Exactly as long as asked for, so that a sanitizer sees the first byte behind the block.
  void* block = nullptr;
  if (posix_memalign(&block, std::max(alignment, sizeof(void*)), size) != 0) return nullptr;
  std::memset(block, kPaint, size);
  ledger->blocks.emplace(block, size);
  ledger->bytes += size;
  ledger->peak = std::max(ledger->peak, ledger->bytes);
  return block;
}

void Give(void* block) {
  if (block == nullptr) return;
  const auto found = ledger->blocks.find(block);
  if (found == ledger->blocks.end()) {
    ADD_FAILURE() << "a block was released that is not outstanding";
    return;
  }
  ledger->bytes -= found->second;
  ledger->blocks.erase(found);
  std::free(block);
}

KelBufID_I* TakeBuffer(std::size_t size, std::size_t alignment) {
  void* data = Take(size, alignment);
  if (data == nullptr) return nullptr;
  auto* buffer = new Buffer;
  buffer->bufType = 0;
  buffer->clientRef = reinterpret_cast<std::uintptr_t>(data);
  buffer->data = data;
  return buffer;
}

}  // namespace

HostMemory::HostMemory() {
  ledger = &ledger_;
  funcs_.AllocBuf = [](KelULong size) { return TakeBuffer(size, 16); };
  funcs_.AllocAlignedBuf = [](KelULong size, KelULong alignment) {
    return TakeBuffer(size, alignment);
  };
  funcs_.LockBuf = [](KelBufID_I* buffer) -> void* {
    if (ledger->refusesLocks && ledger->refuseAt != 0 && --ledger->refuseAt == 0) {
      ledger->refused = true;
      return nullptr;
    }
    return static_cast<Buffer*>(buffer)->data;
  };
  funcs_.UnlockBuf = [](KelBufID_I*) {};
  funcs_.FreeBuf = [](KelBufID_I* buffer) {
    Give(static_cast<Buffer*>(buffer)->data);
    delete static_cast<Buffer*>(buffer);
  };
  funcs_.Malloc = [](KelULong size) { return Take(size, 16); };
  funcs_.Free = [](void* block) { Give(block); };
  funcs_.AlignedMalloc = [](KelULong size, KelULong alignment) { return Take(size, alignment); };
  funcs_.AlignedFree = [](void* block) { Give(block); };
  funcs_.MemCopy = [](void* to, const void* from, KelULong count) { std::memcpy(to, from, count); };
  funcs_.MemSet = [](void* to, KelLong value, KelULong count) { std::memset(to, value, count); };
  KelLibInit(&funcs_);
}

HostMemory::~HostMemory() {
  EXPECT_EQ(Outstanding(), 0U) << "memory of the host was not given back";
  KelLibShutDown();
  for (auto& [block, size] : ledger_.blocks) std::free(block);
  ledger = nullptr;
}

}  // namespace test
