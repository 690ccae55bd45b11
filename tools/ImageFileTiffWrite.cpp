// TIFF, written through libtiff: strips of pixels, compressed with Deflate; plain TIFF where its
// positions reach, else the form with positions of 64 bits.
//
// Depths that do not fill bytes are packed, most significant bit first, as TIFF says for any
// depth.
#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>

#include <algorithm>
#include <bit>
#include <cstring>

#include "Exif.hpp"
#include "TiffFile.hpp"

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;
using host::ChannelRole;
using host::Error;
using host::Failure;
using host::Image;

constexpr std::uint32_t kStripBytes = 65536;
constexpr std::uint64_t kMostClassicBytes = 0xF0000000;  // positions of plain TIFF have 32 bits

void SetTags(TIFF* tiff, const Image& image) {
  const unsigned depth = image.planes[0].Depth();
  const unsigned colours = host::NumColours(image);
  const bool wholeBytes = depth == 8 || depth == 16;
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, image.width);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, image.height);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, depth);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<unsigned>(image.planes.size()));
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_ORIENTATION, OrientationOf(image));
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC,
               image.palette  ? PHOTOMETRIC_PALETTE
               : colours == 3 ? PHOTOMETRIC_RGB
                              : PHOTOMETRIC_MINISBLACK);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  if (wholeBytes && !image.palette) {
    TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
  }
  std::vector<std::uint16_t> extra;
  for (std::size_t c = colours; c < image.planes.size(); ++c) {
    const ChannelRole role = image.planes[c].role;
    extra.push_back(role == ChannelRole::kOpacity                ? EXTRASAMPLE_UNASSALPHA
                    : role == ChannelRole::kPremultipliedOpacity ? EXTRASAMPLE_ASSOCALPHA
                                                                 : EXTRASAMPLE_UNSPECIFIED);
  }
  if (!extra.empty()) {
    TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, static_cast<unsigned>(extra.size()), extra.data());
  }
}

void SetColourMap(TIFF* tiff, const Image& image) {
  const std::size_t count = std::size_t{1} << image.planes[0].Depth();
  std::vector<std::uint16_t> maps[3];
  for (std::size_t c = 0; c < 3; ++c) {
    const host::Palette::Column& column = image.palette->columns[c];
    const std::uint64_t most = UINT32_MAX >> (32 - column.depth);
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint64_t entry = i < column.entries.size() ? column.entries[i] : 0;
      maps[c].push_back(static_cast<std::uint16_t>((entry * 65535 + most / 2) / most));
    }
  }
  TIFFSetField(tiff, TIFFTAG_COLORMAP, maps[0].data(), maps[1].data(), maps[2].data());
}

void SetMetadata(TIFF* tiff, const Image& image) {
  if (!image.iccProfile.empty()) {
    TIFFSetField(tiff, TIFFTAG_ICCPROFILE, static_cast<std::uint32_t>(image.iccProfile.size()),
                 image.iccProfile.data());
  }
  if (const std::string* xmp = FindXmp(image)) {
    TIFFSetField(tiff, TIFFTAG_XMLPACKET, static_cast<std::uint32_t>(xmp->size()), xmp->data());
  }
  if (image.resolution) {
    TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    TIFFSetField(tiff, TIFFTAG_XRESOLUTION, image.resolution->x);
    TIFFSetField(tiff, TIFFTAG_YRESOLUTION, image.resolution->y);
  }
}

/// A field that libtiff need not know.
void SetField(TIFF* tiff, const ExifField& field, bool bigEndian) {
  const TIFFField* known = TIFFFindField(tiff, field.tag, TIFF_ANY);
  if (field.tag == TIFFTAG_ORIENTATION) return;
  if (field.type == TIFF_ASCII) {
    const std::string text(field.data.begin(), field.data.end());
    if (known != nullptr && TIFFFieldDataType(known) == TIFF_ASCII && !TIFFFieldPassCount(known)) {
      TIFFSetField(tiff, field.tag, text.c_str());
      return;
    }
  }
  if (known != nullptr) return;
  char name[] = "EXIF";
  const TIFFFieldInfo info = {field.tag,
                              TIFF_VARIABLE2,
                              TIFF_VARIABLE2,
                              static_cast<TIFFDataType>(field.type),
                              FIELD_CUSTOM,
                              1,
                              1,
                              name};
  TIFFMergeFieldInfo(tiff, &info, 1);
  const bool isRatio = field.type == TIFF_RATIONAL || field.type == TIFF_SRATIONAL;
  const auto count = static_cast<std::uint32_t>(field.count);
  const Bytes values = NativeValues(field, bigEndian, isRatio ? 4 : ExifValueBytes(field.type));
  if (!isRatio) {
    TIFFSetField(tiff, field.tag, count, values.data());
    return;
  }
  std::vector<float> ratios;
  for (std::size_t i = 0; i < count; ++i) {
    std::int32_t signedPair[2];
    std::memcpy(signedPair, &values[8 * i], 8);
    const bool isSigned = field.type == TIFF_SRATIONAL;
    const auto number = [&](std::int32_t word) {
      return isSigned ? double{1.0} * word : double{1.0} * static_cast<std::uint32_t>(word);
    };
    const double below = number(signedPair[1]);
    ratios.push_back(static_cast<float>(below == 0 ? 0 : number(signedPair[0]) / below));
  }
  TIFFSetField(tiff, field.tag, count, ratios.data());
}

/// IPTC data are bytes; where libtiff takes them for words, it brings these in order.
void SetIptc(TIFF* tiff, ByteView iptc, bool bigEndian) {
  const TIFFField* field = TIFFFieldWithTag(tiff, TIFFTAG_RICHTIFFIPTC);
  if (field != nullptr && TIFFFieldDataType(field) != TIFF_LONG) {
    TIFFSetField(tiff, TIFFTAG_RICHTIFFIPTC, static_cast<std::uint32_t>(iptc.size()), iptc.data());
    return;
  }
  ExifField words;
  words.data.assign(iptc.begin(), iptc.end());
  words.data.resize((iptc.size() + 3) / 4 * 4);
  words.data = NativeValues(words, bigEndian, 4);
  TIFFSetField(tiff, TIFFTAG_RICHTIFFIPTC, static_cast<std::uint32_t>(words.data.size() / 4),
               words.data.data());
}

class TiffSink final : public host::RowSink {
 public:
  explicit TiffSink(host::Sink& sink) { file_.sink = &sink; }

  void Begin(const Image& description) override {
    CheckFits(description, {.format = "TIFF",
                            .mostDepth = 16,
                            .opacity = true,
                            .premultiplied = true,
                            .otherChannels = true});
    CopyDescription(description, image_);
    const std::uint64_t bytes = std::uint64_t{host::RowBytes(image_)} * image_.height;
    const bool isBig = bytes > kMostClassicBytes;
    const ExifTree exif = ReadExif(FindExif(image_));
    const bool bigEndian =
        exif.IsEmpty() ? std::endian::native == std::endian::big : exif.bigEndian;
    handle_ = OpenHandle(file_,
                         (std::string("w") + (isBig ? "8" : "") + (bigEndian ? "b" : "l")).c_str());
    if (!handle_) Refuse();
    TIFF* tiff = handle_.get();
    PutExif(exif, isBig, bigEndian);
    SetTags(tiff, image_);
    if (image_.palette) SetColourMap(tiff, image_);
    SetMetadata(tiff, image_);
    rowSamples_ = std::size_t{image_.width} * image_.planes.size();
    packed_.resize(host::PackedRowBytes(rowSamples_, image_.planes[0].Depth()));
    const auto rows =
        static_cast<std::uint32_t>(kStripBytes / std::max<std::size_t>(packed_.size(), 1));
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, std::clamp(rows, 1U, image_.height));
  }

  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override {
    const host::Plane& plane = image_.planes[0];
    for (; count > 0; --count, ++nextRow_, rows += strideBytes) {
      host::WithSampleType(plane.BytesPerSample(), [&](auto sample) {
        host::PackSamples(reinterpret_cast<const decltype(sample)*>(rows), rowSamples_,
                          plane.Depth(), packed_.data());
      });
      if (TIFFWriteScanline(handle_.get(), packed_.data(), nextRow_, 0) < 0) Refuse();
    }
  }

  void Finish() override {
    const bool written = TIFFFlush(handle_.get()) != 0;
    handle_.reset();
    if (!written || file_.message[0] != 0 || file_.thrown) Refuse();
    file_.sink->Write(file_.held);
    file_.sink->Finish();
  }

 private:
  /// EXIF fields stand in the byte order of the file, behind its header.
  void PutExif(const ExifTree& exif, bool isBig, bool bigEndian) {
    TIFF* tiff = handle_.get();
    const ExifPart part = WriteExifPart(exif, isBig ? 16 : 8, isBig);
    file_.at = file_.Size();
    PutTiffBytes(file_, part.bytes);
    for (const ExifField& field : exif.image) SetField(tiff, field, bigEndian);
    if (part.photo != 0) TIFFSetField(tiff, TIFFTAG_EXIFIFD, part.photo);
    if (part.gps != 0) TIFFSetField(tiff, TIFFTAG_GPSIFD, part.gps);
    const ByteView iptc = FindIptc(image_);
    if (!iptc.empty()) SetIptc(tiff, iptc, bigEndian);
    if (!image_.comment.empty() && !exif.Has(TIFFTAG_IMAGEDESCRIPTION)) {
      TIFFSetField(tiff, TIFFTAG_IMAGEDESCRIPTION, image_.comment.c_str());
    }
  }

  [[noreturn]] void Refuse() {
    if (file_.thrown) std::rethrow_exception(file_.thrown);
    throw Error(Failure::kOutput, std::string("cannot be written as TIFF: ") + file_.message);
  }

  Image image_;  ///< without samples
  TiffFile file_;
  TiffHandle handle_{nullptr, TIFFClose};
  std::size_t rowSamples_ = 0;
  std::uint32_t nextRow_ = 0;
  Bytes packed_;
};

}  // namespace

std::unique_ptr<host::RowSink> MakeTiff(host::Sink& sink) {
  return std::make_unique<TiffSink>(sink);
}

}  // namespace kel::tool
