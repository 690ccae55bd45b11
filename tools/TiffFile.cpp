// libtiff's callbacks: reading, writing, seeking, complaining.
#include "TiffFile.hpp"

#include <kel/host/errors.hpp>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>

namespace kel::tool {

using host::ByteView;
using host::Error;
using host::Failure;

constexpr std::size_t kHeldBytes = 1024 * 1024;  // written, until they are passed on

std::size_t TakeTiffBytes(TiffFile& file, std::uint64_t at, std::span<std::uint8_t> to) {
  if (file.source != nullptr) return file.source->ReadAt(at, to);
  if (at >= file.input.size()) return 0;
  const ByteView from = file.input.subspan(static_cast<std::size_t>(at));
  const std::size_t count = std::min(from.size(), to.size());
  std::copy_n(from.begin(), count, to.begin());
  return count;
}

void PutTiffBytes(TiffFile& file, ByteView bytes) {
  if (file.at < file.numPassed) {
    if (file.at + bytes.size() > file.numPassed || !file.sink->Rewrite(file.at, bytes)) {
      throw Error(Failure::kOutput, "cannot be changed after it was written");
    }
    return;
  }
  const auto offset = static_cast<std::size_t>(file.at - file.numPassed);
  if (file.held.size() < offset + bytes.size()) file.held.resize(offset + bytes.size());
  std::copy(bytes.begin(), bytes.end(), file.held.begin() + static_cast<std::ptrdiff_t>(offset));
  if (file.held.size() < kHeldBytes || !file.sink->Rewrite(0, {})) return;
  file.sink->Write(file.held);
  file.numPassed += file.held.size();
  file.held.clear();
}

namespace {

tmsize_t OnRead(thandle_t handle, void* to, tmsize_t count) {
  auto& file = *static_cast<TiffFile*>(handle);
  try {
    const std::size_t taken = TakeTiffBytes(
        file, file.at, {static_cast<std::uint8_t*>(to), static_cast<std::size_t>(count)});
    file.at += taken;
    return static_cast<tmsize_t>(taken);
  } catch (...) {
    file.thrown = std::current_exception();
    return 0;  // the library takes a number below it for bytes that came, and clears before them
  }
}

tmsize_t OnWrite(thandle_t handle, void* from, tmsize_t count) {
  auto& file = *static_cast<TiffFile*>(handle);
  const auto size = static_cast<std::size_t>(count);
  try {
    PutTiffBytes(file, {static_cast<const std::uint8_t*>(from), size});
  } catch (...) {
    file.thrown = std::current_exception();
    return -1;
  }
  file.at += size;
  return count;
}

toff_t OnSeek(thandle_t handle, toff_t offset, int origin) {
  auto& file = *static_cast<TiffFile*>(handle);
  if (origin == SEEK_SET) file.at = offset;
  if (origin == SEEK_CUR) file.at += offset;
  if (origin == SEEK_END) file.at = file.Size() + offset;
  return file.at;
}

toff_t OnSize(thandle_t handle) {
  return static_cast<TiffFile*>(handle)->Size();
}

int OnError(TIFF*, void* user, const char*, const char* format, va_list arguments) {
  auto& file = *static_cast<TiffFile*>(user);
  if (file.message[0] == 0) std::vsnprintf(file.message, sizeof file.message, format, arguments);
  return 1;
}

/// Fields of private meaning are no damage.
int OnWarning(TIFF*, void* user, const char*, const char* format, va_list arguments) {
  char text[300];
  std::vsnprintf(text, sizeof text, format, arguments);
  if (std::string_view(text).find("Unknown field") == std::string_view::npos) {
    static_cast<TiffFile*>(user)->complaints.Note(text);
  }
  return 1;
}

}  // namespace

void TellComplaints(TiffFile& file, const Warn& warn) {
  if (file.message[0] != 0) file.complaints.Note(file.message);
  file.message[0] = 0;
  file.complaints.Tell(warn);
}

TiffHandle OpenHandle(TiffFile& file, const char* mode) {
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  TIFFOpenOptionsSetErrorHandlerExtR(options, OnError, &file);
  TIFFOpenOptionsSetWarningHandlerExtR(options, OnWarning, &file);
  TIFF* tiff = TIFFClientOpenExt(
      "image", mode, &file, OnRead, OnWrite, OnSeek, [](thandle_t) { return 0; }, OnSize, nullptr,
      nullptr, options);
  TIFFOpenOptionsFree(options);
  return {tiff, TIFFClose};
}

}  // namespace kel::tool
