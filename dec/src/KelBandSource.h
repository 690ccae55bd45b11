// The bands of a component on their way to the synthesis: rows of its coefficient plane, or, for a
// tile whose packets have been taken, rows that are decoded from the coded bytes when the synthesis
// asks for them, a row of blocks at a time.
#ifndef KEL_BAND_SOURCE_H
#define KEL_BAND_SOURCE_H

#include "KelBlockDecode.h"
#include "KelDecMap.h"
#include "base/KelMemFuncDefs.h"
#include "transform/KelWavelet.h"

namespace kel {

/// A coded band that is being decoded.
struct CodedBand {
  KelDecDataMgr reader;
  BandDecoder decoder;
  void* rows;  ///< a row of blocks, decoded
};

/// Working memory of a component's coded bands; contents undefined.
struct BandMemory {
  CodedBand* bands;  ///< one for each
  void* rows;        ///< CodedRowBytes, aligned to 64
  WorkMeter* work;   ///< counts the samples decoded
};
std::uint64_t CodedRowBytes(const TileCompRecord& record);

/// Whether a taken component's coded bands can be synthesised in cells of 16 bits, with samples of
/// at most `mostSample` in magnitude.
bool CodedBandsFitShorts(const TileCompRecord& record, std::int64_t mostSample);

/// The coded bands of a component that was taken. Steps are for cells of floats, else null.
ComponentBands BandsOfCodedBytes(const TileCompRecord& record, CellKind cells,
                                 const IndexSteps* steps, const BandMemory& memory);

/// Whether each of a component's coded bands ended where its length says, once their rows have all
/// been taken. Where one did not, what follows it in the data may lie elsewhere.
bool CodedBandsEndedWell(const TileCompRecord& record, const BandMemory& memory);

/// A component's coefficient plane, locked; every band of it holds values.
class LockedPlane {
 public:
  explicit LockedPlane(TileCompRecord& record);
  CoefficientPlane Plane() const;

 private:
  TileCompRecord& record_;
  BufferLock lock_;
};

}  // namespace kel

#endif
