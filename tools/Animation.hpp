// The pictures of an animation as they are seen: each is laid on what those before have left.
#ifndef KEL_TOOLS_ANIMATION_HPP
#define KEL_TOOLS_ANIMATION_HPP

#include <kel/host/image.hpp>

#include <cstdint>

namespace kel::tool {

/// A picture of an animation and its place on the canvas.
struct AnimationFrame {
  enum class Afterwards { kStays, kIsCleared, kIsTakenBack };

  host::Image image;  ///< grey or RGB, perhaps with opacity, without a palette
  std::uint32_t x = 0, y = 0;
  bool over = false;  ///< laid over what is there by its opacity, not in place of it
  Afterwards afterwards = Afterwards::kStays;  ///< its place, when the next one comes
};

class AnimationCanvas {
 public:
  AnimationCanvas(std::uint32_t width, std::uint32_t height) : width_(width), height_(height) {}
  /// The frames have the same channels but for opacity, and the same depth. Throws Error (kInput)
  /// when they have not, or when one reaches beyond the canvas.
  void Put(AnimationFrame frame);
  /// What is seen now, with all that the last frame has beside its samples. It has opacity when a
  /// frame had, or the canvas is not covered. The canvas is empty afterwards.
  host::Image Take();

 private:
  void FinishLast();

  std::uint32_t width_, height_;
  host::Image canvas_;  ///< its last plane is opacity; no planes before the first frame
  AnimationFrame last_;
  host::Image before_;  ///< what the last frame covers, when it is to be taken back
  bool hasOpacity_ = false;
};

}  // namespace kel::tool

#endif
