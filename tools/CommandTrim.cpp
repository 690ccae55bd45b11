// kel trim: smaller Kel files by copying bytes.
#include <kel/host/session.hpp>
#include <kel/host/trim.hpp>

#include <CLI/CLI.hpp>

#include "Commands.hpp"
#include "Files.hpp"
#include "OutputFile.hpp"

namespace kel::tool {
namespace {

struct TrimOptions {
  FileOptions files;
  unsigned reduce = 0;
  std::string region;
  std::uint64_t maxMemory = HalfOfMemory();
};

int TrimTask(const TrimOptions& options, const Task& task) {
  host::TrimParams params;
  params.reduce = options.reduce;
  if (!options.region.empty()) params.region = ParseRegion(options.region);
  const InputRanges input(task.input);
  OutputFile output(task.output, task.onExisting);
  host::Trim(input.Get(), params, output);
  return kDone;
}

}  // namespace

void AddTrimCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<TrimOptions>();
  CLI::App& command = *app.add_subcommand(
      "trim", "make smaller Kel files without decoding: fewer samples or tiles");
  AddFileOptions(command, options->files);
  command
      .add_option("--reduce", options->reduce,
                  "leave out N resolutions: width and height are halved N times\n"
                  "Decoded, the result is what decoding the input with --reduce gives.")
      ->type_name("N")
      ->check(CLI::Range(0, 31));
  command
      .add_option("--region", options->region,
                  "keep the tiles that this rectangle touches, given in samples of full size\n"
                  "Decoded, the result is these tiles of the input.")
      ->type_name("WxH+X+Y");
  AddMemoryOption(command, options->maxMemory, "half of the machine's memory");
  command.footer(
      "Examples:\n"
      "  kel trim --reduce 2 map.kel small.kel           a quarter of width and height\n"
      "  kel trim --region 2048x2048+4096+0 map.kel part.kel\n"
      "Packets are copied as they are, headers rewritten. A damaged file is refused. Halvings "
      "need\n"
      "tiles whose sides can be halved so often.\n");
  command.callback([options, &run] {
    run = [options] {
      if (options->reduce == 0 && options->region.empty()) {
        throw UsageError("what to leave out is told by --reduce or --region");
      }
      const host::Session session(options->maxMemory);
      const TaskSettings settings{.ending = ".kel", .isInput = IsEncodedName};
      return RunTasks(options->files, settings,
                      [&](const Task& task) { return TrimTask(*options, task); });
    };
  });
}

}  // namespace kel::tool
