// Looking ahead at lengths, in data whose window may not reach so far.
#include "KelPacketLengths.h"

#include "base/KelInt.h"
#include "kel/KelFormat.h"

namespace kel {

std::int64_t PeekLength(KelDecDataMgr& data, std::int64_t position) {
  const std::int64_t here = data.GetPosition();
  std::uint64_t ahead = AsCount(position - here);
  const bool isFar =
      data.EnsureBuffered(ahead + format::kCountBytes) == kAboveCapacity && data.IndexAllowed();
  if (isFar && data.MoveTo(position)) {
    data.EnsureBuffered(format::kCountBytes);
    ahead = 0;
  }
  std::int64_t length = INT64_MAX;
  if (data.Available() >= ahead + format::kCountBytes) {
    length = 0;
    for (std::uint64_t k = 0; k < format::kCountBytes; ++k) {
      length = length << 8 | data.PeekByte(ahead + k);
    }
  }
  if (isFar) data.MoveTo(here);
  return length;
}

std::int64_t EndByBandLengths(KelDecDataMgr& data, std::int64_t body, std::int64_t partEnd) {
  std::int64_t at = body;
  for (int band = 0; band < kDetailBands; ++band) {
    if (at > partEnd - format::kCountBytes) return INT64_MAX;
    const std::int64_t length = PeekLength(data, at);
    if (length == INT64_MAX) return INT64_MAX;
    at += format::kCountBytes + length;
  }
  return at <= partEnd ? at : INT64_MAX;
}

bool CanFollow(KelDecDataMgr& data, std::int64_t position, std::int64_t partEnd) {
  if (position > partEnd - format::kCountBytes) return position == partEnd;
  const std::int64_t length = PeekLength(data, position);
  return length <= partEnd - position - format::kCountBytes;
}

bool PassPacket(KelDecDataMgr& data, bool hasBandLengths, std::int64_t partEnd) {
  const std::int64_t start = data.GetPosition(), body = start + format::kCountBytes;
  if (body > partEnd) return false;
  const auto pass = [&](std::int64_t end) {
    const std::uint64_t length = AsCount(end - start);
    const bool isThere = data.SkipForward(length) == length;
    const bool hasEnded = data.EnsureBuffered(format::kCountBytes) != kBufferedOk;
    if (isThere && (hasEnded || CanFollow(data, end, partEnd))) return true;
    data.MoveTo(start);
    return false;
  };
  const std::int64_t length = PeekLength(data, start);
  if (length <= partEnd - body && pass(body + length)) return true;
  const std::int64_t end = hasBandLengths ? EndByBandLengths(data, body, partEnd) : INT64_MAX;
  return end != INT64_MAX && pass(end);
}

}  // namespace kel
