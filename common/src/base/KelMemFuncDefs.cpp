// The memory layer over the host's callbacks. See the header for the rules; this file holds the
// one library-wide pointer to the registered callbacks.
#include "base/KelMemFuncDefs.h"

#include <algorithm>

#include "base/KelRaise.h"

namespace kel {
namespace {

constexpr std::uint64_t kMostBytes = 0xFFFFFFFFu;

KelMemFuncs* registered = nullptr;

/// Whether a request can be passed to a callback at all; a request that cannot is refused as if
/// the host had refused it.
bool CanAsk(std::uint64_t sizeBytes) noexcept {
  return registered != nullptr && sizeBytes <= kMostBytes;
}

[[noreturn]] void RaiseNoMemory(SourcePlace place = SourcePlace::Here()) {
  Raise(KelErrNoMemory, kModuleMemFuncDefs, place);
}

}  // namespace

KelMemFuncs* RegisteredMemFuncs() noexcept {
  return registered;
}

void RegisterMemFuncs(KelMemFuncs* memFuncs) noexcept {
  registered = memFuncs;
}

bool IsComplete(const KelMemFuncs* m) noexcept {
  return m != nullptr && m->AllocBuf && m->AllocAlignedBuf && m->LockBuf && m->UnlockBuf &&
         m->FreeBuf && m->Malloc && m->Free && m->AlignedMalloc && m->AlignedFree && m->MemCopy &&
         m->MemSet;
}

void* KelMalloc(std::uint64_t sizeBytes) {
  if (!CanAsk(sizeBytes)) RaiseNoMemory();
  void* address = registered->Malloc(static_cast<KelULong>(sizeBytes));
  if (address == nullptr && sizeBytes != 0) RaiseNoMemory();
  return address;
}

void* KelCalloc(std::uint64_t count, std::uint64_t elementBytes) {
  const std::uint64_t sizeBytes = SaturatingMul(count, elementBytes);
  if (!CanAsk(sizeBytes)) RaiseNoMemory();
  void* address = registered->Malloc(static_cast<KelULong>(sizeBytes));
  if (address == nullptr && sizeBytes != 0) RaiseNoMemory();
  KelMemSet(address, 0, sizeBytes);
  return address;
}

void KelFree(void* address) noexcept {
  if (registered != nullptr) registered->Free(address);
}

void* KelRealloc(void* address, std::uint64_t oldBytes, std::uint64_t newBytes) {
  if (oldBytes == newBytes) return address;
  void* larger = KelMalloc(newBytes);
  if (address == nullptr || larger == nullptr) return larger;
  KelMemCopy(larger, address, std::min(oldBytes, newBytes));
  KelFree(address);
  return larger;
}

void* KelAlignedMalloc(std::uint64_t sizeBytes, KelULong alignmentBytes) {
  if (!CanAsk(sizeBytes)) RaiseNoMemory();
  void* address = registered->AlignedMalloc(static_cast<KelULong>(sizeBytes), alignmentBytes);
  if (address == nullptr && sizeBytes != 0) RaiseNoMemory();
  return address;
}

void KelAlignedFree(void* address) noexcept {
  if (registered != nullptr && address != nullptr) registered->AlignedFree(address);
}

void KelMemCopy(void* destination, const void* source, std::uint64_t countBytes) noexcept {
  if (registered == nullptr || destination == nullptr || source == nullptr) return;
  auto* to = static_cast<std::uint8_t*>(destination);
  auto* from = static_cast<const std::uint8_t*>(source);
  while (countBytes != 0) {
    const std::uint64_t piece = std::min(countBytes, kMostBytes);
    registered->MemCopy(to, from, static_cast<KelULong>(piece));
    to += piece;
    from += piece;
    countBytes -= piece;
  }
}

void KelMemSet(void* destination, int value, std::uint64_t countBytes) noexcept {
  if (registered == nullptr || destination == nullptr) return;
  auto* to = static_cast<std::uint8_t*>(destination);
  while (countBytes != 0) {
    const std::uint64_t piece = std::min(countBytes, kMostBytes);
    registered->MemSet(to, value, static_cast<KelULong>(piece));
    to += piece;
    countBytes -= piece;
  }
}

KelBufID_I* KelAllocBuf(std::uint64_t sizeBytes) {
  if (!CanAsk(sizeBytes)) RaiseNoMemory();
  KelBufID_I* buffer = registered->AllocBuf(static_cast<KelULong>(sizeBytes));
  if (buffer == nullptr && sizeBytes != 0) RaiseNoMemory();
  if (buffer != nullptr) buffer->bufType = 1;
  return buffer;
}

KelBufID_I* KelAllocAlignedBuf(std::uint64_t sizeBytes, KelULong alignmentBytes) {
  if (!CanAsk(sizeBytes)) RaiseNoMemory();
  KelBufID_I* buffer =
      registered->AllocAlignedBuf(static_cast<KelULong>(sizeBytes), alignmentBytes);
  if (buffer == nullptr && sizeBytes != 0) RaiseNoMemory();
  if (buffer != nullptr) buffer->bufType = 1;
  return buffer;
}

void* KelLockBuf(KelBufID_I* buffer) {
  return registered != nullptr && buffer->bufType == 1 ? registered->LockBuf(buffer) : nullptr;
}

void KelUnlockBuf(KelBufID_I* buffer) noexcept {
  if (registered != nullptr && buffer->bufType == 1) registered->UnlockBuf(buffer);
}

void KelFreeBuf(KelBufID_I* buffer) noexcept {
  if (registered != nullptr && buffer->bufType == 1) registered->FreeBuf(buffer);
}

}  // namespace kel
