// What the boxes of a file say beside the code stream: the record that the box readers fill,
// its making and its release.
//
// A box is a 4-byte length that counts the whole box, a 4-byte type and the contents; length 1
// means that an 8-byte length follows the type, length 0 that the box extends to the end of the
// data. Two layouts differ in the types of the signature box and of four superboxes.
#ifndef KEL_FILE_FORMAT_H
#define KEL_FILE_FORMAT_H

#include <cstdint>

#include "kel/KelColor.h"
#include "kel/KelFileRecords.h"
#include "kel/KelFormat.h"

namespace kel {

/// The image header ('ihdr', 'bpcc').
struct KelImageHeaderInfo {
  std::uint8_t* bitDepths;  ///< NC bytes, depth minus one; null before 'ihdr'
  std::uint8_t* isSigned;   ///< NC flags
  std::uint32_t NC, HEIGHT, WIDTH;
  std::uint32_t numDepths;  ///< leading components whose depth a box gave
};

/// A box at the top level, in the order of the file.
struct KelBoxRecord {
  std::int64_t position;     ///< of its header
  std::uint64_t bodyLength;  ///< as announced; the largest value when it extends to the end
  std::uint32_t type, headerBytes;
};

/// Opacity of a compositing layer ('opct').
struct KelOpacityInfo {
  KelULong Otyp;            ///< 0 last channel opacity, 1 premultiplied, 2 chroma key
  KelChromaKey* chromaKey;  ///< with Otyp 2
};

/// Findings of the box readers; zero-filled, then made by InitFileInfo. It owns every record and
/// array that it points to, also where a public record calls the bytes constant.
struct KelFileInfo {
  KelImageHeaderInfo* imageHeader;
  KelULong enumeratedSpace;           ///< of the last 'colr' of method 1
  __tagColorSpecList* ColorSpecList;  ///< null before the first 'colr'
  bool IPR;
  bool ChannelDefPresent;
  KelChannelDefinition* ChannelDefs;
  bool codeStreamFound;
  std::uint64_t codeStreamLength;  ///< contents of the first code-stream box; 0: to the end
  bool XMLPresent;
  KelULong NumXMLBoxes;
  __tagKelXML* XMLBoxes;
  bool UUIDPresent;
  KelULong NumUUIDBoxes;
  __tagKelUUID* UUIDBoxes;
  bool ResolutionInfoPresent;
  float horizontalResolution, verticalResolution;  ///< capture, grid points per metre
  bool PalettePresent;
  __tagKelPalette* Palette;
  KelULong numMappings;  ///< entries of the component mapping; the palette's arrays may be longer
  bool opacityPresent;
  KelOpacityInfo* opacity;
  KelBoxRecord* boxes;  ///< null without any
  KelULong numBoxes, obtainedBoxes;
  // How the above is owned. A mapping may name a column twice or not at all, so that the columns
  // as they were read are kept apart; those whose entries have no bytes share one block.
  std::uint8_t** paletteColumns;
  KelULong numPaletteColumns;
  std::uint8_t* emptyColumn;
  KelULong obtainedXMLBoxes, obtainedUUIDBoxes;
  KelColorSpec* lastColorSpec;
};

/// Obtains the image header record; raises 8.
void InitFileInfo(KelFileInfo& info);

/// Releases everything, half-built findings included; may run twice. The record itself belongs to
/// the caller. Accepts null.
void ReleaseFileInfo(KelFileInfo* info) noexcept;

// Release one finding and clear its fields.
void ReleaseChannelDefinition(KelFileInfo& info) noexcept;
void ReleasePalette(KelFileInfo& info) noexcept;
void ReleaseOpacity(KelFileInfo& info) noexcept;

/// The profile to report: that of the first entry of method 2 or 3, or of a later such entry with
/// a greater precedence or a smaller approximation than the choice so far; null without one.
__tagICCProfile* ChooseICCProfile(__tagColorSpecList* list);

}  // namespace kel

#endif
