// The C interface over the host kit. Each function hands its work to Try, which turns what is
// thrown into a status and keeps its text for the thread.
//
// The library runs while something of this interface is in use: every object holds the user that it
// was made for, every call works for one. Structures are taken over as far as their size says, and
// the rest is as initialised.
#include "kel/kel.h"

#include <kel/Kel.h>
#include <kel/host.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

namespace {

using namespace kel::host;

/// A user of the library, with its limits.
class User {
 public:
  User(std::uint64_t memoryLimit, const Limits& limits) : limits_(limits) {
    const SessionScope free(nullptr);  // a call may come from inside another user's work
    session_.emplace(memoryLimit);
    account_ = SessionScope::Current();
  }

  /// What the calling thread does is done for the user, for as long as the object lives.
  class Work {
   public:
    explicit Work(const User& user) : session_(user.account_), limits_(user.limits_) {}

   private:
    SessionScope session_;
    LimitScope limits_;
  };

 private:
  std::optional<Session> session_;
  Account* account_ = nullptr;
  Limits limits_;
};
using UserPointer = std::shared_ptr<const User>;

std::mutex mutex;
std::weak_ptr<const User> common;  ///< of those who name no session
std::uint64_t memoryLimit = 0;

thread_local std::string errorText;

UserPointer CommonUser() {
  const std::lock_guard lock(mutex);
  UserPointer user = common.lock();
  if (user == nullptr) common = user = std::make_shared<const User>(memoryLimit, Limits());
  return user;
}

/// Thrown through the kit when the progress function wants to stop.
struct Stopped {};

kel_status Failed(kel_status status, const char* text) {
  errorText = text;
  return status;
}

kel_status StatusOf(Failure kind) {
  switch (kind) {
    case Failure::kInput:
      return KEL_ERROR_INPUT;
    case Failure::kIncomplete:
      return KEL_ERROR_INCOMPLETE;
    case Failure::kOutput:
      return KEL_ERROR_OUTPUT;
    case Failure::kMemory:
      return KEL_ERROR_MEMORY;
    case Failure::kParameter:
      return KEL_ERROR_PARAMETER;
    case Failure::kTime:
      return KEL_ERROR_STOPPED;
  }
  return KEL_ERROR_UNEXPECTED;
}

template <class Work>
kel_status Try(Work work) noexcept {
  try {
    work();
    return KEL_OK;
  } catch (const Error& error) {
    return Failed(StatusOf(error.Kind()), error.what());
  } catch (const Stopped&) {
    return Failed(KEL_ERROR_STOPPED, "the work was stopped");
  } catch (const std::bad_alloc&) {
    return Failed(KEL_ERROR_MEMORY, "out of memory");
  } catch (const std::exception& error) {
    return Failed(KEL_ERROR_UNEXPECTED, error.what());
  } catch (...) {
    return Failed(KEL_ERROR_UNEXPECTED, "an unexpected failure");
  }
}

void Require(bool allowed, const char* sentence) {
  if (!allowed) throw Error(Failure::kParameter, sentence);
}

/// A structure as this library knows it, from one that may be older or newer.
template <class Struct>
Struct Taken(const Struct* given, void (*initialise)(Struct*)) {
  Struct taken;
  initialise(&taken);
  if (given == nullptr) return taken;
  Require(given->size >= sizeof given->size, "a structure without its size");
  std::memcpy(&taken, given, std::min(given->size, sizeof taken));
  taken.size = sizeof taken;
  return taken;
}

/// Fills as much of a host's structure as it has.
template <class Struct>
void Give(Struct filled, Struct* to) {
  Require(to != nullptr && to->size >= sizeof to->size, "a structure without its size");
  const std::size_t size = to->size;
  std::memcpy(to, &filled, std::min(size, sizeof filled));
  to->size = size;
}

template <class Struct>
void Clear(Struct* s) {
  *s = Struct{};
  s->size = sizeof *s;
}

Progress ProgressOf(kel_progress progress, void* user) {
  if (progress == nullptr) return {};
  return [=](std::size_t done, std::size_t total) {
    if (progress(user, done, total) != 0) throw Stopped{};
  };
}

std::size_t PixelBytes(unsigned channels, unsigned depth) {
  return std::size_t{channels} * (depth <= 8 ? 1 : depth <= 16 ? 2 : 4);
}

/// A part of an image, all planes of which have its size.
struct Part {
  std::uint32_t x, y, width, height;
};

Part PartOf(const Image& image, const kel_decode_options& options) {
  if (options.width == 0 && options.height == 0) return {0, 0, image.width, image.height};
  Require(options.width != 0 && options.height != 0 && options.x < image.width &&
              options.width <= image.width - options.x && options.y < image.height &&
              options.height <= image.height - options.y,
          "the part does not lie in the image");
  return {options.x, options.y, options.width, options.height};
}

/// Brings the planes into the form that pixels promise: one depth, opacity last, no others.
void MakePlain(Image& image) {
  MakeOrdinary(image);
  const std::size_t count = NumColours(image) + (OpacityPlane(image) != nullptr ? 1 : 0);
  if (count == 0) throw Error(Failure::kInput, "the image has no colours");
  image.planes.resize(count);  // ordered by now: colours, opacity, others
  unsigned depth = 0;
  for (const Plane& plane : image.planes) depth = std::max(depth, plane.Depth());
  ChangeDepth(image, depth);
}

/// Copies between rows of pixels and rows of planes; toPixels tells the direction.
template <bool toPixels, class Planes, class Byte>
void CopyPixels(Planes& planes, const Part& part, Byte* pixels, std::size_t stride) {
  const std::size_t channels = planes.size();
  WithSampleType(planes[0].BytesPerSample(), [&](auto sample) {
    using Sample = decltype(sample);
    for (std::uint32_t y = 0; y < part.height; ++y, pixels += stride) {
      for (std::size_t c = 0; c < channels; ++c) {
        auto* row = planes[c].template Row<Sample>(part.y + y) + part.x;
        for (std::size_t x = 0; x < part.width; ++x) {
          auto* place = pixels + (x * channels + c) * sizeof(Sample);
          if constexpr (toPixels) std::memcpy(place, row + x, sizeof(Sample));
          if constexpr (!toPixels) std::memcpy(row + x, place, sizeof(Sample));
        }
      }
    }
  });
}

Image ImageOf(const kel_pixels* given) {
  Require(given != nullptr, "there are no pixels");
  const kel_pixels pixels = Taken(given, kel_pixels_init);
  const bool opacity = pixels.has_opacity != 0;
  const std::uint32_t colours = pixels.channels - (opacity ? 1 : 0);
  Require(pixels.samples != nullptr && pixels.width != 0 && pixels.height != 0,
          "there are no pixels");
  Require(colours == 1 || colours == 3, "an image has one channel or three, and opacity");
  Require(pixels.depth >= 1 && pixels.depth <= 28, "samples have 1 to 28 bits");
  Require(pixels.stride / PixelBytes(pixels.channels, pixels.depth) >= pixels.width,
          "a row is shorter than its pixels");
  Image image = MakeImage(pixels.width, pixels.height, colours, pixels.depth, opacity);
  CopyPixels<false>(image.planes, {0, 0, pixels.width, pixels.height},
                    static_cast<const std::uint8_t*>(pixels.samples), pixels.stride);
  return image;
}

void EncodeTo(const kel_pixels* pixels, const kel_encode_options& options, Sink& sink) {
  EncodeParams params;
  params.lossless = options.lossless != 0;
  params.quality = static_cast<int>(std::min(options.quality, 101U));
  params.sizeLimit = options.size_limit;
  params.tileWidth = options.tile_width;
  params.tileHeight = options.tile_height;
  params.threads = options.threads;
  params.progress = ProgressOf(options.progress, options.user);
  Encode(ImageOf(pixels), params, sink);
}

}  // namespace

struct kel_session {
  UserPointer user;
};

namespace {

UserPointer UserOf(const kel_session* session) {
  return session == nullptr ? CommonUser() : session->user;
}

}  // namespace

struct kel_file {
  UserPointer user;
  std::string path;  ///< empty: the bytes
  ByteView bytes;
  Info info;

  template <class Work>
  auto Read(Work work) const {
    if (path.empty()) {
      MemorySource source(bytes);
      return work(source);
    }
    FileSource source(path);
    return work(source);
  }
};

struct kel_image {
  UserPointer user;
  MemoryReservation room;
  kel_pixels shape;
  Bytes samples;
};

namespace {

void Open(const kel_session* session, std::string path, ByteView bytes, kel_file** file) {
  Require(file != nullptr, "there is no place for the result");
  auto made = std::make_unique<kel_file>();
  made->user = UserOf(session);
  const User::Work work(*made->user);
  made->path = std::move(path);
  made->bytes = bytes;
  made->info = made->Read([](Source& source) { return Probe(source); });
  *file = made.release();
}

/// The part in full size that gives the part wanted of the reduced image, where samples of all
/// planes and sizes begin at the same corner.
std::optional<Region> RegionOf(const Info& info, const kel_decode_options& options) {
  const std::uint64_t step = std::uint64_t{1} << std::min(options.reduce, 31U);
  const auto isPlain = [](const auto& part) { return part.xStep == 1 && part.yStep == 1; };
  if ((options.width == 0 && options.height == 0) || options.reduce > info.levels ||
      info.originX % step != 0 || info.originY % step != 0 ||
      !std::all_of(info.components.begin(), info.components.end(), isPlain)) {
    return {};
  }
  const auto inside = [step](std::uint64_t from, std::uint64_t length, std::uint64_t all) {
    const std::uint64_t start = from * step, end = std::min((from + length) * step, all);
    Require(length != 0 && from + length <= (all + step - 1) / step,
            "the part does not lie in the image");
    return std::pair{static_cast<std::uint32_t>(start), static_cast<std::uint32_t>(end - start)};
  };
  const auto [x, width] = inside(options.x, options.width, info.width);
  const auto [y, height] = inside(options.y, options.height, info.height);
  return Region{x, y, width, height};
}

/// The image wanted, or one that the part wanted lies in; part becomes where.
Image DecodeFor(const kel_file& file, const kel_decode_options& options, Part& part) {
  DecodeParams params;
  params.reduce = options.reduce;
  params.exact = options.exact != 0;
  params.acceptIncomplete = options.accept_incomplete != 0;
  params.threads = options.threads;
  params.progress = ProgressOf(options.progress, options.user);
  const auto decode = [&](Source& source) { return Decode(source, params); };
  part = {0, 0, options.width, options.height};
  params.region = RegionOf(file.info, options);
  if (params.region) {
    try {
      Image image = file.Read(decode);
      if (image.width == part.width && image.height == part.height) return image;
    } catch (const Error& error) {  // a tile with fewer resolutions than most
      if (error.Kind() != Failure::kParameter) throw;
    }
    params.region.reset();
  }
  Image image = file.Read(decode);
  part = PartOf(image, options);
  return image;
}

}  // namespace

extern "C" {

const char* kel_version(void) {
  return KelLibVersion();
}

const char* kel_error_text(void) {
  return errorText.c_str();
}

kel_status kel_set_memory_limit(uint64_t bytes) {
  return Try([=] {
    const std::lock_guard lock(mutex);
    Require(common.expired(), "the limit changes while nothing is open");
    memoryLimit = bytes;
  });
}

void kel_limits_init(kel_limits* limits) {
  Clear(limits);
  limits->pixels = Limits().maxPixels;
}

kel_status kel_open_session(const kel_limits* given, kel_session** session) {
  return Try([=] {
    Require(session != nullptr, "there is no place for the result");
    *session = nullptr;
    const kel_limits limits = Taken(given, kel_limits_init);
    Require(limits.seconds >= 0, "a time is not negative");
    Limits perCall;
    perCall.maxPixels = limits.pixels;
    perCall.seconds = limits.seconds;
    *session = new kel_session{std::make_shared<const User>(limits.memory, perCall)};
  });
}

void kel_close_session(kel_session* session) {
  delete session;
}

kel_status kel_get_usage(const kel_session* session, uint64_t* held, uint64_t* most) {
  return Try([=] {
    const UserPointer user = UserOf(session);
    const User::Work work(*user);
    if (held != nullptr) *held = Session::CurrentBytes();
    if (most != nullptr) *most = Session::PeakBytes();
  });
}

kel_status kel_open_memory_in(const kel_session* session, const void* bytes, size_t length,
                              kel_file** file) {
  return Try([=] {
    if (file != nullptr) *file = nullptr;
    Require(bytes != nullptr && length != 0, "there are no data");
    Open(session, {}, {static_cast<const std::uint8_t*>(bytes), length}, file);
  });
}

kel_status kel_open_file_in(const kel_session* session, const char* path, kel_file** file) {
  return Try([=] {
    if (file != nullptr) *file = nullptr;
    Require(path != nullptr && *path != '\0', "there is no path");
    Open(session, path, {}, file);
  });
}

kel_status kel_open_memory(const void* bytes, size_t length, kel_file** file) {
  return kel_open_memory_in(nullptr, bytes, length, file);
}

kel_status kel_open_file(const char* path, kel_file** file) {
  return kel_open_file_in(nullptr, path, file);
}

void kel_close(kel_file* file) {
  delete file;
}

void kel_info_init(kel_info* info) {
  Clear(info);
}

kel_status kel_get_info(const kel_file* file, kel_info* info) {
  return Try([=] {
    Require(file != nullptr, "there is no file");
    const Info& found = file->info;
    kel_info filled;
    Clear(&filled);
    filled.width = found.width;
    filled.height = found.height;
    for (const Info::Component& component : found.components) {
      const bool opacity = component.role != ChannelRole::kColour &&
                           component.role != ChannelRole::kOther && component.colour == 0;
      if (component.role != ChannelRole::kColour && (!opacity || filled.has_opacity != 0)) continue;
      if (opacity) filled.has_opacity = 1;
      ++filled.channels;
      filled.depth = std::max(filled.depth, component.depth);
    }
    if (found.palette) {
      filled.channels = static_cast<uint32_t>(found.palette->columns.size());
      filled.depth = 0;
      for (const auto& column : found.palette->columns) {
        filled.depth = std::max(filled.depth, column.depth);
      }
    }
    filled.lossless = found.lossless ? 1 : 0;
    filled.tiles = found.tilesAcross * found.tilesDown;
    filled.levels = found.levels;
    Give(filled, info);
  });
}

void kel_decode_options_init(kel_decode_options* options) {
  Clear(options);
}

void kel_pixels_init(kel_pixels* pixels) {
  Clear(pixels);
}

kel_status kel_decode(const kel_file* file, const kel_decode_options* given, kel_image** image) {
  return Try([=] {
    Require(image != nullptr, "there is no place for the result");
    *image = nullptr;
    Require(file != nullptr, "there is no file");
    const kel_decode_options options = Taken(given, kel_decode_options_init);
    auto made = std::make_unique<kel_image>();
    made->user = file->user;
    const User::Work work(*made->user);
    Part part;
    Image decoded = DecodeFor(*file, options, part);
    MakePlain(decoded);
    kel_pixels& shape = made->shape;
    Clear(&shape);
    shape.width = part.width;
    shape.height = part.height;
    shape.channels = static_cast<uint32_t>(decoded.planes.size());
    shape.depth = decoded.planes[0].Depth();
    shape.has_opacity = OpacityPlane(decoded) != nullptr ? 1 : 0;
    shape.stride = part.width * PixelBytes(shape.channels, shape.depth);
    made->room = MemoryReservation(std::uint64_t{shape.stride} * part.height, "the pixels");
    made->samples.resize(shape.stride * part.height);
    shape.samples = made->samples.data();
    CopyPixels<true>(decoded.planes, part, made->samples.data(), shape.stride);
    *image = made.release();
  });
}

kel_status kel_get_pixels(const kel_image* image, kel_pixels* pixels) {
  return Try([=] {
    Require(image != nullptr, "there is no image");
    Give(image->shape, pixels);
  });
}

void kel_free_image(kel_image* image) {
  delete image;
}

void kel_encode_options_init(kel_encode_options* options) {
  Clear(options);
  options->quality = 60;
}

kel_status kel_encode_memory(const kel_pixels* pixels, const kel_encode_options* given,
                             void** bytes, size_t* length) {
  return Try([=] {
    Require(bytes != nullptr && length != nullptr, "there is no place for the result");
    *bytes = nullptr;
    *length = 0;
    const kel_encode_options options = Taken(given, kel_encode_options_init);
    const UserPointer user = UserOf(options.session);
    const User::Work work(*user);
    MemorySink sink;
    EncodeTo(pixels, options, sink);
    *bytes = std::malloc(sink.bytes.size());
    if (*bytes == nullptr) throw std::bad_alloc();
    std::memcpy(*bytes, sink.bytes.data(), sink.bytes.size());
    *length = sink.bytes.size();
  });
}

kel_status kel_encode_file(const kel_pixels* pixels, const kel_encode_options* given,
                           const char* path) {
  return Try([=] {
    Require(path != nullptr && *path != '\0', "there is no path");
    const kel_encode_options options = Taken(given, kel_encode_options_init);
    const UserPointer user = UserOf(options.session);
    const User::Work work(*user);
    FileSink sink(path);
    EncodeTo(pixels, options, sink);
  });
}

void kel_free_bytes(void* bytes) {
  std::free(bytes);
}
}
