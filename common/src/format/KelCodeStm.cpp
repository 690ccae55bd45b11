// The code-stream object: the host's stream callbacks with the library's own position and a
// write buffer. The two write strategies and the seek rules are stated at their functions.
//
// Leaves error codes to its callers: what the host's callbacks report is handed back.
#include <algorithm>

#include "base/KelInt.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "kel/KelStream.h"

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

}  // namespace

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
  if (std::int64_t{curPos} + count > INT32_MAX) kel::Raise(KelErrNoMemory, kel::kModuleMemFuncDefs);
  kel::KelMemCopy(wbuf + wbufFill, source, kel::AsCount(count));
  wbufFill += count;
  curPos += count;
  return count;
}

// Inside the buffer's capacity a seek only moves the write index, on either kind of stream.
// Outside it, a seekable stream flushes and asks the host; the other refuses.
KelLong KelCodeStm::seek(KelLong origin, KelLong offset) {
  if (origin != kOriginRelative && origin != kOriginAbsolute) return kSeekRefused;
  const std::int64_t target =
      origin == kOriginAbsolute ? std::int64_t{offset} : std::int64_t{curPos} + offset;
  if (target < 0 || target > INT32_MAX) return kSeekRefused;
  const auto position = static_cast<KelLong>(target);

  if (wbuf != nullptr) {
    const KelLong first = curPos - wbufFill;
    if (position >= first && target <= std::int64_t{first} + wbufCap) {
      wbufFill = position - first;
      curPos = position;
      return position;
    }
    if (!seekable) return kSeekOutsideBuffer;
    const KelLong held = wbufFill;
    if (flushWriteBuffer() < held) return kSeekRefused;
  }
  const KelLong reached = procs->Seek(procs->clientData, kOriginAbsolute, position);
  if (reached < 0) return kSeekRefused;
  curPos = reached;
  return reached;
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
