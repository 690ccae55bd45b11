// What files that are put together anew need of the bytes of marker segments and boxes: segments
// changed where resolutions or tiles go, checksums moved, headers of boxes. A segment is its bytes
// from the marker on; offsets count from there.
#ifndef KEL_HOST_SEGMENT_EDIT_HPP
#define KEL_HOST_SEGMENT_EDIT_HPP

#include <optional>
#include <span>
#include <vector>

#include "Library.hpp"

namespace kel::host {

void PutU16(Bytes& bytes, std::size_t at, std::uint64_t value);
void PutU32(Bytes& bytes, std::size_t at, std::uint64_t value);

/// A coordinate of the canvas after so many halvings.
std::int64_t HalvedCoordinate(std::int64_t edge, unsigned times);

/// The numbers of a SIZ segment that place picture and tiles.
struct GridFields {
  std::int64_t x1 = 0, y1 = 0, x0 = 0, y0 = 0;  ///< the image area
  std::int64_t tileWidth = 0, tileHeight = 0, tileX0 = 0, tileY0 = 0;
};
void SetGrid(Bytes& siz, const GridFields& grid);

/// Takes levels out of a coding style (COD or COC), and the precincts of the resolutions that go.
/// Throws Error (kParameter) when it has fewer. componentBytes: of a component's number, 1 or 2.
void LowerLevels(Bytes& segment, unsigned code, std::size_t componentBytes, unsigned reduce);
/// Takes the steps of the bands that go out of a quantisation (QCD or QCC).
void LowerSteps(Bytes& segment, unsigned code, std::size_t componentBytes, unsigned reduce);

/// Whether a segment lists lengths of tile-parts or packets.
bool IsListOfLengths(unsigned code);

/// The checksums of packets in a segment, with its own at the end; nothing for another segment.
std::optional<std::vector<std::uint32_t>> ChecksumsIn(ByteView segment, unsigned code);
/// Puts such segments in front of the SOD marker at the end of a tile-part's header.
void InsertChecksums(Bytes& header, std::span<const std::uint32_t> checksums);

/// The box that holds the code stream of a file of boxes. Throws Error (kInput) without one.
const KelIndexBox& BoxOfCodeStream(const KelIndexFacts& facts);
/// Bytes that a box claims to have, header included, from that header; 0: up to the end of the
/// file.
std::uint64_t ClaimedBoxBytes(ByteView header);
/// The beginning of a box whose contents are so long.
void AppendBoxHeader(Bytes& to, std::uint32_t type, std::uint64_t contentBytes);

}  // namespace kel::host

#endif
