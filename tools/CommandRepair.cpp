// kel repair: files that every decoder reads, of what is left of damaged ones.
#include <kel/host/repair.hpp>
#include <kel/host/session.hpp>

#include <CLI/CLI.hpp>

#include "CheckText.hpp"
#include "Commands.hpp"
#include "Files.hpp"
#include "OutputFile.hpp"

namespace kel::tool {
namespace {

struct RepairOptions {
  FileOptions files;
  std::uint64_t maxMemory = 2 * HalfOfMemory();
};

/// Losses that are told one by one.
constexpr std::size_t kShownLosses = 20;

int RepairTask(const Task& task) {
  const InputRanges input(task.input);
  OutputFile output(task.output, task.onExisting);
  const host::RepairReport report = host::Repair(input.Get(), output);
  if (report.IsWhole()) return kDone;
  const std::size_t shown = std::min(report.losses.size(), kShownLosses);
  for (std::size_t i = 0; i < shown; ++i) task.Warn("lost: " + LossText(report.losses[i]));
  if (report.numLosses > shown) {
    task.Warn("and " + std::to_string(report.numLosses - shown) + " more losses");
  }
  return kIncompleteInput;
}

}  // namespace

void AddRepairCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<RepairOptions>();
  CLI::App& command =
      *app.add_subcommand("repair", "make of damaged Kel files such as every decoder reads");
  AddFileOptions(command, options->files);
  AddMemoryOption(command, options->maxMemory, "the machine's memory");
  command.footer(
      "Examples:\n"
      "  kel repair cut.kel whole.kel\n"
      "Lengths are corrected, tile-parts found by their marks, and what is lost is written as\n"
      "empty packets: decoded, the output is what the damaged file gives, and kel check finds\n"
      "nothing wrong with it. What was lost is told; the exit code then is 3.\n");
  command.callback([options, &run] {
    run = [options] {
      const host::Session session(options->maxMemory);
      const TaskSettings settings{.ending = ".kel", .isInput = IsEncodedName};
      return RunTasks(options->files, settings, RepairTask);
    };
  });
}

}  // namespace kel::tool
