// Positions of stream objects in 64 bits: those of the KelLargeStream beside one, where there is
// one, else the object's own, which end at 2^31 - 1.
#ifndef KEL_STREAM_POSITION_H
#define KEL_STREAM_POSITION_H

#include <cstdint>

#include "kel/KelStream.h"

namespace kel {

/// Where the stream stands, behind what its write buffer holds.
std::int64_t PositionOf(const KelCodeStm& stream);

/// The length that the host declared.
std::int64_t TotalLengthOf(const KelCodeStm& stream);

/// The largest position that the stream can have.
std::int64_t MostPositionOf(const KelCodeStm& stream);

/// KelCodeStm::seek to a position counted from the start: the position reached, or its codes.
std::int64_t MoveStream(KelCodeStm& stream, std::int64_t position);

}  // namespace kel

#endif
