// The module kel._kel: what the package kel is made of. Its functions take options as dictionaries;
// the package gives them names, defaults and texts.
#include <pybind11/stl.h>

#include <kel/host/convert.hpp>
#include <kel/host/decode.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/probe.hpp>

#include <algorithm>
#include <limits>
#include <numeric>
#include <optional>

#include "Data.hpp"
#include "Files.hpp"
#include "ImageFile.hpp"
#include "InfoJson.hpp"
#include "InfoRanges.hpp"
#include "OutputFile.hpp"
#include "Requests.hpp"

namespace kel::python {
namespace {

using host::Error;
using host::Failure;

// ---- Encoding ----

host::EncodeReport EncodeArray(const py::array& array, const py::dict& options, host::Sink& sink) {
  const Samples samples = SamplesOf(array);
  const CallScope limits;
  EncodeRequest request = ReadEncodeRequest(samples, options);
  request.params.progress = WatchProgress();
  if (!request.mask.planes.empty()) request.params.regionMask = &request.mask.planes[0];
  return Run(*CurrentRoom(), [&] {
    ArrayRows rows(samples, std::move(request.image));
    return host::Encode(rows, request.params, sink);
  });
}

py::bytes Encode(const py::array& array, const py::dict& options) {
  host::MemorySink sink;
  EncodeArray(array, options, sink);
  return {reinterpret_cast<const char*>(sink.bytes.data()), sink.bytes.size()};
}

std::uint64_t Write(const std::string& path, const py::array& array, const py::dict& options) {
  tool::OutputFile output(path);
  return EncodeArray(array, options, output).bytes;
}

// ---- Decoding ----

/// An image as an array: its own memory where that has the array's form and no other is to be
/// filled.
py::object ToArray(host::Image image, const py::object& out) {
  const host::Plane& first = image.planes[0];
  if (image.planes.size() == 1 && out.is_none()) {
    auto* kept = new host::Image(std::move(image));
    const py::capsule owner(kept, [](void* held) { delete static_cast<host::Image*>(held); });
    host::Plane& plane = kept->planes[0];
    return py::array(py::dtype("u" + std::to_string(plane.BytesPerSample())),
                     std::vector<py::ssize_t>{plane.Height(), plane.Width()},
                     std::vector<py::ssize_t>{static_cast<py::ssize_t>(plane.StrideBytes()),
                                              static_cast<py::ssize_t>(plane.BytesPerSample())},
                     plane.Row<std::uint8_t>(0), owner);
  }
  if (first.Width() == 0 || first.Height() == 0) {
    throw Error(Failure::kParameter, "nothing is left of the picture at that size");
  }
  py::array array = out.is_none() ? MakeArray(image) : out.cast<py::array>();
  const Samples samples = SamplesFor(array, image);
  WithoutLock([&] {
    host::ImageRowSource rows(std::move(image));
    ArraySink sink(samples);
    host::CopyRows(rows, sink);
  });
  return array;
}

void RequireComplete(const host::DecodeReport& report) {
  if (report.complete) return;
  throw Error(Failure::kIncomplete, "incomplete: " + std::to_string(report.numCompleteTiles) +
                                        " of " + std::to_string(report.numTiles) +
                                        " tiles are whole");
}

/// Decodes row by row into the array, without holding the picture beside it.
py::object DecodeRows(host::RowDecoder& decoder, const Room& room, const py::object& out) {
  const host::Image& description = decoder.Description();
  const auto bytes = std::uint64_t{description.height} * host::RowBytes(description);
  const auto reserved =
      Run(room, [&] { return host::MemoryReservation(bytes, "the decoded array"); });
  py::array array = out.is_none() ? MakeArray(description) : out.cast<py::array>();
  ArraySink sink(SamplesFor(array, description));
  Run(room, [&] { decoder.Decode(sink); });
  return array;
}

struct DecodeRequest {
  explicit DecodeRequest(const py::dict& given);
  host::DecodeParams params;
  std::optional<host::Region> region;
  bool indices = false;
  int rotate = 0;
  unsigned bits = 0;

  bool IsResized() const {
    return params.reduce != 0 || params.fitWidth != 0 || params.fitHeight != 0;
  }
  bool IsPlain() const { return !region && !IsResized() && rotate == 0 && bits == 0; }
};

DecodeRequest::DecodeRequest(const py::dict& given) {
  Options options(given);
  bool strict = true;
  py::object rectangle;
  options.Take("reduce", params.reduce);
  options.Take("threads", params.threads);
  options.Take("strict", strict);
  options.Take("indices", indices);
  options.Take("rotate", rotate);
  options.Take("bits", bits);
  options.Take("exact", params.exact);
  TakeFit(options, params);
  if (rotate % 180 != 0) std::swap(params.fitWidth, params.fitHeight);
  if (options.Take("region", rectangle)) region = ReadRegion(rectangle);
  options.Finish();
  params.acceptIncomplete = !strict;
  params.progress = WatchProgress();
}

/// Cuts a rectangle out of an image whose planes are of its size.
void Crop(host::Image& image, const host::Region& kept) {
  for (host::Plane& plane : image.planes) {
    host::Plane cut(kept.width, kept.height, plane.Depth());
    const std::size_t bytes = plane.BytesPerSample();
    for (std::uint32_t y = 0; y < kept.height; ++y) {
      std::copy_n(plane.Row<std::uint8_t>(kept.y + y) + kept.x * bytes, kept.width * bytes,
                  cut.Row<std::uint8_t>(y));
    }
    plane = std::move(cut);
  }
  image.width = kept.width;
  image.height = kept.height;
}

/// A stretch of one axis, widened to where samples of a component that has one in `step` stand,
/// with a further one for what is interpolated; and where it lies in that after the halvings.
struct Stretch {
  Stretch(std::uint64_t from, std::uint64_t count, std::uint64_t end, std::uint64_t step,
          unsigned halvings) {
    const std::uint64_t unit = step << halvings, to = std::min(from + count, end);
    const auto halved = [&](std::uint64_t at) { return (at + (1ULL << halvings) - 1) >> halvings; };
    start = static_cast<std::uint32_t>(from / unit * unit);
    length = static_cast<std::uint32_t>(std::min((to + 2 * unit - 1) / unit * unit, end) - start);
    keptStart = static_cast<std::uint32_t>(halved(from) - halved(start));
    keptLength = static_cast<std::uint32_t>(halved(to) - halved(from));
  }
  std::uint32_t start, length, keptStart, keptLength;
};

/// The halvings of a region that are asked for, directly or as a size to fit.
unsigned HalvingsOf(const DecodeRequest& request, const host::Picture& picture,
                    const host::Region& region) {
  const auto isLarger = [](std::uint64_t from, std::uint64_t count, std::uint64_t end,
                           std::uint32_t most, unsigned halvings) {
    return most != 0 && from < end && Stretch(from, count, end, 1, halvings).keptLength > most;
  };
  unsigned halvings = request.params.reduce;
  while (
      halvings < 31 &&
      (isLarger(region.x, region.width, picture.Width(), request.params.fitWidth, halvings) ||
       isLarger(region.y, region.height, picture.Height(), request.params.fitHeight, halvings))) {
    ++halvings;
  }
  return halvings;
}

/// A region, or everything, as its array will be.
host::Image DecodePart(host::Picture& picture, const DecodeRequest& request) {
  host::Region region =
      request.region.value_or(host::Region{0, 0, picture.Width(), picture.Height()});
  const unsigned reduce = HalvingsOf(request, picture, region);
  std::uint32_t xStep = 1, yStep = 1;
  for (const host::Plane& plane : picture.Describe(reduce).planes) {
    xStep = std::lcm(xStep, plane.xStep);
    yStep = std::lcm(yStep, plane.yStep);
  }
  const bool widened = (xStep > 1 || yStep > 1) && region.x < picture.Width() &&
                       region.y < picture.Height() && region.width != 0 && region.height != 0;
  host::Region kept;
  if (widened) {
    const Stretch x(region.x, region.width, picture.Width(), xStep, reduce);
    const Stretch y(region.y, region.height, picture.Height(), yStep, reduce);
    region = {x.start, y.start, x.length, y.length};
    kept = {x.keptStart, y.keptStart, x.keptLength, y.keptLength};
  }
  host::DecodeReport report;
  host::Image image =
      picture.Decode(region, reduce, host::ThreadCount(request.params.threads), &report);
  if (!request.params.acceptIncomplete) RequireComplete(report);
  MakePlain(image, request.indices);
  if (widened) Crop(image, kept);
  return image;
}

void Turn(host::Image& image, const DecodeRequest& request) {
  if (request.bits != 0) host::ChangeDepth(image, request.bits);
  host::Rotate(image, request.rotate);
}

py::object Decode(const py::object& given, const py::dict& options, const py::object& out) {
  const Data data(given);
  DecodeRequest request(options);
  const auto room = CurrentRoom();
  const auto source = Run(*room, [&] { return data.Open(); });
  host::Image image;
  if (request.region) {
    image = Run(*room, [&] {
      WatchedRanges ranges(data.OpenRanges());
      host::Picture picture(ranges, {.cacheBytes = 0, .exact = request.params.exact});
      host::Image part = DecodePart(picture, request);
      Turn(part, request);
      return part;
    });
  } else if (request.IsResized()) {
    image = Run(*room, [&] {
      host::Image small = host::Decode(*source, request.params);
      MakePlain(small, request.indices);
      Turn(small, request);
      return small;
    });
  } else {
    const auto decoder =
        Run(*room, [&] { return std::make_unique<host::RowDecoder>(*source, request.params); });
    const host::Image& description = decoder->Description();
    const bool isOrdinary =
        host::IsOrdinary(description) ||
        (description.palette && request.indices && description.planes.size() == 1);
    if (request.IsPlain() && isOrdinary && host::HasPlainRows(description)) {
      return DecodeRows(*decoder, *room, out);
    }
    image = Run(*room, [&] {
      host::Image whole = decoder->DecodeImage();
      MakePlain(whole, request.indices);
      Turn(whole, request);
      return whole;
    });
  }
  return ToArray(std::move(image), out);
}

// ---- Pictures ----

class OpenPicture {
 public:
  OpenPicture(const py::object& given, std::uint64_t cacheBytes, bool exact)
      : room_(CurrentRoom()) {
    data_ = std::make_unique<Data>(given);
    source_ = Run(*room_, [&] { return std::make_unique<WatchedRanges>(data_->OpenRanges()); });
    picture_ = Run(*room_, [&] {
      return std::make_unique<host::Picture>(*source_, host::PictureParams{cacheBytes, exact});
    });
  }

  py::tuple Shape(unsigned level, bool indices) const {
    const host::Image array = DescribeArray(picture_->Describe(level), indices);
    if (array.planes.size() == 1) return py::make_tuple(array.height, array.width);
    return py::make_tuple(array.height, array.width, array.planes.size());
  }
  py::tuple Type(bool indices) const {
    const host::Image array = DescribeArray(picture_->Describe(0), indices);
    return py::make_tuple(py::dtype("u" + std::to_string(array.planes[0].BytesPerSample())),
                          array.planes[0].Depth());
  }
  unsigned Levels() const { return picture_->Levels(); }
  py::tuple TileShape() const {
    const host::Region tile = picture_->TileRegion(0);
    return py::make_tuple(tile.height, tile.width);
  }
  py::tuple TileRegion(std::uint32_t index) const {
    const host::Region tile = picture_->TileRegion(index);
    return py::make_tuple(tile.x, tile.y, tile.width, tile.height);
  }
  py::dict Attributes() const { return DescribeForPython(picture_->Describe(0)); }

  py::object Read(const py::dict& options, const py::object& out) {
    const DecodeRequest request(options);
    return ToArray(Run(*room_,
                       [&] {
                         host::Image image = DecodePart(*picture_, request);
                         Turn(image, request);
                         return image;
                       }),
                   out);
  }

 private:
  std::shared_ptr<Room> room_;
  std::unique_ptr<Data> data_;
  std::unique_ptr<WatchedRanges> source_;
  std::unique_ptr<host::Picture> picture_;
};

// ---- Data that arrive ----

class ArrivingPicture {
 public:
  explicit ArrivingPicture(const py::dict& given) : room_(CurrentRoom()) {
    Options options(given);
    host::ProgressiveParams params;
    py::object rectangle;
    options.Take("reduce", params.reduce);
    if (options.Take("region", rectangle)) {
      // How far apart samples stand is known later; few components have less than one in four.
      constexpr std::uint64_t kStep = 4, kEnd = std::numeric_limits<std::uint32_t>::max();
      const host::Region asked = ReadRegion(rectangle);
      const unsigned halvings = std::min(params.reduce, 24U);  // more are refused below
      const Stretch x(asked.x, asked.width, kEnd, kStep, halvings);
      const Stretch y(asked.y, asked.height, kEnd, kStep, halvings);
      if (asked.width != 0 && asked.height != 0)
        params.region = {x.start, y.start, x.length, y.length};
      else
        params.region = asked;
      kept_ = {x.keptStart, y.keptStart, x.keptLength, y.keptLength};
    }
    options.Finish();
    decoder_ = Run(*room_, [&] { return std::make_unique<host::ProgressiveDecoder>(params); });
  }

  /// Whether some samples became better.
  bool Feed(const py::object& chunk) {
    const HeldBytes held(chunk);
    const auto update = Run(*room_, [&] { return decoder_->Feed(held.View()); });
    complete_ = update.complete;
    return !update.improvedTiles.empty();
  }
  py::object Get() const {
    return ToArray(Run(*room_,
                       [&] {
                         host::Image image = decoder_->GetImage();
                         MakePlain(image, false);
                         if (kept_) CropToAsked(image);
                         return image;
                       }),
                   py::none());
  }
  bool HasHeader() const { return decoder_->HasHeader(); }
  bool IsComplete() const { return complete_; }

 private:
  /// What was asked for of what was decoded, which ends with the picture.
  void CropToAsked(host::Image& image) const {
    if (kept_->x >= image.width || kept_->y >= image.height) {
      throw Error(Failure::kParameter, "the region lies outside the picture");
    }
    Crop(image, {kept_->x, kept_->y, std::min(kept_->width, image.width - kept_->x),
                 std::min(kept_->height, image.height - kept_->y)});
  }

  std::shared_ptr<Room> room_;
  std::unique_ptr<host::ProgressiveDecoder> decoder_;
  std::optional<host::Region> kept_;  ///< of the image that is decoded
  bool complete_ = false;
};

// ---- Telling ----

std::string InfoText(const py::object& given, const std::string& name, bool ranges) {
  const Data data(given);
  return Run(*CurrentRoom(), [&] {
    const auto source = data.Open();
    host::Bytes storage;
    const host::ByteView bytes = host::ReadAll(*source, storage);
    host::MemorySource all(bytes);
    nlohmann::ordered_json json = tool::InfoJson(name, host::Probe(all));
    host::MemoryRanges asRanges(bytes);
    if (ranges) json["byte_ranges"] = tool::RangesJson(asRanges);
    return json.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
  });
}

}  // namespace
}  // namespace kel::python

PYBIND11_MODULE(_kel, module) {
  using namespace kel::python;
  AddErrors(module);
  CurrentRoom();
  module.def("set_memory_limit", &SetMemoryLimit);
  module.def("memory_limit", [] { return CurrentRoom()->bytes; });
  module.attr("CODING_OPTIONS") = py::cast(CodingOptions());
  module.attr("READ_ENDINGS") = py::cast(kel::tool::ReadEndings());
  module.attr("WRITTEN_ENDINGS") = py::cast(kel::tool::WrittenEndings());
  module.def("encode", &Encode);
  module.def("write", &Write);
  module.def("decode", &Decode);
  module.def("encode_file", &EncodeFile);
  module.def("decode_file", &DecodeFile);
  module.def("compare_files", &CompareFiles);
  module.def("info", &InfoText);
  py::class_<OpenPicture>(module, "Picture")
      .def(py::init<const py::object&, std::uint64_t, bool>())
      .def("shape", &OpenPicture::Shape)
      .def("type", &OpenPicture::Type)
      .def("levels", &OpenPicture::Levels)
      .def("tile_shape", &OpenPicture::TileShape)
      .def("tile_region", &OpenPicture::TileRegion)
      .def("attributes", &OpenPicture::Attributes)
      .def("read", &OpenPicture::Read);
  py::class_<ArrivingPicture>(module, "Decoder")
      .def(py::init<const py::dict&>())
      .def("feed", &ArrivingPicture::Feed)
      .def("get", &ArrivingPicture::Get)
      .def("has_header", &ArrivingPicture::HasHeader)
      .def("is_complete", &ArrivingPicture::IsComplete);
}
