// Numbers of the format: markers, lengths, limits, colour spaces, box types. Their only home;
// readers, writers and hosts that look into a stream's bytes take them from here.
#ifndef KEL_FORMAT_H
#define KEL_FORMAT_H

#include <cstdint>

namespace kel::format {

/// Second bytes of the markers. The first, 0xAB or 0xFF, is the code stream's flavour.
enum Marker : std::uint8_t {
  kSOC = 0x4F,  ///< start of the code stream
  kSIZ = 0x51,  ///< image and tile sizes
  kCOD = 0x52,  ///< coding style of all components
  kCOC = 0x53,  ///< of one
  kTLM = 0x55,  ///< lengths of tile-parts
  kPLM = 0x57,  ///< lengths of packets, in the main header
  kPLT = 0x58,  ///< in a tile-part's header
  kQCD = 0x5C,  ///< quantisation of all components
  kQCC = 0x5D,  ///< of one
  kRGN = 0x5E,  ///< region of interest
  kPOC = 0x5F,  ///< progression order changes
  kPPM = 0x60,  ///< packet headers gathered in the main header
  kPPT = 0x61,  ///< in a tile-part's header
  kCOM = 0x64,  ///< comment
  kSOT = 0x90,  ///< start of a tile-part
  kSOP = 0x91,  ///< start of a packet
  kEPH = 0x92,  ///< end of a packet's header
  kSOD = 0x93,  ///< start of a tile-part's data
  kEOC = 0xD9   ///< end of the code stream
};
/// Markers from here to here begin segments of headers.
inline constexpr std::uint8_t kFirstHeaderMarker = 0x50, kLastHeaderMarker = 0x6F;

// Bytes.
inline constexpr std::uint32_t kMarkerBytes = 2;
/// SOT segment: marker, Lsot (2), Isot (2), Psot (4), TPsot (1), TNsot (1).
inline constexpr std::uint32_t kSotBytes = 12;
inline constexpr std::uint32_t kIsotAt = 4, kPsotAt = 6, kTPsotAt = 10, kTNsotAt = 11;
/// A tile-part holds at least its SOT segment and SOD.
inline constexpr std::uint32_t kLeastTilePartBytes = kSotBytes + kMarkerBytes;
inline constexpr std::uint32_t kSopBytes = 6;  ///< marker, length, number of the packet
/// A byte count: in front of every packet and, above the lowest resolution, of every band in it.
inline constexpr std::uint32_t kCountBytes = 4;
inline constexpr std::uint32_t kSignatureBytes = 12;
/// SIZ up to its component count: marker, Lsiz, Rsiz, eight sizes of 4 bytes.
inline constexpr std::uint32_t kSizGridBytes = 38;
/// Most bytes of a segment: what its length of 16 bits can say, which counts itself.
inline constexpr std::uint32_t kMostSegmentBytes = 65535;

// Checksums of packets: a comment segment of binary contents in the header of a tile-part, or
// several one behind the other. kChecksumTag, for each packet of the tile-part in their order the
// CRC-32 of its bytes, length included, and at last the CRC-32 of what stands from the tag on.
inline constexpr std::uint32_t kChecksumBytes = 4;
/// Marker, length, Rcom (2), tag, and the segment's own checksum.
inline constexpr std::uint32_t kChecksumSegmentBytes = 14;
inline constexpr std::uint32_t kMostChecksumsOfSegment =
    (kMostSegmentBytes + kMarkerBytes - kChecksumSegmentBytes) / kChecksumBytes;
/// "KCRC", as a big-endian number.
inline constexpr std::uint32_t kChecksumTag = 0x4B435243;
constexpr std::uint64_t ChecksumSegmentsBytes(std::uint64_t numPackets) {
  const std::uint64_t segments =
      (numPackets + kMostChecksumsOfSegment - 1) / kMostChecksumsOfSegment;
  return segments * kChecksumSegmentBytes + numPackets * kChecksumBytes;
}

// Limits, by the fields' widths unless they say otherwise.
inline constexpr std::int32_t kMostTiles = 65535;
inline constexpr std::int32_t kMostComponents = 16384;      ///< stated by the format
inline constexpr std::int32_t kMostTileParts = 256;         ///< of a tile, by their number (TPsot)
inline constexpr std::int32_t kMostCountedTileParts = 255;  ///< where their count is said (TNsot)
inline constexpr std::int32_t kMostLayers = 65535;
inline constexpr std::int32_t kMostLevels = 32;  ///< stated by the format
inline constexpr std::int32_t kMostSubsampling = 255;
/// Depths that the encoder takes: with its transforms' growth they stay within 32 bits.
inline constexpr std::int32_t kMostEncodedDepth = 28;
/// Precinct exponent that means: not partitioned in this direction.
inline constexpr std::int32_t kWholePrecinct = 15;

/// Bytes of a component's index in a segment.
constexpr int ComponentIndexBytes(std::int32_t numComponents) {
  return numComponents < 257 ? 1 : 2;
}

// Enumerated colour spaces.
inline constexpr std::uint32_t kSpaceCMYK = 12;
inline constexpr std::uint32_t kSpaceCIELab = 14;
inline constexpr std::uint32_t kSpaceSRGB = 16;
inline constexpr std::uint32_t kSpaceGrey = 17;
inline constexpr std::uint32_t kSpaceSYCC = 18;
inline constexpr std::uint32_t kSpaceCIEJab = 19;
/// An encoder writes these two as CIELab and CIEJab without parameters, which means the defaults.
inline constexpr std::uint32_t kSpacePlainCIELab = 50, kSpacePlainCIEJab = 51;
/// The same two spaces in KelCIEParams::kind.
inline constexpr std::uint32_t kKindCIELab = 1, kKindCIEJab = 2;
/// KelCIEParams::illuminantKind.
inline constexpr std::uint32_t kIlluminantCode = 1, kIlluminantTemperature = 2;

// KelEncOpt::RateMode.
inline constexpr std::int32_t kRateModeUnset = 0;    ///< a decoder's, counting the bytes decoded
inline constexpr std::int32_t kRateModeOfFile = 3;   ///< a decoder's, with the size of boxed data
inline constexpr std::int32_t kRateModeEncoder = 5;  ///< an encoder's; previews show what it does

/// A box type from its four characters.
constexpr std::uint32_t BoxType(const char (&text)[5]) {
  std::uint32_t type = 0;
  for (int i = 0; i < 4; ++i) type = type << 8 | static_cast<std::uint8_t>(text[i]);
  return type;
}

}  // namespace kel::format

#endif
