// Component transforms over rows of samples. Rows are worked on in pieces that stay in the
// fastest cache together with what is unpacked from them; the arithmetic is that of the kernels.
#include "samples/KelCompTransform.h"

#include <algorithm>
#include <type_traits>

#include "kernels/KelKernels.h"
#include "samples/KelImageDataAccess.h"
#include "samples/KelPackedSamples.h"

namespace kel {
namespace {

/// Samples of a piece of a row.
constexpr std::size_t kPiece = 1024;

/// Room for a piece of each of three components, and one to spare.
struct Scratch {
  alignas(64) std::byte rows[4][kPiece * 4];

  template <class Cell>
  Cell* Row(std::size_t c) {
    return reinterpret_cast<Cell*>(rows[c]);
  }
};

constexpr std::size_t kSpareRow = 3;

/// A piece of a row: row y, samples x to x + count - 1.
struct Piece {
  std::uint64_t x, y;
  std::size_t count;
};

/// Calls work(piece) for every piece of a plane, in raster order.
template <class Work>
void ForEachPiece(PlaneSize size, Work work) {
  const std::uint64_t width = AsCount(size.width);
  for (std::uint64_t y = 0; y < AsCount(size.height); ++y) {
    for (std::uint64_t x = 0; x < width; x += kPiece) {
      work(Piece{x, y, static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, width - x))});
    }
  }
}

template <class Cell>
Cell* CellsOf(const CodingPlane& plane, const Piece& piece) {
  return static_cast<Cell*>(plane.cells) + piece.y * plane.strideCells + piece.x;
}

/// The first sample of a piece, of bytes or words, in the host's buffer.
template <class Sample>
const Sample* FirstOf(const SampleSource& source, const Piece& piece) {
  const std::uint8_t* row = source.samples + piece.y * source.rowBytes;
  return static_cast<const Sample*>(static_cast<const void*>(row)) + piece.x * source.step +
         source.first;
}

/// Bytes or words of a piece in consecutive cells: where they stand, or gathered into `row`.
template <class Sample>
const Sample* Gather(const SampleSource& source, const Piece& piece, Sample* row) {
  const Sample* in = FirstOf<Sample>(source, piece);
  if (source.step == 1) return in;
  for (std::size_t i = 0; i < piece.count; ++i) row[i] = in[i * source.step];
  return row;
}

/// Reads packed samples and takes their DC offset away.
void UnpackLevelled(const SampleSource& source, const Piece& piece, std::int32_t* out) {
  std::uint32_t raw[kPiece];
  const auto depth = static_cast<std::uint32_t>(source.bitDepth);
  const PackedSamples packed = {source.samples + piece.y * source.rowBytes, source.rowBytes,
                                (piece.x * source.step + source.first) * depth, source.step * depth,
                                source.bitDepth};
  UnpackSamples(packed, raw, piece.count);
  const std::uint32_t offset = 1U << (depth - 1);
  for (std::size_t i = 0; i < piece.count; ++i) out[i] = static_cast<std::int32_t>(raw[i] - offset);
}

/// Stores integers as cells.
void StoreCells(const std::int32_t* values, float* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<float>(values[i]);
}
void StoreCells(const std::int32_t* values, std::int16_t* out, std::size_t count) {
  void* words = out;
  Kernels().samples.levelsToWords(values, static_cast<std::uint16_t*>(words), count, 0);
}

void ShiftBytes(const std::uint8_t* in, std::int16_t* out, std::size_t count) {
  Kernels().samples.bytesToShorts(in, out, count);
}
void ShiftBytes(const std::uint8_t* in, std::int32_t* out, std::size_t count) {
  Kernels().samples.bytesToInts(in, out, count);
}
void ShiftBytes(const std::uint8_t* in, float* out, std::size_t count) {
  Kernels().samples.bytesToFloats(in, out, count);
}

/// Samples of any layout less the DC offset. Uses the spare row.
template <class Cell>
void ReadLevelled(const SampleSource& source, const Piece& piece, Scratch& scratch, Cell* out) {
  const SamplesKernels& kernels = Kernels().samples;
  if (source.bitDepth == 8) {
    ShiftBytes(Gather(source, piece, scratch.Row<std::uint8_t>(kSpareRow)), out, piece.count);
  } else if (source.bitDepth == 16 && !std::is_same_v<Cell, std::int16_t>) {
    const auto* words = Gather(source, piece, scratch.Row<std::uint16_t>(kSpareRow));
    if constexpr (std::is_same_v<Cell, float>) kernels.wordsToFloats(words, out, piece.count);
    if constexpr (std::is_same_v<Cell, std::int32_t>) kernels.wordsToInts(words, out, piece.count);
  } else if constexpr (std::is_same_v<Cell, std::int32_t>) {
    UnpackLevelled(source, piece, out);
  } else {
    auto* const levels = scratch.Row<std::int32_t>(kSpareRow);
    UnpackLevelled(source, piece, levels);
    StoreCells(levels, out, piece.count);
  }
}

template <class Cell>
void FillPlane(const SampleSource& source, const CodingPlane& plane, PlaneSize size) {
  Scratch scratch;
  ForEachPiece(size, [&](const Piece& piece) {
    ReadLevelled(source, piece, scratch, CellsOf<Cell>(plane, piece));
  });
}

/// Whether three sources are the first three channels of one interleaved buffer.
bool AreOneTriple(const SampleSource (&sources)[3]) {
  for (std::uint32_t c = 0; c < 3; ++c) {
    if (sources[c].samples != sources[0].samples || sources[c].rowBytes != sources[0].rowBytes ||
        sources[c].step != sources[0].step || sources[c].first != c) {
      return false;
    }
  }
  return true;
}

/// The samples of a piece of three components as the kernels take them, each in consecutive
/// cells: bytes and words as they are, 32-bit cells with the DC offset taken away.
template <class Sample>
void ReadTriple(const SampleSource (&sources)[3], const Piece& piece, Scratch& scratch,
                const Sample* (&rows)[3]) {
  Sample* own[3];
  for (std::size_t c = 0; c < 3; ++c) rows[c] = own[c] = scratch.Row<Sample>(c);
  if constexpr (std::is_same_v<Sample, std::int32_t>) {
    for (std::size_t c = 0; c < 3; ++c) ReadLevelled(sources[c], piece, scratch, own[c]);
  } else if (!AreOneTriple(sources)) {
    for (std::size_t c = 0; c < 3; ++c) rows[c] = Gather(sources[c], piece, own[c]);
  } else {
    const SamplesKernels& kernels = Kernels().samples;
    const Sample* in = FirstOf<Sample>(sources[0], piece);
    const std::size_t step = sources[0].step;
    if constexpr (std::is_same_v<Sample, std::uint8_t>) {
      kernels.splitBytes(in, step, own[0], own[1], own[2], piece.count);
    } else {
      kernels.splitWords(in, step, own[0], own[1], own[2], piece.count);
    }
  }
}

template <class Sample, class Cell>
using ForwardKernel = void (*)(const Sample*, const Sample*, const Sample*, Cell*, Cell*, Cell*,
                               std::size_t);

template <class Sample, class Cell>
void FillColorPlanes(const SampleSource (&sources)[3], const CodingPlane (&planes)[3],
                     PlaneSize size, ForwardKernel<Sample, Cell> transform) {
  Scratch scratch;
  ForEachPiece(size, [&](const Piece& piece) {
    const Sample* in[3];
    ReadTriple(sources, piece, scratch, in);
    Cell* out[3];
    for (std::size_t c = 0; c < 3; ++c) {
      out[c] = planes[c].cells != nullptr ? CellsOf<Cell>(planes[c], piece)
                                          : scratch.Row<Cell>(kSpareRow);
    }
    transform(in[0], in[1], in[2], out[0], out[1], out[2], piece.count);
  });
}

/// A piece of narrow samples of another depth than 8.
void ForwardRct32ToShorts(const std::int32_t* r, const std::int32_t* g, const std::int32_t* b,
                          std::int16_t* y, std::int16_t* u, std::int16_t* v, std::size_t count) {
  std::int32_t yuv[3][kPiece];
  Kernels().samples.forwardRct32(r, g, b, yuv[0], yuv[1], yuv[2], count);
  StoreCells(yuv[0], y, count);
  StoreCells(yuv[1], u, count);
  StoreCells(yuv[2], v, count);
}

bool AllDepthsAre(const SampleSource (&sources)[3], int bitDepth) {
  return std::all_of(sources, sources + 3,
                     [=](const SampleSource& source) { return source.bitDepth == bitDepth; });
}

/// Calls work(first cell of each plane, count) over a triple: once where the rows follow each
/// other without gaps, else row by row.
template <class Cell, class Work>
void ForEachRun(const ColorPlanes& planes, Work work) {
  std::uint64_t width = AsCount(planes.size.width), height = AsCount(planes.size.height);
  if (width == planes.strideCells) {
    width = SaturatingMul(width, height);
    height = width != 0 ? 1 : 0;
  }
  for (std::uint64_t y = 0; y < height; ++y) {
    Cell* rows[3];
    for (int c = 0; c < 3; ++c) {
      rows[c] = static_cast<Cell*>(planes.cells[c]) + y * planes.strideCells;
    }
    work(rows, static_cast<std::size_t>(width));
  }
}

}  // namespace

SampleSource MakeSampleSource(const void* samples, std::int64_t width, int bitDepth,
                              std::uint32_t channels, std::uint32_t channel) {
  const std::uint64_t rowBytes = PackedRowBytes(width, std::int64_t{channels} * bitDepth);
  return {static_cast<const std::uint8_t*>(samples), rowBytes, bitDepth, channels, channel};
}

bool ColorTransformApplies(const KelEncOpt& options) {
  const KelImageGeometry* geometry = options.GeomParams;
  if (!options.ComponentTransform || options.NumColorChannels <= 2 || geometry == nullptr ||
      geometry->Csiz <= 2) {
    return false;
  }
  const KelLong *across = geometry->XRsiz, *down = geometry->YRsiz;
  return across[0] == across[1] && across[0] == across[2] && down[0] == down[1] &&
         down[0] == down[2];
}

void PreparePlane(const SampleSource& source, const CodingPlane& plane, PlaneSize size,
                  CellKind cells) {
  switch (cells) {
    case CellKind::kShorts:
      return FillPlane<std::int16_t>(source, plane, size);
    case CellKind::kInts:
      return FillPlane<std::int32_t>(source, plane, size);
    case CellKind::kFloats:
      return FillPlane<float>(source, plane, size);
  }
}

void PrepareColorPlanes(const SampleSource (&sources)[3], const CodingPlane (&planes)[3],
                        PlaneSize size, CellKind cells) {
  const SamplesKernels& kernels = Kernels().samples;
  const bool areBytes = AllDepthsAre(sources, 8), areWords = AllDepthsAre(sources, 16);
  if (cells == CellKind::kFloats) {
    areBytes   ? FillColorPlanes(sources, planes, size, kernels.forwardIct8)
    : areWords ? FillColorPlanes(sources, planes, size, kernels.forwardIct16)
               : FillColorPlanes(sources, planes, size, kernels.forwardIct32);
  } else if (cells == CellKind::kInts) {
    areWords ? FillColorPlanes(sources, planes, size, kernels.forwardRct16)
             : FillColorPlanes(sources, planes, size, kernels.forwardRct32);
  } else {
    areBytes ? FillColorPlanes(sources, planes, size, kernels.forwardRct8)
             : FillColorPlanes(sources, planes, size, ForwardRct32ToShorts);
  }
}

void InverseComponentTransform(const ColorPlanes& planes) {
  const SamplesKernels& kernels = Kernels().samples;
  if (planes.floats) {
    ForEachRun<float>(planes, [&](auto& rows, std::size_t count) {
      kernels.inverseIct(rows[0], rows[1], rows[2], count);
    });
  } else {
    ForEachRun<std::int32_t>(planes, [&](auto& rows, std::size_t count) {
      kernels.inverseRct(rows[0], rows[1], rows[2], count);
    });
  }
}

}  // namespace kel
