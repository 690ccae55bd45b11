// Options and attributes, one by one.
#include "Requests.hpp"

#include <pybind11/stl.h>

#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>

#include <algorithm>
#include <cmath>

#include "Metadata.hpp"

namespace kel::python {
namespace {

using host::ChannelRole;
using host::Error;
using host::Failure;

[[noreturn]] void Refuse(const std::string& sentence) {
  throw Error(Failure::kParameter, sentence);
}

host::Bytes BytesOf(const py::bytes& bytes) {
  const auto text = static_cast<std::string_view>(bytes);
  return {text.begin(), text.end()};
}

py::object BytesOrNone(host::ByteView bytes) {
  if (bytes.empty()) return py::none();
  return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

/// An image of one plane that is nonzero where the array is.
host::Image MaskOf(const py::array& array) {
  const auto flags = py::array_t<bool, py::array::c_style | py::array::forcecast>::ensure(array);
  if (!flags || flags.ndim() != 2) Refuse("roi is an array of (rows, columns)");
  host::Image mask = host::MakeImage(static_cast<std::uint32_t>(flags.shape(1)),
                                     static_cast<std::uint32_t>(flags.shape(0)), 1, 8);
  for (std::uint32_t y = 0; y < mask.height; ++y) {
    const bool* from = flags.data(static_cast<py::ssize_t>(y), py::ssize_t{0});
    std::copy_n(from, mask.width, mask.planes[0].Row<std::uint8_t>(y));
  }
  return mask;
}

/// Columns of a palette from an array of (entries, channels).
host::Palette PaletteOf(const py::array& array) {
  const Samples samples = SamplesOf(array);
  if (array.ndim() != 2 || samples.bytesPerSample > 2) {
    Refuse("a palette is an array of (entries, channels), uint8 or uint16");
  }
  host::Palette palette;
  const py::object numbers = array.attr("T").attr("tolist")();
  for (const py::handle column : numbers) {
    host::Palette::Column& made = palette.columns.emplace_back();
    made.depth = 8 * samples.bytesPerSample;
    made.entries = column.cast<std::vector<std::uint32_t>>();
  }
  return palette;
}

py::object PaletteForPython(const host::Image& image) {
  if (!image.palette) return py::none();
  const auto& columns = image.palette->columns;
  const bool isDeep = std::ranges::any_of(columns, [](const auto& c) { return c.depth > 8; });
  py::list rows;
  for (const auto& column : columns) rows.append(py::cast(column.entries));
  const py::object numpy = py::module_::import("numpy");
  return numpy.attr("array")(rows, isDeep ? "u2" : "u1").attr("T").attr("copy")();
}

/// Says what the last channel is: opacity with two or four channels, unless told otherwise.
void SetOpacity(host::Image& image, Options& options) {
  py::object alpha;
  const std::size_t channels = image.planes.size();
  const bool isUsual = channels == 2 || channels == 4;
  if (!options.Take("alpha", alpha)) alpha = py::bool_(isUsual);
  if (alpha.is(py::bool_(false))) return;
  if (channels < 2) Refuse("opacity is the last of several channels, and the array has one");
  host::Plane& last = image.planes.back();
  if (alpha.is(py::bool_(true)) || alpha.equal(py::str("straight"))) {
    last.role = ChannelRole::kOpacity;
  } else if (alpha.equal(py::str("premultiplied"))) {
    last.role = ChannelRole::kPremultipliedOpacity;
  } else {
    Refuse("alpha is True, False, 'straight' or 'premultiplied'");
  }
  last.colour = 0;
}

/// Colours first: grey with one or two channels, else red, green and blue; then others.
host::Image DescribeChannels(const Samples& samples, unsigned depth, Options& options) {
  const unsigned colours = samples.channels < 3 ? 1 : 3;
  host::Image image = host::DescribeNewImage(samples.columns, samples.rows, colours, depth);
  while (image.planes.size() < samples.channels) {
    host::Plane& plane = image.planes.emplace_back(
        host::Plane::WithoutSamples(samples.columns, samples.rows, depth));
    plane.role = ChannelRole::kOther;
    plane.colour = 0;
  }
  SetOpacity(image, options);
  return image;
}

void TakeMetadata(Options& options, host::Image& image) {
  py::bytes profile, exif;
  std::string xmp;
  std::pair<double, double> resolution;
  py::array palette;
  std::uint32_t space = 0;
  if (options.Take("icc_profile", profile)) image.iccProfile = BytesOf(profile);
  if (options.Take("exif", exif)) tool::AddExif(image, BytesOf(exif));
  if (options.Take("xmp", xmp)) tool::AddXmp(image, xmp);
  if (options.Take("resolution", resolution)) {
    if (!(resolution.first > 0 && resolution.second > 0)) Refuse("a resolution is above 0");
    image.resolution = {resolution.first, resolution.second};
  }
  options.Take("comment", image.comment);
  if (options.Take("palette", palette)) image.palette = PaletteOf(palette);
  if (options.Take("colour_space", space)) {
    image.colourSpace = static_cast<host::ColourSpace>(space);
  }
}

const char* OpacityName(const host::Image& image) {
  const host::Plane* opacity = host::OpacityPlane(image);
  if (opacity == nullptr) return nullptr;
  return opacity->role == ChannelRole::kOpacity ? "straight" : "premultiplied";
}

}  // namespace

void Options::Finish() const {
  for (const auto& entry : left_) {
    throw py::type_error("there is no option " + py::str(entry.first).cast<std::string>());
  }
}

std::vector<std::string> CodingOptions() {
  return {"lossless", "quality", "plain", "levels",           "size", "psnr",     "chroma",
          "layers",   "tile",    "order", "colour_transform", "roi",  "checksums"};
}

host::EncodeParams TakeCoding(Options& options, host::Image& mask) {
  host::EncodeParams params;
  std::pair<std::uint32_t, std::uint32_t> tile;
  std::string order, chroma;
  py::array roi;
  options.Take("lossless", params.lossless);
  options.Take("quality", params.quality);
  options.Take("plain", params.plain);
  options.Take("levels", params.levels);
  options.Take("size", params.sizeLimit);
  options.Take("psnr", params.psnr);
  options.Take("layers", params.layers);
  options.Take("threads", params.threads);
  options.Take("checksums", params.checksums);
  options.Take("colour_transform", params.colourTransform);
  if (options.Take("tile", tile)) {
    params.tileWidth = tile.first;
    params.tileHeight = tile.second;
  }
  if (options.Take("order", order)) {
    if (order != "rlcp" && order != "cprl") Refuse("order is 'rlcp' or 'cprl'");
    if (order == "cprl") params.order = host::PacketOrder::kComponents;
  }
  if (options.Take("chroma", chroma)) {
    if (chroma != "444" && chroma != "420") Refuse("chroma is '444' or '420'");
    params.halfChroma = chroma == "420";
  }
  if (options.Take("roi", roi)) mask = MaskOf(roi);
  return params;
}

EncodeRequest ReadEncodeRequest(const Samples& samples, const py::dict& given) {
  Options options(given);
  EncodeRequest request;
  request.params = TakeCoding(options, request.mask);
  unsigned depth = 8 * samples.bytesPerSample;
  options.Take("depth", depth);
  if (depth < 1 || depth > 28 || depth > 8 * samples.bytesPerSample ||
      depth <= 4 * samples.bytesPerSample * (samples.bytesPerSample > 1 ? 1 : 0)) {
    Refuse("depth is 1 to 8 bits for uint8, 9 to 16 for uint16, and 17 to 28 for uint32");
  }
  request.image = DescribeChannels(samples, depth, options);
  TakeMetadata(options, request.image);
  options.Finish();
  return request;
}

void TakeFit(Options& options, host::DecodeParams& params) {
  std::pair<std::uint32_t, std::uint32_t> fit;
  if (!options.Take("fit", fit)) return;
  if (params.reduce != 0) Refuse("fit and reduce exclude each other");
  if (fit.first == 0 || fit.second == 0) Refuse("fit is (width, height), both above 0");
  params.fitWidth = fit.first;
  params.fitHeight = fit.second;
}

host::Region ReadRegion(const py::object& region) {
  try {
    const auto numbers = region.cast<std::array<std::uint32_t, 4>>();
    return {numbers[0], numbers[1], numbers[2], numbers[3]};
  } catch (const py::cast_error&) {
    Refuse("a region is (x, y, width, height), none of them negative, and not " +
           py::repr(region).cast<std::string>());
  }
}

py::dict DescribeForPython(const host::Image& image) {
  py::dict told;
  const std::string* xmp = tool::FindXmp(image);
  const char* opacity = OpacityName(image);
  told["icc_profile"] = BytesOrNone(image.iccProfile);
  told["exif"] = BytesOrNone(tool::FindExif(image));
  told["xmp"] = xmp == nullptr
                    ? py::object(py::none())
                    : py::reinterpret_steal<py::object>(PyUnicode_DecodeUTF8(
                          xmp->data(), static_cast<py::ssize_t>(xmp->size()), "replace"));
  told["resolution"] = image.resolution
                           ? py::object(py::make_tuple(image.resolution->x, image.resolution->y))
                           : py::object(py::none());
  told["comment"] = py::reinterpret_steal<py::object>(PyUnicode_DecodeUTF8(
      image.comment.data(), static_cast<py::ssize_t>(image.comment.size()), "replace"));
  told["palette"] = PaletteForPython(image);
  told["alpha"] = opacity == nullptr ? py::object(py::none()) : py::str(opacity);
  told["colour_space"] = static_cast<std::uint32_t>(image.colourSpace);
  return told;
}

void MakePlain(host::Image& image, bool indices) {
  if (indices) image.palette.reset();
  host::MakeOrdinary(image);
  unsigned depth = 0;
  for (const host::Plane& plane : image.planes) depth = std::max(depth, plane.Depth());
  host::ChangeDepth(image, depth);
}

host::Image DescribeArray(const host::Image& image, bool indices) {
  std::vector<unsigned> depths;
  if (image.palette && !indices) {
    for (const auto& column : image.palette->columns) depths.push_back(column.depth);
  } else {
    for (const host::Plane& plane : image.planes) depths.push_back(plane.Depth());
  }
  host::Image plain;
  plain.width = image.width;
  plain.height = image.height;
  const unsigned depth = std::ranges::max(depths);
  plain.planes.assign(depths.size(), host::Plane::WithoutSamples(image.width, image.height, depth));
  return plain;
}

}  // namespace kel::python
