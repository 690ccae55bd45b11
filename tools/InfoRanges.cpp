// Listing byte ranges, by the index of an opened picture.
#include "InfoRanges.hpp"

#include <kel/host/picture.hpp>

#include <iostream>

namespace kel::tool {
namespace {

constexpr std::size_t kShownRanges = 4;

/// Calls visit(tile, reduce, ranges) for every resolution of the tiles of which there is something:
/// a header can announce many more.
template <class Visit>
void EachResolution(host::Picture& picture, Visit&& visit) {
  const std::uint32_t numTiles = picture.TilesAcross() * picture.TilesDown();
  for (std::uint32_t tile = 0; tile < numTiles; ++tile) {
    if (picture.PlacesOf(tile).empty()) continue;
    for (unsigned reduce = 0; reduce <= picture.Levels(); ++reduce) {
      visit(tile, reduce, picture.BytesOf(tile, reduce));
    }
  }
}

std::uint64_t Sum(const std::vector<host::ByteRange>& ranges) {
  std::uint64_t bytes = 0;
  for (const host::ByteRange& range : ranges) bytes += range.to - range.from;
  return bytes;
}

}  // namespace

void PrintRanges(host::RangeSource& file) {
  host::Picture picture(file);
  std::cout << "front: bytes 0 to " << picture.FrontBytes() << '\n';
  EachResolution(
      picture, [](std::uint32_t tile, unsigned reduce, const std::vector<host::ByteRange>& ranges) {
        std::cout << "tile " << tile << " reduced " << reduce << ": " << Sum(ranges) << " bytes:";
        for (std::size_t i = 0; i < std::min(ranges.size(), kShownRanges); ++i) {
          std::cout << ' ' << ranges[i].from << '-' << ranges[i].to;
        }
        if (ranges.size() > kShownRanges) {
          std::cout << " and " << ranges.size() - kShownRanges << " more";
        }
        std::cout << '\n';
      });
}

nlohmann::ordered_json RangesJson(host::RangeSource& file) {
  host::Picture picture(file);
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  EachResolution(picture, [&](std::uint32_t tile, unsigned reduce,
                              const std::vector<host::ByteRange>& ranges) {
    nlohmann::ordered_json pairs = nlohmann::ordered_json::array();
    for (const host::ByteRange& range : ranges) pairs.push_back({range.from, range.to});
    list.push_back({{"tile", tile}, {"reduce", reduce}, {"bytes", Sum(ranges)}, {"ranges", pairs}});
  });
  return {{"front_bytes", picture.FrontBytes()}, {"tiles", list}};
}

}  // namespace kel::tool
