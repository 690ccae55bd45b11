// Where decoded samples go: the planes of the whole image, of which an image object that decodes
// some of the tiles fills a rectangle.
//
// Up to 8 and up to 16 bits the library writes into the planes itself. It leaves words of 9 to 15
// bits shifted up, and samples of more than 16 bits in its own planes; FinishPlanes makes them
// what a Plane promises. Where the boxes of a file give depths other than the code stream's, the
// library scales from those. The samples were coded with the code stream's; the kit delivers them
// so, from the library's own planes.
#ifndef KEL_HOST_FRAME_TARGET_HPP
#define KEL_HOST_FRAME_TARGET_HPP

#include <vector>

#include "Library.hpp"
#include "kel/host/image.hpp"

namespace kel::host {

/// The samples of one component on the grid: x0 and y0 inclusive, x1 and y1 exclusive.
struct ComponentArea {
  std::int64_t x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  std::uint32_t xStep = 1, yStep = 1;
  unsigned depth = 8;
};

/// An edge divided by two so many times, rounded up.
std::int64_t HalvedEdge(std::int64_t edge, unsigned times);

/// Areas of all components of an image after so many halvings by the decoder.
std::vector<ComponentArea> ComponentAreas(const KelImageGeometry& geometry, unsigned halvings);

/// Bytes of the planes for these areas, the planes without samples, and with them.
std::uint64_t PlaneBytes(const std::vector<ComponentArea>& areas);
std::vector<Plane> DescribePlanes(const std::vector<ComponentArea>& areas);
std::vector<Plane> MakePlanes(const std::vector<ComponentArea>& areas);

/// The request for one frame of an image object, into a rectangle of the planes.
class FrameTarget {
 public:
  /// whole: areas of the planes. part: areas of the image object that will decode. Throws Error
  /// (kInput) unless these are the same components and lie inside whole.
  FrameTarget(const std::vector<ComponentArea>& whole, const std::vector<ComponentArea>& part,
              std::span<const KelIndexComponent> components, bool colourTransform);

  /// For GetNextFrame, delivering into planes.
  KelFrameData* Frame(std::vector<Plane>& planes);
  /// Whether the frame must leave the samples as they are for FinishPlanes.
  bool Raw() const { return raw_; }
  /// Call once after the last frame.
  void FinishPlanes(const KelImage& object, unsigned halvings, std::vector<Plane>& planes) const;

  /// Whether the planes are not as a Plane promises before they are finished.
  bool NeedsFinish() const;
  /// The same for one tile, from the planes of the frames into others: so these can be looked at
  /// between frames. part: the areas of the tile within the planes.
  void FinishTile(const KelImage& object, std::size_t tile, unsigned halvings,
                  const std::vector<ComponentArea>& part, const std::vector<Plane>& from,
                  std::vector<Plane>& to) const;

 private:
  const std::vector<ComponentArea>& whole_;
  const std::vector<ComponentArea>& part_;
  bool raw_ = false;
  std::vector<void*> buffers_;
  std::vector<KelLong> strides_, inDepths_, outDepths_, signs_;
  std::vector<double> most_, least_;
  KelFrameData frame_;
};

}  // namespace kel::host

#endif
