// The C interface over arbitrary data and arbitrary options, in structures of any size: what is
// decoded can be read to its last byte, and can be encoded again. An input begins with sixteen
// bytes that say the options.
#include <kel/kel.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

constexpr std::size_t kSettingBytes = 16;

void Require(bool holds) {
  if (!holds) std::abort();
}

/// Sums up bytes, which a sanitizer watches.
std::uint64_t SumOf(const void* bytes, std::size_t n) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += static_cast<const std::uint8_t*>(bytes)[i];
  return sum;
}

/// The size of an older structure, which may be any but that it does not cut a pointer in two.
std::size_t SizeBefore(std::size_t size, std::size_t firstPointer) {
  return size % (firstPointer + 1);
}

int CountDown(void* left, std::size_t, std::size_t) {
  return --*static_cast<int*>(left) == 0 ? 1 : 0;
}

void EncodeAgain(const kel_pixels& pixels, const std::uint8_t* setting, int* left) {
  kel_encode_options options;
  kel_encode_options_init(&options);
  options.lossless = setting[0] & 1;
  options.quality = setting[1];
  options.size_limit = (setting[0] & 2) != 0 ? setting[2] * 16U : 0;
  options.tile_width = setting[3];
  options.tile_height = setting[4];
  options.threads = 1;
  options.progress = CountDown;
  options.user = left;
  if ((setting[0] & 4) != 0)
    options.size = SizeBefore(setting[5], offsetof(kel_encode_options, progress));
  kel_pixels changed = pixels;
  if ((setting[0] & 8) != 0) changed.depth = setting[6];
  // Narrower samples, and fewer of them, stand in the same bytes.
  if (changed.depth > pixels.depth) changed.depth = pixels.depth;
  if ((setting[0] & 16) != 0 && changed.width > 1) --changed.width;
  if ((setting[0] & 32) != 0) changed.size = SizeBefore(setting[5], offsetof(kel_pixels, samples));
  if ((setting[0] & 64) != 0) changed.channels = setting[7] % (pixels.channels + 1);
  void* bytes = nullptr;
  std::size_t length = 0;
  const kel_status status = kel_encode_memory(&changed, &options, &bytes, &length);
  Require((status == KEL_OK) == (bytes != nullptr) && status != KEL_ERROR_UNEXPECTED);
  SumOf(bytes, length);
  kel_file* file = nullptr;
  if (status == KEL_OK) Require(kel_open_memory(bytes, length, &file) == KEL_OK);
  kel_close(file);
  kel_free_bytes(bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kSettingBytes) return 0;
  static const kel_status limited = kel_set_memory_limit(24 << 20);
  Require(limited == KEL_OK);
  const std::vector<std::uint8_t> bytes(data + kSettingBytes, data + size);
  kel_file* file = nullptr;
  const kel_status opened = kel_open_memory(bytes.data(), bytes.size(), &file);
  Require((opened == KEL_OK) == (file != nullptr) && opened != KEL_ERROR_UNEXPECTED);
  kel_info info;
  kel_info_init(&info);
  if (file != nullptr) Require(kel_get_info(file, &info) == KEL_OK);
  if (std::uint64_t{info.width} * info.height * info.channels > 1 << 18) {
    kel_close(file);
    return 0;
  }

  int left = data[0];
  kel_decode_options options;
  kel_decode_options_init(&options);
  options.reduce = data[1] & 3;
  options.x = data[2];
  options.y = data[3];
  options.width = data[4];
  options.height = data[5];
  options.accept_incomplete = data[1] & 4;
  options.threads = 1;
  options.progress = CountDown;
  options.user = &left;
  if ((data[1] & 8) != 0)
    options.size = SizeBefore(data[6], offsetof(kel_decode_options, progress));
  kel_image* image = nullptr;
  const kel_status status = kel_decode(file, &options, &image);
  Require((status == KEL_OK) == (image != nullptr) && status != KEL_ERROR_UNEXPECTED);
  kel_pixels pixels;
  kel_pixels_init(&pixels);
  if (kel_get_pixels(image, &pixels) == KEL_OK) {
    SumOf(pixels.samples, pixels.stride * pixels.height);
    if (std::uint64_t{pixels.width} * pixels.height < 1 << 14) {
      left = data[15];
      EncodeAgain(pixels, data + 7, &left);
    }
  }
  kel_free_image(image);
  kel_close(file);
  return 0;
}
