// JPEG, through libjpeg.
//
// libjpeg reports failures by a function that must not return; ours jumps back with longjmp. So
// every call into it stands in a function that holds nothing with a destructor.
#include <kel/host/errors.hpp>
#include <kel/host/rows.hpp>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <jpeglib.h>

#include <jerror.h>

#include "ImageFile.hpp"
#include "Metadata.hpp"

namespace kel::tool {
namespace {

using host::ByteView;
using host::Error;
using host::Failure;
using host::Image;

constexpr int kQuality = 95;
constexpr int kMetadataMarker = JPEG_APP0 + 1, kProfileMarker = JPEG_APP0 + 2;
constexpr unsigned kLongestMarker = 0xFFFF;
constexpr std::size_t kMostMarkerData = 65533;
constexpr std::string_view kExifName("Exif\0\0", 6);
constexpr std::string_view kXmpName("http://ns.adobe.com/xap/1.0/\0", 29);
constexpr double kCentimetresPerInch = 2.54;

/// libjpeg's error manager with our way back.
struct ErrorManager : jpeg_error_mgr {
  std::jmp_buf back;
  char message[JMSG_LENGTH_MAX] = {};
};

[[noreturn]] void OnError(j_common_ptr common) {
  auto& errors = *static_cast<ErrorManager*>(common->err);
  errors.format_message(common, errors.message);
  std::longjmp(errors.back, 1);
}

/// Warnings are passed over, but for the one that says that the rest is missing.
void OnMessage(j_common_ptr common, int level) {
  if (level < 0 && common->err->msg_code == JWRN_JPEG_EOF) OnError(common);
}

void SetUp(ErrorManager& errors) {
  jpeg_std_error(&errors);
  errors.error_exit = OnError;
  errors.emit_message = OnMessage;
}

// ---- Reading ----

struct JpegReader {
  explicit JpegReader(ByteView all) : bytes(all) { SetUp(errors); }
  ~JpegReader() {
    jpeg_destroy_decompress(&jpeg);
    std::free(profile);
  }

  ByteView bytes;
  ErrorManager errors;
  jpeg_decompress_struct jpeg{};
  JOCTET* profile = nullptr;
  unsigned profileBytes = 0;
};

bool ReadHeader(JpegReader& r) {
  r.jpeg.err = &r.errors;
  if (setjmp(r.errors.back) != 0) return false;
  jpeg_create_decompress(&r.jpeg);
  jpeg_save_markers(&r.jpeg, kMetadataMarker, kLongestMarker);
  jpeg_save_markers(&r.jpeg, kProfileMarker, kLongestMarker);
  jpeg_mem_src(&r.jpeg, r.bytes.data(), static_cast<unsigned long>(r.bytes.size()));
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
  throw Error(Failure::kInput, std::string("damaged JPEG file: ") + reader.errors.message);
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
  for (const jpeg_marker_struct* marker = jpeg.marker_list; marker != nullptr;
       marker = marker->next) {
    const std::string_view data(reinterpret_cast<const char*>(marker->data), marker->data_length);
    if (marker->marker != kMetadataMarker) continue;
    if (data.starts_with(kExifName)) {
      AddExif(image, ByteView(marker->data, marker->data_length).subspan(kExifName.size()));
    } else if (data.starts_with(kXmpName)) {
      AddXmp(image, std::string(data.substr(kXmpName.size())));
    }
  }
}

// ---- Writing ----

struct JpegWriter {
  JpegWriter() { SetUp(errors); }
  ~JpegWriter() {
    jpeg_destroy_compress(&jpeg);
    std::free(buffer);
  }

  ErrorManager errors;
  jpeg_compress_struct jpeg{};
  unsigned char* buffer = nullptr;  ///< libjpeg's, growing
  unsigned long bufferBytes = 0;
  host::Bytes exif, xmp;  ///< whole markers' data; empty for none
};

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
  jpeg_mem_dest(&w.jpeg, &w.buffer, &w.bufferBytes);
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
  for (const host::Bytes* marker : {&w.exif, &w.xmp}) {
    if (marker->empty()) continue;
    jpeg_write_marker(&w.jpeg, kMetadataMarker, marker->data(),
                      static_cast<unsigned>(marker->size()));
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
  throw Error(Failure::kOutput, std::string("cannot be written as JPEG: ") + writer.errors.message);
}

/// The data of a marker: its name, then the payload; nothing when that is empty or too long.
template <class Payload>
host::Bytes MarkerData(std::string_view name, const Payload& payload) {
  host::Bytes data;
  if (payload.empty() || name.size() + payload.size() > kMostMarkerData) return data;
  data.assign(name.begin(), name.end());
  data.insert(data.end(), payload.begin(), payload.end());
  return data;
}

}  // namespace

Image ReadJpeg(ByteView bytes) {
  JpegReader reader(bytes);
  Require(reader, ReadHeader(reader));
  const J_COLOR_SPACE space = reader.jpeg.jpeg_color_space;
  if (space == JCS_CMYK || space == JCS_YCCK) {
    throw Error(Failure::kInput,
                "a CMYK image; only grey and RGB images can be read, so convert "
                "it to RGB first");
  }
  if (space != JCS_GRAYSCALE && space != JCS_YCbCr && space != JCS_RGB) {
    throw Error(Failure::kInput, "a JPEG file of an unknown colour space");
  }
  Image image = host::MakeImage(reader.jpeg.image_width, reader.jpeg.image_height,
                                space == JCS_GRAYSCALE ? 1 : 3, 8);
  ReadMetadata(reader, image);  // libjpeg forgets them when it has finished
  Require(reader, StartReading(reader));
  std::vector<JSAMPLE> row(image.width * image.planes.size());
  for (std::uint32_t y = 0; y < image.height; ++y) {
    Require(reader, ReadRow(reader, row.data()));
    host::SplitRow(row.data(), image, y);
  }
  Require(reader, FinishReading(reader));
  return image;
}

void WriteJpeg(const Image& image, host::Sink& sink) {
  CheckFits(image, {"JPEG", 8, false, false, false});
  if (image.planes[0].Depth() != 8) {
    throw Error(Failure::kOutput, "JPEG files hold 8 bits per sample; add --bits 8");
  }
  if (std::max(image.width, image.height) > JPEG_MAX_DIMENSION) {
    throw Error(Failure::kOutput, "JPEG files hold at most 65500 columns and rows");
  }
  JpegWriter writer;
  writer.exif = MarkerData(kExifName, FindExif(image));
  if (const std::string* xmp = FindXmp(image)) writer.xmp = MarkerData(kXmpName, *xmp);
  Require(writer, StartWriting(writer, image));
  std::vector<JSAMPLE> row(image.width * image.planes.size());
  for (std::uint32_t y = 0; y < image.height; ++y) {
    host::JoinRow(image, y, row.data());
    Require(writer, WriteRow(writer, row.data()));
  }
  Require(writer, FinishWriting(writer));
  sink.Write(ByteView(writer.buffer, writer.bufferBytes));
}

}  // namespace kel::tool
