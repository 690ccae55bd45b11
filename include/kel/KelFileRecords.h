// Records for what a file carries beside the code stream: XML and UUID boxes, palette, channel
// definitions, chroma key, comment.
//
// Records that the decoder hands out belong to the image object and live until its Die; records
// handed to the encoder belong to the host, which keeps them until Die.
#ifndef KEL_FILE_RECORDS_H
#define KEL_FILE_RECORDS_H

#include "KelTypes.h"

/// Contents of one XML box.
struct __tagKelXML {
  KelULong length;           ///< in bytes
  const std::uint8_t* data;  ///< not terminated by a zero
};

/// Contents of one UUID box.
struct __tagKelUUID {
  KelULong length;           ///< bytes of data, the identifier not counted
  std::uint8_t uuid[16];     ///< the identifier
  const std::uint8_t* data;  ///< the payload
};

/// A palette and the mapping of channels to its columns. depths[i] and columns[i] speak of the same
/// column, whatever the mapping; channel c shows column mapColumn[c]. What the decoder hands out
/// can be given to the encoder, which writes one mapping per column.
struct __tagKelPalette {
  KelULong numEntries;   ///< NE
  KelULong numColumns;   ///< NPC
  std::uint8_t* depths;  ///< per column, as stored: depth minus one, bit 7 set when signed
  /// Entries, big-endian, (B + 7) / 8 bytes each for a stored depth byte B. Layout 0: columns[i]
  /// holds the numEntries entries of column i. Layout 1: columns[j] holds entry j of every
  /// column, in column order.
  std::uint8_t** columns;
  KelULong layout;          ///< 0 by column (what the decoder produces), 1 by entry
  KelULong* mapComponent;   ///< CMP per channel, numColumns or more; null: no mapping in the file
  std::uint8_t* mapType;    ///< MTYP per channel: 0 direct, 1 through the palette
  std::uint8_t* mapColumn;  ///< PCOL per channel
};

/// Channel definitions: four arrays of N values each.
struct KelChannelDefinition {
  KelULong N;      ///< number of entries
  KelLong* order;  ///< channels of colours 1 to k (-1 when missing), then the rest ascending
  KelLong* Cn;     ///< channel index
  KelLong* Typ;    ///< 0 colour, 1 opacity, 2 premultiplied opacity, 65535 unspecified
  KelLong* Asoc;   ///< 0 the whole image, else the number of the colour
};

/// A chroma key: samples equal to it in every channel are transparent.
struct KelChromaKey {
  KelULong numChannels;  ///< Nch
  KelLong* values;       ///< one key value per channel
};

/// A comment for the main header.
struct KelComment {
  const std::uint8_t* data;  ///< Latin-1 text, not terminated by a zero
  KelULong length;           ///< in bytes; at most 65531 are written
};

#endif
