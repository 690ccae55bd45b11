// PNG, read through libpng (PngFile tells how its failures travel).
//
// Depths that PNG lacks are noted in the file; where all samples are of that form, they are scaled
// back, so such images survive exactly.
#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/session.hpp>

#include <algorithm>
#include <bit>
#include <cmath>
#include <csetjmp>

#include "PngFile.hpp"
#include "Text.hpp"

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;
using host::ChannelRole;
using host::Error;
using host::Failure;
using host::Image;

/// Chunks whose data are taken as they are: profiles, of which libpng would refuse some, and the
/// number of pictures.
const png_byte kRawChunks[] = "iCCP\0acTL";
constexpr int kNumRawChunks = 2;
constexpr std::size_t kMostComment = 65000;  // of the format

/// What the file says, as far as an image needs it.
struct PngReader {
  explicit PngReader(host::BufferedSource& from) : source(from) {}
  ~PngReader() { png_destroy_read_struct(&png, &info, nullptr); }

  host::BufferedSource& source;
  PngFailures failures;
  png_structp png = nullptr;
  png_infop info = nullptr;
  png_uint_32 width = 0, height = 0;
  int depth = 0, colourType = 0, passes = 1;
  std::size_t rowBytes = 0;
};

void ReadBytes(png_structp png, png_bytep to, png_size_t count) {
  auto& reader = *static_cast<PngReader*>(png_get_io_ptr(png));
  bool read = false;
  try {
    read = reader.source.ReadExactly({to, count});
  } catch (...) {
    reader.failures.thrown = std::current_exception();
  }
  if (!read) png_error(png, "the file is cut off");
}

bool ReadHeader(PngReader& r) {
  r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &r.failures, OnPngError, OnPngWarning);
  r.info = r.png == nullptr ? nullptr : png_create_info_struct(r.png);
  if (r.info == nullptr) return false;
  if (setjmp(png_jmpbuf(r.png)) != 0) return false;
  png_set_read_fn(r.png, &r, ReadBytes);
  png_set_user_limits(r.png, kMostSide, kMostSide);
  png_set_keep_unknown_chunks(r.png, PNG_HANDLE_CHUNK_ALWAYS, kRawChunks, kNumRawChunks);
  png_read_info(r.png, r.info);
  int interlace = 0;
  png_get_IHDR(r.png, r.info, &r.width, &r.height, &r.depth, &r.colourType, &interlace, nullptr,
               nullptr);
  if (std::endian::native == std::endian::little) png_set_swap(r.png);
  png_set_packing(r.png);
  r.passes = png_set_interlace_handling(r.png);
  png_read_update_info(r.png, r.info);
  r.rowBytes = png_get_rowbytes(r.png, r.info);
  return true;
}

/// One row, or with a row pointer for every row all of an interlaced image.
bool ReadRow(PngReader& r, png_bytep row) {
  if (setjmp(png_jmpbuf(r.png)) != 0) return false;
  png_read_row(r.png, row, nullptr);
  return true;
}

bool ReadAllRows(PngReader& r, png_bytepp rows) {
  if (setjmp(png_jmpbuf(r.png)) != 0) return false;
  png_read_image(r.png, rows);
  return true;
}

bool ReadEnd(PngReader& r) {
  if (setjmp(png_jmpbuf(r.png)) != 0) return false;
  png_read_end(r.png, r.info);
  return true;
}

void Require(const PngReader& reader, bool success) {
  if (success) return;
  if (reader.failures.thrown) std::rethrow_exception(reader.failures.thrown);
  throw Error(Failure::kInput, std::string("damaged PNG file: ") + reader.failures.message);
}

/// Pixels with an opacity behind them, which is none for the one colour that the file declares
/// transparent.
template <class Sample>
void AddOpacity(const Sample* pixels, std::size_t count, std::size_t channels, const Sample* key,
                Sample most, Sample* to) {
  for (std::size_t x = 0; x < count; ++x, pixels += channels) {
    bool matches = true;
    for (std::size_t c = 0; c < channels; ++c) {
      matches = matches && pixels[c] == key[c];
      *to++ = pixels[c];
    }
    *to++ = matches ? Sample{0} : most;
  }
}

/// The palette, with a fourth column where it has opacity.
host::Palette ReadPalette(const PngReader& reader) {
  png_colorp entries = nullptr;
  int count = 0;
  png_get_PLTE(reader.png, reader.info, &entries, &count);
  png_bytep opacity = nullptr;
  int opacityCount = 0;
  png_get_tRNS(reader.png, reader.info, &opacity, &opacityCount, nullptr);
  host::Palette palette;
  palette.columns.resize(opacityCount > 0 ? 4 : 3);
  for (int i = 0; i < count; ++i) {
    palette.columns[0].entries.push_back(entries[i].red);
    palette.columns[1].entries.push_back(entries[i].green);
    palette.columns[2].entries.push_back(entries[i].blue);
    if (opacityCount > 0) {
      palette.columns[3].entries.push_back(i < opacityCount ? opacity[i] : 255U);
    }
  }
  if (opacityCount > 0) palette.columns[3].role = ChannelRole::kOpacity;
  return palette;
}

/// The depth that the sBIT chunk notes for all channels; 0 without one or when they differ.
unsigned NotedDepth(const PngReader& reader) {
  png_color_8p bits = nullptr;
  if (png_get_sBIT(reader.png, reader.info, &bits) == 0) return 0;
  const bool colour = (reader.colourType & PNG_COLOR_MASK_COLOR) != 0;
  const bool opacity = (reader.colourType & PNG_COLOR_MASK_ALPHA) != 0;
  const unsigned depth = colour ? bits->red : bits->gray;
  const bool same = (!colour || (bits->green == depth && bits->blue == depth)) &&
                    (!opacity || bits->alpha == depth);
  return same ? depth : 0;
}

/// Brings the image back to the noted depth if that loses nothing.
void ApplyNotedDepth(Image& image, unsigned noted) {
  Image reduced = image;
  host::ChangeDepth(reduced, noted);
  Image restored = reduced;
  host::ChangeDepth(restored, image.planes[0].Depth());
  if (host::Compare(restored, image).identical) image.planes = std::move(reduced.planes);
}

/// The data of a chunk that libpng does not look into; nothing when there is none.
ByteView RawChunk(const PngReader& reader, std::string_view name) {
  png_unknown_chunkp chunks = nullptr;
  const int count = png_get_unknown_chunks(reader.png, reader.info, &chunks);
  for (int i = 0; i < count; ++i) {
    if (name == reinterpret_cast<const char*>(chunks[i].name)) {
      return {chunks[i].data, chunks[i].size};
    }
  }
  return {};
}

/// Profiles that stand in a text as digits.
void ReadHexText(std::string_view kind, std::string_view text, Image& image) {
  const Bytes bytes = FromHex(text);
  const std::string_view data(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (kind == "iptc") {
    AddIptc(image, data.starts_with("8BIM") ? IptcInBlocks(bytes) : ByteView(bytes));
  } else if (data.starts_with(std::string_view("Exif\0\0", 6))) {
    AddExif(image, ByteView(bytes).subspan(6));
  }
}

void ReadTexts(PngReader& reader, Image& image) {
  png_textp texts = nullptr;
  const int numTexts = png_get_text(reader.png, reader.info, &texts, nullptr);
  Texts others;
  for (int i = 0; i < numTexts; ++i) {
    const std::string_view keyword = texts[i].key;
    const std::string text = texts[i].text;
    if (keyword == kXmpKeyword) {
      AddXmp(image, text);
    } else if (keyword.starts_with(kHexKeyword)) {
      ReadHexText(keyword.substr(kHexKeyword.size()), text, image);
    } else if (keyword == kCommentKeyword && image.comment.empty() && text.size() < kMostComment) {
      image.comment = Utf8(text);
    } else {
      others.emplace_back(keyword, Utf8(text));
    }
  }
  SetTexts(image, others);
}

void ReadMetadata(PngReader& reader, const Warn& warn, Image& image) {
  image.iccProfile = ReadProfileChunk(RawChunk(reader, "iCCP"), warn);
  png_uint_32 x = 0, y = 0;
  int unit = 0;
  if (png_get_pHYs(reader.png, reader.info, &x, &y, &unit) != 0 && unit == PNG_RESOLUTION_METER) {
    image.resolution = {x / kInchesPerMetre, y / kInchesPerMetre};
  }
  png_bytep exif = nullptr;
  png_uint_32 exifBytes = 0;
  if (png_get_eXIf_1(reader.png, reader.info, &exifBytes, &exif) != 0) {
    AddExif(image, {exif, exifBytes});
  }
  ReadTexts(reader, image);
}

/// Names what images have no place for.
void WarnOfOthers(const PngReader& reader, const Warn& warn) {
  constexpr std::pair<png_uint_32, const char*> kOthers[] = {
      {PNG_INFO_bKGD, "background (bKGD)"}, {PNG_INFO_hIST, "histogram (hIST)"},
      {PNG_INFO_oFFs, "offset (oFFs)"},     {PNG_INFO_pCAL, "scale of values (pCAL)"},
      {PNG_INFO_sCAL, "scale (sCAL)"},      {PNG_INFO_sPLT, "suggested palette (sPLT)"}};
  std::string lost;
  for (const auto& [flag, name] : kOthers) {
    if (png_get_valid(reader.png, reader.info, flag) == 0) continue;
    lost += (lost.empty() ? "" : ", ") + std::string(name);
  }
  if (!lost.empty()) warn("left out: " + lost);
}

/// Tells when the file describes colours of its own by numbers, which images have no place for:
/// anything but the curve and the primaries of sRGB, as which samples without a profile are taken.
void WarnOfColours(const PngReader& reader, const host::Image& image, const Warn& warn) {
  constexpr double kGamma = 1 / 2.2, kTolerance = 0.01;
  constexpr double kChromaticities[] = {0.3127, 0.329, 0.64, 0.33, 0.3, 0.6, 0.15, 0.06};
  if (!image.iccProfile.empty() || png_get_valid(reader.png, reader.info, PNG_INFO_sRGB) != 0) {
    return;
  }
  double gamma = kGamma;
  double own[8];
  bool isOwn =
      png_get_gAMA(reader.png, reader.info, &gamma) != 0 && std::abs(gamma - kGamma) > kTolerance;
  if (png_get_cHRM(reader.png, reader.info, &own[0], &own[1], &own[2], &own[3], &own[4], &own[5],
                   &own[6], &own[7]) != 0) {
    for (int i = 0; i < 8; ++i) isOwn = isOwn || std::abs(own[i] - kChromaticities[i]) > kTolerance;
  }
  if (isOwn) {
    warn(
        "its gamma and primaries (gAMA, cHRM) are left out, and its colours taken as sRGB; "
        "--icc FILE gives them a profile");
  }
}

/// Whether a file that can be read anywhere has metadata behind its samples. In a pipe they would
/// be found too late, and are passed over.
bool HasLateMetadata(const host::Source& source) {
  constexpr std::size_t kHeader = 8, kChecksum = 4;  // around a chunk's data
  bool samples = false;
  std::uint8_t header[kHeader];
  for (std::uint64_t at = kHeader; source.Size() && at < *source.Size();) {
    if (source.ReadAt(at, header) < kHeader) return false;
    const std::string_view type(reinterpret_cast<const char*>(header) + 4, 4);
    samples = samples || type == "IDAT";
    const bool isMetadata = type == "eXIf" || type == "iTXt" || type == "tEXt" || type == "zTXt";
    if (samples && isMetadata) return true;
    at += kHeader + kChecksum + png_get_uint_32(header);
  }
  return false;
}

/// Rows as libpng reads them, with opacity made of a transparent colour or palette entries.
class PngSource final : public host::RowSource {
 public:
  PngSource(host::BufferedSource& source, const ReadSettings& settings)
      : reader_(source), warn_(settings.warn) {
    Require(reader_, ReadHeader(reader_));
    const bool colour = (reader_.colourType & PNG_COLOR_MASK_COLOR) != 0;
    const bool opacity = (reader_.colourType & PNG_COLOR_MASK_ALPHA) != 0;
    const bool indexed = (reader_.colourType & PNG_COLOR_MASK_PALETTE) != 0;
    if (indexed) palette_ = ReadPalette(reader_);
    expands_ = indexed && palette_.columns.size() == 4;
    if (!indexed) FindKey(colour ? 3 : 1, opacity);
    description_ = host::DescribeNewImage(
        reader_.width, reader_.height, colour && (!indexed || expands_) ? 3 : 1,
        expands_ ? 8U : static_cast<unsigned>(reader_.depth), opacity || expands_ || hasKey_);
    if (indexed) description_.colourSpace = host::ColourSpace::kSrgb;
    if (indexed && !expands_) description_.palette = palette_;
    ReadMetadata(reader_, warn_, description_);
    WarnOfOthers(reader_, warn_);
    WarnOfColours(reader_, description_, warn_);
    reader_.failures.complaints.Tell(warn_);
  }

  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    if (HoldsPicture() && nextRow_ == 0) ReadInterlaced();
    for (; count > 0; --count, ++nextRow_, to += strideBytes) {
      const bool direct = !expands_ && !hasKey_ && !HoldsPicture();
      if (!HoldsPicture()) {
        if (!direct && all_.Size() == 0) all_ = host::SampleBuffer(reader_.rowBytes);
        Require(reader_, ReadRow(reader_, direct ? to : all_.Data()));
      }
      if (!direct) Convert(all_.Data() + (HoldsPicture() ? nextRow_ * reader_.rowBytes : 0), to);
    }
    if (nextRow_ == reader_.height && !HoldsPicture()) Require(reader_, ReadEnd(reader_));
    reader_.failures.complaints.Tell(warn_);
  }

  bool HoldsPicture() const override { return reader_.passes > 1; }
  /// Everything beside the samples once more, when all rows have been read.
  void ReadLateMetadata(Image& image) {
    image.xml.clear();
    image.uuids.clear();
    image.comment.clear();
    ReadMetadata(reader_, warn_, image);
  }
  /// Pictures of an animation; 1 of other files.
  std::uint32_t NumPictures() const {
    const ByteView chunk = RawChunk(reader_, "acTL");
    return chunk.size() < 4 ? 1 : std::max(png_get_uint_32(chunk.data()), 1U);
  }
  /// The depth that all channels are noted to have had; 0 when it is the file's.
  unsigned Noted() const {
    const unsigned noted = NotedDepth(reader_);
    const bool below = noted < static_cast<unsigned>(reader_.depth);
    return below && palette_.columns.empty() ? noted : 0;
  }

 private:
  void FindKey(unsigned colours, bool opacity) {
    png_color_16p key = nullptr;
    png_get_tRNS(reader_.png, reader_.info, nullptr, nullptr, &key);
    hasKey_ = key != nullptr && !opacity;
    if (!hasKey_) return;
    key_[0] = colours == 1 ? key->gray : key->red;
    key_[1] = key->green;
    key_[2] = key->blue;
  }

  void ReadInterlaced() {
    const host::MemoryReservation room(std::uint64_t{reader_.rowBytes} * reader_.height,
                                       "an interlaced PNG file");
    all_ = host::SampleBuffer(reader_.rowBytes * reader_.height);
    std::vector<png_bytep> rows;
    for (std::size_t y = 0; y < reader_.height; ++y)
      rows.push_back(all_.Data() + y * reader_.rowBytes);
    Require(reader_, ReadAllRows(reader_, rows.data()));
    Require(reader_, ReadEnd(reader_));
  }

  void Convert(const std::uint8_t* row, std::uint8_t* to) const {
    if (expands_) {
      const std::size_t last = palette_.columns[0].entries.size() - 1;
      for (std::size_t x = 0; x < reader_.width; ++x) {
        for (const host::Palette::Column& column : palette_.columns) {
          *to++ = static_cast<std::uint8_t>(column.entries[std::min<std::size_t>(row[x], last)]);
        }
      }
    } else if (hasKey_) {
      const std::size_t channels = description_.planes.size() - 1;
      host::WithSampleType(description_.planes[0].BytesPerSample(), [&](auto sample) {
        using Sample = decltype(sample);
        const Sample key[3] = {static_cast<Sample>(key_[0]), static_cast<Sample>(key_[1]),
                               static_cast<Sample>(key_[2])};
        AddOpacity(reinterpret_cast<const Sample*>(row), reader_.width, channels, key,
                   static_cast<Sample>(description_.planes[0].MaxValue()),
                   reinterpret_cast<Sample*>(to));
      });
    } else {
      std::copy_n(row, host::RowBytes(description_), to);
    }
  }

  PngReader reader_;
  Warn warn_;
  host::Palette palette_;  ///< no columns when there is none
  bool expands_ = false;   ///< rows of indices become colours and opacity
  bool hasKey_ = false;    ///< one colour is transparent
  std::uint16_t key_[3] = {};
  std::uint32_t nextRow_ = 0;
  /// The picture when interlaced, else a row to be converted.
  host::SampleBuffer all_;
};

}  // namespace

std::unique_ptr<host::RowSource> OpenPng(host::BufferedSource& source,
                                         const ReadSettings& settings) {
  if (settings.page > 1) return OpenPngPage(source, settings);
  const bool late = HasLateMetadata(source);
  auto png = std::make_unique<PngSource>(source, settings);
  if (settings.page == 0 && png->NumPictures() > 1) settings.warn(kOnlyFirstOfAnimation);
  const unsigned noted = png->Noted();
  if (noted == 0 && !late) return png;
  Image image = host::ReadImage(*png);
  if (late) png->ReadLateMetadata(image);
  if (noted != 0) ApplyNotedDepth(image, noted);
  return std::make_unique<host::ImageRowSource>(std::move(image));
}

}  // namespace kel::tool
