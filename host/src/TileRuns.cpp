// Planning and building the parts of a code stream.
#include "TileRuns.hpp"

#include <algorithm>

namespace kel::host {
namespace {

/// Tiles are gathered up to about this many positions of the grid, so that what it takes to set
/// up an image object does not count.
constexpr std::uint64_t kRunArea = 512 * 512;

std::int64_t CeilDiv(std::int64_t a, std::int64_t b) {
  return (a + b - 1) / b;
}

void PutU16(Bytes& bytes, std::size_t at, std::uint64_t value) {
  bytes[at] = static_cast<std::uint8_t>(value >> 8);
  bytes[at + 1] = static_cast<std::uint8_t>(value);
}

void PutU32(Bytes& bytes, std::size_t at, std::uint64_t value) {
  PutU16(bytes, at, value >> 16);
  PutU16(bytes, at + 2, value);
}

ByteView Piece(ByteView from, std::uint64_t offset, std::uint64_t length) {
  if (offset > from.size() || length > from.size() - offset) {
    throw Error(Failure::kInput, "a tile-part reaches behind the end of the data");
  }
  return from.subspan(offset, length);
}

void Append(Bytes& to, ByteView piece) {
  to.insert(to.end(), piece.begin(), piece.end());
}

/// The box that holds the code stream; null when there is none.
const KelIndexBox* BoxOfCodeStream(const KelIndexFacts& facts) {
  const std::span boxes(facts.boxes, facts.numBoxes);
  const auto found = std::ranges::find_if(boxes, [&](const KelIndexBox& box) {
    return box.offset + box.headerBytes == facts.codeStreamOffset;
  });
  return found == boxes.end() ? nullptr : &*found;
}

/// The boxes around the code stream, without payloads that do not bear on samples and without
/// what follows the code stream's own box, which comes last and has no length.
void AppendBoxes(Bytes& data, ByteView bytes, const KelIndexFacts& facts) {
  const KelULong codeStreamType = BoxOfCodeStream(facts)->type;
  for (const KelIndexBox& box : std::span(facts.boxes, facts.numBoxes)) {
    const bool carried = box.isWhole && box.type != codeStreamType &&
                         box.type != format::BoxType("xml ") && box.type != format::BoxType("uuid");
    if (carried) Append(data, Piece(bytes, box.offset, box.length));
  }
  const std::size_t at = data.size();
  data.resize(at + 8);
  PutU32(data, at + 4, codeStreamType);
}

/// Image area and origin of the tile grid of a run.
struct RunGrid {
  std::int64_t x1, y1, x0, y0, tileX0, tileY0;
};

RunGrid GridOf(const KelImageGeometry& whole, const TileRun& run) {
  const std::int64_t left = whole.XTOsiz + std::int64_t{run.column} * whole.XTsiz;
  const std::int64_t top = whole.YTOsiz + std::int64_t{run.row} * whole.YTsiz;
  return {std::min<std::int64_t>(whole.Xsiz, left + std::int64_t{run.columns} * whole.XTsiz),
          std::min<std::int64_t>(whole.Ysiz, top + std::int64_t{run.rows} * whole.YTsiz),
          std::max<std::int64_t>(whole.XOsiz, left),
          std::max<std::int64_t>(whole.YOsiz, top),
          left,
          top};
}

/// Moves the image area and the tile grid of the SIZ segment at a place to a run. The library has
/// read the segment there, so that all its fields stand inside the header.
void NarrowSiz(Bytes& data, std::size_t at, const RunGrid& grid) {
  if (at + format::kSizGridBytes > data.size())
    throw Error(Failure::kInput, "its SIZ segment is cut off");
  const auto put = [&](std::size_t field, std::int64_t value) {
    PutU32(data, at + field, static_cast<std::uint64_t>(value));
  };
  put(6, grid.x1);
  put(10, grid.y1);
  put(14, grid.x0);
  put(18, grid.y0);
  put(30, grid.tileX0);
  put(34, grid.tileY0);
}

/// The tile-parts of every tile of the grid, in the order of the data.
using PartsOfTiles = std::vector<std::vector<KelIndexTilePart>>;

TileRun MakeRun(const PartsOfTiles& tiles, std::uint32_t across, TileRun run) {
  for (std::uint32_t row = run.row; row < run.row + run.rows; ++row) {
    for (std::uint32_t column = run.column; column < run.column + run.columns; ++column) {
      const auto& parts = tiles[row * across + column];
      run.parts.insert(run.parts.end(), parts.begin(), parts.end());
    }
  }
  std::ranges::sort(run.parts, {}, &KelIndexTilePart::offset);
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

bool CanBeCut(const KelIndexFacts& facts) {
  return !facts.isBoxed || BoxOfCodeStream(facts) != nullptr;
}

std::vector<TileRun> PlanRuns(Index& index) {
  const KelIndexFacts& facts = index.Facts();
  const KelImageGeometry& grid = *facts.geometry;
  const auto across = static_cast<std::uint32_t>(grid.NumXTiles);
  const auto down = static_cast<std::uint32_t>(grid.NumYTiles);
  if (across * down < 2 || !CanBeCut(facts)) return {};
  const KelIndexTileParts& tileParts = index.TileParts();
  if (!tileParts.areRegular) return {};
  PartsOfTiles tiles(across * down);
  for (const KelIndexTilePart& part : std::span(tileParts.parts, tileParts.count)) {
    tiles.at(part.tile).push_back(part);
  }

  const std::uint64_t tileArea = std::uint64_t{1} * static_cast<std::uint32_t>(grid.XTsiz) *
                                 static_cast<std::uint32_t>(grid.YTsiz);
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

Bytes BuildRun(ByteView bytes, const KelIndexFacts& facts, const TileRun& run) {
  std::vector<TilePartBytes> parts;
  for (const KelIndexTilePart& part : run.parts) {
    parts.push_back({part.tile, Piece(bytes, part.offset, part.length), 0});
  }
  Bytes data;
  BuildRun(bytes, facts, run, parts, data);
  return data;
}

void BuildRun(ByteView headers, const KelIndexFacts& facts, const TileRun& run,
              std::span<const TilePartBytes> parts, Bytes& data) {
  data.clear();
  std::size_t size = facts.firstTilePartOffset + 16;
  for (const TilePartBytes& part : parts) size += part.bytes.size();
  data.reserve(size);
  if (facts.isBoxed) AppendBoxes(data, headers, facts);
  const std::size_t codeStream = data.size();
  Append(data, Piece(headers, facts.codeStreamOffset,
                     facts.firstTilePartOffset - facts.codeStreamOffset));
  NarrowSiz(data, codeStream + (facts.sizOffset - facts.codeStreamOffset),
            GridOf(*facts.geometry, run));
  const auto across = static_cast<std::uint32_t>(facts.geometry->NumXTiles);
  for (const TilePartBytes& part : parts) {
    const std::size_t at = data.size();
    Append(data, part.bytes);
    const std::uint32_t row = part.tile / across - run.row,
                        column = part.tile % across - run.column;
    PutU16(data, at + format::kIsotAt, row * run.columns + column);
    PutU32(data, at + format::kPsotAt, part.bytes.size() + part.numMissing);
  }
  if (!parts.empty() && parts.back().numMissing != 0) return;
  data.push_back(static_cast<std::uint8_t>(facts.markerByte));
  data.push_back(format::kEOC);
}

std::vector<ComponentArea> AreasOf(const KelImageGeometry& whole, const TileRun& run) {
  const RunGrid grid = GridOf(whole, run);
  auto areas = ComponentAreas(whole, 0);
  for (ComponentArea& area : areas) {
    area.x0 = CeilDiv(grid.x0, area.xStep);
    area.y0 = CeilDiv(grid.y0, area.yStep);
    area.x1 = CeilDiv(grid.x1, area.xStep);
    area.y1 = CeilDiv(grid.y1, area.yStep);
  }
  return areas;
}

bool IsRunOf(const KelImageGeometry& whole, const TileRun& run, const KelImageGeometry& found) {
  const RunGrid grid = GridOf(whole, run);
  const std::pair<std::int64_t, std::int64_t> fields[] = {
      {found.Xsiz, grid.x1},      {found.Ysiz, grid.y1},       {found.XOsiz, grid.x0},
      {found.YOsiz, grid.y0},     {found.XTOsiz, grid.tileX0}, {found.YTOsiz, grid.tileY0},
      {found.XTsiz, whole.XTsiz}, {found.YTsiz, whole.YTsiz},  {found.Csiz, whole.Csiz}};
  if (!std::ranges::all_of(fields, [](const auto& f) { return f.first == f.second; })) return false;
  return std::equal(found.XRsiz, found.XRsiz + found.Csiz, whole.XRsiz) &&
         std::equal(found.YRsiz, found.YRsiz + found.Csiz, whole.YRsiz) &&
         std::equal(found.BitDepths, found.BitDepths + found.Csiz, whole.BitDepths);
}

}  // namespace kel::host
