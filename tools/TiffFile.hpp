// A TIFF file as libtiff sees it: bytes read or written through callbacks, and its complaints.
//
// The two sources that read and write TIFF images (ImageFileTiffRead, ImageFileTiffWrite) stand on
// it; nobody else needs libtiff.
#ifndef KEL_TOOLS_TIFFFILE_HPP
#define KEL_TOOLS_TIFFFILE_HPP

#include <tiffio.h>
#include <kel/host/rows.hpp>

#include <exception>
#include <memory>
#include <span>

#include "ImageFile.hpp"
#include "Metadata.hpp"

namespace kel::tool {

/// A TIFF file behind libtiff, with the first thing that libtiff complained of. A source is read
/// anywhere, or stands in memory. What was written first is changed at the end; a sink that does
/// not allow that gets everything then.
struct TiffFile {
  host::Source* source = nullptr;  ///< when reading, unless in memory
  host::ByteView input;
  host::Sink* sink = nullptr;  ///< when writing
  host::Bytes held;            ///< written, but not passed on
  std::uint64_t numPassed = 0;
  std::uint64_t at = 0;
  std::exception_ptr thrown;  ///< by source or sink
  char message[300] = {};
  Complaints complaints;

  std::uint64_t Size() const {
    return sink != nullptr     ? numPassed + held.size()
           : source != nullptr ? *source->Size()
                               : input.size();
  }
};

/// Takes bytes from a position on; how many there were.
std::size_t TakeTiffBytes(TiffFile& file, std::uint64_t at, std::span<std::uint8_t> to);

/// Puts bytes where libtiff stands: behind the others, or in place of some.
void PutTiffBytes(TiffFile& file, host::ByteView bytes);

/// Warnings, and failures that libtiff reported and then passed over.
void TellComplaints(TiffFile& file, const Warn& warn);

using TiffHandle = std::unique_ptr<TIFF, void (*)(TIFF*)>;

TiffHandle OpenHandle(TiffFile& file, const char* mode);

}  // namespace kel::tool

#endif
