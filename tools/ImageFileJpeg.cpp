// JPEG, through libjpeg.
//
// libjpeg reports failures by a function that must not return; ours jumps back with longjmp. So
// every call into it stands in a function that holds nothing with a destructor.
#include <kel/host/errors.hpp>
#include <kel/host/limits.hpp>
#include <kel/host/session.hpp>

#include <algorithm>
#include <cctype>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>
#include <string_view>

#include <jpeglib.h>

#include <jerror.h>

#include "ImageFile.hpp"
#include "Md5.hpp"
#include "Metadata.hpp"

namespace kel::tool {
namespace {

using host::ByteView;
using host::Error;
using host::Failure;
using host::Image;

/// Of JPEG files that are written: hardly to be told from the samples given.
constexpr int kQuality = 95;
constexpr int kMetadataMarker = JPEG_APP0 + 1, kProfileMarker = JPEG_APP0 + 2,
              kBlocksMarker = JPEG_APP0 + 13;
constexpr int kAdobeMarker = JPEG_APP0 + 14, kLastAppMarker = JPEG_APP0 + 15;
constexpr unsigned kLongestMarker = 0xFFFF;
constexpr unsigned kMostShown = 16;  // bytes of a segment that has no place in images
constexpr std::size_t kMostMarkerData = 65533;
/// Scans of a progressive file. Each costs as much as the picture has samples, however few bytes
/// it takes; encoders write ten or so.
constexpr int kMostScans = 128;
constexpr std::size_t kPieceBytes = 65536;  // read or written at once
constexpr std::string_view kExifName("Exif\0\0", 6);
constexpr std::string_view kXmpName("http://ns.adobe.com/xap/1.0/\0", 29);
constexpr std::string_view kExtensionName("http://ns.adobe.com/xmp/extension/\0", 35);
constexpr std::string_view kBlocksName("Photoshop 3.0\0", 14);
constexpr std::size_t kDigestBytes = 32;            // in hexadecimal digits
constexpr std::size_t kMostXmpPiece = 65000;        // of an extension, in a marker
constexpr std::size_t kMostXmp = 64 * 1024 * 1024;  // put together from pieces
constexpr double kCentimetresPerInch = 2.54;

/// libjpeg's error manager with our way back.
struct ErrorManager : jpeg_error_mgr {
  std::jmp_buf back;
  char message[JMSG_LENGTH_MAX] = {};
  std::exception_ptr thrown;  ///< by a source or sink, behind which libjpeg stands
  Complaints complaints;
};

[[noreturn]] void OnError(j_common_ptr common) {
  auto& errors = *static_cast<ErrorManager*>(common->err);
  errors.format_message(common, errors.message);
  std::longjmp(errors.back, 1);
}

/// Warnings are noted, but for the one that says that the rest is missing, which is a failure.
void OnMessage(j_common_ptr common, int level) {
  if (level >= 0) return;
  if (common->err->msg_code == JWRN_JPEG_EOF) OnError(common);
  auto& errors = *static_cast<ErrorManager*>(common->err);
  char text[JMSG_LENGTH_MAX];
  errors.format_message(common, text);
  errors.complaints.Note(text);
}

void SetUp(ErrorManager& errors) {
  jpeg_std_error(&errors);
  errors.error_exit = OnError;
  errors.emit_message = OnMessage;
}

// ---- Reading ----

struct JpegReader {
  explicit JpegReader(host::BufferedSource& from) : source(from), piece(kPieceBytes) {
    SetUp(errors);
  }
  ~JpegReader() {
    jpeg_destroy_decompress(&jpeg);
    std::free(profile);
  }

  host::BufferedSource& source;
  host::Bytes piece;  ///< what libjpeg reads from
  jpeg_source_mgr manager{};
  jpeg_progress_mgr progress{};
  ErrorManager errors;
  jpeg_decompress_struct jpeg{};
  JOCTET* profile = nullptr;
  unsigned profileBytes = 0;
};

/// At the end of the data libjpeg is given an end marker, after a warning that OnMessage catches.
boolean FillInput(j_decompress_ptr jpeg) {
  static constexpr JOCTET kEnd[] = {0xFF, JPEG_EOI};
  auto& reader = *static_cast<JpegReader*>(jpeg->client_data);
  std::size_t count = 0;
  try {
    count = reader.source.Read(reader.piece);
  } catch (...) {
    reader.errors.thrown = std::current_exception();
  }
  if (count == 0) WARNMS(jpeg, JWRN_JPEG_EOF);
  reader.manager.next_input_byte = count == 0 ? kEnd : reader.piece.data();
  reader.manager.bytes_in_buffer = count == 0 ? sizeof kEnd : count;
  return TRUE;
}

void SkipInput(j_decompress_ptr jpeg, long count) {
  jpeg_source_mgr& manager = *jpeg->src;
  auto left = static_cast<std::size_t>(std::max(count, 0L));
  while (left > manager.bytes_in_buffer) {
    left -= manager.bytes_in_buffer;
    FillInput(jpeg);
  }
  manager.next_input_byte += left;
  manager.bytes_in_buffer -= left;
}

/// Libjpeg asks for this many times in every scan.
void OnProgress(j_common_ptr common) {
  auto* jpeg = reinterpret_cast<j_decompress_ptr>(common);
  auto& reader = *static_cast<JpegReader*>(jpeg->client_data);
  try {
    host::CheckTime();
    if (jpeg->input_scan_number > kMostScans) {
      throw Error(Failure::kInput, "a JPEG file of too many scans");
    }
  } catch (...) {
    reader.errors.thrown = std::current_exception();
  }
  if (reader.errors.thrown) ERREXIT(jpeg, JERR_FILE_READ);
}

bool ReadHeader(JpegReader& r) {
  r.jpeg.err = &r.errors;
  if (setjmp(r.errors.back) != 0) return false;
  jpeg_create_decompress(&r.jpeg);
  for (int marker = JPEG_APP0 + 1; marker <= kLastAppMarker; ++marker) {
    if (marker != kAdobeMarker) jpeg_save_markers(&r.jpeg, marker, kMostShown);
  }
  jpeg_save_markers(&r.jpeg, kMetadataMarker, kLongestMarker);
  jpeg_save_markers(&r.jpeg, kProfileMarker, kLongestMarker);
  jpeg_save_markers(&r.jpeg, kBlocksMarker, kLongestMarker);
  jpeg_save_markers(&r.jpeg, JPEG_COM, kLongestMarker);
  r.jpeg.client_data = &r;
  r.manager.init_source = [](j_decompress_ptr) {};
  r.manager.fill_input_buffer = FillInput;
  r.manager.skip_input_data = SkipInput;
  r.manager.resync_to_restart = jpeg_resync_to_restart;
  r.manager.term_source = [](j_decompress_ptr) {};
  r.jpeg.src = &r.manager;
  r.progress.progress_monitor = OnProgress;
  r.jpeg.progress = &r.progress;
  jpeg_read_header(&r.jpeg, TRUE);
  if (jpeg_read_icc_profile(&r.jpeg, &r.profile, &r.profileBytes) == 0) r.profileBytes = 0;
  return true;
}

bool StartReading(JpegReader& r) {
  if (setjmp(r.errors.back) != 0) return false;
  r.jpeg.out_color_space = r.jpeg.jpeg_color_space == JCS_GRAYSCALE ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_start_decompress(&r.jpeg);
  return true;
}

bool ReadRow(JpegReader& r, JSAMPROW row) {
  if (setjmp(r.errors.back) != 0) return false;
  jpeg_read_scanlines(&r.jpeg, &row, 1);
  return true;
}

bool FinishReading(JpegReader& r) {
  if (setjmp(r.errors.back) != 0) return false;
  jpeg_finish_decompress(&r.jpeg);
  return true;
}

void Require(const JpegReader& reader, bool success) {
  if (success) return;
  if (reader.errors.thrown) std::rethrow_exception(reader.errors.thrown);
  throw Error(Failure::kInput, std::string("damaged JPEG file: ") + reader.errors.message);
}

/// Puts a piece of an extension in its place: a digest, the size of all, the piece's position, and
/// the piece.
void AddExtension(ByteView marker, std::string& extension) {
  constexpr std::size_t kHead = kDigestBytes + 8;
  if (marker.size() < kHead) return;
  const auto word = [&](std::size_t at) {
    return std::size_t{marker[at]} << 24 | std::size_t{marker[at + 1]} << 16 |
           marker[at + 2] * 256U | marker[at + 3];
  };
  const std::size_t total = word(kDigestBytes), at = word(kDigestBytes + 4);
  const ByteView piece = marker.subspan(kHead);
  if (total > kMostXmp || at > total || piece.size() > total - at) return;
  extension.resize(std::max(extension.size(), at + piece.size()), ' ');
  std::copy(piece.begin(), piece.end(), extension.begin() + static_cast<std::ptrdiff_t>(at));
}

void ReadMetadata(const JpegReader& reader, Image& image) {
  const jpeg_decompress_struct& jpeg = reader.jpeg;
  if (reader.profileBytes != 0) {
    image.iccProfile.assign(reader.profile, reader.profile + reader.profileBytes);
  }
  if (jpeg.saw_JFIF_marker && jpeg.density_unit != 0 && jpeg.X_density != 0 &&
      jpeg.Y_density != 0) {
    const double scale = jpeg.density_unit == 2 ? kCentimetresPerInch : 1;
    image.resolution = {jpeg.X_density * scale, jpeg.Y_density * scale};
  }
  std::string xmp, extension;
  for (const jpeg_marker_struct* marker = jpeg.marker_list; marker != nullptr;
       marker = marker->next) {
    const ByteView bytes(marker->data, marker->data_length);
    const std::string_view data(reinterpret_cast<const char*>(marker->data), marker->data_length);
    if (marker->marker == JPEG_COM) {
      image.comment.append(image.comment.empty() ? "" : "\n").append(data);
    } else if (marker->marker == kBlocksMarker && data.starts_with(kBlocksName)) {
      AddIptc(image, IptcInBlocks(bytes.subspan(kBlocksName.size())));
    } else if (marker->marker != kMetadataMarker) {
      continue;
    } else if (data.starts_with(kExifName)) {
      AddExif(image, bytes.subspan(kExifName.size()));
    } else if (data.starts_with(kXmpName)) {
      xmp = data.substr(kXmpName.size());
    } else if (data.starts_with(kExtensionName)) {
      AddExtension(bytes.subspan(kExtensionName.size()), extension);
    }
  }
  AddXmp(image, extension.empty() ? xmp : JoinXmp(xmp, extension));
}

/// Names the segments that images have no place for.
void WarnOfOthers(const JpegReader& reader, const Warn& warn) {
  constexpr std::string_view kProfileName("ICC_PROFILE\0", 12);
  std::set<std::string> lost;
  for (const jpeg_marker_struct* marker = reader.jpeg.marker_list; marker != nullptr;
       marker = marker->next) {
    const std::string_view data(reinterpret_cast<const char*>(marker->data), marker->data_length);
    if (marker->marker == JPEG_COM) continue;
    bool isKept = false;
    for (const std::string_view name :
         {kExifName, kXmpName, kExtensionName, kBlocksName, kProfileName}) {
      isKept = isKept || data.starts_with(name);
    }
    if (isKept) continue;
    std::string name = "APP" + std::to_string(marker->marker - JPEG_APP0);
    const auto end = std::find_if_not(
        data.begin(), data.begin() + std::min<std::ptrdiff_t>(kMostShown, std::ssize(data)),
        [](unsigned char c) { return std::isalnum(c) != 0; });
    if (end != data.begin()) name += " (" + std::string(data.begin(), end) + ")";
    lost.insert(name);
  }
  std::string names;
  for (const std::string& name : lost) names += (names.empty() ? "" : ", ") + name;
  if (!names.empty()) warn("left out: " + names);
}

// ---- Writing ----

struct JpegWriter {
  explicit JpegWriter(host::Sink& to) : sink(to), piece(kPieceBytes) { SetUp(errors); }
  ~JpegWriter() { jpeg_destroy_compress(&jpeg); }

  host::Sink& sink;
  host::Bytes piece;  ///< what libjpeg writes to
  jpeg_destination_mgr manager{};
  ErrorManager errors;
  jpeg_compress_struct jpeg{};
  std::vector<std::pair<int, host::Bytes>> markers;  ///< with their numbers, data and names
};

/// Writes what the piece holds and begins it anew.
void PassOn(j_compress_ptr jpeg, std::size_t count) {
  auto& writer = *static_cast<JpegWriter*>(jpeg->client_data);
  try {
    writer.sink.Write(ByteView(writer.piece).first(count));
  } catch (...) {
    writer.errors.thrown = std::current_exception();
  }
  if (writer.errors.thrown) ERREXIT(jpeg, JERR_FILE_WRITE);
  writer.manager.next_output_byte = writer.piece.data();
  writer.manager.free_in_buffer = writer.piece.size();
}

void SetDestination(JpegWriter& w) {
  w.jpeg.client_data = &w;
  w.manager.init_destination = [](j_compress_ptr jpeg) { PassOn(jpeg, 0); };
  w.manager.empty_output_buffer = [](j_compress_ptr jpeg) -> boolean {
    PassOn(jpeg, static_cast<JpegWriter*>(jpeg->client_data)->piece.size());
    return TRUE;
  };
  w.manager.term_destination = [](j_compress_ptr jpeg) {
    const auto& writer = *static_cast<JpegWriter*>(jpeg->client_data);
    PassOn(jpeg, writer.piece.size() - writer.manager.free_in_buffer);
  };
  w.jpeg.dest = &w.manager;
}

void SetDensity(jpeg_compress_struct& jpeg, const Image& image) {
  if (!image.resolution) return;
  const auto density = [](double value) {
    return static_cast<UINT16>(std::clamp(value + 0.5, 1.0, 65535.0));
  };
  jpeg.density_unit = 1;
  jpeg.X_density = density(image.resolution->x);
  jpeg.Y_density = density(image.resolution->y);
}

bool StartWriting(JpegWriter& w, const Image& image) {
  w.jpeg.err = &w.errors;
  if (setjmp(w.errors.back) != 0) return false;
  jpeg_create_compress(&w.jpeg);
  SetDestination(w);
  w.jpeg.image_width = image.width;
  w.jpeg.image_height = image.height;
  w.jpeg.input_components = static_cast<int>(image.planes.size());
  w.jpeg.in_color_space = image.planes.size() == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(&w.jpeg);
  jpeg_set_quality(&w.jpeg, kQuality, TRUE);
  for (int c = 0; c < w.jpeg.num_components; ++c) {  // chroma at full resolution
    w.jpeg.comp_info[c].h_samp_factor = w.jpeg.comp_info[c].v_samp_factor = 1;
  }
  SetDensity(w.jpeg, image);
  jpeg_start_compress(&w.jpeg, TRUE);
  for (const auto& [number, data] : w.markers) {
    jpeg_write_marker(&w.jpeg, number, data.data(), static_cast<unsigned>(data.size()));
  }
  if (!image.iccProfile.empty()) {
    jpeg_write_icc_profile(&w.jpeg, image.iccProfile.data(),
                           static_cast<unsigned>(image.iccProfile.size()));
  }
  return true;
}

bool WriteRow(JpegWriter& w, JSAMPROW row) {
  if (setjmp(w.errors.back) != 0) return false;
  jpeg_write_scanlines(&w.jpeg, &row, 1);
  return true;
}

bool FinishWriting(JpegWriter& w) {
  if (setjmp(w.errors.back) != 0) return false;
  jpeg_finish_compress(&w.jpeg);
  return true;
}

void Require(const JpegWriter& writer, bool success) {
  if (success) return;
  if (writer.errors.thrown) std::rethrow_exception(writer.errors.thrown);
  throw Error(Failure::kOutput, std::string("cannot be written as JPEG: ") + writer.errors.message);
}

/// Adds a marker: its name, then the payload; nothing when that is empty or too long.
template <class Payload>
void AddMarker(JpegWriter& writer, int number, std::string_view name, const Payload& payload) {
  if (payload.empty() || name.size() + payload.size() > kMostMarkerData) return;
  host::Bytes data(name.begin(), name.end());
  data.insert(data.end(), payload.begin(), payload.end());
  writer.markers.emplace_back(number, std::move(data));
}

/// XMP of one marker, or a pointer to an extension of many.
void AddXmpMarkers(JpegWriter& writer, std::string_view xmp) {
  if (kXmpName.size() + xmp.size() <= kMostMarkerData) {
    AddMarker(writer, kMetadataMarker, kXmpName, xmp);
    return;
  }
  const std::string digest =
      Md5Digits({reinterpret_cast<const std::uint8_t*>(xmp.data()), xmp.size()});
  AddMarker(writer, kMetadataMarker, kXmpName, MakeXmpPointer(digest));
  for (std::size_t at = 0; at < xmp.size(); at += kMostXmpPiece) {
    std::string piece = digest;
    for (const std::size_t number : {xmp.size(), at}) {
      for (const int shift : {24, 16, 8, 0}) piece += static_cast<char>(number >> shift);
    }
    AddMarker(writer, kMetadataMarker, kExtensionName, piece.append(xmp.substr(at, kMostXmpPiece)));
  }
}

void AddMarkers(JpegWriter& writer, const Image& image) {
  AddMarker(writer, kMetadataMarker, kExifName, FindExif(image));
  if (const std::string* xmp = FindXmp(image)) AddXmpMarkers(writer, *xmp);
  const ByteView iptc = FindIptc(image);
  if (!iptc.empty()) AddMarker(writer, kBlocksMarker, kBlocksName, MakeIptcBlock(iptc));
  AddMarker(writer, JPEG_COM, {}, image.comment);
}

class JpegSource final : public host::RowSource {
 public:
  JpegSource(host::BufferedSource& source, const ReadSettings& settings)
      : reader_(source), warn_(settings.warn) {
    Require(reader_, ReadHeader(reader_));
    const J_COLOR_SPACE space = reader_.jpeg.jpeg_color_space;
    if (space == JCS_CMYK || space == JCS_YCCK) {
      throw Error(Failure::kInput,
                  "a CMYK image; only grey and RGB images can be read, so convert "
                  "it to RGB first");
    }
    if (space != JCS_GRAYSCALE && space != JCS_YCbCr && space != JCS_RGB) {
      throw Error(Failure::kInput, "a JPEG file of an unknown colour space");
    }
    description_ = host::DescribeNewImage(reader_.jpeg.image_width, reader_.jpeg.image_height,
                                          space == JCS_GRAYSCALE ? 1 : 3, 8);
    ReadMetadata(reader_, description_);
    WarnOfOthers(reader_, warn_);
    holdsPicture_ = jpeg_has_multiple_scans(&reader_.jpeg) != FALSE;
    if (holdsPicture_) {
      room_ = host::MemoryReservation(CoefficientBytes(), "the coefficients of a JPEG file");
    }
    Require(reader_, StartReading(reader_));
    reader_.errors.complaints.Tell(warn_);
  }

  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    for (; count > 0; --count, to += strideBytes) Require(reader_, ReadRow(reader_, to));
    if (reader_.jpeg.output_scanline == reader_.jpeg.output_height) {
      Require(reader_, FinishReading(reader_));
    }
    reader_.errors.complaints.Tell(warn_);
  }

  /// libjpeg keeps the coefficients of a file of several scans.
  bool HoldsPicture() const override { return holdsPicture_; }

 private:
  std::uint64_t CoefficientBytes() const {
    std::uint64_t blocks = 0;
    for (int c = 0; c < reader_.jpeg.num_components; ++c) {
      const jpeg_component_info& component = reader_.jpeg.comp_info[c];
      blocks += std::uint64_t{component.width_in_blocks} * component.height_in_blocks;
    }
    return blocks * sizeof(JBLOCK);
  }

  JpegReader reader_;
  bool holdsPicture_ = false;
  host::MemoryReservation room_;
  Warn warn_;
};

class JpegSink final : public host::RowSink {
 public:
  explicit JpegSink(host::Sink& sink) : writer_(sink) {}

  void Begin(const Image& description) override {
    CheckFits(description, {.format = "JPEG", .mostDepth = 8});
    if (description.planes[0].Depth() != 8) {
      throw Error(Failure::kOutput, "JPEG files hold 8 bits per sample; add --bits 8");
    }
    if (std::max(description.width, description.height) > JPEG_MAX_DIMENSION) {
      throw Error(Failure::kOutput, "JPEG files hold at most 65500 columns and rows");
    }
    AddMarkers(writer_, description);
    Require(writer_, StartWriting(writer_, description));
  }

  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override {
    for (; count > 0; --count, rows += strideBytes) {
      Require(writer_, WriteRow(writer_, const_cast<JSAMPROW>(rows)));
    }
  }

  void Finish() override {
    Require(writer_, FinishWriting(writer_));
    writer_.sink.Finish();
  }

 private:
  JpegWriter writer_;
};

}  // namespace

std::unique_ptr<host::RowSource> OpenJpeg(host::BufferedSource& source,
                                          const ReadSettings& settings) {
  if (settings.page > 1) return nullptr;
  return std::make_unique<JpegSource>(source, settings);
}

std::unique_ptr<host::RowSink> MakeJpeg(host::Sink& sink) {
  return std::make_unique<JpegSink>(sink);
}

}  // namespace kel::tool
