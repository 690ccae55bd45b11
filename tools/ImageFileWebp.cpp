// WebP, through libwebp; read only, and whole. Pictures of an animation on their canvas.
#include <webp/decode.h>
#include <webp/demux.h>
#include <kel/host/errors.hpp>
#include <kel/host/limits.hpp>
#include <kel/host/session.hpp>

#include <algorithm>

#include "ImageFile.hpp"
#include "Metadata.hpp"

namespace kel::tool {
namespace {

using host::ByteView;
using host::Error;
using host::Failure;

[[noreturn]] void RefuseDamaged() {
  throw Error(Failure::kInput, "damaged WebP file");
}

class WebpSource final : public host::RowSource {
 public:
  WebpSource(host::BufferedSource& source, const ReadSettings& settings)
      : warn_(settings.warn), page_(settings.page) {
    file_ = host::ReadAll(source, bytes_);
    if (WebPGetFeatures(file_.data(), file_.size(), &features_) != VP8_STATUS_OK) RefuseDamaged();
    const bool opacity = features_.has_alpha != 0 || features_.has_animation != 0;
    description_ =
        host::DescribeNewImage(static_cast<std::uint32_t>(features_.width),
                               static_cast<std::uint32_t>(features_.height), 3, 8, opacity);
    ReadMetadata();
  }

  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    const std::size_t rowBytes = host::RowBytes(description_);
    if (nextRow_ == 0) Decode(rowBytes);
    for (; count > 0; --count, ++nextRow_, to += strideBytes) {
      std::copy_n(samples_.Data() + nextRow_ * rowBytes, rowBytes, to);
    }
  }
  bool HoldsPicture() const override { return true; }
  std::uint32_t NumPictures() const { return numPictures_; }

 private:
  void ReadMetadata() {
    const WebPData data{file_.data(), file_.size()};
    const std::unique_ptr<WebPDemuxer, void (*)(WebPDemuxer*)> demuxer(WebPDemux(&data),
                                                                       WebPDemuxDelete);
    if (!demuxer) return;  // decoding tells what is wrong
    const auto chunk = [&](const char* name) {
      WebPChunkIterator found{};
      ByteView bytes;
      if (WebPDemuxGetChunk(demuxer.get(), name, 1, &found) != 0) {
        bytes = {found.chunk.bytes, found.chunk.size};
      }
      WebPDemuxReleaseChunkIterator(&found);
      return bytes;  // of the file
    };
    numPictures_ = WebPDemuxGetI(demuxer.get(), WEBP_FF_FRAME_COUNT);
    const ByteView profile = chunk("ICCP"), exif = chunk("EXIF"), xmp = chunk("XMP ");
    description_.iccProfile.assign(profile.begin(), profile.end());
    AddExif(description_, exif);
    AddXmp(description_, std::string(xmp.begin(), xmp.end()));
  }

  void Decode(std::size_t rowBytes) {
    const std::size_t size = rowBytes * description_.height;
    room_ = host::MemoryReservation(bytes_.size() + 2 * size, "the picture of a WebP file");
    samples_ = host::SampleBuffer(size);
    if (features_.has_animation != 0) {
      DecodePage(size);
      return;
    }
    auto* const decode = features_.has_alpha != 0 ? WebPDecodeRGBAInto : WebPDecodeRGBInto;
    if (decode(file_.data(), file_.size(), samples_.Data(), size, static_cast<int>(rowBytes)) ==
        nullptr) {
      RefuseDamaged();
    }
  }

  void DecodePage(std::size_t size) {
    const WebPData data{file_.data(), file_.size()};
    const std::unique_ptr<WebPAnimDecoder, void (*)(WebPAnimDecoder*)> decoder(
        WebPAnimDecoderNew(&data, nullptr), WebPAnimDecoderDelete);
    std::uint8_t* canvas = nullptr;
    int time = 0;
    for (unsigned page = 0; page < std::max(page_, 1U); ++page) {
      host::CheckTime();
      if (!decoder || WebPAnimDecoderGetNext(decoder.get(), &canvas, &time) == 0) RefuseDamaged();
    }
    std::copy_n(canvas, size, samples_.Data());
    if (page_ == 0 && WebPAnimDecoderHasMoreFrames(decoder.get()) != 0) {
      warn_(kOnlyFirstOfAnimation);
    }
  }

  Warn warn_;
  unsigned page_;
  std::uint32_t numPictures_ = 1;
  host::Bytes bytes_;  ///< unless the source has the file in memory
  ByteView file_;
  WebPBitstreamFeatures features_{};
  host::MemoryReservation room_;
  host::SampleBuffer samples_;
  std::uint32_t nextRow_ = 0;
};

}  // namespace

std::unique_ptr<host::RowSource> OpenWebp(host::BufferedSource& source,
                                          const ReadSettings& settings) {
  auto webp = std::make_unique<WebpSource>(source, settings);
  if (settings.page > webp->NumPictures()) return nullptr;
  return webp;
}

}  // namespace kel::tool
