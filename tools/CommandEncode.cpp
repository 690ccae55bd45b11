// kel encode: image files into Kel files. And the coding options that preview shares.
#include <kel/host/convert.hpp>
#include <kel/host/encode.hpp>
#include <kel/host/session.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>

#include "BareSamples.hpp"
#include "Commands.hpp"
#include "Console.hpp"
#include "Files.hpp"
#include "ImageFile.hpp"
#include "Metadata.hpp"
#include "OutputFile.hpp"
#include "PictureOptions.hpp"

namespace kel::tool {
namespace {

constexpr std::size_t kMostPaletteEntries = 1024;

struct EncodeOptions {
  FileOptions files;
  CodingOptions coding;
  std::uint64_t maxMemory = HalfOfMemory();
  MetadataOptions metadata;
  ReadOptions reading;
  bool measure = false;
  std::uint64_t size = 0;
  double psnr = 0;
  std::string order = "rlcp";
  unsigned layers = 1;
  bool checksums = false;
  std::string raw, comment;
  double resolution = 0;
};

std::string CheckTile(const std::string& text) {
  unsigned width = 0, height = 0;
  const char* end = text.data() + text.size();
  const auto first = std::from_chars(text.data(), end, width);
  if (first.ec == std::errc() && first.ptr != end && (*first.ptr == 'x' || *first.ptr == 'X')) {
    const auto second = std::from_chars(first.ptr + 1, end, height);
    if (second.ec == std::errc() && second.ptr == end && width != 0 && height != 0) return {};
  }
  return "tiles are given as WIDTHxHEIGHT, such as 512x512";
}

/// Lossy coding of indices would mix up colours; some palettes the format does not hold.
bool KeepsPalette(const host::Image& image, bool lossless) {
  return lossless && image.palette->columns[0].entries.size() <= kMostPaletteEntries &&
         std::ranges::all_of(image.palette->columns, [](const auto& column) {
           return column.role == host::ChannelRole::kColour;
         });
}

/// The rows to be encoded: the file's, or those of its image with the palette looked up or turned.
/// Null when the file has fewer pages.
std::unique_ptr<host::RowSource> OpenRows(host::BufferedSource& source,
                                          const EncodeOptions& options,
                                          const ReadSettings& settings) {
  auto rows = OpenImage(source, settings);
  if (rows == nullptr) return rows;
  host::Image& description = rows->Description();
  ChangeMetadata(options.metadata, description);
  const bool turns = IsToBeTurned(options.metadata, description);
  const bool keeps = !description.palette || KeepsPalette(description, options.coding.lossless);
  if (keeps && !turns) return rows;
  host::Image image = host::ReadImage(*rows);
  if (!keeps) host::ExpandPalette(image);
  if (turns) MakeUpright(image);
  return std::make_unique<host::ImageRowSource>(std::move(image));
}

std::string Summary(const host::Image& image, const host::EncodeReport& report) {
  char text[120];
  std::snprintf(text, sizeof text, "%llu bytes, %.2f bits per pixel, ",
                static_cast<unsigned long long>(report.bytes),
                8.0 * static_cast<double>(report.bytes) / image.width / image.height);
  return text + (report.quality == 0 ? "lossless" : "quality " + std::to_string(report.quality));
}

/// Notes and tells the PSNR of what was written against the picture that was encoded.
void MeasureOutput(const EncodeOptions& options, const Task& task, unsigned page) {
  const auto input = OpenInput(task.input);
  host::BufferedSource source(*input);
  ReadSettings settings;
  settings.page = page == 0 ? 1 : page;
  settings.bare = ParseBareForm(options.raw);
  host::Image image = host::ReadImage(*OpenRows(source, options, settings));
  host::MakeOrdinary(image);
  const double psnr = host::Compare(image, LoadAnyImage(task.output, task.threads)).psnr;
  if (task.notes != nullptr) task.notes->psnr = psnr;
  char text[32] = "identical";
  if (!std::isinf(psnr)) std::snprintf(text, sizeof text, "%.2f dB", psnr);
  if (task.announce) PrintMessage(task.output + ": " + text);
}

/// Encodes one page; 0 is the first and only one. False when there are fewer.
bool EncodePage(const EncodeOptions& options, const host::Image* mask, const Task& task,
                unsigned page) {
  const auto input = OpenInput(task.input);
  host::BufferedSource source(*input);
  ReadSettings settings = SettingsOf(options.reading, task, page);
  settings.keepValues = options.coding.lossless;
  settings.bare = ParseBareForm(options.raw);
  const auto rows = OpenRows(source, options, settings);
  if (rows == nullptr) return false;
  host::Image& image = rows->Description();
  if (!options.comment.empty()) image.comment = options.comment;
  if (options.resolution > 0) image.resolution = {options.resolution, options.resolution};

  host::EncodeParams params = ParamsOf(options.coding);
  params.sizeLimit = options.size;
  params.psnr = options.psnr;
  params.order =
      options.order == "cprl" ? host::PacketOrder::kComponents : host::PacketOrder::kResolutions;
  params.layers = options.layers;
  params.checksums = options.checksums;
  params.regionMask = mask == nullptr ? nullptr : &mask->planes[0];
  params.threads = task.threads;
  params.progress = task.progress;
  OutputFile output(task.output, task.onExisting);
  const auto start = std::chrono::steady_clock::now();
  const host::EncodeReport report = host::Encode(*rows, params, output);
  if (task.announce) {
    PrintMessage(task.output + ": " + Summary(image, report) + ", " + Speed(image, start));
  }
  if (options.measure) MeasureOutput(options, task, page);
  return true;
}

/// NAME-2.kel of NAME.kel.
std::string NameOfPage(const std::string& name, unsigned page) {
  const std::filesystem::path path(name);
  const std::string file =
      path.stem().string() + "-" + std::to_string(page) + path.extension().string();
  return (path.parent_path() / file).string();
}

int EncodeTask(const EncodeOptions& options, const host::Image* mask, const Task& task) {
  if (FormatOfName(task.output)) {
    throw UsageError(task.output + ": a Kel file under the name of an image; let it end in .kel");
  }
  const std::string& page = options.reading.page;
  const bool streams = task.input == kStandardStream || task.output == kStandardStream;
  if (options.measure && streams) throw UsageError("--measure needs files to read again");
  if (page == "all") {
    if (streams) {
      throw UsageError("--page all needs files, not standard input or output");
    }
    Task one = task;
    for (unsigned number = 1;; ++number) {
      one.output = NameOfPage(task.output, number);
      const bool isThere = options.files.skipExisting && std::filesystem::exists(one.output);
      if (!isThere && !EncodePage(options, mask, one, number)) return kDone;
      if (task.notes != nullptr) task.notes->outputs.push_back(one.output);
    }
  }
  if (!EncodePage(options, mask, task,
                  page.empty() ? 0 : static_cast<unsigned>(std::stoul(page)))) {
    throw host::Error(host::Failure::kInput, "there is no page " + page);
  }
  return kDone;
}

int RunEncode(EncodeOptions& options) {
  const host::Session session(options.maxMemory);
  std::unique_ptr<host::Image> mask;
  if (!options.coding.mask.empty()) {
    options.files.otherInputs = {options.coding.mask};
    mask = std::make_unique<host::Image>(ReadMask(options.coding.mask));
  }
  const TaskSettings settings{
      .ending = ".kel",
      .manyOutputs = options.reading.page == "all",
      .isInput = [](const std::string& name) { return FormatOfName(name).has_value(); }};
  return RunTasks(options.files, settings,
                  [&](const Task& task) { return EncodeTask(options, mask.get(), task); });
}

}  // namespace

void AddCodingOptions(CLI::App& command, CodingOptions& options) {
  auto* lossless = command.add_flag("--lossless", options.lossless, "keep every sample exactly");
  command.add_option("-q,--quality", options.quality, "1 to 100; 60 gives about 40 dB on a photo")
      ->capture_default_str()
      ->type_name("N")
      ->check(CLI::Range(1, 100))
      ->excludes(lossless);
  command.add_flag("--plain", options.plain,
                   "round to the nearest and write every packet, as first encoders did\n"
                   "Files are larger, of the same error.");
  command
      .add_option("--tile", options.tile,
                  "size of tiles [about 1024x512; one up to a megapixel]\n"
                  "Tiles are what threads can work on side by side.")
      ->type_name("WxH")
      ->check(CheckTile);
  command.add_option("--levels", options.levels, "wavelet decompositions [5; lossy up to 7]")
      ->type_name("N")
      ->check(CLI::Range(0, 32));
  command.add_flag("--no-colour-transform", options.noColourTransform,
                   "code red, green and blue apart from each other");
  command
      .add_option("--chroma", options.chroma,
                  "444: colours as they are; 420: chroma halved both ways\n"
                  "The latter is for low qualities.")
      ->capture_default_str()
      ->type_name("KIND")
      ->check(CLI::IsMember({"444", "420"}));
  command
      .add_option("--roi", options.mask,
                  "image file whose nonzero samples keep full precision in lossy coding")
      ->type_name("MASK")
      ->excludes(lossless);
}

host::EncodeParams ParamsOf(const CodingOptions& options) {
  host::EncodeParams params;
  params.lossless = options.lossless;
  params.quality = options.quality;
  params.plain = options.plain;
  params.halfChroma = options.chroma == "420";
  if (options.levels) params.levels = *options.levels;
  params.colourTransform = !options.noColourTransform;
  if (!options.tile.empty()) {
    const std::size_t cross = options.tile.find_first_of("xX");
    params.tileWidth = static_cast<std::uint32_t>(std::stoul(options.tile));
    params.tileHeight = static_cast<std::uint32_t>(std::stoul(options.tile.substr(cross + 1)));
  }
  return params;
}

host::Image ReadMask(const std::string& name) {
  host::Image mask;
  try {
    mask = ReadImage(ReadInput(name));
  } catch (const host::Error& error) {
    ThrowAbout(name, error);
  }
  host::ExpandPalette(mask);
  return mask;
}

void AddEncodeCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<EncodeOptions>();
  CLI::App& command = *app.add_subcommand("encode", "turn image files into Kel files");
  AddFileOptions(command, options->files);
  AddCodingOptions(command, options->coding);
  AddMemoryOption(command, options->maxMemory, "half of the machine's memory");
  command.add_flag("--measure", options->measure,
                   "decode what was written, and put its PSNR into the report\n"
                   "It is told too, where results are.");
  AddReadOptions(command, options->reading);
  AddMetadataOptions(command, options->metadata);
  command
      .add_option(
          "--size", options->size,
          "best file of at most BYTES, without loss if that fits\n"
          "It is at most 1 % smaller, unless the finest there is takes less. Units are K, M "
          "and G (of 1024).")
      ->type_name("BYTES")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Validator(
          [](std::string& bytes) { return bytes == "0" ? "no file has 0 bytes" : ""; }, ""))
      ->excludes("--lossless")
      ->excludes("--quality");
  command
      .add_option("--psnr", options->psnr,
                  "file of that peak signal-to-noise ratio, within 0.1 dB\n"
                  "over the samples of all colours")
      ->type_name("DB")
      ->check(CLI::Range(1.0, 200.0))
      ->excludes("--lossless")
      ->excludes("--quality")
      ->excludes("--size");
  command
      .add_option("--order", options->order,
                  "rlcp: coarse to fine; cprl: by component\n"
                  "Data are ordered from coarse to fine over the whole tile, or component after "
                  "component.")
      ->capture_default_str()
      ->type_name("ORDER")
      ->check(CLI::IsMember({"rlcp", "cprl"}, CLI::ignore_case))
      ->transform(CLI::IsMember({"rlcp", "cprl"}, CLI::ignore_case));
  command
      .add_option("--layers", options->layers,
                  "layers, each of which repeats the data\n"
                  "They make files larger, not better.")
      ->capture_default_str()
      ->type_name("N")
      ->check(CLI::Range(1, 65535));
  command.add_flag("--checksums", options->checksums,
                   "a checksum of every packet, for kel check\n"
                   "Four bytes each, and 14 a tile-part; decoders pass over them.");
  command
      .add_option("--raw", options->raw,
                  "the inputs are bare samples, such as 640x480x3:u8 or 512x512:u16le\n"
                  "Columns, rows, channels (1: grey, 2: and opacity, 3: RGB, 4: and opacity), then "
                  "the bits of a sample, 1 to 28, in one, two or four bytes, le with the least "
                  "significant first, be last. Samples stand pixel after pixel, row by row.")
      ->type_name("FORM")
      ->check(CLI::Validator(
          [](std::string& form) {
            return ParseBareForm(form) ? "" : "a form is WxHxCHANNELS:uBITS, le or be behind it";
          },
          ""));
  command.add_option("--comment", options->comment, "text to put into the file")->type_name("TEXT");
  command.add_option("--resolution", options->resolution, "samples per inch [the image's own]")
      ->type_name("DPI")
      ->check(CLI::Range(0.03, 1664.0));
  command.footer(
      "Examples:\n"
      "  kel encode photo.png photo.kel                  a good lossy file\n"
      "  kel encode --lossless scan.tif scan.kel         every sample exactly\n"
      "  kel encode --size 500K photo.jpg photo.kel      the best in 500 KiB\n"
      "  kel encode -q 80 --output-dir out *.png         many files side by side\n"
      "A dash stands for standard input and output. A picture is read as it is coded, a row of "
      "tiles\n"
      "at a time; held whole in memory are pictures with --size, --psnr, --chroma 420 or a palette "
      "to be looked "
      "up,\n"
      "interlaced or odd-depth PNG, PNG with metadata at its end, TIFF from a pipe or in one "
      "strip\n"
      "per channel, and progressive JPEG. Metadata at the end of a PNG from a pipe are left out.\n"
      "Exit codes: 0 done, 1 usage, 2 unreadable input, 4 output not written, 5 memory or\n"
      "pixel limit, 6 time limit\n");
  command.callback([options, &run] { run = [options] { return RunEncode(*options); }; });
}

}  // namespace kel::tool
