// What the files of the box reader share: a box's extent, the state of one reading, the walk over
// the children of a superbox, the reading of contents whose length the data announce.
#ifndef KEL_FILE_FORMAT_BOXES_H
#define KEL_FILE_FORMAT_BOXES_H

#include <cstdint>
#include <span>

#include "KelDecDataMgr.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "format/KelFileFormat.h"

namespace kel {

/// A box whose header has been read.
struct BoxExtent {
  std::uint32_t type;
  std::uint64_t bodyLength;  ///< the largest value when it extends to the end of the data
  bool toEnd;
};

/// The record of refused boxes names the flow that reads them.
[[noreturn]] inline void Refuse(KelLong code, SourcePlace place = SourcePlace::Here()) {
  Raise(code, kModuleImage, place);
}

struct BoxReader {
  KelFileInfo& info;
  KelDecDataMgr& data;
  std::uint32_t signature;  ///< contents of the layout's signature box
  // Of the compositing-layer header being read.
  bool layerHasOpacity = false, layerHasChannels = false;
  bool stop = false;  ///< the code stream is the last box to be read

  /// Whether n more bytes have arrived.
  bool Has(std::uint64_t n) { return data.EnsureBuffered(n) == kBufferedOk; }
  std::uint8_t U8() { return static_cast<std::uint8_t>(data.ReadUInt(1)); }
  std::uint16_t U16() { return static_cast<std::uint16_t>(data.ReadUInt(2)); }
  std::uint32_t U32() { return data.ReadUInt(4); }
};

/// Reads a box's contents from the first byte behind its header on. It need not read all of them,
/// and must not read more. Raises what it refuses.
struct BoxHandler {
  std::uint32_t type;
  void (*read)(BoxReader& in, const BoxExtent& box);
};

/// Reads the children of a superbox, those without a handler being passed over. A child's header
/// that the data cut off is refused with cutCode.
void ReadChildren(BoxReader& in, const BoxExtent& parent, std::span<const BoxHandler> handlers,
                  KelLong cutCode);

/// Reads `length` bytes of contents, or with toEnd what is left; false when fewer arrive. Room for
/// them is obtained once they are known to be there, or, from a stream, while they arrive.
bool ReadContents(KelDecDataMgr& data, std::uint64_t length, bool toEnd, GatheredBytes& contents);

// Handlers of the boxes about colour and channels.
void ReadColorSpec(BoxReader& in, const BoxExtent& box);          // 'colr'
void ReadPalette(BoxReader& in, const BoxExtent& box);            // 'pclr'
void ReadComponentMapping(BoxReader& in, const BoxExtent& box);   // 'cmap'
void ReadChannelDefinition(BoxReader& in, const BoxExtent& box);  // 'cdef'
void ReadOpacity(BoxReader& in, const BoxExtent& box);            // 'opct'

}  // namespace kel

#endif
