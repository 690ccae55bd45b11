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
  if (position >= partEnd - format::kCountBytes) return position == partEnd;
  const std::int64_t length = PeekLength(data, position);
  return length <= partEnd - position - format::kCountBytes;
}

}  // namespace kel
