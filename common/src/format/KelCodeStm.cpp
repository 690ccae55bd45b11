// The code-stream object: the host's stream callbacks with the library's own position and a
// write buffer. The two write strategies and the seek rules are stated at their functions. With a
// KelLargeStream beside it the true position is that record's, and the object's own stops at
// 2^31 - 1.
//
// Leaves error codes to its callers: what the host's callbacks report is handed back.
#include <algorithm>

#include "base/KelInt.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "format/KelStreamPosition.h"

namespace {

constexpr KelLong kCacheBytes = 65536;      // write cache of a seekable stream
constexpr KelLong kLargestCached = 32768;   // longer writes bypass an empty cache
constexpr KelLong kGrowthBytes = 10240;     // growth step of a held output,
constexpr KelLong kLargeBytes = 1 << 20;    // which from here on grows by half of itself
constexpr KelLong kCutShort = -1;           // the host took a part of what it was given
constexpr KelLong kSeekRefused = -8;        // bad origin or target, or the host refused
constexpr KelLong kSeekOutsideBuffer = -4;  // not seekable, and outside what is held
constexpr KelLong kOriginRelative = 0;
constexpr KelLong kOriginAbsolute = 1;

// What a stream object with 64-bit positions has as callbacks: by the last one it is known.

KelLong ReadLarge(void* self, void* destination, KelLong count) {
  auto& large = *static_cast<KelLargeStream*>(self);
  const KelLong result = large.Read(large.clientData, destination, count);
  if (result > 0) large.position += result;
  return result;
}

KelLong WriteLarge(void* self, const void* source, KelLong count) {
  auto& large = *static_cast<KelLargeStream*>(self);
  const KelLong result = large.Write(large.clientData, source, count);
  if (result > 0) large.position += result;
  return result;
}

std::int64_t MoveLarge(KelLargeStream& large, std::int64_t position) {
  const std::int64_t reached = large.Seek(large.clientData, position);
  if (reached >= 0) large.position = reached;
  return reached;
}

KelLong SeekLarge(void* self, KelLong, KelLong offset) {
  return kel::SaturateToInt32(MoveLarge(*static_cast<KelLargeStream*>(self), offset));
}

KelLargeStream* LargeStreamOf(const KelCodeStm& stream) {
  const bool isLarge = stream.procs != nullptr && stream.procs->Seek == SeekLarge;
  return isLarge ? static_cast<KelLargeStream*>(stream.procs->clientData) : nullptr;
}

}  // namespace

namespace kel {

std::int64_t PositionOf(const KelCodeStm& stream) {
  const KelLargeStream* large = LargeStreamOf(stream);
  return large != nullptr ? large->position + stream.wbufFill : stream.curPos;
}

std::int64_t TotalLengthOf(const KelCodeStm& stream) {
  const KelLargeStream* large = LargeStreamOf(stream);
  return large != nullptr ? large->totalLength : stream.totalLength;
}

std::int64_t MostPositionOf(const KelCodeStm& stream) {
  return LargeStreamOf(stream) != nullptr ? INT64_MAX / 2 : INT32_MAX;
}

// Inside the buffer's capacity a move only moves the write index, on either kind of stream.
// Outside it, a seekable stream flushes and asks the host; the other refuses.
std::int64_t MoveStream(KelCodeStm& stream, std::int64_t position) {
  if (position < 0 || position > MostPositionOf(stream)) return kSeekRefused;
  if (stream.wbuf != nullptr) {
    const std::int64_t first = PositionOf(stream) - stream.wbufFill;
    if (position >= first && position <= first + stream.wbufCap) {
      stream.wbufFill = static_cast<KelLong>(position - first);
      stream.curPos = SaturateToInt32(position);
      return position;
    }
    if (!stream.seekable) return kSeekOutsideBuffer;
    const KelLong held = stream.wbufFill;
    if (stream.flushWriteBuffer() < held) return kSeekRefused;
  }
  KelLargeStream* large = LargeStreamOf(stream);
  const std::int64_t reached = large != nullptr
                                   ? MoveLarge(*large, position)
                                   : stream.procs->Seek(stream.procs->clientData, kOriginAbsolute,
                                                        static_cast<KelLong>(position));
  if (reached < 0) return kSeekRefused;
  stream.curPos = SaturateToInt32(reached);
  return reached;
}

}  // namespace kel

void KelLargeStream::InitStream(KelCodeStm* stream, std::int64_t totalLengthBytes,
                                bool isLengthUnknown, bool isSeekable, bool isReadOnly,
                                bool isWriteOnly) {
  totalLength = totalLengthBytes;
  position = 0;
  procs.clientData = this;
  procs.Read = ReadLarge;
  procs.Write = WriteLarge;
  procs.Seek = SeekLarge;
  stream->InitKelCodeStm(kel::SaturateToInt32(totalLengthBytes), isLengthUnknown, isSeekable,
                         isReadOnly, isWriteOnly, &procs);
}

KelCodeStm::~KelCodeStm() = default;

void KelCodeStm::InitKelCodeStm(KelLong totalLengthBytes, bool isLengthUnknown, bool isSeekable,
                                bool isReadOnly, bool isWriteOnly, KelStreamProcs* streamProcs) {
  totalLength = totalLengthBytes;
  lengthUnknown = isLengthUnknown;
  seekable = isSeekable;
  readOnly = isReadOnly;
  writeOnly = isWriteOnly;
  procs = streamProcs;
  curPos = 0;
  wbuf = nullptr;
  wbufCap = 0;
  wbufFill = 0;
}

KelLong KelCodeStm::read(std::uint8_t* destination, KelLong count) {
  const KelLong result = procs->Read(procs->clientData, destination, count);
  if (result > 0) curPos = kel::SaturateToInt32(std::int64_t{curPos} + result);
  return result;
}

// A seekable stream keeps a cache of 64 KiB. What fits goes into it; what does not fit flushes
// it, and then short writes open a new cache and long ones go straight to the host. A stream that
// is not seekable holds its whole output, so that the encoder can go back and patch it.
KelLong KelCodeStm::write(const std::uint8_t* source, KelLong count) {
  if (count < 0) return 0;
  const bool hasRoom = wbufCap - wbufFill >= count;
  if (seekable) {
    if (wbuf == nullptr || !hasRoom) {
      const KelLong held = wbufFill;
      const KelLong taken = flushWriteBuffer();
      if (taken < held) return taken < 0 ? taken : kCutShort;
      if (count > kLargestCached) {
        const KelLong result = procs->Write(procs->clientData, source, count);
        if (result > 0) curPos = kel::SaturateToInt32(std::int64_t{curPos} + result);
        return result;
      }
      wbuf = static_cast<std::uint8_t*>(kel::KelMalloc(kCacheBytes));
      wbufCap = kCacheBytes;
      wbufFill = 0;
    }
  } else if (!hasRoom) {
    const std::int64_t step = wbufCap < kLargeBytes ? kGrowthBytes : wbufCap / 2;
    const bool isLong = count > wbufCap - wbufFill + step;
    const std::int64_t newCapacity =
        std::min<std::int64_t>(wbufCap + (isLong ? count : step), INT32_MAX);
    if (newCapacity - wbufFill < count) kel::Raise(KelErrNoMemory, kel::kModuleMemFuncDefs);
    void* larger = kel::KelRealloc(wbuf, kel::AsCount(wbufCap), kel::AsCount(newCapacity));
    if (larger == nullptr) return 0;
    wbuf = static_cast<std::uint8_t*>(larger);
    wbufCap = static_cast<KelLong>(newCapacity);
  }
  if (kel::PositionOf(*this) + count > kel::MostPositionOf(*this)) {
    kel::Raise(KelErrNoMemory, kel::kModuleMemFuncDefs);
  }
  kel::KelMemCopy(wbuf + wbufFill, source, kel::AsCount(count));
  wbufFill += count;
  curPos = kel::SaturateToInt32(std::int64_t{curPos} + count);
  return count;
}

KelLong KelCodeStm::seek(KelLong origin, KelLong offset) {
  if (origin != kOriginRelative && origin != kOriginAbsolute) return kSeekRefused;
  const std::int64_t from = origin == kOriginAbsolute ? 0 : kel::PositionOf(*this);
  return kel::SaturateToInt32(kel::MoveStream(*this, from + offset));
}

KelLong KelCodeStm::flushWriteBuffer() {
  if (wbuf == nullptr) return 0;
  const KelLong result = procs->Write(procs->clientData, wbuf, wbufFill);
  kel::KelFree(wbuf);
  wbuf = nullptr;
  wbufCap = 0;
  wbufFill = 0;
  return result;
}
