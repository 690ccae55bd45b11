// The names of EXIF fields, and their values as text.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "Exif.hpp"

namespace kel::tool {
namespace {

struct Name {
  std::uint16_t tag;
  std::string_view name;
};

constexpr Name kImageNames[] = {{269, "DocumentName"},
                                {270, "ImageDescription"},
                                {271, "Make"},
                                {272, "Model"},
                                {274, "Orientation"},
                                {305, "Software"},
                                {306, "DateTime"},
                                {315, "Artist"},
                                {316, "HostComputer"},
                                {531, "YCbCrPositioning"},
                                {282, "XResolution"},
                                {283, "YResolution"},
                                {296, "ResolutionUnit"},
                                {18246, "Rating"},
                                {33432, "Copyright"},
                                {33550, "ModelPixelScale"},
                                {33922, "ModelTiepoint"},
                                {34735, "GeoKeyDirectory"},
                                {40091, "XPTitle"},
                                {40092, "XPComment"},
                                {40093, "XPAuthor"},
                                {40094, "XPKeywords"},
                                {40095, "XPSubject"}};

constexpr Name kPhotoNames[] = {{33434, "ExposureTime"},
                                {33437, "FNumber"},
                                {34850, "ExposureProgram"},
                                {34855, "PhotographicSensitivity"},
                                {34864, "SensitivityType"},
                                {36864, "ExifVersion"},
                                {36867, "DateTimeOriginal"},
                                {36868, "DateTimeDigitized"},
                                {36880, "OffsetTime"},
                                {36881, "OffsetTimeOriginal"},
                                {36882, "OffsetTimeDigitized"},
                                {37121, "ComponentsConfiguration"},
                                {37122, "CompressedBitsPerPixel"},
                                {37377, "ShutterSpeedValue"},
                                {37378, "ApertureValue"},
                                {37379, "BrightnessValue"},
                                {37380, "ExposureBiasValue"},
                                {37381, "MaxApertureValue"},
                                {37382, "SubjectDistance"},
                                {37383, "MeteringMode"},
                                {37384, "LightSource"},
                                {37385, "Flash"},
                                {37386, "FocalLength"},
                                {37396, "SubjectArea"},
                                {37500, "MakerNote"},
                                {37510, "UserComment"},
                                {37520, "SubSecTime"},
                                {37521, "SubSecTimeOriginal"},
                                {37522, "SubSecTimeDigitized"},
                                {40960, "FlashpixVersion"},
                                {40961, "ColorSpace"},
                                {40962, "PixelXDimension"},
                                {40963, "PixelYDimension"},
                                {41486, "FocalPlaneXResolution"},
                                {41487, "FocalPlaneYResolution"},
                                {41488, "FocalPlaneResolutionUnit"},
                                {41495, "SensingMethod"},
                                {41728, "FileSource"},
                                {41729, "SceneType"},
                                {41985, "CustomRendered"},
                                {41986, "ExposureMode"},
                                {41987, "WhiteBalance"},
                                {41988, "DigitalZoomRatio"},
                                {41989, "FocalLengthIn35mmFilm"},
                                {41990, "SceneCaptureType"},
                                {41992, "Contrast"},
                                {41993, "Saturation"},
                                {41994, "Sharpness"},
                                {42016, "ImageUniqueID"},
                                {42032, "CameraOwnerName"},
                                {42033, "BodySerialNumber"},
                                {42034, "LensSpecification"},
                                {42035, "LensMake"},
                                {42036, "LensModel"},
                                {42037, "LensSerialNumber"}};

constexpr Name kGpsNames[] = {{0, "GPSVersionID"},        {1, "GPSLatitudeRef"},
                              {2, "GPSLatitude"},         {3, "GPSLongitudeRef"},
                              {4, "GPSLongitude"},        {5, "GPSAltitudeRef"},
                              {6, "GPSAltitude"},         {7, "GPSTimeStamp"},
                              {8, "GPSSatellites"},       {9, "GPSStatus"},
                              {10, "GPSMeasureMode"},     {11, "GPSDOP"},
                              {12, "GPSSpeedRef"},        {13, "GPSSpeed"},
                              {14, "GPSTrackRef"},        {15, "GPSTrack"},
                              {16, "GPSImgDirectionRef"}, {17, "GPSImgDirection"},
                              {18, "GPSMapDatum"},        {19, "GPSDestLatitudeRef"},
                              {20, "GPSDestLatitude"},    {21, "GPSDestLongitudeRef"},
                              {22, "GPSDestLongitude"},   {27, "GPSProcessingMethod"},
                              {28, "GPSAreaInformation"}, {29, "GPSDateStamp"},
                              {30, "GPSDifferential"},    {31, "GPSHPositioningError"}};

constexpr std::size_t kMostValues = 8;  // shown of a field

std::string NameOfTag(std::span<const Name> names, std::uint16_t tag) {
  const auto found = std::ranges::find(names, tag, &Name::tag);
  if (found != names.end()) return std::string(found->name);
  char text[16];
  std::snprintf(text, sizeof text, "0x%04x", tag);
  return text;
}

template <class Number>
Number At(const host::Bytes& values, std::size_t index) {
  Number number;
  std::memcpy(&number, &values[index * sizeof number], sizeof number);
  return number;
}

std::string Decimal(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.10g", value);
  return text;
}

/// Fractions of a second stay as they are; others are told as decimal numbers.
template <class Number>
std::string Ratio(const host::Bytes& values, std::size_t index) {
  const auto above = At<Number>(values, 2 * index), below = At<Number>(values, 2 * index + 1);
  if (below == 0 || above == 1) return std::to_string(above) + "/" + std::to_string(below);
  return Decimal(static_cast<double>(above) / static_cast<double>(below));
}

std::string OneValue(std::uint16_t type, const host::Bytes& values, std::size_t i) {
  switch (type) {
    case 1:
      return std::to_string(values[i]);
    case 3:
      return std::to_string(At<std::uint16_t>(values, i));
    case 4:
    case 13:
      return std::to_string(At<std::uint32_t>(values, i));
    case 5:
      return Ratio<std::uint32_t>(values, i);
    case 6:
      return std::to_string(static_cast<std::int8_t>(values[i]));
    case 8:
      return std::to_string(At<std::int16_t>(values, i));
    case 9:
      return std::to_string(At<std::int32_t>(values, i));
    case 10:
      return Ratio<std::int32_t>(values, i);
    case 11:
      return Decimal(static_cast<double>(At<float>(values, i)));
    case 12:
      return Decimal(At<double>(values, i));
    default:
      return std::to_string(At<std::uint64_t>(values, i));
  }
}

std::string ValueText(const ExifField& field, bool bigEndian) {
  constexpr std::uint16_t kText = 2, kUndefined = 7;
  if (field.type == kText) {
    const std::string text(field.data.begin(), field.data.end());
    return text.substr(0, text.find('\0'));
  }
  if (field.type == kUndefined) {
    const bool isShortText = field.count <= 8 && std::ranges::all_of(field.data, [](unsigned c) {
                               return c >= 0x20 && c < 0x7F;
                             });
    if (isShortText) return {field.data.begin(), field.data.end()};
    return std::to_string(field.count) + " bytes";
  }
  const bool isRatio = field.type == 5 || field.type == 10;
  const unsigned valueBytes = ExifValueBytes(field.type);
  const host::Bytes values = NativeValues(field, bigEndian, isRatio ? 4 : valueBytes);
  std::string text;
  for (std::size_t i = 0; i < field.count && i < kMostValues; ++i) {
    text += (i == 0 ? "" : " ") + OneValue(field.type, values, i);
  }
  return field.count > kMostValues ? text + " ..." : text;
}

}  // namespace

std::vector<ExifLine> ListExif(host::ByteView exif) {
  const ExifTree tree = ReadExif(exif);
  std::vector<ExifLine> lines;
  const auto list = [&](const char* group, const std::vector<ExifField>& fields,
                        std::span<const Name> names) {
    for (const ExifField& field : fields) {
      lines.push_back({group, NameOfTag(names, field.tag), ValueText(field, tree.bigEndian)});
    }
  };
  list("image", tree.image, kImageNames);
  list("photo", tree.photo, kPhotoNames);
  list("gps", tree.gps, kGpsNames);
  return lines;
}

}  // namespace kel::tool
