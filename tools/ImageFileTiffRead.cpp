// TIFF, read through libtiff: grey, RGB and palette images of 1 to 16 bits, with opacity or further
// channels, in strips or tiles, samples together or in planes of their own.
//
// Depths that do not fill bytes are packed, most significant bit first, as TIFF says for any
// depth.
#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/session.hpp>

#include <algorithm>

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

constexpr double kCentimetresPerInch = 2.54;
constexpr unsigned kMostChannels = 255;

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

[[noreturn]] void RefuseDamaged(const TiffFile& file) {
  if (file.thrown) std::rethrow_exception(file.thrown);
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

/// The most bytes that one byte can be expanded to; 0 where there is no such bound.
std::uint64_t MostExpansion(TIFF* tiff) {
  std::uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
  switch (compression) {
    case COMPRESSION_NONE:
      return 1;
    case COMPRESSION_PACKBITS:
      return 64;
    case COMPRESSION_JPEG:  // two bits for a block of 64 samples
      return 1024;
    case COMPRESSION_ADOBE_DEFLATE:
    case COMPRESSION_DEFLATE:  // two bits for 258 bytes
      return 1032;
    case COMPRESSION_LZW:  // 12 bits for a string of all that came before
      return 4096;
    default:
      return 0;
  }
}

/// An image with a plane for every channel, without samples.
Image Describe(TIFF* tiff, const Layout& layout) {
  const unsigned colours = ColoursOf(layout);
  if (layout.channels < colours || layout.channels > kMostChannels) {
    RefuseInput("a TIFF file of " + std::to_string(layout.channels) + " channels");
  }
  Image image = host::DescribeNewImage(layout.width, layout.height, layout.channels, layout.depth);
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

/// Columns of 16 bits, or of 8 where they say no more than that.
void ReadColourMap(TIFF* tiff, const TiffFile& file, Image& image) {
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

/// Takes EXIF and IPTC out of the picture's directory and those below it.
void ReadExifOf(TIFF* tiff, TiffFile& file, const Warn& warn, Image& image) {
  const auto read = [&](std::uint64_t at, std::span<std::uint8_t> to) -> std::size_t {
    return TakeTiffBytes(file, at, to);
  };
  const ExifTree tree = ReadExif(read, TIFFCurrentDirOffset(tiff));
  if (!tree.SaysNothing()) AddExif(image, WriteExif(tree));
  AddIptc(image, tree.iptc);
  AddIptc(image, IptcInBlocks(tree.blocks));
  for (const std::uint16_t tag : tree.leftOut) {
    warn("left out: field " + std::to_string(tag) + ", which is too large");
  }
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

/// Rows out of strips of pixels one by one; else a row of pieces at a time.
class TiffSource final : public host::RowSource {
 public:
  TiffSource(host::BufferedSource& source, const ReadSettings& settings) : warn_(settings.warn) {
    if (source.Size()) {
      file_.source = &source;
    } else {
      file_.input = host::ReadAll(source, storage_);
    }
    handle_ = OpenHandle(file_, "rm");
    if (!handle_) RefuseDamaged(file_);
    hasPage_ = FindPage(settings.page);
    if (!hasPage_) return;
    layout_ = ReadLayout(handle_.get());
    description_ = Describe(handle_.get(), layout_);
    if (layout_.photometric == PHOTOMETRIC_PALETTE) {
      ReadColourMap(handle_.get(), file_, description_);
    }
    ReadMetadata(handle_.get(), description_);
    ReadExifOf(handle_.get(), file_, warn_, description_);
    TellComplaints(file_, warn_);
    byRows_ = !layout_.tiled && !layout_.separate;
    channels_ = layout_.separate ? 1 : layout_.channels;
    CheckSizes();
  }

  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    const std::size_t rowBytes = host::RowBytes(description_);
    for (; count > 0; --count, ++nextRow_, to += strideBytes) {
      if (byRows_) {
        if (TIFFReadScanline(handle_.get(), packed_.Data(), nextRow_, 0) < 0) RefuseDamaged(file_);
        Unpack(packed_.Data(), std::size_t{layout_.width} * layout_.channels, to);
      } else {
        const std::uint32_t inPiece = nextRow_ % layout_.pieceHeight;
        if (inPiece == 0) ReadPieces();
        std::copy_n(rows_.Data() + inPiece * rowBytes, rowBytes, to);
      }
      if (layout_.photometric == PHOTOMETRIC_MINISWHITE) Invert(to);
    }
    TellComplaints(file_, warn_);
  }

  /// False when there are fewer pages than asked for.
  bool HasPage() const { return hasPage_; }

  bool HoldsPicture() const override {
    return !storage_.empty() || (!byRows_ && layout_.pieceHeight >= layout_.height);
  }

 private:
  /// Goes to a page. Smaller copies and masks of other pictures are none.
  bool FindPage(unsigned page) {
    TIFF* tiff = handle_.get();
    const tdir_t count = TIFFNumberOfDirectories(tiff);
    std::vector<tdir_t> pages;
    for (tdir_t i = 0; count > 1 && i < count; ++i) {
      std::uint32_t kind = 0;
      if (TIFFSetDirectory(tiff, i) == 0) break;
      TIFFGetField(tiff, TIFFTAG_SUBFILETYPE, &kind);
      if ((kind & (FILETYPE_REDUCEDIMAGE | FILETYPE_MASK)) == 0) pages.push_back(i);
    }
    if (pages.empty()) pages.push_back(0);
    if (page > pages.size()) return false;
    if (page == 0 && pages.size() > 1) {
      warn_("only the first of " + std::to_string(pages.size()) +
            " pages is taken; --page takes others");
    }
    if (count > 1 && TIFFSetDirectory(tiff, pages[page == 0 ? 0 : page - 1]) == 0) {
      RefuseDamaged(file_);
    }
    return true;
  }

  /// libtiff must fill no more than is there, and no less than is taken.
  void CheckSizes() {
    TIFF* tiff = handle_.get();
    const tmsize_t size = byRows_         ? TIFFScanlineSize(tiff)
                          : layout_.tiled ? TIFFTileSize(tiff)
                                          : TIFFStripSize(tiff);
    pieceRowBytes_ =
        host::PackedRowBytes(std::uint64_t{layout_.pieceWidth} * channels_, layout_.depth);
    const std::uint64_t needed = pieceRowBytes_ * (byRows_ ? 1 : layout_.pieceHeight);
    if (size <= 0 || static_cast<std::uint64_t>(size) < needed) RefuseDamaged(file_);
    const std::uint64_t expansion = MostExpansion(tiff);
    if (expansion != 0 && static_cast<std::uint64_t>(size) / expansion > file_.Size()) {
      RefuseInput("damaged TIFF file: the samples that it announces are not there");
    }
    room_ = host::MemoryReservation(
        static_cast<std::uint64_t>(size) +
            (byRows_ ? 0 : std::uint64_t{host::RowBytes(description_)} * layout_.pieceHeight),
        "the rows of a TIFF file at work");
    packed_ = host::SampleBuffer(static_cast<std::size_t>(size));
    if (!byRows_) {
      rows_ = host::SampleBuffer(host::RowBytes(description_) * layout_.pieceHeight);
    }
  }

  void Unpack(const std::uint8_t* packed, std::size_t count, std::uint8_t* to) const {
    host::WithSampleType(description_.planes[0].BytesPerSample(), [&](auto sample) {
      host::UnpackSamples(packed, count, layout_.depth, reinterpret_cast<decltype(sample)*>(to));
    });
  }

  /// Fills rows_ with the pieces that the next row lies in.
  void ReadPieces() {
    for (unsigned first = 0; first < layout_.channels; first += channels_) {
      for (std::uint32_t x = 0; x < layout_.width; x += layout_.pieceWidth) {
        ReadPiece(x, static_cast<std::uint16_t>(first));
        PlacePiece(x, first);
      }
    }
  }

  void ReadPiece(std::uint32_t x, std::uint16_t sample) {
    TIFF* tiff = handle_.get();
    const auto size = static_cast<tmsize_t>(packed_.Size());
    const tmsize_t read =
        layout_.tiled ? TIFFReadEncodedTile(tiff, TIFFComputeTile(tiff, x, nextRow_, 0, sample),
                                            packed_.Data(), size)
                      : TIFFReadEncodedStrip(tiff, TIFFComputeStrip(tiff, nextRow_, sample),
                                             packed_.Data(), size);
    if (read < 0) RefuseDamaged(file_);
  }

  /// Puts a piece's samples into their places: channels_ of them per pixel, from plane first on.
  void PlacePiece(std::uint32_t x0, unsigned first) {
    const std::uint32_t width = std::min(layout_.pieceWidth, layout_.width - x0);
    const std::uint32_t height = std::min(layout_.pieceHeight, layout_.height - nextRow_);
    const std::size_t step = layout_.channels;
    host::WithSampleType(description_.planes[0].BytesPerSample(), [&](auto sample) {
      using Sample = decltype(sample);
      std::vector<Sample> plane(width);
      for (std::uint32_t y = 0; y < height; ++y) {
        const std::uint8_t* from = packed_.Data() + y * pieceRowBytes_;
        auto* to = reinterpret_cast<Sample*>(rows_.Data() + y * host::RowBytes(description_)) +
                   x0 * step + first;
        if (!layout_.separate) {
          host::UnpackSamples(from, width * step, layout_.depth, to);
          continue;
        }
        host::UnpackSamples(from, width, layout_.depth, plane.data());
        for (std::size_t x = 0; x < width; ++x) to[x * step] = plane[x];
      }
    });
  }

  /// The grey of pixels whose zero is white.
  void Invert(std::uint8_t* row) const {
    const std::uint32_t most = description_.planes[0].MaxValue();
    host::WithSampleType(description_.planes[0].BytesPerSample(), [&](auto sample) {
      auto* pixels = reinterpret_cast<decltype(sample)*>(row);
      const std::size_t step = layout_.channels, end = layout_.width * step;
      for (std::size_t i = 0; i < end; i += step) {
        pixels[i] = static_cast<decltype(sample)>(most - pixels[i]);
      }
    });
  }

  Warn warn_;
  bool hasPage_ = false;
  Bytes storage_;  ///< of a source that can be read once only
  TiffFile file_;
  TiffHandle handle_{nullptr, TIFFClose};
  Layout layout_;
  bool byRows_ = false;
  unsigned channels_ = 1;  ///< of a piece
  std::uint64_t pieceRowBytes_ = 0;
  host::MemoryReservation room_;
  std::uint32_t nextRow_ = 0;
  host::SampleBuffer packed_;  ///< a row or a piece, as libtiff delivers it
  host::SampleBuffer rows_;    ///< a row of pieces
};

}  // namespace

std::unique_ptr<host::RowSource> OpenTiff(host::BufferedSource& source,
                                          const ReadSettings& settings) {
  auto rows = std::make_unique<TiffSource>(source, settings);
  if (!rows->HasPage()) return nullptr;
  const Image& description = rows->Description();
  if (!description.palette || description.planes.size() == 1) return rows;
  Image image = host::ReadImage(*rows);  // indices with further channels
  host::ExpandPalette(image);
  if (!host::HasPlainRows(image)) host::ChangeDepth(image, image.planes[0].Depth());
  return std::make_unique<host::ImageRowSource>(std::move(image));
}

}  // namespace kel::tool
