// The memory layer: the library's only door to memory, and the owners that stand on it.
//
// Every byte comes from the callbacks registered with KelLibInit. Sizes are 64-bit here; the
// callbacks take 32 bits, so a larger request fails like one that the host refuses: code 8 is
// raised. Owners are move-only, empty by default, and release without failing.
#ifndef KEL_MEM_FUNC_DEFS_H
#define KEL_MEM_FUNC_DEFS_H

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "base/KelInt.h"
#include "kel/KelMemory.h"

namespace kel {

/// Boundary that the library asks of aligned memory, in bytes.
inline constexpr KelULong kAlignment = 16;

/// The registered callbacks; null while the library is not started.
KelMemFuncs* RegisteredMemFuncs() noexcept;
void RegisterMemFuncs(KelMemFuncs* memFuncs) noexcept;
/// Whether a host has set all eleven.
bool IsComplete(const KelMemFuncs* memFuncs) noexcept;

// Plain memory. All raise 8 when a request of non-zero size is refused; a null for size 0 is
// handed on.
void* KelMalloc(std::uint64_t sizeBytes);
/// Zero-filled; the product of count and size is checked.
void* KelCalloc(std::uint64_t count, std::uint64_t elementBytes);
void KelFree(void* address) noexcept;
/// Equal sizes give the same address; otherwise a new block with the common bytes copied.
void* KelRealloc(void* address, std::uint64_t oldBytes, std::uint64_t newBytes);
void* KelAlignedMalloc(std::uint64_t sizeBytes, KelULong alignmentBytes = kAlignment);
void KelAlignedFree(void* address) noexcept;

// Bulk copies and fills through the host's callbacks; nothing is called for a count of 0 or a
// null address. Counts beyond 32 bits go in pieces.
void KelMemCopy(void* destination, const void* source, std::uint64_t countBytes) noexcept;
void KelMemSet(void* destination, int value, std::uint64_t countBytes) noexcept;

// Sample buffers. Identifiers whose bufType is not 1 are never locked, unlocked or freed; a lock
// of one yields null.
KelBufID_I* KelAllocBuf(std::uint64_t sizeBytes);
KelBufID_I* KelAllocAlignedBuf(std::uint64_t sizeBytes, KelULong alignmentBytes = kAlignment);
void* KelLockBuf(KelBufID_I* buffer);
void KelUnlockBuf(KelBufID_I* buffer) noexcept;
void KelFreeBuf(KelBufID_I* buffer) noexcept;

/// Room for one object of a class with a constructor, made by placement new.
template <class T>
struct Storage {
  alignas(T) std::uint8_t bytes[sizeof(T)];
};

/// One zero-filled record. T's own resources are the business of T's release function.
template <class T>
class OwnedRecord {
  static_assert(std::is_trivially_destructible_v<T>);

 public:
  OwnedRecord() noexcept = default;
  explicit OwnedRecord(T* adopted) noexcept : record_(adopted) {}
  OwnedRecord(OwnedRecord&& other) noexcept : record_(other.Release()) {}
  OwnedRecord& operator=(OwnedRecord&& other) noexcept {
    std::swap(record_, other.record_);
    return *this;
  }
  ~OwnedRecord() { KelFree(record_); }

  static OwnedRecord Make() { return OwnedRecord(static_cast<T*>(KelCalloc(1, sizeof(T)))); }

  T* Get() const noexcept { return record_; }
  T* operator->() const noexcept { return record_; }
  T& operator*() const noexcept { return *record_; }
  explicit operator bool() const noexcept { return record_ != nullptr; }
  /// Hands the record to a longer-lived owner.
  T* Release() noexcept { return std::exchange(record_, nullptr); }

 private:
  T* record_ = nullptr;
};

/// A zero-filled array with its length in elements.
template <class T>
class OwnedArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  OwnedArray() noexcept = default;
  OwnedArray(OwnedArray&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  OwnedArray& operator=(OwnedArray&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~OwnedArray() { KelFree(data_); }

  static OwnedArray Make(std::uint64_t size) {
    OwnedArray made;
    made.data_ = static_cast<T*>(KelCalloc(size, sizeof(T)));
    made.size_ = static_cast<std::size_t>(size);
    return made;
  }
  /// A copy of `size` elements; zero-filled where there are none to copy.
  static OwnedArray CopyOf(const T* source, std::uint64_t size) {
    OwnedArray made = Make(size);
    KelMemCopy(made.data_, source, SaturatingMul(size, sizeof(T)));
    return made;
  }
  /// Goes over to a larger block; the first `used` elements move.
  void Grow(std::uint64_t size, std::uint64_t used) {
    OwnedArray larger = Make(size);
    KelMemCopy(larger.data_, data_, SaturatingMul(used, sizeof(T)));
    *this = std::move(larger);
  }

  T* Data() const noexcept { return data_; }
  std::size_t Size() const noexcept { return size_; }
  T& operator[](std::size_t i) const noexcept { return data_[i]; }
  explicit operator bool() const noexcept { return data_ != nullptr; }
  /// Hands the array to a longer-lived owner.
  T* Release() noexcept {
    size_ = 0;
    return std::exchange(data_, nullptr);
  }

 private:
  T* data_ = nullptr;
  std::size_t size_ = 0;
};

/// Scratch aligned to a cache line, contents undefined. The host is asked for kAlignment only;
/// the rest is made up inside the block.
template <class T>
class ScratchArray {
  static_assert(std::is_trivially_copyable_v<T>);
  static constexpr std::uint64_t kLine = 64;

 public:
  ScratchArray() noexcept = default;
  ScratchArray(ScratchArray&& other) noexcept
      : block_(std::exchange(other.block_, nullptr)),
        data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)) {}
  ScratchArray& operator=(ScratchArray&& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~ScratchArray() { KelAlignedFree(block_); }

  static ScratchArray Make(std::uint64_t size) {
    ScratchArray made;
    made.block_ = KelAlignedMalloc(SaturatingAdd(SaturatingMul(size, sizeof(T)), kLine));
    const auto address = reinterpret_cast<std::uintptr_t>(made.block_);
    const std::uintptr_t padding = (~address + 1) & (kLine - 1);
    made.data_ = reinterpret_cast<T*>(static_cast<std::uint8_t*>(made.block_) + padding);
    made.size_ = static_cast<std::size_t>(size);
    return made;
  }

  T* Data() const noexcept { return data_; }
  std::size_t Size() const noexcept { return size_; }
  T& operator[](std::size_t i) const noexcept { return data_[i]; }
  explicit operator bool() const noexcept { return block_ != nullptr; }

 private:
  void* block_ = nullptr;
  T* data_ = nullptr;
  std::size_t size_ = 0;
};

/// A sample buffer, freed at scope end unless released.
class OwnedBuffer {
 public:
  OwnedBuffer() noexcept = default;
  explicit OwnedBuffer(KelBufID_I* adopted) noexcept : buffer_(adopted) {}
  OwnedBuffer(OwnedBuffer&& other) noexcept : buffer_(other.Release()) {}
  OwnedBuffer& operator=(OwnedBuffer&& other) noexcept {
    std::swap(buffer_, other.buffer_);
    return *this;
  }
  ~OwnedBuffer() {
    if (buffer_ != nullptr) KelFreeBuf(buffer_);
  }

  static OwnedBuffer Make(std::uint64_t sizeBytes) { return OwnedBuffer(KelAllocBuf(sizeBytes)); }
  static OwnedBuffer MakeAligned(std::uint64_t sizeBytes) {
    return OwnedBuffer(KelAllocAlignedBuf(sizeBytes));
  }

  KelBufID_I* Get() const noexcept { return buffer_; }
  explicit operator bool() const noexcept { return buffer_ != nullptr; }
  KelBufID_I* Release() noexcept { return std::exchange(buffer_, nullptr); }

 private:
  KelBufID_I* buffer_ = nullptr;
};

/// A lock on a sample buffer, ended at scope end. The address is null when there is nothing to
/// lock.
class BufferLock {
 public:
  BufferLock() noexcept = default;
  explicit BufferLock(KelBufID_I* buffer)
      : buffer_(buffer), address_(buffer != nullptr ? KelLockBuf(buffer) : nullptr) {}
  BufferLock(BufferLock&& other) noexcept
      : buffer_(std::exchange(other.buffer_, nullptr)),
        address_(std::exchange(other.address_, nullptr)) {}
  BufferLock& operator=(BufferLock&& other) noexcept {
    std::swap(buffer_, other.buffer_);
    std::swap(address_, other.address_);
    return *this;
  }
  ~BufferLock() {
    if (buffer_ != nullptr && address_ != nullptr) KelUnlockBuf(buffer_);
  }

  template <class T>
  T* As() const noexcept {
    return static_cast<T*>(address_);
  }
  explicit operator bool() const noexcept { return address_ != nullptr; }

 private:
  KelBufID_I* buffer_ = nullptr;
  void* address_ = nullptr;
};

/// Runs a release at scope end unless disarmed: how an initialiser gives back a half-built record.
template <class Release>
class ScopeGuard {
 public:
  explicit ScopeGuard(Release release) : release_(release) {}
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;
  ~ScopeGuard() {
    if (armed_) release_();
  }
  void Disarm() noexcept { armed_ = false; }

 private:
  Release release_;
  bool armed_ = true;
};

/// Makes room for one more element in a growing array that belongs to a long-lived record: pointer,
/// used and obtained elements. Doubles what was obtained; raises 8. The new elements are
/// zero-filled. The address may change.
template <class T>
void GrowByOne(T*& data, std::uint32_t used, std::uint32_t& obtained) {
  static_assert(std::is_trivially_copyable_v<T>);
  if (used < obtained) return;
  const std::uint64_t wanted = SaturatingMul(obtained < 4 ? 4 : obtained, obtained < 4 ? 1 : 2);
  OwnedArray<T> larger = OwnedArray<T>::Make(wanted);
  KelMemCopy(larger.Data(), data, SaturatingMul(used, sizeof(T)));
  KelFree(data);
  data = larger.Release();
  obtained = static_cast<std::uint32_t>(wanted);
}

}  // namespace kel

#endif
