// PNG, written through libpng (PngFile tells how its failures travel).
//
// Depths that PNG lacks (3, 5, 10, 12, ...) are scaled up to the next it has, with the true depth
// noted in the file (the sBIT chunk).
#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>

#include <algorithm>
#include <bit>
#include <csetjmp>

#include "PngFile.hpp"
#include "Text.hpp"

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;
using host::Error;
using host::Failure;
using host::Image;

constexpr int kCompression = 4;  // nearly as small as the default, in half the time

struct PngWriter {
  explicit PngWriter(host::Sink& to) : sink(to) {}
  ~PngWriter() { png_destroy_write_struct(&png, &info); }

  host::Sink& sink;
  Image image;  ///< without samples
  PngFailures failures;
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
  w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &w.failures, OnPngError, OnPngWarning);
  w.info = w.png == nullptr ? nullptr : png_create_info_struct(w.png);
  if (w.info == nullptr) return false;
  if (setjmp(png_jmpbuf(w.png)) != 0) return false;
  png_set_write_fn(w.png, &w, WriteBytes, Flush);
  png_set_benign_errors(w.png, 1);  // a text that libpng does not like is left out
  png_set_user_limits(w.png, kMostSide, kMostSide);
  png_set_compression_level(w.png, kCompression);
  png_set_compression_buffer_size(w.png, kPngPieceBytes);
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

std::unique_ptr<host::RowSink> MakePng(host::Sink& sink) {
  return std::make_unique<PngSink>(sink);
}

}  // namespace kel::tool
