// Everything that can be told about a file or code stream without decoding samples.
#ifndef KEL_HOST_PROBE_HPP
#define KEL_HOST_PROBE_HPP

#include "language.hpp"

#include <string>
#include <vector>

#include "image.hpp"
#include "streams.hpp"

namespace kel::host {

struct Info {
  struct Component {
    std::uint32_t width = 0, height = 0;
    unsigned depth = 0;
    std::uint32_t xStep = 1, yStep = 1;
    ChannelRole role = ChannelRole::kColour;
    unsigned colour = 0;  ///< as Plane::colour
    /// What the file's boxes say; 0 when they say nothing. The depth counts that the code stream
    /// gives, with which the samples were coded.
    unsigned boxDepth = 0;
    bool boxSigned = false;
  };
  /// Of lightness and the two chroma channels.
  struct CieParameters {
    std::array<std::uint32_t, 3> ranges{}, offsets{};
    std::uint32_t illuminant = 0;   ///< four characters as a number; 0x443530 is D50; 0 when none
    std::uint32_t temperature = 0;  ///< kelvin, where it stands for the illuminant
  };
  struct ColourSpecification {
    unsigned method = 0, precedence = 0, approximation = 0;
    std::uint32_t space = 0;           ///< method 1
    std::optional<CieParameters> cie;  ///< of CIELab and CIEJab
    std::uint64_t iccBytes = 0;        ///< methods 2 and 3
  };
  struct ChannelDefinition {
    std::int32_t channel = 0, type = 0, association = 0;
  };
  struct TilePart {
    std::uint32_t tile = 0;
    unsigned part = 0;
    std::uint64_t offset = 0;  ///< from the first byte of the code stream
    std::uint64_t length = 0;
  };
  struct Uuid {
    std::array<std::uint8_t, 16> id{};
    std::uint64_t bytes = 0;
  };

  std::uint64_t bytes = 0;
  unsigned flavour = 0;  ///< first byte of every marker: 0xAB or 0xFF
  bool boxed = false;    ///< a file of boxes, not a bare code stream
  std::uint64_t codeStreamOffset = 0;
  std::uint32_t width = 0, height = 0, originX = 0, originY = 0;
  std::uint32_t tileWidth = 0, tileHeight = 0, tilesAcross = 0, tilesDown = 0;
  std::vector<Component> components;
  unsigned levels = 0, layers = 0, order = 0;  ///< order: 0 LRCP, 1 RLCP, 2 RPCL, 3 PCRL, 4 CPRL
  bool lossless = false;                       ///< the reversible 5/3 filter, else the 9/7 filter
  bool colourTransform = false;
  std::vector<ColourSpecification> colours;
  std::vector<ChannelDefinition> channels;
  std::vector<std::uint32_t> chromaKey;
  std::optional<Palette> palette;
  std::optional<Resolution> resolution;
  std::string comment;
  std::vector<std::uint64_t> xmlBytes;
  std::vector<Uuid> uuids;
  std::vector<TilePart> tileParts;
  bool tilePartsRegular = false;  ///< they follow each other to the end as their lengths say
};

/// Reads headers and boxes, and walks the tile-parts. Of a source that can be read anywhere, such
/// as a file, it reads from the beginning, and little more than the headers; others are read whole.
/// Throws Error (kInput, kMemory).
Info Probe(Source& source);

}  // namespace kel::host

#endif
