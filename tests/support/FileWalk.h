// A walk over a file that the encoder made, by the rules of the format alone: boxes, marker
// segments, tile-parts, packets, bands and blocks, each checked to end where the next one begins.
// It shares nothing with the library.
#ifndef TESTS_SUPPORT_FILE_WALK_H
#define TESTS_SUPPORT_FILE_WALK_H

#include <cstdint>
#include <string>
#include <vector>

#include "BitAssembler.h"

namespace test {

struct WalkedFile {
  std::string boxes;               ///< types at the top level, a blank behind each
  std::string mainMarkers;         ///< second bytes, in hexadecimal
  std::vector<std::size_t> parts;  ///< where the tile-parts begin
};

/// Walks a file; whatever is out of order fails the running test.
WalkedFile WalkFile(const Bytes& file);

}  // namespace test

#endif
