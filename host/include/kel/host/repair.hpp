// Damaged files made whole as files: what is left of the picture, in a form that every decoder
// reads.
#ifndef KEL_HOST_REPAIR_HPP
#define KEL_HOST_REPAIR_HPP

#include "check.hpp"

namespace kel::host {

struct RepairParams {
  std::size_t mostEntries = 1000;  ///< that the list of losses holds; further ones are counted
};

struct RepairReport {
  std::uint64_t bytes = 0;      ///< written
  std::uint64_t corrected = 0;  ///< lengths, numbers and counts that were wrong
  std::uint64_t mended = 0;     ///< bands that hold what is sound of damaged ones
  std::uint64_t emptied = 0;    ///< bands, within packets that are there, of which nothing is left
  std::vector<Loss> losses;     ///< packets that are empty now, or without a band that they had
  std::uint64_t numLosses = 0;
  bool IsWhole() const { return numLosses == 0; }
};

/// Writes what can be saved: tile-parts that were found by their marks, with the lengths that they
/// have, packets and bands with theirs, and packets that are lost as empty ones. Decoded, the
/// result is what decoding the damaged file gives; Check finds nothing wrong with it. Lists of
/// lengths in headers go, and of tile-parts that had to be changed the checksums. Boxes are copied.
///
/// Throws Error: kInput for data that cannot be read up to the first tile-part, or of which so
/// many packets are missing that the empty ones would be a multiple of the file; kMemory, kTime,
/// and what source and sink throw.
RepairReport Repair(RangeSource& source, Sink& sink, const RepairParams& params = {});

}  // namespace kel::host

#endif
