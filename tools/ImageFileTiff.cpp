// TIFF, through libtiff: grey, RGB and palette images of 1 to 16 bits, with opacity or further
// channels, in strips or tiles, samples together or in planes of their own.
//
// Depths that do not fill bytes are packed, most significant bit first, as TIFF says for any
// depth. Written files hold strips of pixels, compressed with Deflate.
#include <tiffio.h>
#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/rows.hpp>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "ImageFile.hpp"
#include "Metadata.hpp"

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;
using host::ChannelRole;
using host::Error;
using host::Failure;
using host::Image;
using host::Plane;

constexpr std::uint32_t kStripBytes = 65536;
constexpr double kCentimetresPerInch = 2.54;
constexpr unsigned kMostChannels = 255;

/// A TIFF file in memory, for both directions, with the first thing that libtiff complained of.
struct MemoryFile {
  ByteView input;  ///< when reading
  Bytes output;    ///< when writing
  std::uint64_t at = 0;
  bool outOfMemory = false;
  char message[300] = {};

  std::uint64_t Size() const { return input.data() != nullptr ? input.size() : output.size(); }
};

tmsize_t OnRead(thandle_t handle, void* to, tmsize_t count) {
  auto& file = *static_cast<MemoryFile*>(handle);
  const ByteView all = file.input.data() != nullptr ? file.input : ByteView(file.output);
  const std::uint64_t left = file.at < all.size() ? all.size() - file.at : 0;
  const auto taken = static_cast<std::size_t>(std::min(left, static_cast<std::uint64_t>(count)));
  if (taken != 0) std::memcpy(to, all.data() + file.at, taken);
  file.at += taken;
  return static_cast<tmsize_t>(taken);
}

tmsize_t OnWrite(thandle_t handle, void* from, tmsize_t count) {
  auto& file = *static_cast<MemoryFile*>(handle);
  const std::uint64_t end = file.at + static_cast<std::uint64_t>(count);
  try {
    if (file.output.size() < end) file.output.resize(end);
  } catch (const std::exception&) {
    file.outOfMemory = true;
    return -1;
  }
  std::memcpy(file.output.data() + file.at, from, static_cast<std::size_t>(count));
  file.at = end;
  return count;
}

toff_t OnSeek(thandle_t handle, toff_t offset, int origin) {
  auto& file = *static_cast<MemoryFile*>(handle);
  if (origin == SEEK_SET) file.at = offset;
  if (origin == SEEK_CUR) file.at += offset;
  if (origin == SEEK_END) file.at = file.Size() + offset;
  return file.at;
}

toff_t OnSize(thandle_t handle) {
  return static_cast<MemoryFile*>(handle)->Size();
}

int OnError(TIFF*, void* user, const char*, const char* format, va_list arguments) {
  auto& file = *static_cast<MemoryFile*>(user);
  if (file.message[0] == 0) std::vsnprintf(file.message, sizeof file.message, format, arguments);
  return 1;
}

int OnWarning(TIFF*, void*, const char*, const char*, va_list) {
  return 1;
}

using TiffHandle = std::unique_ptr<TIFF, void (*)(TIFF*)>;

TiffHandle OpenTiff(MemoryFile& file, const char* mode) {
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  TIFFOpenOptionsSetErrorHandlerExtR(options, OnError, &file);
  TIFFOpenOptionsSetWarningHandlerExtR(options, OnWarning, nullptr);
  TIFF* tiff = TIFFClientOpenExt(
      "image", mode, &file, OnRead, OnWrite, OnSeek, [](thandle_t) { return 0; }, OnSize, nullptr,
      nullptr, options);
  TIFFOpenOptionsFree(options);
  return {tiff, TIFFClose};
}

// ---- Reading ----

struct Layout {
  std::uint32_t width = 0, height = 0;
  std::uint16_t depth = 1, channels = 1, photometric = PHOTOMETRIC_MINISBLACK;
  bool separate = false;  ///< every channel in a plane of its own
  /// The pieces that samples are stored in: strips or tiles.
  bool tiled = false;
  std::uint32_t pieceWidth = 0, pieceHeight = 0;
};

[[noreturn]] void RefuseInput(const std::string& sentence) {
  throw Error(Failure::kInput, sentence);
}

[[noreturn]] void RefuseDamaged(const MemoryFile& file) {
  RefuseInput(std::string("damaged TIFF file: ") + file.message);
}

Layout ReadLayout(TIFF* tiff) {
  Layout layout;
  std::uint16_t planar = PLANARCONFIG_CONTIG, format = SAMPLEFORMAT_UINT, compression = 0;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &layout.width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &layout.height);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &layout.depth);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &layout.channels);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
  TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &layout.photometric);
  if (layout.width == 0 || layout.height == 0) RefuseInput("the image is empty");
  if (format != SAMPLEFORMAT_UINT && format != SAMPLEFORMAT_VOID) {
    RefuseInput("a TIFF file of signed or floating-point samples; unsigned ones can be read");
  }
  if (layout.depth < 1 || layout.depth > 16) {
    RefuseInput("a TIFF file of " + std::to_string(layout.depth) +
                " bits per sample; 1 to 16 can be read");
  }
  if (layout.photometric == PHOTOMETRIC_YCBCR && compression == COMPRESSION_JPEG) {
    TIFFSetField(tiff, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    layout.photometric = PHOTOMETRIC_RGB;
  }
  layout.separate = planar == PLANARCONFIG_SEPARATE && layout.channels > 1;
  layout.tiled = TIFFIsTiled(tiff) != 0;
  if (layout.tiled) {
    TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &layout.pieceWidth);
    TIFFGetField(tiff, TIFFTAG_TILELENGTH, &layout.pieceHeight);
  } else {
    TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &layout.pieceHeight);
    layout.pieceWidth = layout.width;
    layout.pieceHeight = std::min(layout.pieceHeight, layout.height);
  }
  if (layout.pieceWidth == 0 || layout.pieceHeight == 0) RefuseInput("damaged TIFF file");
  return layout;
}

/// Colours that the photometric interpretation stands for.
unsigned ColoursOf(const Layout& layout) {
  switch (layout.photometric) {
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_MINISWHITE:
    case PHOTOMETRIC_PALETTE:
      return 1;
    case PHOTOMETRIC_RGB:
      return 3;
    case PHOTOMETRIC_SEPARATED:
      RefuseInput("a CMYK image; only grey and RGB images can be read, so convert it to RGB first");
    default:
      RefuseInput("a TIFF file of a colour space other than grey and RGB");
  }
}

/// An empty image with a plane for every channel.
Image MakePlanes(TIFF* tiff, const Layout& layout) {
  const unsigned colours = ColoursOf(layout);
  if (layout.channels < colours || layout.channels > kMostChannels) {
    RefuseInput("a TIFF file of " + std::to_string(layout.channels) + " channels");
  }
  Image image = host::MakeImage(layout.width, layout.height, layout.channels, layout.depth);
  image.colourSpace = colours == 1 ? host::ColourSpace::kGrey : host::ColourSpace::kSrgb;
  std::uint16_t numExtra = 0;
  std::uint16_t* extra = nullptr;
  TIFFGetField(tiff, TIFFTAG_EXTRASAMPLES, &numExtra, &extra);
  for (unsigned c = colours; c < layout.channels; ++c) {
    const unsigned kind = c - colours < numExtra ? extra[c - colours] : 0U;
    image.planes[c].colour = 0;
    image.planes[c].role = kind == EXTRASAMPLE_ASSOCALPHA   ? ChannelRole::kPremultipliedOpacity
                           : kind == EXTRASAMPLE_UNASSALPHA ? ChannelRole::kOpacity
                                                            : ChannelRole::kOther;
  }
  return image;
}

/// Puts one piece's samples into their places: `channels` of them per pixel, from plane first on.
void PlacePiece(const Layout& layout, const std::uint8_t* piece, std::uint32_t x0, std::uint32_t y0,
                unsigned first, Image& image) {
  const unsigned channels = layout.separate ? 1 : layout.channels;
  const std::uint64_t rowSamples = std::uint64_t{layout.pieceWidth} * channels;
  const std::uint64_t rowBytes = host::PackedRowBytes(rowSamples, layout.depth);
  const std::uint32_t width = std::min(layout.pieceWidth, layout.width - x0);
  const std::uint32_t height = std::min(layout.pieceHeight, layout.height - y0);
  for (std::uint32_t y = 0; y < height; ++y, piece += rowBytes) {
    host::PackedRowReader packed(piece);
    const auto* words = reinterpret_cast<const std::uint16_t*>(piece);
    for (std::size_t x = 0; x < width; ++x) {
      for (unsigned c = 0; c < channels; ++c) {
        // libtiff hands out words of 16 bits in the order of the machine.
        const std::uint32_t value =
            layout.depth == 16 ? words[x * channels + c] : packed.Get(layout.depth);
        image.planes[first + c].Set(x0 + static_cast<std::uint32_t>(x), y0 + y, value);
      }
    }
  }
}

void ReadPieces(TIFF* tiff, const MemoryFile& file, const Layout& layout, Image& image) {
  const tmsize_t size = layout.tiled ? TIFFTileSize(tiff) : TIFFStripSize(tiff);
  const unsigned channels = layout.separate ? 1 : layout.channels;
  const std::uint64_t needed =
      host::PackedRowBytes(std::uint64_t{layout.pieceWidth} * channels, layout.depth) *
      layout.pieceHeight;
  if (size <= 0 || static_cast<std::uint64_t>(size) < needed) RefuseDamaged(file);
  Bytes piece(static_cast<std::size_t>(size));
  for (unsigned first = 0; first < layout.channels; first += channels) {
    const auto sample = static_cast<std::uint16_t>(first);
    for (std::uint32_t y = 0; y < layout.height; y += layout.pieceHeight) {
      for (std::uint32_t x = 0; x < layout.width; x += layout.pieceWidth) {
        const tmsize_t read =
            layout.tiled
                ? TIFFReadEncodedTile(tiff, TIFFComputeTile(tiff, x, y, 0, sample), piece.data(),
                                      size)
                : TIFFReadEncodedStrip(tiff, TIFFComputeStrip(tiff, y, sample), piece.data(), size);
        if (read < 0) RefuseDamaged(file);
        PlacePiece(layout, piece.data(), x, y, first, image);
      }
    }
  }
}

/// Columns of 16 bits, or of 8 where they say no more than that.
void ReadColourMap(TIFF* tiff, const MemoryFile& file, Image& image) {
  std::uint16_t* maps[3] = {};
  if (TIFFGetField(tiff, TIFFTAG_COLORMAP, &maps[0], &maps[1], &maps[2]) == 0) RefuseDamaged(file);
  const std::size_t count = std::size_t{1} << image.planes[0].Depth();
  bool bytes = true;
  for (const std::uint16_t* map : maps) {
    bytes = bytes && std::all_of(map, map + count, [](unsigned v) { return v % 257 == 0; });
  }
  host::Palette& palette = image.palette.emplace();
  for (const std::uint16_t* map : maps) {
    host::Palette::Column& column = palette.columns.emplace_back();
    column.depth = bytes ? 8 : 16;
    for (std::size_t i = 0; i < count; ++i) column.entries.push_back(map[i] / (bytes ? 257U : 1U));
  }
  image.colourSpace = host::ColourSpace::kSrgb;
}

void ReadMetadata(TIFF* tiff, Image& image) {
  std::uint32_t count = 0;
  void* data = nullptr;
  if (TIFFGetField(tiff, TIFFTAG_ICCPROFILE, &count, &data) != 0) {
    const auto* profile = static_cast<const std::uint8_t*>(data);
    image.iccProfile.assign(profile, profile + count);
  }
  if (TIFFGetField(tiff, TIFFTAG_XMLPACKET, &count, &data) != 0) {
    AddXmp(image, std::string(static_cast<const char*>(data), count));
  }
  float x = 0, y = 0;
  std::uint16_t unit = RESUNIT_INCH;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_RESOLUTIONUNIT, &unit);
  if (unit != RESUNIT_NONE && TIFFGetField(tiff, TIFFTAG_XRESOLUTION, &x) != 0 &&
      TIFFGetField(tiff, TIFFTAG_YRESOLUTION, &y) != 0 && x > 0 && y > 0) {
    const double scale = unit == RESUNIT_CENTIMETER ? kCentimetresPerInch : 1;
    image.resolution = {x * scale, y * scale};
  }
}

void Invert(Plane& plane) {
  for (std::uint32_t y = 0; y < plane.Height(); ++y) {
    for (std::uint32_t x = 0; x < plane.Width(); ++x) {
      plane.Set(x, y, plane.MaxValue() - plane.At(x, y));
    }
  }
}

// ---- Writing ----

void SetTags(TIFF* tiff, const Image& image) {
  const unsigned depth = image.planes[0].Depth();
  const unsigned colours = host::NumColours(image);
  const bool wholeBytes = depth == 8 || depth == 16;
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, image.width);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, image.height);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, depth);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<unsigned>(image.planes.size()));
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
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

/// One row in the form that libtiff takes.
void PackPixels(const Image& image, const std::vector<std::uint16_t>& pixels, Bytes& packed) {
  const unsigned depth = image.planes[0].Depth();
  if (depth == 16) {
    std::memcpy(packed.data(), pixels.data(), packed.size());
    return;
  }
  host::PackedRowWriter writer(packed.data());
  for (const std::uint16_t value : pixels) writer.Put(value, depth);
  writer.Finish();
}

bool WriteRows(TIFF* tiff, const Image& image) {
  std::vector<std::uint16_t> pixels(image.width * image.planes.size());
  Bytes packed(host::PackedRowBytes(pixels.size(), image.planes[0].Depth()));
  const auto rows =
      static_cast<std::uint32_t>(kStripBytes / std::max<std::size_t>(packed.size(), 1));
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, std::clamp(rows, 1U, image.height));
  for (std::uint32_t y = 0; y < image.height; ++y) {
    host::JoinRow(image, y, pixels.data());
    PackPixels(image, pixels, packed);
    if (TIFFWriteScanline(tiff, packed.data(), y, 0) < 0) return false;
  }
  return TIFFFlush(tiff) != 0;
}

}  // namespace

Image ReadTiff(ByteView bytes) {
  MemoryFile file;
  file.input = bytes;
  const TiffHandle tiff = OpenTiff(file, "rm");
  if (!tiff) RefuseDamaged(file);
  const Layout layout = ReadLayout(tiff.get());
  Image image = MakePlanes(tiff.get(), layout);
  ReadPieces(tiff.get(), file, layout, image);
  if (layout.photometric == PHOTOMETRIC_MINISWHITE) Invert(image.planes[0]);
  if (layout.photometric == PHOTOMETRIC_PALETTE) {
    ReadColourMap(tiff.get(), file, image);
    if (image.planes.size() > 1) host::ExpandPalette(image);
  }
  ReadMetadata(tiff.get(), image);
  return image;
}

void WriteTiff(const Image& image, host::Sink& sink) {
  if (!image.palette) CheckFits(image, {"TIFF", 16, true, true, true});
  MemoryFile file;
  bool written = false;
  {
    const TiffHandle tiff = OpenTiff(file, "w");
    if (tiff) {
      SetTags(tiff.get(), image);
      if (image.palette) SetColourMap(tiff.get(), image);
      SetMetadata(tiff.get(), image);
      written = WriteRows(tiff.get(), image);
    }
  }
  if (!written || file.message[0] != 0) {
    throw Error(file.outOfMemory ? Failure::kMemory : Failure::kOutput,
                std::string("cannot be written as TIFF: ") + file.message);
  }
  sink.Write(file.output);
}

}  // namespace kel::tool
