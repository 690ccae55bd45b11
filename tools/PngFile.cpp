// Failures of libpng, and what is compressed or turned into digits outside of it.
#include "PngFile.hpp"

#include <kel/host/errors.hpp>

#include <algorithm>
#include <cctype>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <zlib.h>

namespace kel::tool {

using host::Bytes;
using host::ByteView;
using host::Error;
using host::Failure;

namespace {

constexpr const char* kProfileName = "ICC profile";
constexpr std::size_t kMostProfile = 64 * 1024 * 1024;

}  // namespace

void OnPngError(png_structp png, png_const_charp message) {
  auto& failures = *static_cast<PngFailures*>(png_get_error_ptr(png));
  std::strncpy(failures.message, message, sizeof failures.message - 1);
  png_longjmp(png, 1);
}

void OnPngWarning(png_structp png, png_const_charp message) {
  static_cast<PngFailures*>(png_get_error_ptr(png))->complaints.Note(message);
}

Bytes ReadProfileChunk(ByteView chunk, const Warn& warn) {
  const auto zero = std::ranges::find(chunk, 0);
  if (chunk.end() - zero < 2) return {};
  const ByteView data(zero + 2, chunk.end());
  Bytes profile;
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK) return {};
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  int result = Z_OK;
  while (result == Z_OK && profile.size() < kMostProfile) {
    profile.resize(profile.size() + kPngPieceBytes);
    stream.next_out = profile.data() + profile.size() - kPngPieceBytes;
    stream.avail_out = kPngPieceBytes;
    result = inflate(&stream, Z_NO_FLUSH);
  }
  profile.resize(profile.size() - stream.avail_out);
  inflateEnd(&stream);
  if (result == Z_STREAM_END) return profile;
  warn("the colour profile is damaged, and left out");
  return {};
}

Bytes MakeProfileChunk(ByteView profile) {
  if (profile.empty()) return {};
  const std::string_view name(kProfileName);
  Bytes chunk(name.begin(), name.end());
  chunk.resize(name.size() + 2);
  uLongf size = compressBound(profile.size());
  chunk.resize(name.size() + 2 + size);
  const int result = compress2(chunk.data() + name.size() + 2, &size, profile.data(),
                               static_cast<uLong>(profile.size()), Z_DEFAULT_COMPRESSION);
  if (result != Z_OK) throw Error(Failure::kMemory, "no memory for compressing a colour profile");
  chunk.resize(name.size() + 2 + size);
  return chunk;
}

Bytes FromHex(std::string_view text) {
  Bytes bytes;
  for (int line = 0; line < 3; ++line) {
    text.remove_prefix(std::min(text.size(), text.find('\n')));
    if (!text.empty()) text.remove_prefix(1);
  }
  unsigned digits = 0, value = 0;
  for (const char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) continue;
    const int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
    value = value << 4 | static_cast<unsigned>(digit);
    if (++digits % 2 == 0) bytes.push_back(static_cast<std::uint8_t>(value));
  }
  return bytes;
}

std::string ToHex(std::string_view name, ByteView bytes) {
  std::string text = "\n" + std::string(name) + "\n" + std::to_string(bytes.size());
  char pair[3];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i % 36 == 0) text += '\n';
    std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
    text += pair;
  }
  return text + '\n';
}

}  // namespace kel::tool
