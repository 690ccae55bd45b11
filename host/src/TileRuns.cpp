// Planning and building the parts of a code stream.
#include "TileRuns.hpp"

#include <algorithm>

namespace kel::host {
namespace {

/// Tiles are gathered up to about this many positions of the grid, so that what it takes to set
/// up an image object does not count.
constexpr std::uint64_t kRunArea = 512 * 512;

constexpr std::uint32_t kXmlBox = 0x786D6C20, kUuidBox = 0x75756964;  // "xml ", "uuid"
constexpr std::uint8_t kEoc = 0xD9;

void PutU16(Bytes& bytes, std::size_t at, std::uint64_t value) {
  bytes[at] = static_cast<std::uint8_t>(value >> 8);
  bytes[at + 1] = static_cast<std::uint8_t>(value);
}

void PutU32(Bytes& bytes, std::size_t at, std::uint64_t value) {
  PutU16(bytes, at, value >> 16);
  PutU16(bytes, at + 2, value);
}

void Append(Bytes& to, ByteView from, std::uint64_t offset, std::uint64_t length) {
  const ByteView piece = from.subspan(offset, length);
  to.insert(to.end(), piece.begin(), piece.end());
}

/// The boxes around the code stream, without payloads that do not bear on samples and without
/// what follows the code stream's own box, which comes last and has no length.
void AppendBoxes(Bytes& data, ByteView bytes, const StreamScan& scan) {
  const auto codeStream = std::ranges::find_if(scan.boxes, [&](const ScannedBox& box) {
    return box.offset < scan.codeStreamOffset && box.offset + box.length >= scan.codeStreamEnd;
  });
  for (const ScannedBox& box : scan.boxes) {
    const bool carried =
        box.isWhole && box.type != codeStream->type && box.type != kXmlBox && box.type != kUuidBox;
    if (carried) Append(data, bytes, box.offset, box.length);
  }
  const std::size_t at = data.size();
  data.resize(at + 8);
  PutU32(data, at + 4, codeStream->type);
}

/// Moves the image area and the tile grid of a SIZ segment to a run.
void NarrowSiz(Bytes& data, std::size_t at, const ScannedGrid& grid, const TileRun& run) {
  const std::uint64_t left = grid.tileX0 + run.column * grid.tileWidth;
  const std::uint64_t top = grid.tileY0 + run.row * grid.tileHeight;
  PutU32(data, at + 6, std::min(grid.x1, left + run.columns * grid.tileWidth));
  PutU32(data, at + 10, std::min(grid.y1, top + run.rows * grid.tileHeight));
  PutU32(data, at + 14, std::max(grid.x0, left));
  PutU32(data, at + 18, std::max(grid.y0, top));
  PutU32(data, at + 30, left);
  PutU32(data, at + 34, top);
}

/// The tile-parts of every tile of the grid, in the order of the data.
using PartsOfTiles = std::vector<std::vector<ScannedTilePart>>;

TileRun MakeRun(const PartsOfTiles& tiles, std::uint32_t across, TileRun run) {
  for (std::uint32_t row = run.row; row < run.row + run.rows; ++row) {
    for (std::uint32_t column = run.column; column < run.column + run.columns; ++column) {
      const auto& parts = tiles[row * across + column];
      run.parts.insert(run.parts.end(), parts.begin(), parts.end());
    }
  }
  std::ranges::sort(run.parts, {}, &ScannedTilePart::offset);
  return run;
}

/// Adds a block of tiles as one run, or tile by tile where some have no tile-part.
void AddBlock(const PartsOfTiles& tiles, std::uint32_t across, const TileRun& block,
              std::vector<TileRun>& runs) {
  std::vector<TileRun> single;
  for (std::uint32_t row = block.row; row < block.row + block.rows; ++row) {
    for (std::uint32_t column = block.column; column < block.column + block.columns; ++column) {
      if (tiles[row * across + column].empty()) continue;
      single.push_back({column, row, 1, 1, {}});
    }
  }
  if (single.size() == std::size_t{block.rows} * block.columns) single = {block};
  for (const TileRun& run : single) runs.push_back(MakeRun(tiles, across, run));
}

}  // namespace

std::vector<TileRun> PlanRuns(const StreamScan& scan) {
  const ScannedGrid& grid = scan.grid;
  const std::uint64_t numTiles = grid.TilesAcross() * grid.TilesDown();
  if (!scan.tilePartsRegular || numTiles < 2 || numTiles > 65535) return {};
  const auto across = static_cast<std::uint32_t>(grid.TilesAcross());
  const auto down = static_cast<std::uint32_t>(grid.TilesDown());
  PartsOfTiles tiles(numTiles);
  for (const ScannedTilePart& part : scan.tileParts) tiles[part.tile].push_back(part);

  const std::uint64_t tileArea = grid.tileWidth * grid.tileHeight;
  const auto perRun = static_cast<std::uint32_t>(std::max<std::uint64_t>(kRunArea / tileArea, 1));
  const std::uint32_t columns = std::min(perRun, across);
  const std::uint32_t rows = columns < across ? 1 : std::min(std::max(perRun / across, 1U), down);
  std::vector<TileRun> runs;
  for (std::uint32_t row = 0; row < down; row += rows) {
    for (std::uint32_t column = 0; column < across; column += columns) {
      AddBlock(tiles, across,
               {column, row, std::min(columns, across - column), std::min(rows, down - row), {}},
               runs);
    }
  }
  return runs;
}

Bytes BuildRun(ByteView bytes, const StreamScan& scan, const TileRun& run) {
  Bytes data;
  if (scan.boxed) AppendBoxes(data, bytes, scan);
  const std::size_t codeStream = data.size();
  Append(data, bytes, scan.codeStreamOffset, scan.tilePartOffset - scan.codeStreamOffset);
  NarrowSiz(data, codeStream + (scan.sizOffset - scan.codeStreamOffset), scan.grid, run);
  const auto across = static_cast<std::uint32_t>(scan.grid.TilesAcross());
  for (const ScannedTilePart& part : run.parts) {
    const std::size_t at = data.size();
    Append(data, bytes, part.offset, part.length);
    const std::uint32_t row = part.tile / across - run.row,
                        column = part.tile % across - run.column;
    PutU16(data, at + 4, row * run.columns + column);
    PutU32(data, at + 6, part.length);
  }
  data.push_back(scan.markerByte);
  data.push_back(kEoc);
  return data;
}

}  // namespace kel::host
