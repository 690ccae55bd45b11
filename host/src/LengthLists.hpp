// Lists of lengths that headers may hold, which decoders pass over: of tile-parts in the main
// header, of packets in those of tile-parts. Read only to be compared with what is there.
//
//   of tile-parts  4 number of the segment (1), 5 form (1): bits 4-5 the bytes of a tile's number,
//   0
//                  to 2, bit 6 whether lengths have four bytes or two; then number and length in
//                  turn
//   of packets     4 number of the segment (1), then lengths, in sevens of bits from the top, with
//                  the top bit of a byte set where more follows
#ifndef KEL_HOST_LENGTH_LISTS_HPP
#define KEL_HOST_LENGTH_LISTS_HPP

#include <map>
#include <optional>
#include <vector>

#include "kel/host/streams.hpp"

namespace kel::host {

struct ListedTilePart {
  std::uint32_t tile = 0;
  std::uint64_t length = 0;
};

/// The contents of the segments of one kind of a header, brought into the order of their numbers.
class LengthList {
 public:
  /// segment: its bytes from the marker on.
  void Add(ByteView segment);
  bool IsEmpty() const { return pieces_.empty(); }
  /// Nothing for a list that does not follow the form above.
  std::optional<std::vector<ListedTilePart>> OfTileParts() const;
  std::optional<std::vector<std::uint64_t>> OfPackets() const;

 private:
  std::map<std::uint8_t, Bytes> pieces_;
  bool isOdd_ = false;  ///< a number came twice, or a segment has none
};

}  // namespace kel::host

#endif
