// kel decode: Kel files into image files or bare planes.
#include <kel/host/convert.hpp>
#include <kel/host/decode.hpp>
#include <kel/host/picture.hpp>
#include <kel/host/pnm.hpp>
#include <kel/host/session.hpp>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <optional>

#include "Commands.hpp"
#include "Console.hpp"
#include "DecodedRows.hpp"
#include "Files.hpp"
#include "ImageFile.hpp"
#include "Metadata.hpp"
#include "OutputFile.hpp"
#include "PictureOptions.hpp"
#include "RawPlanes.hpp"

namespace kel::tool {
namespace {

struct DecodeOptions {
  FileOptions files;
  MetadataOptions metadata;
  unsigned reduce = 0;
  std::string region, fit;
  std::optional<std::uint32_t> tile;
  int rotate = 0;
  unsigned bits = 0;
  bool exact = false;
  std::string rawPrefix;
  std::uint64_t maxMemory = HalfOfMemory();
  bool strict = false;
  std::string format = "png";
};

/// The name whose ending tells the format of an output.
std::string FormatName(const DecodeOptions& options, const std::string& output) {
  const std::string name = output == kStandardStream ? "." + options.format : output;
  if (!IsWrittenName(name)) {
    std::string endings;
    for (const std::string& ending : WrittenEndings()) endings += " " + ending;
    throw UsageError(output + ": the ending of an output tells its format, and is one of" +
                     endings);
  }
  return name;
}

/// The names that --format takes.
std::vector<std::string> WrittenFormats() {
  std::vector<std::string> names = WrittenEndings();
  for (std::string& name : names) name.erase(0, 1);
  return names;
}

/// Bare planes are written side by side up to so many.
constexpr std::size_t kMostRawByRows = 64;

/// Whether rows can go from the decoder into files one after another.
bool GoesByRows(const DecodeOptions& options, const std::string& format,
                const host::Image& description) {
  if (options.rotate != 0) return false;
  host::Image changed;
  host::CopyDescription(description, changed);
  ChangeMetadata(options.metadata, changed);
  if (IsToBeTurned(options.metadata, changed) || !host::HasPlainRows(description)) return false;
  if (options.bits != 0 && (description.palette || host::KeptMaxValue(changed) != 0)) return false;
  if (!options.rawPrefix.empty() && description.planes.size() > kMostRawByRows) return false;
  if (format.empty()) return true;
  const bool isPnm = FormatOfName(format) == ImageFormat::kPnm;
  if (host::KeptMaxValue(changed) != 0 && !isPnm) return false;
  return host::IsOrdinary(description) || KeepsPalette(format, description);
}

bool IsPartial(const DecodeOptions& options) {
  return options.reduce != 0 || !options.fit.empty() || options.tile || !options.region.empty();
}

/// The size to fit, before the image is turned.
void SetFit(const DecodeOptions& options, host::DecodeParams& params) {
  char behind = 0;
  const int fields =
      std::sscanf(options.fit.c_str(), "%ux%u%c", &params.fitWidth, &params.fitHeight, &behind);
  if (fields != 2 || options.fit.find('-') != std::string::npos || params.fitWidth == 0 ||
      params.fitHeight == 0) {
    throw UsageError("--fit takes WIDTHxHEIGHT, such as 1920x1080, not " + options.fit);
  }
  if (options.rotate % 180 != 0) std::swap(params.fitWidth, params.fitHeight);
}

/// Which part of the picture is asked for, and of its resolutions.
void SetPart(const DecodeOptions& options, host::RangeSource& file, host::DecodeParams& params) {
  if (!options.fit.empty()) SetFit(options, params);
  if (!options.region.empty()) params.region = ParseRegion(options.region);
  if (options.tile) params.region = host::Picture(file).TileRegion(*options.tile);
}

void WriteWhole(const DecodeOptions& options, const Task& task, const std::string& format,
                host::Image image) {
  const host::MemoryReservation room(BytesOf(image), "the decoded image");
  ChangeMetadata(options.metadata, image);
  const bool isPnm = !format.empty() && FormatOfName(format) == ImageFormat::kPnm;
  if (options.bits != 0 || (!isPnm && !format.empty())) host::UseFullRange(image);
  if (options.bits != 0) {
    host::ExpandPalette(image);
    host::ChangeDepth(image, options.bits);
  }
  if (options.rotate != 0 || options.metadata.autoOrient) MakeUpright(image);
  host::Rotate(image, options.rotate);
  if (!options.rawPrefix.empty()) WriteRawPlanes(image, options.rawPrefix, task.onExisting);
  if (task.output.empty()) return;
  WarnOfLosses(image, format, task);
  OutputFile output(task.output, task.onExisting);
  WriteImage(image, format, output);
}

host::DecodeReport WriteRows(const DecodeOptions& options, const Task& task,
                             const std::string& format, host::RowDecoder& decoder) {
  std::optional<RawPlanes> raw;
  if (!options.rawPrefix.empty()) raw.emplace(options.rawPrefix, task.onExisting);
  std::optional<OutputFile> output;
  std::unique_ptr<host::RowSink> file;
  if (!task.output.empty()) {
    output.emplace(task.output, task.onExisting);
    file = MakeChangedFile(format, *output, options.metadata, task);
  }
  DecodedRows rows(options.bits, raw ? &*raw : nullptr, file.get());
  return decoder.Decode(rows);
}

int DecodeTask(const DecodeOptions& options, const Task& task) {
  const std::string format = task.output.empty() ? std::string() : FormatName(options, task.output);
  host::DecodeReport report;
  host::DecodeParams params;
  params.reduce = options.reduce;
  params.exact = options.exact;
  params.acceptIncomplete = !options.strict;
  params.threads = task.threads;
  params.progress = task.progress;
  const auto start = std::chrono::steady_clock::now();
  const auto tell = [&](const host::Image& image) {
    if (!task.verbose) return;
    PrintMessage(NameOf(task.input) + ": " + std::to_string(image.width) + " x " +
                 std::to_string(image.height) + ", " + Speed(image, start));
  };
  std::optional<InputRanges> ranges;
  if (IsPartial(options)) SetPart(options, ranges.emplace(task.input).Get(), params);
  const auto input = ranges ? ranges->MakeSource() : OpenInput(task.input);
  host::RowDecoder decoder(*input, params);
  const host::Image description = decoder.Description();
  if (GoesByRows(options, format, description)) {
    report = WriteRows(options, task, format, decoder);
  } else {
    WriteWhole(options, task, format, decoder.DecodeImage(&report));
  }
  tell(description);
  return WarnOfMissing(task.input, report);
}

int RunDecode(const DecodeOptions& options) {
  const host::Session session(options.maxMemory);
  if (!options.rawPrefix.empty() && !options.files.outputDir.empty()) {
    throw UsageError("--raw-planes is for one file");
  }
  const TaskSettings settings{.ending = "." + options.format,
                              .outputOptional = !options.rawPrefix.empty(),
                              .isInput = IsEncodedName};
  return RunTasks(options.files, settings,
                  [&](const Task& task) { return DecodeTask(options, task); });
}

}  // namespace

int WarnOfMissing(const std::string& input, const host::DecodeReport& report) {
  if (report.complete) return kDone;
  PrintMessage(NameOf(input) + ": incomplete: " + std::to_string(report.numCompleteTiles) + " of " +
               std::to_string(report.numTiles) + " tiles are whole" +
               (report.problem.empty() ? "" : "; " + report.problem));
  return kIncompleteInput;
}

void AddDecodeCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<DecodeOptions>();
  CLI::App& command = *app.add_subcommand("decode", "turn Kel files into image files");
  AddFileOptions(command, options->files);
  CLI::Option* reduce =
      command
          .add_option("--reduce", options->reduce,
                      "halve width and height N times\n"
                      "It is the coding's own resolution, and of the file only its bytes are read; "
                      "below the lowest one samples are averaged.")
          ->type_name("N")
          ->check(CLI::Range(0, 31));
  command.add_option("--fit", options->fit, "halve as often as it takes to be no larger than this")
      ->type_name("WxH")
      ->excludes(reduce);
  CLI::Option* region = command
                            .add_option("--region", options->region,
                                        "decode a rectangle only, given in samples of full size\n"
                                        "With --reduce it is halved.")
                            ->type_name("WxH+X+Y");
  command.add_option("--tile", options->tile, "decode one tile only, counted in rows from 0")
      ->type_name("N")
      ->excludes(region);
  command
      .add_option("--rotate", options->rotate,
                  "turn clockwise by 90, 180 or 270 degrees\n"
                  "It is turned from how it is to be seen; the orientation has no part in the "
                  "result any more.")
      ->type_name("DEGREES")
      ->check(CLI::IsMember({90, 180, 270}));
  command.add_option("--bits", options->bits, "scale samples to N bits")
      ->type_name("N")
      ->check(CLI::Range(1, 32));
  command.add_flag("--exact", options->exact,
                   "compute lossy pictures of up to 8 bits in double precision\n"
                   "Without it fewer than one of 15,000 samples of a photo differ, by one level.");
  AddMetadataOptions(command, options->metadata);
  command
      .add_option("--raw-planes", options->rawPrefix,
                  "write bare samples to PREFIX.cN.raw, described in PREFIX.json\n"
                  "Samples lie row by row without padding: one byte each up to 8 bits, two bytes, "
                  "least significant first, up to 16, four above. OUT can be left out then.")
      ->type_name("PREFIX");
  command
      .add_option("--format", options->format, "format for --output-dir and for standard output")
      ->capture_default_str()
      ->type_name("NAME")
      ->check(CLI::IsMember(WrittenFormats()));
  AddMemoryOption(command, options->maxMemory, "half of the machine's memory");
  command.add_flag("--strict", options->strict,
                   "treat incomplete data as an error\n"
                   "Without it, what is there is decoded and written.");
  command.footer(
      "Examples:\n"
      "  kel decode photo.kel photo.png\n"
      "  kel decode --reduce 2 photo.kel small.jpg       a quarter of width and height\n"
      "  kel decode --fit 1920x1080 map.kel screen.png   no larger than a screen\n"
      "  kel decode --region 640x480+1000+0 map.kel part.png\n"
      "  kel decode --raw-planes out/photo photo.kel     bare samples for other programs\n"
      "  kel decode --output-dir out --format tif *.kel  many files side by side\n"
      "A dash stands for standard input and output. A picture of several tiles is written as it "
      "is\n"
      "decoded, also with --bits and --raw-planes; held whole are pictures with --rotate, halved\n"
      "further than they are coded, with a palette to be looked up or channels of different "
      "sizes,\n"
      "and TIFF written to a pipe.\n"
      "Exit codes: 0 done, 1 usage, 2 unreadable input, 3 incomplete input (without --strict what\n"
      "is there has been written), 4 output not written, 5 memory or pixel limit,\n"
      "6 time limit\n");
  command.callback([options, &run] { run = [options] { return RunDecode(*options); }; });
}

}  // namespace kel::tool
