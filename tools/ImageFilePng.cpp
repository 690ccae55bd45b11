// PNG, through libpng.
//
// libpng reports failures by longjmp. So every call into it stands in a function that holds
// nothing with a destructor; what such functions need is in a record that outlives them, and
// memory is obtained between them.
//
// Depths that PNG lacks (3, 5, 10, 12, ...) are scaled up to the next it has, with the true depth
// noted in the file (the sBIT chunk); a reader that finds all samples to be of that form scales
// them back, so such images survive exactly.
#include <png.h>
#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/rows.hpp>
#include <kel/host/session.hpp>

#include <algorithm>
#include <bit>
#include <cctype>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include <zlib.h>

#include "ImageFile.hpp"
#include "Metadata.hpp"
#include "Text.hpp"

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;
using host::ChannelRole;
using host::Error;
using host::Failure;
using host::Image;
using host::Plane;

constexpr double kInchesPerMetre = 39.37007874015748;
constexpr const char* kXmpKeyword = "XML:com.adobe.xmp";
constexpr int kCompression = 4;  // nearly as small as the default, in half the time
constexpr png_uint_32 kMostSide = 0x7FFFFFFF;
constexpr std::size_t kPieceBytes = 256 * 1024;  // of compressed data, written at once

/// Chunks whose data are taken as they are: profiles, of which libpng would refuse some, and the
/// number of pictures.
const png_byte kRawChunks[] = "iCCP\0acTL";
constexpr int kNumRawChunks = 2;
constexpr const char* kProfileName = "ICC profile";
constexpr const char* kCommentKeyword = "Comment";
constexpr std::string_view kHexKeyword = "Raw profile type ";
constexpr std::size_t kMostComment = 65000;  // of the format
constexpr std::size_t kMostProfile = 64 * 1024 * 1024;

struct Failures {
  char message[200] = {};
  std::exception_ptr thrown;  ///< by a source or sink, behind which libpng stands
  Complaints complaints;
};

void OnError(png_structp png, png_const_charp message) {
  auto& failures = *static_cast<Failures*>(png_get_error_ptr(png));
  std::strncpy(failures.message, message, sizeof failures.message - 1);
  png_longjmp(png, 1);
}

void OnWarning(png_structp png, png_const_charp message) {
  static_cast<Failures*>(png_get_error_ptr(png))->complaints.Note(message);
}

// ---- Reading ----

/// What the file says, as far as an image needs it.
struct PngReader {
  explicit PngReader(host::BufferedSource& from) : source(from) {}
  ~PngReader() { png_destroy_read_struct(&png, &info, nullptr); }

  host::BufferedSource& source;
  Failures failures;
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
  r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &r.failures, OnError, OnWarning);
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

/// A profile out of its chunk: a name that ends with a zero byte, a zero byte, compressed data.
Bytes ReadProfile(ByteView chunk, const Warn& warn) {
  const auto zero = std::ranges::find(chunk, 0);
  if (chunk.end() - zero < 2) return {};
  const ByteView data(zero + 2, chunk.end());
  Bytes profile;
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK) return {};
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  int result = Z_OK;
  while (result == Z_OK && profile.size() < kMostProfile) {
    profile.resize(profile.size() + kPieceBytes);
    stream.next_out = profile.data() + profile.size() - kPieceBytes;
    stream.avail_out = kPieceBytes;
    result = inflate(&stream, Z_NO_FLUSH);
  }
  profile.resize(profile.size() - stream.avail_out);
  inflateEnd(&stream);
  if (result == Z_STREAM_END) return profile;
  warn("the colour profile is damaged, and left out");
  return {};
}

/// Bytes out of text that some programs write: a line feed, a name, a length, and digits.
Bytes FromHex(std::string_view text) {
  Bytes bytes;
  for (int line = 0; line < 3; ++line) {
    text.remove_prefix(std::min(text.size(), text.find('\n')));
    if (!text.empty()) text.remove_prefix(1);
  }
  unsigned digits = 0, value = 0;
  for (const char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) continue;
    const int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
    value = value << 4 | static_cast<unsigned>(digit);
    if (++digits % 2 == 0) bytes.push_back(static_cast<std::uint8_t>(value));
  }
  return bytes;
}

std::string ToHex(std::string_view name, ByteView bytes) {
  std::string text = "\n" + std::string(name) + "\n" + std::to_string(bytes.size());
  char pair[3];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i % 36 == 0) text += '\n';
    std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
    text += pair;
  }
  return text + '\n';
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
  image.iccProfile = ReadProfile(RawChunk(reader, "iCCP"), warn);
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

// ---- Writing ----

struct PngWriter {
  explicit PngWriter(host::Sink& to) : sink(to) {}
  ~PngWriter() { png_destroy_write_struct(&png, &info); }

  host::Sink& sink;
  Image image;  ///< without samples
  Failures failures;
  png_structp png = nullptr;
  png_infop info = nullptr;
  int depth = 8, colourType = PNG_COLOR_TYPE_GRAY;
  png_color entries[256] = {};
  int numEntries = 0;
  Bytes profile;  ///< a whole chunk's data; empty for none
  std::vector<std::string> keywords, texts;
  std::vector<png_text> textEntries;
};

void WriteBytes(png_structp png, png_bytep from, png_size_t count) {
  auto& writer = *static_cast<PngWriter*>(png_get_io_ptr(png));
  try {
    writer.sink.Write({from, count});
    return;
  } catch (...) {
    writer.failures.thrown = std::current_exception();
  }
  png_error(png, "not written");
}

void Flush(png_structp) {}

/// The smallest depth of PNG that holds samples of this depth.
int PngDepth(unsigned depth, bool anyDepth) {
  for (const int possible : {1, 2, 4, 8}) {
    if (depth <= static_cast<unsigned>(possible) && (anyDepth || possible == 8)) return possible;
  }
  return 16;
}

void ChooseForm(PngWriter& writer) {
  const Image& image = writer.image;
  const bool colour = host::NumColours(image) == 3;
  const bool opacity = host::OpacityPlane(image) != nullptr;
  writer.depth = PngDepth(image.planes[0].Depth(), !colour && !opacity);
  if (!image.palette) {
    writer.colourType = (colour ? PNG_COLOR_MASK_COLOR : 0) | (opacity ? PNG_COLOR_MASK_ALPHA : 0);
    return;
  }
  writer.colourType = PNG_COLOR_TYPE_PALETTE;
  const auto& columns = image.palette->columns;
  writer.numEntries = static_cast<int>(
      std::min<std::size_t>(columns[0].entries.size(), std::size_t{1} << writer.depth));
  const auto byte = [&](std::size_t column, std::size_t i) {
    const host::Palette::Column& from = columns[column];
    const std::uint64_t most = UINT32_MAX >> (32 - from.depth);
    return static_cast<png_byte>((from.entries[i] * std::uint64_t{255} + most / 2) / most);
  };
  for (int i = 0; i < writer.numEntries; ++i) {
    const auto entry = static_cast<std::size_t>(i);
    writer.entries[i] = {byte(0, entry), byte(1, entry), byte(2, entry)};
  }
}

void SetMetadata(PngWriter& w) {
  const Image& image = w.image;
  const bool isStandard = image.colourSpace == host::ColourSpace::kSrgb ||
                          image.colourSpace == host::ColourSpace::kGrey;
  if (w.profile.empty() && isStandard) {
    png_set_sRGB(w.png, w.info, PNG_sRGB_INTENT_PERCEPTUAL);
  }
  if (image.resolution) {
    png_set_pHYs(w.png, w.info,
                 static_cast<png_uint_32>(image.resolution->x * kInchesPerMetre + 0.5),
                 static_cast<png_uint_32>(image.resolution->y * kInchesPerMetre + 0.5),
                 PNG_RESOLUTION_METER);
  }
  const ByteView exif = FindExif(image);
  if (!exif.empty()) {
    png_set_eXIf_1(w.png, w.info, static_cast<png_uint_32>(exif.size()),
                   const_cast<png_bytep>(exif.data()));
  }
  if (!w.textEntries.empty()) {
    png_set_text(w.png, w.info, w.textEntries.data(), static_cast<int>(w.textEntries.size()));
  }
}

bool WriteHeader(PngWriter& w) {
  w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &w.failures, OnError, OnWarning);
  w.info = w.png == nullptr ? nullptr : png_create_info_struct(w.png);
  if (w.info == nullptr) return false;
  if (setjmp(png_jmpbuf(w.png)) != 0) return false;
  png_set_write_fn(w.png, &w, WriteBytes, Flush);
  png_set_benign_errors(w.png, 1);  // a text that libpng does not like is left out
  png_set_user_limits(w.png, kMostSide, kMostSide);
  png_set_compression_level(w.png, kCompression);
  png_set_compression_buffer_size(w.png, kPieceBytes);
  png_set_IHDR(w.png, w.info, w.image.width, w.image.height, w.depth, w.colourType,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (w.numEntries != 0) png_set_PLTE(w.png, w.info, w.entries, w.numEntries);
  const auto noted = static_cast<png_byte>(w.image.planes[0].Depth());
  if (w.numEntries == 0 && noted != w.depth) {
    const png_color_8 bits{noted, noted, noted, noted, noted};
    png_set_sBIT(w.png, w.info, &bits);
  }
  SetMetadata(w);
  png_write_info_before_PLTE(w.png, w.info);
  if (!w.profile.empty()) {  // not by png_set_iCCP, which refuses some
    png_write_chunk(w.png, reinterpret_cast<png_const_bytep>("iCCP"), w.profile.data(),
                    w.profile.size());
  }
  png_write_info(w.png, w.info);
  if (std::endian::native == std::endian::little) png_set_swap(w.png);
  png_set_packing(w.png);
  return true;
}

bool WriteRow(PngWriter& w, const std::uint8_t* row) {
  if (setjmp(png_jmpbuf(w.png)) != 0) return false;
  png_write_row(w.png, row);
  return true;
}

bool WriteEnd(PngWriter& w) {
  if (setjmp(png_jmpbuf(w.png)) != 0) return false;
  png_write_end(w.png, nullptr);  // all metadata stand in front
  return true;
}

void Require(const PngWriter& writer, bool success) {
  if (success) return;
  if (writer.failures.thrown) std::rethrow_exception(writer.failures.thrown);
  throw Error(Failure::kOutput,
              std::string("cannot be written as PNG: ") + writer.failures.message);
}

/// The chunk of a profile: a name with a zero byte, a zero byte, compressed data.
Bytes MakeProfileChunk(ByteView profile) {
  if (profile.empty()) return {};
  const std::string_view name(kProfileName);
  Bytes chunk(name.begin(), name.end());
  chunk.resize(name.size() + 2);
  uLongf size = compressBound(profile.size());
  chunk.resize(name.size() + 2 + size);
  const int result = compress2(chunk.data() + name.size() + 2, &size, profile.data(),
                               static_cast<uLong>(profile.size()), Z_DEFAULT_COMPRESSION);
  if (result != Z_OK) throw Error(Failure::kMemory, "no memory for compressing a colour profile");
  chunk.resize(name.size() + 2 + size);
  return chunk;
}

void AddText(PngWriter& writer, std::string_view keyword, std::string_view text, bool isUtf8) {
  writer.keywords.emplace_back(keyword);
  writer.texts.emplace_back(text);
  const bool isAscii =
      std::ranges::all_of(text, [](char c) { return static_cast<signed char>(c) > 0; });
  png_text& entry = writer.textEntries.emplace_back();
  entry = {};
  entry.compression = isUtf8 || !isAscii ? PNG_ITXT_COMPRESSION_NONE : PNG_TEXT_COMPRESSION_NONE;
}

void MakeTexts(PngWriter& writer) {
  const Image& image = writer.image;
  if (const std::string* xmp = FindXmp(image)) AddText(writer, kXmpKeyword, *xmp, true);
  if (!image.comment.empty()) AddText(writer, kCommentKeyword, Utf8(image.comment), false);
  for (const auto& [keyword, text] : FindTexts(image)) AddText(writer, keyword, text, false);
  const ByteView iptc = FindIptc(image);
  if (!iptc.empty()) {
    AddText(writer, std::string(kHexKeyword) + "iptc", ToHex("iptc", MakeIptcBlock(iptc)), false);
  }
  for (std::size_t i = 0; i < writer.texts.size(); ++i) {
    writer.textEntries[i].key = writer.keywords[i].data();
    writer.textEntries[i].text = writer.texts[i].data();
    writer.textEntries[i].text_length = writer.texts[i].size();
  }
}

class PngSink final : public host::RowSink {
 public:
  explicit PngSink(host::Sink& sink) : writer_(sink) {}

  void Begin(const Image& description) override {
    CheckFits(description, {.format = "PNG", .mostDepth = 16, .opacity = true});
    CopyDescription(description, writer_.image);
    writer_.profile = MakeProfileChunk(description.iccProfile);
    MakeTexts(writer_);
    ChooseForm(writer_);
    Require(writer_, WriteHeader(writer_));
  }

  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override {
    const std::uint32_t from = writer_.image.planes[0].MaxValue();
    const std::uint32_t to = (1U << writer_.depth) - 1;
    for (; count > 0; --count, rows += strideBytes) {
      const std::uint8_t* row = rows;
      if (writer_.image.palette || from != to) {
        row_.assign(rows, rows + host::RowBytes(writer_.image));
        Convert(from, to);
        row = row_.data();
      }
      Require(writer_, WriteRow(writer_, row));
    }
  }

  void Finish() override {
    Require(writer_, WriteEnd(writer_));
    writer_.sink.Finish();
  }

 private:
  /// Indices are brought into the palette, samples to the depth of the file.
  void Convert(std::uint32_t from, std::uint32_t to) {
    if (writer_.image.palette) {
      const auto last = static_cast<std::uint8_t>(writer_.numEntries - 1);
      for (std::uint8_t& index : row_) index = std::min(index, last);
    } else if (writer_.depth == 16) {
      host::Rescale(reinterpret_cast<std::uint16_t*>(row_.data()), row_.size() / 2, from, to);
    } else {
      host::Rescale(row_.data(), row_.size(), from, to);
    }
  }

  PngWriter writer_;
  Bytes row_;
};

}  // namespace

std::unique_ptr<host::RowSource> OpenPng(host::BufferedSource& source,
                                         const ReadSettings& settings) {
  const bool late = HasLateMetadata(source);
  auto png = std::make_unique<PngSource>(source, settings);
  if (settings.page > png->NumPictures()) return nullptr;
  if (settings.page > 1) {
    throw Error(Failure::kInput, "of an animation only the first picture can be read");
  }
  if (settings.page == 0 && png->NumPictures() > 1) {
    settings.warn("only the first picture of an animation is taken");
  }
  const unsigned noted = png->Noted();
  if (noted == 0 && !late) return png;
  Image image = host::ReadImage(*png);
  if (late) png->ReadLateMetadata(image);
  if (noted != 0) ApplyNotedDepth(image, noted);
  return std::make_unique<host::ImageRowSource>(std::move(image));
}

std::unique_ptr<host::RowSink> MakePng(host::Sink& sink) {
  return std::make_unique<PngSink>(sink);
}

}  // namespace kel::tool
