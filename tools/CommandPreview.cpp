// kel preview: what an image will look like when encoded with some options, or a quick small
// picture of an encoded one.
#include <kel/host/convert.hpp>
#include <kel/host/decode.hpp>
#include <kel/host/encode.hpp>
#include <kel/host/pnm.hpp>
#include <kel/host/probe.hpp>
#include <kel/host/session.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "Commands.hpp"
#include "Console.hpp"
#include "Files.hpp"
#include "ImageFile.hpp"
#include "OutputFile.hpp"
#include "PictureOptions.hpp"

namespace kel::tool {
namespace {

/// An encoded image is shown with at most so many columns and rows.
constexpr std::uint32_t kLongestSide = 1024;

struct PreviewOptions {
  FileOptions files;
  CodingOptions coding;
  ReadOptions reading;
  std::uint64_t maxMemory = HalfOfMemory();
};

host::Image PreviewOfEncoded(const host::Bytes& bytes, const Task& task,
                             host::DecodeReport& report) {
  host::MemorySource forProbe(bytes), source(bytes);
  const host::Info info = host::Probe(forProbe);
  host::DecodeParams params;
  params.acceptIncomplete = true;
  params.threads = task.threads;
  params.progress = task.progress;
  if (!info.palette) {
    while (std::max(info.width, info.height) >> params.reduce > kLongestSide) ++params.reduce;
  }
  return host::Decode(source, params, &report);
}

host::Image PreviewOfImage(const host::Bytes& bytes, const PreviewOptions& options,
                           const Task& task) {
  const CodingOptions& coding = options.coding;
  const std::string& page = options.reading.page;
  if (page == "all") throw UsageError("--page of a preview is one number");
  const ReadSettings settings =
      SettingsOf(options.reading, task, page.empty() ? 0 : static_cast<unsigned>(std::stoul(page)));
  host::MemorySource memory(bytes);
  host::BufferedSource source(memory);
  const auto rows = OpenImage(source, settings);
  if (rows == nullptr) throw host::Error(host::Failure::kInput, "there is no page " + page);
  host::Image image = host::ReadImage(*rows);
  const host::MemoryReservation room(BytesOf(image), "the image");
  if (!coding.lossless) host::ExpandPalette(image);
  host::EncodeParams params = ParamsOf(coding);
  params.threads = task.threads;
  params.progress = task.progress;
  host::Image mask;
  if (!coding.mask.empty()) {
    mask = ReadMask(coding.mask);
    params.regionMask = &mask.planes[0];
  }
  return host::Preview(image, params);
}

int PreviewTask(const PreviewOptions& options, const Task& task) {
  const std::string name = task.output == kStandardStream ? ".png" : task.output;
  if (!IsWrittenName(name)) {
    throw UsageError(name + ": the ending of an output tells its format, such as .png");
  }
  const host::Bytes bytes = ReadInput(task.input);
  const host::MemoryReservation roomOfFile(bytes.size(), "the file");
  host::DecodeReport report;
  report.complete = true;
  const auto start = std::chrono::steady_clock::now();
  host::Image preview = RecogniseImage(bytes) ? PreviewOfImage(bytes, options, task)
                                              : PreviewOfEncoded(bytes, task, report);
  if (task.verbose) {
    PrintMessage(NameOf(task.input) + ": preview of " + std::to_string(preview.width) + " x " +
                 std::to_string(preview.height) + ", " + Speed(preview, start));
  }
  if (FormatOfName(name) != ImageFormat::kPnm) host::UseFullRange(preview);
  WarnOfLosses(preview, name, task);
  OutputFile output(task.output, task.onExisting);
  WriteImage(preview, name, output);
  return WarnOfMissing(task.input, report);
}

}  // namespace

void AddPreviewCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<PreviewOptions>();
  CLI::App& command = *app.add_subcommand(
      "preview", "show what encoding will make of an image, or a small picture of a Kel file");
  AddFileOptions(command, options->files);
  AddCodingOptions(command, options->coding);
  AddReadOptions(command, options->reading);
  AddMemoryOption(command, options->maxMemory, "half of the machine's memory");
  command.footer(
      "Examples:\n"
      "  kel preview -q 30 photo.png look.png    what quality 30 would look like\n"
      "  kel preview photo.kel small.png         at most 1024 columns and rows\n");
  command.callback([options, &run] {
    run = [options] {
      const host::Session session(options->maxMemory);
      if (!options->coding.mask.empty()) options->files.otherInputs = {options->coding.mask};
      const TaskSettings settings{.ending = ".png", .isInput = [](const std::string& name) {
                                    return IsEncodedName(name) || FormatOfName(name).has_value();
                                  }};
      return RunTasks(options->files, settings,
                      [&](const Task& task) { return PreviewTask(*options, task); });
    };
  });
}

}  // namespace kel::tool
