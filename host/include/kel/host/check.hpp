// Whether a file is what its encoder wrote: every tile-part, packet and band where the lengths say,
// every bit of them decodable, and every checksum, where the file has them, right.
#ifndef KEL_HOST_CHECK_HPP
#define KEL_HOST_CHECK_HPP

#include "language.hpp"

#include <cstdint>
#include <string_view>
#include <vector>

#include "ranges.hpp"

namespace kel::host {

enum class FlawKind {
  kBox,             ///< a box reaches beyond the end of the file
  kNoTilePart,      ///< bytes where a tile-part should begin are none
  kTilePartLength,  ///< a tile-part does not end where its length says
  kTilePartHeader,  ///< the header of a tile-part cannot be read
  kTilePartCount,   ///< a tile does not have the number of tile-parts that it announces
  kUnplaced,        ///< a tile-part of no use: what should stand before it is missing
  kTile,            ///< tiles of which nothing is there
  kPackets,         ///< packets that are not there, or cannot be found
  kPacketLength,    ///< a packet does not end where its length says
  kBand,            ///< a band does not end where its length says, or makes no sense
  kChecksum,        ///< the bytes of a packet are not those that were written
  kExcess,          ///< bytes that belong to no packet
  kEnd,             ///< the code stream does not end with its end marker
  kLengthList       ///< a header's list of lengths is not that of what is there
};
/// A word for programs: "packet-length".
std::string_view NameOf(FlawKind kind);

/// One thing that is wrong. Numbers that do not apply are -1; offsets count from the first byte.
struct Flaw {
  FlawKind kind = FlawKind::kBox;
  std::int64_t tile = -1, part = -1, component = -1, resolution = -1, layer = -1, precinct = -1;
  std::uint64_t offset = 0;   ///< first byte concerned
  std::uint64_t claimed = 0;  ///< bytes that a length claims; of kTilePartCount tile-parts
  std::uint64_t found = 0;    ///< bytes that are there, or that could not be used; likewise
  std::uint64_t count = 1;    ///< of kPackets packets, of kTile tiles
};

/// What of the picture is concerned. Of a tile of which nothing is there component and resolution
/// are -1, and `tiles` follow each other.
struct Loss {
  std::int64_t tile = 0, component = -1, resolution = -1;  ///< resolution 0 is the lowest
  std::uint64_t tiles = 1;
  std::uint64_t missing = 0;  ///< packets
  std::uint64_t damaged = 0;  ///< packets of which samples may be wrong
};

struct CheckParams {
  /// Entries that each of the two lists holds; further ones are only counted.
  std::size_t mostEntries = 1000;
};

struct CheckReport {
  std::uint64_t bytes = 0, tiles = 0, tileParts = 0, packets = 0;
  std::uint64_t checksums = 0;  ///< packets whose checksum was compared
  std::vector<Flaw> flaws;
  std::vector<Loss> losses;
  std::uint64_t numFlaws = 0, numLosses = 0;
  bool IsSound() const { return numFlaws == 0; }
};

/// Reads all of a file and decodes every band of it, in the memory of one row of code blocks. Time
/// and memory are bounded by the bytes. Damage that leaves all bands ending where they should can
/// only be told with checksums (EncodeParams::checksums).
///
/// Throws Error: kInput for data that cannot be read up to the first tile-part; kMemory, kTime,
/// and what the source throws.
CheckReport Check(RangeSource& source, const CheckParams& params = {});

}  // namespace kel::host

#endif
