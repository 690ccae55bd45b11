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

struct WalkedPart {
  int tile, index, count;
  std::size_t offset, length;  ///< of the tile-part, in the file
  std::string markers;         ///< second bytes of its header's markers, in hexadecimal
};

struct WalkedFile {
  std::string boxes;        ///< types at the top level, a blank behind each
  std::string mainMarkers;  ///< second bytes, in hexadecimal
  std::vector<WalkedPart> parts;
};

/// Walks a file; whatever is out of order fails the running test.
WalkedFile WalkFile(const Bytes& file);

}  // namespace test

#endif
