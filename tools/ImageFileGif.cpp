// GIF, through giflib; read only. Pictures of an animation on their canvas.
#include <gif_lib.h>
#include <kel/host/errors.hpp>
#include <kel/host/limits.hpp>
#include <kel/host/session.hpp>

#include <exception>
#include <optional>

#include "Animation.hpp"
#include "ImageFile.hpp"

namespace kel::tool {
namespace {

using host::Error;
using host::Failure;

constexpr unsigned kOpaque = 255;

class GifSource final : public host::RowSource {
 public:
  GifSource(host::BufferedSource& source, const ReadSettings& settings)
      : source_(source), warn_(settings.warn), page_(settings.page) {
    int code = 0;
    gif_ = DGifOpen(this, OnRead, &code);
    if (gif_ == nullptr) Refuse(code);
    try {
      ReadFront();
    } catch (...) {
      DGifCloseFile(gif_, nullptr);
      throw;
    }
  }
  ~GifSource() override { DGifCloseFile(gif_, nullptr); }
  GifSource(const GifSource&) = delete;
  GifSource& operator=(const GifSource&) = delete;

  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    if (nextRow_ == 0) ReadIndices();
    for (; count > 0; --count, ++nextRow_, to += strideBytes) PutRow(to);
    if (nextRow_ == description_.height && page_ == 0 && NextIsPicture()) {
      warn_(kOnlyFirstOfAnimation);
    }
  }
  /// The page wanted, behind the first, as it is seen; nothing when there are fewer. Instead of
  /// Read.
  std::optional<host::Image> ReadPage() {
    AnimationCanvas canvas(description_.width, description_.height);
    for (unsigned page = 1;; ++page) {
      canvas.Put(ReadFrame());
      if (page == page_) return canvas.Take();
      transparent_ = NO_TRANSPARENT_COLOR;
      disposal_ = DISPOSAL_UNSPECIFIED;
      if (!NextIsPicture()) return {};
      ReadDescriptor();
    }
  }
  bool HoldsPicture() const override { return true; }

 private:
  static int OnRead(GifFileType* gif, GifByteType* to, int count) {
    auto& self = *static_cast<GifSource*>(gif->UserData);
    try {
      return static_cast<int>(self.source_.Read({to, static_cast<std::size_t>(count)}));
    } catch (...) {
      self.thrown_ = std::current_exception();
      return 0;
    }
  }

  [[noreturn]] void Refuse(int code) const {
    if (thrown_) std::rethrow_exception(thrown_);
    const char* text = GifErrorString(code);
    throw Error(Failure::kInput,
                std::string("damaged GIF file: ") + (text == nullptr ? "cut off" : text));
  }
  void Require(int result) const {
    if (result == GIF_ERROR) Refuse(gif_->Error);
  }

  /// Goes on to the next picture; false at the end. Comments and transparency on the way are kept.
  bool NextIsPicture() {
    for (;;) {
      GifRecordType record = UNDEFINED_RECORD_TYPE;
      if (DGifGetRecordType(gif_, &record) == GIF_ERROR) {
        if (thrown_) Refuse(gif_->Error);
        return false;
      }
      if (record == IMAGE_DESC_RECORD_TYPE) return true;
      if (record != EXTENSION_RECORD_TYPE) return false;
      ReadExtension();
    }
  }

  void ReadExtension() {
    int code = 0;
    GifByteType* block = nullptr;
    Require(DGifGetExtension(gif_, &code, &block));
    while (block != nullptr) {
      GraphicsControlBlock control;
      if (code == GRAPHICS_EXT_FUNC_CODE && DGifExtensionToGCB(block[0], block + 1, &control)) {
        transparent_ = control.TransparentColor;
        disposal_ = control.DisposalMode;
      } else if (code == COMMENT_EXT_FUNC_CODE) {
        description_.comment.append(reinterpret_cast<const char*>(block + 1), block[0]);
      }
      Require(DGifGetExtensionNext(gif_, &block));
    }
  }

  void ReadDescriptor() {
    Require(DGifGetImageDesc(gif_));
    const GifImageDesc& frame = gif_->Image;
    const bool fits = frame.Left + frame.Width <= gif_->SWidth &&
                      frame.Top + frame.Height <= gif_->SHeight && frame.Width > 0 &&
                      frame.Height > 0;
    colours_ = frame.ColorMap != nullptr ? frame.ColorMap : gif_->SColorMap;
    if (!fits || colours_ == nullptr) throw Error(Failure::kInput, "a damaged GIF file");
  }

  void ReadFront() {
    if (!NextIsPicture()) throw Error(Failure::kInput, "a GIF file without a picture");
    std::string comment = std::move(description_.comment);
    ReadDescriptor();
    const GifImageDesc& frame = gif_->Image;
    const auto side = [](GifWord word) { return static_cast<std::uint32_t>(word); };
    const bool covers = frame.Width == gif_->SWidth && frame.Height == gif_->SHeight;
    expands_ = transparent_ != NO_TRANSPARENT_COLOR || !covers;
    description_ = host::DescribeNewImage(side(gif_->SWidth), side(gif_->SHeight), expands_ ? 3 : 1,
                                          8, expands_);
    description_.comment = std::move(comment);
    description_.colourSpace = host::ColourSpace::kSrgb;
    if (expands_) return;
    host::Palette& palette = description_.palette.emplace();
    for (const auto part : {&GifColorType::Red, &GifColorType::Green, &GifColorType::Blue}) {
      host::Palette::Column& column = palette.columns.emplace_back();
      for (int i = 0; i < colours_->ColorCount; ++i)
        column.entries.push_back(colours_->Colors[i].*part);
    }
  }

  /// All of the picture, whose rows may stand in four passes.
  void ReadIndices() {
    constexpr std::uint32_t kFirst[] = {0, 4, 2, 1}, kStep[] = {8, 8, 4, 2};
    const auto width = static_cast<std::size_t>(gif_->Image.Width);
    const auto height = static_cast<std::uint32_t>(gif_->Image.Height);
    room_ = host::MemoryReservation(width * height, "the picture of a GIF file");
    indices_ = host::SampleBuffer(width * height);
    const bool interlaced = gif_->Image.Interlace;
    for (int pass = 0; pass < (interlaced ? 4 : 1); ++pass) {
      for (std::uint32_t y = interlaced ? kFirst[pass] : 0; y < height;
           y += interlaced ? kStep[pass] : 1) {
        host::CheckTime();
        std::uint8_t* row = indices_.Data() + y * width;
        Require(DGifGetLine(gif_, row, gif_->Image.Width));
        for (std::size_t x = 0; x < width; ++x) {
          if (row[x] < colours_->ColorCount) continue;
          throw Error(Failure::kInput, "damaged GIF file: a colour that its table does not have");
        }
      }
    }
  }

  AnimationFrame ReadFrame() {
    ReadIndices();
    const GifImageDesc& desc = gif_->Image;
    const auto width = static_cast<std::uint32_t>(desc.Width);
    AnimationFrame frame;
    frame.image = host::MakeImage(width, static_cast<std::uint32_t>(desc.Height), 3, 8,
                                  transparent_ != NO_TRANSPARENT_COLOR);
    frame.image.colourSpace = host::ColourSpace::kSrgb;
    frame.image.comment = description_.comment;
    frame.x = static_cast<std::uint32_t>(desc.Left);
    frame.y = static_cast<std::uint32_t>(desc.Top);
    frame.over = true;
    using Afterwards = AnimationFrame::Afterwards;
    frame.afterwards = disposal_ == DISPOSE_BACKGROUND ? Afterwards::kIsCleared
                       : disposal_ == DISPOSE_PREVIOUS ? Afterwards::kIsTakenBack
                                                       : Afterwards::kStays;
    for (std::size_t c = 0; c < frame.image.planes.size(); ++c) {
      for (std::uint32_t y = 0; y < frame.image.height; ++y) {
        const std::uint8_t* from = indices_.Data() + std::size_t{y} * width;
        auto* to = frame.image.planes[c].Row<std::uint8_t>(y);
        for (std::uint32_t x = 0; x < width; ++x) {
          const GifColorType& colour = colours_->Colors[from[x]];
          to[x] = c == 0   ? colour.Red
                  : c == 1 ? colour.Green
                  : c == 2 ? colour.Blue
                           : OpacityOf(from[x]);
        }
      }
    }
    return frame;
  }

  std::uint8_t OpacityOf(std::uint8_t index) const { return index == transparent_ ? 0 : kOpaque; }

  void PutRow(std::uint8_t* to) const {
    const auto width = static_cast<std::size_t>(gif_->Image.Width);
    const std::int64_t y = std::int64_t{nextRow_} - gif_->Image.Top;
    const bool inside = y >= 0 && y < gif_->Image.Height;
    const std::uint8_t* row =
        inside ? indices_.Data() + static_cast<std::size_t>(y) * width : nullptr;
    if (!expands_) {
      std::copy_n(row, width, to);
      return;
    }
    std::fill_n(to, 4 * std::size_t{description_.width}, std::uint8_t{0});
    if (!inside) return;
    to += 4 * static_cast<std::size_t>(gif_->Image.Left);
    for (std::size_t x = 0; x < width; ++x, to += 4) {
      const GifColorType& colour = colours_->Colors[row[x]];
      to[0] = colour.Red;
      to[1] = colour.Green;
      to[2] = colour.Blue;
      to[3] = OpacityOf(row[x]);
    }
  }

  host::BufferedSource& source_;
  Warn warn_;
  unsigned page_;
  std::exception_ptr thrown_;
  GifFileType* gif_ = nullptr;
  const ColorMapObject* colours_ = nullptr;
  int transparent_ = NO_TRANSPARENT_COLOR, disposal_ = DISPOSAL_UNSPECIFIED;
  bool expands_ = false;  ///< to RGB and opacity
  host::MemoryReservation room_;
  host::SampleBuffer indices_;
  std::uint32_t nextRow_ = 0;
};

}  // namespace

std::unique_ptr<host::RowSource> OpenGif(host::BufferedSource& source,
                                         const ReadSettings& settings) {
  auto gif = std::make_unique<GifSource>(source, settings);
  if (settings.page <= 1) return gif;
  std::optional<host::Image> page = gif->ReadPage();
  if (!page) return nullptr;
  return std::make_unique<host::ImageRowSource>(std::move(*page));
}

}  // namespace kel::tool
