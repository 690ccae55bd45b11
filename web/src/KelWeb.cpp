// What the module exports: plain functions over the host kit, for web/js/core.js alone.
//
// One call at a time, on one thread. A call returns 0 or the kind of its failure plus one; what it
// made stands in one result until the next call: numbers, bytes, and a sentence after a failure.
#include <kel/host.hpp>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

#define KEL_WEB_EXPORT extern "C" __attribute__((visibility("default"), used))

/// Fills `to` with bytes of a source that the caller has numbered; not 0 when it cannot.
extern "C" __attribute__((import_module("env"), import_name("kel_fetch"))) int kel_fetch(
    int source, double from, void* to, unsigned count);

namespace {

using namespace kel::host;

struct Result {
  std::vector<double> numbers;
  Bytes bytes;
  std::string text;
};
Result result;
std::optional<Session> session;

/// Forms of decoded samples, as core.js numbers them.
enum Form : int { kSamples = 0, kRgba = 1, kPlanes = 2 };

template <class Work>
int Try(Work work) {
  result = {};
  try {
    work();
    return 0;
  } catch (const Error& error) {
    result.text = error.what();
    return static_cast<int>(error.Kind()) + 1;
  } catch (const std::bad_alloc&) {
    result.text = "there is not enough memory";
    return static_cast<int>(Failure::kMemory) + 1;
  } catch (const std::exception& error) {
    result.text = error.what();
    return static_cast<int>(Failure::kParameter) + 1;
  }
}

void Note(std::initializer_list<double> numbers) {
  result.numbers.insert(result.numbers.end(), numbers);
}

/// What an image says of itself beside its samples.
void NoteDescription(const Image& image) {
  const Resolution resolution = image.resolution.value_or(Resolution{});
  Note({static_cast<double>(image.colourSpace), resolution.x, resolution.y,
        static_cast<double>(OrientationOf(image)), static_cast<double>(image.iccProfile.size())});
}

/// Colours first, opacity last, all of one depth and of full size; no other channels.
void MakePlain(Image& image) {
  MakeOrdinary(image);
  const std::size_t count = NumColours(image) + (OpacityPlane(image) != nullptr ? 1 : 0);
  if (count == 0) throw Error(Failure::kInput, "the image has no colours");
  image.planes.resize(count);
  unsigned depth = 0;
  for (const Plane& plane : image.planes) depth = std::max(depth, plane.Depth());
  ChangeDepth(image, depth);
}

void PutSamples(const Image& image) {
  ImageRowSource rows(image);
  const std::size_t stride = RowBytes(image);
  result.bytes.resize(stride * image.height);
  rows.Read(image.height, result.bytes.data(), stride);
}

/// Every plane as it was coded, row by row, one behind the other.
void PutPlanes(const Image& image) {
  for (const Plane& plane : image.planes) {
    Note({double(plane.Width()), double(plane.Height()), double(plane.Depth()),
          static_cast<double>(plane.role), double(plane.colour), double(plane.xStep),
          double(plane.yStep)});
    const std::size_t bytes = std::size_t{plane.Width()} * plane.BytesPerSample();
    for (std::uint32_t y = 0; y < plane.Height(); ++y) {
      const auto* row = plane.Row<std::uint8_t>(y);
      result.bytes.insert(result.bytes.end(), row, row + bytes);
    }
  }
}

/// Numbers: width, height, channels, depth, opacity, complete, description, planes.
void PutImage(Image image, int form, bool complete) {
  if (form == kSamples) MakePlain(image);
  if (image.planes.empty()) throw Error(Failure::kInput, "the image has no planes");
  const auto numPlanes = static_cast<unsigned>(image.planes.size());
  const unsigned depth = form == kRgba ? 8 : image.planes[0].Depth();
  const MemoryReservation room(
      SampleBytes(image.width, image.height, form == kRgba ? 4 : numPlanes, depth), "the pixels");
  Note({double(image.width), double(image.height), double(numPlanes), double(depth),
        OpacityPlane(image) != nullptr ? 1.0 : 0.0, complete ? 1.0 : 0.0});
  NoteDescription(image);
  if (form == kPlanes) {
    PutPlanes(image);
  } else if (form == kRgba) {
    const std::size_t stride = std::size_t{4} * image.width;
    result.bytes.resize(stride * image.height);
    PutScreenPixels(std::move(image), true, result.bytes.data(), stride);
  } else {
    PutSamples(image);
  }
}

/// A picture whose bytes core.js fetches.
struct WebPicture {
  WebPicture(int source, double size, double cacheBytes)
      : ranges(static_cast<std::uint64_t>(size), Fetcher(source)),
        picture(ranges, {static_cast<std::uint64_t>(cacheBytes)}) {}
  static CallbackRanges::Function Fetcher(int source) {
    return [source](std::uint64_t from, std::span<std::uint8_t> to) {
      const int failed =
          kel_fetch(source, static_cast<double>(from), to.data(), static_cast<unsigned>(to.size()));
      if (failed != 0) throw Error(Failure::kInput, "the bytes cannot be fetched");
    };
  }

  CallbackRanges ranges;
  Picture picture;
};

double Handle(const void* object) {
  return static_cast<double>(reinterpret_cast<std::uintptr_t>(object));
}

Region AsRegion(double x, double y, double width, double height) {
  for (const double v : {x, y, width, height}) {
    if (!(v >= 0 && v <= UINT32_MAX)) {
      throw Error(Failure::kParameter, "the region lies outside the picture");
    }
  }
  return {static_cast<std::uint32_t>(x), static_cast<std::uint32_t>(y),
          static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
}

void DecodeRegion(Picture& picture, const Region& region, unsigned reduce, int form,
                  bool acceptIncomplete) {
  DecodeReport report;
  Image image = picture.Decode(region, reduce, 1, &report);
  if (!report.complete && !acceptIncomplete) {
    throw Error(Failure::kIncomplete, "the data end early or are damaged");
  }
  PutImage(std::move(image), form, report.complete);
}

}  // namespace

/// Begins anew with a limit of so many bytes; 0 for none. Nothing of an earlier start may be left.
KEL_WEB_EXPORT int kel_start(double limit) {
  return Try([&] {
    session.reset();
    session.emplace(static_cast<std::uint64_t>(limit));
  });
}

KEL_WEB_EXPORT void* kel_take(unsigned bytes) {
  return std::malloc(bytes);
}
KEL_WEB_EXPORT void kel_give(void* block) {
  std::free(block);
}

KEL_WEB_EXPORT const double* kel_numbers() {
  return result.numbers.data();
}
KEL_WEB_EXPORT unsigned kel_count() {
  return static_cast<unsigned>(result.numbers.size());
}
KEL_WEB_EXPORT const void* kel_bytes() {
  return result.bytes.data();
}
KEL_WEB_EXPORT unsigned kel_length() {
  return static_cast<unsigned>(result.bytes.size());
}
KEL_WEB_EXPORT const char* kel_text() {
  return result.text.c_str();
}
KEL_WEB_EXPORT void kel_clear() {
  result = {};
}
/// Bytes held by the library now, and the most so far.
KEL_WEB_EXPORT double kel_held(int most) {
  return static_cast<double>(most != 0 ? Session::PeakBytes() : Session::CurrentBytes());
}

/// A region without width is the whole picture.
KEL_WEB_EXPORT int kel_decode(const std::uint8_t* bytes, unsigned length, double x, double y,
                              double width, double height, unsigned reduce, int form,
                              int acceptIncomplete) {
  return Try([&] {
    const ByteView data(bytes, length);
    if (width != 0) {
      MemoryRanges ranges(data);
      Picture picture(ranges, {0});
      DecodeRegion(picture, AsRegion(x, y, width, height), reduce, form, acceptIncomplete != 0);
      return;
    }
    MemorySource source(data);
    DecodeParams params;
    params.reduce = reduce;
    params.acceptIncomplete = acceptIncomplete != 0;
    DecodeReport report;
    Image image = Decode(source, params, &report);
    PutImage(std::move(image), form, report.complete);
  });
}

/// Numbers: quality used, trials. Opacity that is full everywhere is left out where it may be.
KEL_WEB_EXPORT int kel_encode(const std::uint8_t* samples, unsigned width, unsigned height,
                              unsigned channels, unsigned depth, int opacity, int lossless,
                              int quality, double sizeLimit, unsigned tileWidth,
                              unsigned tileHeight) {
  return Try([&] {
    const unsigned colours = channels - (opacity != 0 ? 1 : 0);
    if (colours != 1 && colours != 3) {
      throw Error(Failure::kParameter, "an image has one channel or three, and opacity");
    }
    Image image = MakeImage(width, height, colours, depth, opacity != 0);
    WithSampleType(image.planes[0].BytesPerSample(), [&](auto sample) {
      using Sample = decltype(sample);
      std::vector<Sample*> rows(channels);
      const auto* from = reinterpret_cast<const Sample*>(samples);
      for (std::uint32_t row = 0; row < height; ++row, from += std::size_t{channels} * width) {
        for (unsigned c = 0; c < channels; ++c) rows[c] = image.planes[c].Row<Sample>(row);
        SplitSamples(from, channels, width, rows.data());
      }
    });
    if (opacity == 2) image.planes.pop_back();
    EncodeParams params;
    params.lossless = lossless != 0;
    params.quality = quality;
    params.sizeLimit = static_cast<std::uint64_t>(sizeLimit);
    params.tileWidth = tileWidth;
    params.tileHeight = tileHeight;
    params.threads = 1;
    MemorySink sink;
    const EncodeReport report = Encode(image, params, sink);
    result.bytes = std::move(sink.bytes);
    Note({double(report.quality), double(report.trials)});
  });
}

/// Numbers of a fed piece: header there, tiles improved, tiles completed, everything complete.
KEL_WEB_EXPORT int kel_feed(ProgressiveDecoder* decoder, const std::uint8_t* bytes,
                            unsigned length) {
  return Try([&] {
    const ProgressiveDecoder::Update update = decoder->Feed({bytes, length});
    Note({decoder->HasHeader() ? 1.0 : 0.0, double(update.improvedTiles.size()),
          double(update.completedTiles.size()), update.complete ? 1.0 : 0.0});
  });
}
KEL_WEB_EXPORT int kel_fed_image(const ProgressiveDecoder* decoder, int form, int complete) {
  return Try([&] { PutImage(decoder->GetImage(), form, complete != 0); });
}
/// Numbers: the decoder's handle.
KEL_WEB_EXPORT int kel_decoder() {
  return Try([] { Note({Handle(new ProgressiveDecoder)}); });
}
KEL_WEB_EXPORT void kel_end_decoder(ProgressiveDecoder* decoder) {
  delete decoder;
}

/// Numbers: the picture's handle, width, height, tiles across and down, width and height of the
/// first tile, levels, planes, depth, description.
KEL_WEB_EXPORT int kel_open(int source, double size, double cacheBytes) {
  return Try([&] {
    auto opened = std::make_unique<WebPicture>(source, size, cacheBytes);
    const Picture& picture = opened->picture;
    const Region first = picture.TileRegion(0);
    const Image& image = picture.Description();
    Note({Handle(opened.get()), double(picture.Width()), double(picture.Height()),
          double(picture.TilesAcross()), double(picture.TilesDown()), double(first.width),
          double(first.height), double(picture.Levels()), double(image.planes.size()),
          double(image.planes.empty() ? 0 : image.planes[0].Depth())});
    NoteDescription(image);
    opened.release();
  });
}
KEL_WEB_EXPORT void kel_close(WebPicture* picture) {
  delete picture;
}
KEL_WEB_EXPORT int kel_region(WebPicture* picture, double x, double y, double width, double height,
                              unsigned reduce, int form, int acceptIncomplete) {
  return Try([&] {
    DecodeRegion(picture->picture, AsRegion(x, y, width, height), reduce, form,
                 acceptIncomplete != 0);
  });
}
/// Numbers: pairs of from and to. With `all` those of the whole tile, which takes no reading in it.
KEL_WEB_EXPORT int kel_ranges(WebPicture* picture, unsigned tile, unsigned reduce, int all) {
  return Try([&] {
    const std::vector<ByteRange> ranges =
        all != 0 ? picture->picture.PlacesOf(tile) : picture->picture.BytesOf(tile, reduce);
    for (const ByteRange& range : ranges) Note({double(range.from), double(range.to)});
  });
}
