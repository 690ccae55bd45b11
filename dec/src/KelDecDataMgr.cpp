// The decoder's byte source: the window over a block or a stream, reading from it, and moving it.
//
// In stream mode the window is one block of memory. A request that it cannot meet slides the
// unread bytes to its front and reads behind them; only a request longer than the window enlarges
// it, to the capacity. Loads after a move start small and double, so that a reader which jumps
// from packet to packet does not read everything between. Tile-parts are found in
// KelDecDataMgrTileParts.cpp.
#include "KelDecDataMgr.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include "KelTilePartIndex.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "format/KelStreamPosition.h"

namespace kel {
namespace {

constexpr std::uint64_t kLoadAfterMove = 4096;
constexpr std::uint64_t kMostAtOnce = std::uint64_t{1} << 30;  // per call of the host's Read
constexpr std::int64_t kUnknown = -1;

}  // namespace

/// The host's Read: the bytes that arrived; 0 at the end of the data, for a failure, and for a
/// claim of more than was asked.
std::uint64_t KelDecDataMgr::ReadFrom(std::uint8_t* destination, std::uint64_t count) {
  const auto wanted = static_cast<KelLong>(std::min(count, kMostAtOnce));
  const KelLong got = stream_->read(destination, wanted);
  const bool isPossible = got >= 0 && got <= wanted;
  readFailed_ = readFailed_ || !isPossible;
  return isPossible ? AsCount(got) : 0;
}

// ---- Set-up and state ----

void KelDecDataMgr::InitFromMemory(const KelCompressedData& block, Flavour flavour) {
  ReleaseWindow();
  memoryMode_ = true;
  endsBefore_ = INT64_MAX;
  flavour_ = flavour;
  indexAllowed_ = true;
  stream_ = nullptr;
  SetWindow(block.data, block.data != nullptr ? block.length : 0);
  capacity_ = Available();
}

bool KelDecDataMgr::InitFromStream(std::uint32_t firstLoad, std::uint32_t capacity,
                                   KelCodeStm* stream, Flavour flavour) {
  ReleaseWindow();
  memoryMode_ = false;
  flavour_ = flavour;
  indexAllowed_ = true;
  SetWindow(nullptr, 0);
  stream_ = stream;
  isSeekable_ = stream != nullptr && stream->IsSeekable();
  capacity_ = capacity;
  loadAfterMove_ = kLoadAfterMove;
  mostLoad_ = capacity;
  firstLoad_ = nextLoad_ = std::min(firstLoad, capacity);
  streamPosition_ = stream != nullptr ? PositionOf(*stream) : 0;
  knownEnd_ = kUnknown;
  endsBefore_ = INT64_MAX;
  return Load(1) == kBufferedOk;
}

void KelDecDataMgr::ExpectMore() {
  endOfData_ = false;
  readPastEnd_ = false;
  knownEnd_ = kUnknown;
  endsBefore_ = INT64_MAX;
}

bool KelDecDataMgr::TakeReadFailure() {
  if (readFailed_) ExpectMore();
  return std::exchange(readFailed_, false);
}

void KelDecDataMgr::ResetDataMgr() {
  const std::uint64_t unread = Available();
  ReleaseWindow();
  SetWindow(nullptr, 0);
  if (!memoryMode_ && stream_ != nullptr && isSeekable_ && unread != 0) {
    const std::int64_t reached =
        MoveStream(*stream_, streamPosition_ - static_cast<std::int64_t>(unread));
    if (reached >= 0) streamPosition_ = reached;
  }
}

void KelDecDataMgr::Release() noexcept {
  ReleaseWindow();
  SetWindow(nullptr, 0);
  FreeTilePartIndex();
  stream_ = nullptr;
}

void KelDecDataMgr::SetTileGrid(std::int32_t across, std::int32_t down) {
  tilesAcross_ = across;
  tilesDown_ = down;
}

void KelDecDataMgr::FreeTilePartIndex() noexcept {
  ReleaseTilePartIndex(index_);
  index_ = nullptr;
}

std::int64_t KelDecDataMgr::GetPosition() const {
  return memoryMode_ ? readPosition_ - windowStart_
                     : streamPosition_ - (windowEnd_ - readPosition_);
}

bool KelDecDataMgr::IndexAllowed() const {
  return memoryMode_ || (indexAllowed_ && IsMovable());
}

// ---- The window ----

void KelDecDataMgr::SetWindow(const std::uint8_t* start, std::uint64_t length) {
  windowStart_ = readPosition_ = start;
  windowEnd_ = start + length;
  endOfData_ = false;
  readPastEnd_ = false;
  unreadBits_ = 0;
}

void KelDecDataMgr::ReleaseWindow() noexcept {
  KelFree(window_);
  window_ = nullptr;
  windowBytes_ = 0;
}

/// Forgets what the window holds, after the stream has been moved.
void KelDecDataMgr::EmptyWindow() {
  SetWindow(windowStart_, 0);
  nextLoad_ = std::min(loadAfterMove_, capacity_);
}

/// Brings the unread bytes to the front of a window that can hold n bytes.
void KelDecDataMgr::MakeRoom(std::uint64_t n) {
  const std::uint64_t unread = Available();
  std::uint8_t* target = window_;
  if (window_ == nullptr || n > windowBytes_) {
    const std::uint64_t size = window_ == nullptr ? std::max(firstLoad_, n) : capacity_;
    NamingModule(kModuleDecDataMgr,
                 [&] { target = static_cast<std::uint8_t*>(KelMalloc(size + 1)); });
    KelMemCopy(target + 1, readPosition_, unread);
    KelFree(window_);
    window_ = target;
    windowBytes_ = size;
  } else if (unread != 0) {
    // The two may overlap.
    std::memmove(target + 1, readPosition_, static_cast<std::size_t>(unread));
  }
  target[0] = lastByte_;
  windowStart_ = readPosition_ = target + 1;
  windowEnd_ = windowStart_ + unread;
}

/// One read of the stream into the free part of the window; false at the end of the data.
bool KelDecDataMgr::ReadIntoWindow() {
  const std::uint64_t filled = Available();
  const std::uint64_t wanted = std::min(windowBytes_ - filled, nextLoad_);
  const std::uint64_t got = ReadFrom(window_ + 1 + filled, wanted);
  windowEnd_ += got;
  streamPosition_ += static_cast<std::int64_t>(got);
  endOfData_ = got == 0;
  return got != 0;
}

/// The part of EnsureBuffered for requests that the window does not hold.
int KelDecDataMgr::Load(std::uint64_t n) {
  if (memoryMode_) return kDataEnded;
  if (n > capacity_) return kAboveCapacity;
  if (endOfData_ || stream_ == nullptr) return kDataEnded;
  MakeRoom(n);
  nextLoad_ = std::max(nextLoad_, n);
  while (Available() < n) {
    if (!ReadIntoWindow()) return kDataEnded;
  }
  nextLoad_ = std::min(SaturatingMul(nextLoad_, 2), mostLoad_);
  return kBufferedOk;
}

int KelDecDataMgr::Hold(std::uint64_t n) {
  const std::uint64_t capacity = capacity_;
  int result = n <= Available() ? kBufferedOk : kDataEnded;
  while (result != kBufferedOk && !memoryMode_ && !endOfData_) {
    // Doubled from what is there, so that a length alone obtains little.
    const std::uint64_t step = std::min(n, std::max(capacity, SaturatingMul(Available(), 2)));
    capacity_ = std::max(capacity, step);
    ScopeGuard restore([&] { capacity_ = capacity; });
    result = Load(step) == kBufferedOk && Available() >= n ? kBufferedOk : kDataEnded;
    if (stream_ == nullptr) break;
  }
  return result;
}

// ---- Reading ----

std::uint32_t KelDecDataMgr::ByteBehindEnd() {
  readPastEnd_ = true;
  return lastByte_ = 0xFF;
}

std::uint32_t KelDecDataMgr::ReadUIntByBytes(int n) {
  std::uint32_t value = 0;
  for (int i = 0; i < n; ++i) value = value << 8 | ReadByte();
  return value;
}

/// Long reads bypass the window once it is used up.
std::uint64_t KelDecDataMgr::ReadBytes(std::uint8_t* destination, std::uint64_t n) {
  unreadBits_ = 0;
  std::uint64_t copied = std::min(n, Available());
  KelMemCopy(destination, readPosition_, copied);
  readPosition_ += copied;
  while (copied < n && !memoryMode_ && !endOfData_ && stream_ != nullptr) {
    windowStart_ = windowEnd_;  // what it held no longer stands before the stream's position
    const std::uint64_t got = ReadFrom(destination + copied, n - copied);
    streamPosition_ += static_cast<std::int64_t>(got);
    endOfData_ = got == 0;
    copied += got;
  }
  if (copied != 0) lastByte_ = destination[copied - 1];
  return copied;
}

GatheredBytes GatherBytes(KelDecDataMgr& data, std::uint64_t length, std::uint64_t firstPiece,
                          std::uint64_t behind) {
  if (data.InMemory()) firstPiece = length = std::min(length, data.Available());
  GatheredBytes gathered{};
  while (gathered.length < length) {
    const std::uint64_t filled = gathered.length;
    const std::uint64_t room =
        std::min(length, SaturatingAdd(filled, std::max(filled, firstPiece)));
    gathered.bytes.Grow(SaturatingAdd(room, behind), filled);
    gathered.length += data.ReadBytes(gathered.bytes.Data() + filled, room - filled);
    if (gathered.length < room) break;
  }
  return gathered;
}

/// The unread bits and the next four bytes as one number hold all that can be asked for.
std::uint32_t KelDecDataMgr::ReadBits(int n) {
  assert(n >= 1 && n <= 32);
  if (Available() < 4) return ReadBitsByBytes(n);
  const std::uint32_t unread = lastByte_ & ((1U << unreadBits_) - 1);
  const std::uint64_t pool = std::uint64_t{unread} << 32 | LoadBE32(readPosition_);
  const std::uint64_t value = pool >> (unreadBits_ + 32 - n) & ((std::uint64_t{1} << n) - 1);
  const int newBytes = n > unreadBits_ ? (n - unreadBits_ + 7) / 8 : 0;
  readPosition_ += newBytes;
  unreadBits_ += 8 * newBytes - n;
  if (newBytes != 0) lastByte_ = readPosition_[-1];
  return static_cast<std::uint32_t>(value);
}

std::uint32_t KelDecDataMgr::ReadBitsByBytes(int n) {
  std::uint32_t value = 0;
  while (n > 0) {
    if (unreadBits_ == 0) {
      ReadByte();
      unreadBits_ = 8;
    }
    const int taken = std::min(n, unreadBits_);
    unreadBits_ -= taken;
    n -= taken;
    value = value << taken | (std::uint32_t{lastByte_} >> unreadBits_ & ((1U << taken) - 1));
  }
  return value;
}

std::uint32_t KelDecDataMgr::PeekBytesAt(std::uint64_t offset, int count) {
  EnsureBuffered(offset + static_cast<std::uint64_t>(count));
  std::uint32_t value = 0;
  for (int i = 0; i < count; ++i) value = value << 8 | PeekByte(offset++);
  return value;
}

// ---- Moves ----

/// Moves the stream, which empties the window. False with nothing moved when the stream refuses;
/// false too when it went elsewhere.
bool KelDecDataMgr::SeekStream(std::int64_t position) {
  if (!isSeekable_) return false;
  const std::int64_t reached = MoveStream(*stream_, position);
  if (reached < 0) return false;
  EmptyWindow();
  streamPosition_ = reached;
  return reached == position;
}

bool KelDecDataMgr::MoveTo(std::int64_t position) {
  if (!memoryMode_) {
    if (stream_ == nullptr) return false;
    const std::int64_t ahead = position - GetPosition();
    const bool isInside =
        ahead >= windowStart_ - readPosition_ && ahead <= windowEnd_ - readPosition_;
    if (!isInside) return SeekStream(position);
    readPosition_ += ahead;
  } else {
    if (position < 0) return false;
    readPosition_ = windowStart_ + std::min<std::int64_t>(position, windowEnd_ - windowStart_);
  }
  unreadBits_ = 0;
  readPastEnd_ = false;
  return true;
}

std::uint64_t KelDecDataMgr::SkipForward(std::uint64_t n) {
  unreadBits_ = 0;
  const std::uint64_t inside = std::min(n, Available());
  readPosition_ += inside;
  if (inside == n || memoryMode_ || endOfData_ || stream_ == nullptr) return inside;
  std::uint64_t passed = inside;
  const std::uint64_t readThrough =
      std::min(passesOver_ ? kLoadAfterMove : windowBytes_, mostLoad_);
  if (n - passed > readThrough) passed += SkipBySeek(n - passed);
  return passed + Drop(n - passed);
}

/// Passes over n bytes, or as many of them as the stream's positions allow, by a move to the last
/// one, the window being used up. A host may let its stream be moved behind the end: then that byte
/// does not arrive, and the way to the end is walked instead, once, after which the end is known.
/// Returns 0 with nothing moved when the stream refuses; a stream that moves elsewhere ends the
/// data.
std::uint64_t KelDecDataMgr::SkipBySeek(std::uint64_t n) {
  const std::int64_t here = streamPosition_;
  const std::int64_t most = MostPositionOf(*stream_);
  if (!isSeekable_ || here >= most) return 0;
  const std::int64_t target =
      here + static_cast<std::int64_t>(std::min(n, static_cast<std::uint64_t>(most - here)));
  const bool isBehindEnd = knownEnd_ >= here && target > knownEnd_;
  if (!SeekStream(isBehindEnd ? knownEnd_ : target - 1)) {
    endOfData_ = streamPosition_ != here;
    return 0;
  }
  if (isBehindEnd) {
    endOfData_ = true;
    return static_cast<std::uint64_t>(knownEnd_ - here);
  }
  if (Load(1) == kBufferedOk) {
    ++readPosition_;
    return static_cast<std::uint64_t>(target - here);
  }
  endOfData_ = !SeekStream(here);
  if (endOfData_) return 0;
  const std::uint64_t passed = Drop(n);
  if (endOfData_) knownEnd_ = streamPosition_;
  return passed;
}

/// Reads up to n bytes and drops them.
std::uint64_t KelDecDataMgr::Drop(std::uint64_t n) {
  std::uint64_t passed = 0;
  while (passed < n && EnsureBuffered(1) == kBufferedOk) {
    const std::uint64_t taken = std::min(n - passed, Available());
    readPosition_ += taken;
    passed += taken;
  }
  return passed;
}

}  // namespace kel
