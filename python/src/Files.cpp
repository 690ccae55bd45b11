// Files into files, over what the command reads and writes.
#include "Files.hpp"

#include <kel/host/convert.hpp>
#include <kel/host/decode.hpp>
#include <kel/host/errors.hpp>

#include <algorithm>

#include "ImageFile.hpp"
#include "OutputFile.hpp"

namespace kel::python {
namespace {

using host::Error;
using host::Failure;

host::Image LoadImage(const std::string& name) {
  host::FileSource file(name);
  host::Bytes storage;
  const host::ByteView bytes = host::ReadAll(file, storage);
  host::Image image;
  if (tool::RecogniseImage(bytes)) {
    image = tool::ReadImage(bytes);
  } else {
    host::MemorySource source(bytes);
    image = host::Decode(source, {.threads = 1, .progress = WatchProgress()});
  }
  host::MakeOrdinary(image);
  return image;
}

/// Failures about the data themselves do not know where these came from.
template <class Work>
decltype(auto) Naming(const std::string& name, Work&& work) {
  try {
    return work();
  } catch (const Error& error) {
    if (!error.File().empty()) throw;
    throw Error(error.Kind(), name, error.Sentence());
  }
}

constexpr std::size_t kMostPaletteEntries = 1024;

/// The rows of an image file, with the palette looked up unless it can be kept: in lossless files,
/// where it is small and of colours alone.
std::unique_ptr<host::RowSource> OpenRows(host::BufferedSource& source, bool lossless) {
  auto rows = tool::OpenImage(source);
  const auto& palette = rows->Description().palette;
  if (!palette) return rows;
  const bool isPlain = std::ranges::all_of(palette->columns, [](const auto& column) {
    return column.role == host::ChannelRole::kColour &&
           column.entries.size() <= kMostPaletteEntries;
  });
  if (lossless && isPlain) return rows;
  host::Image image = host::ReadImage(*rows);
  host::ExpandPalette(image);
  return std::make_unique<host::ImageRowSource>(std::move(image));
}

}  // namespace

std::uint64_t EncodeFile(const std::string& input, const std::string& output,
                         const py::dict& given) {
  Options options(given);
  host::Image mask;
  host::EncodeParams params = TakeCoding(options, mask);
  params.progress = WatchProgress();
  std::string comment;
  std::pair<double, double> resolution;
  options.Take("comment", comment);
  options.Take("resolution", resolution);
  options.Finish();
  return Run(*CurrentRoom(), [&] {
    return Naming(input, [&] {
      host::FileSource file(input);
      host::BufferedSource source(file);
      const auto rows = OpenRows(source, params.lossless);
      if (!comment.empty()) rows->Description().comment = comment;
      if (resolution.first > 0) {
        rows->Description().resolution = {resolution.first, resolution.second};
      }
      tool::OutputFile sink(output);
      return host::Encode(*rows, params, sink).bytes;
    });
  });
}

void DecodeFile(const std::string& input, const std::string& output, const py::dict& given) {
  Options options(given);
  host::DecodeParams params;
  bool strict = false;
  options.Take("reduce", params.reduce);
  options.Take("threads", params.threads);
  options.Take("strict", strict);
  options.Take("exact", params.exact);
  TakeFit(options, params);
  options.Finish();
  params.acceptIncomplete = !strict;
  params.progress = WatchProgress();
  if (!tool::IsWrittenName(output)) {
    throw Error(Failure::kParameter, output + ": the ending tells no format of image files");
  }
  Run(*CurrentRoom(), [&] {
    Naming(input, [&] {
      host::FileSource source(input);
      host::RowDecoder decoder(source, params);
      const host::Image& description = decoder.Description();
      const bool byRows =
          host::HasPlainRows(description) &&
          (host::IsOrdinary(description) || tool::KeepsPalette(output, description));
      tool::OutputFile sink(output);
      if (byRows) {
        decoder.Decode(*tool::MakeImageFile(output, sink));
      } else {
        tool::WriteImage(decoder.DecodeImage(), output, sink);
      }
    });
  });
}

double CompareFiles(const std::string& first, const std::string& second) {
  return Run(*CurrentRoom(), [&] {
    const host::Image a = Naming(first, [&] { return LoadImage(first); });
    const host::Image b = Naming(second, [&] { return LoadImage(second); });
    return Naming(second, [&] { return host::Compare(a, b).psnr; });
  });
}

}  // namespace kel::python
