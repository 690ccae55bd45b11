// Working through the files of a command, and telling how it went: on the terminal as it happens,
// and in a report for programs.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>
#include <thread>

#include "Console.hpp"
#include "Files.hpp"
#include "Report.hpp"
#include "Tasks.hpp"

namespace kel::tool {
namespace {

namespace fs = std::filesystem;
using host::Error;
using host::Failure;
using Json = nlohmann::ordered_json;

/// How one task ended; no message for success.
struct Outcome {
  int code = kDone;
  std::string message;
  bool skipped = false;
  double seconds = 0;
};

/// The file that a failure is about, where it does not say so itself.
std::string BlameFor(const Task& task, const Error& error) {
  if (!error.File().empty()) return {};
  const bool output = error.Kind() == Failure::kOutput && !task.output.empty();
  const std::string name = output && task.output != kStandardStream ? task.output
                           : output                                 ? "standard output"
                                                                    : NameOf(task.input);
  return name + ": ";
}

Outcome RunWork(const Task& task, const std::function<int(const Task&)>& work) {
  try {
    return {work(task), {}};
  } catch (const Error& error) {
    return {ExitCodeOf(error), BlameFor(task, error) + Describe(error)};
  } catch (const std::bad_alloc&) {
    return {kMemoryLimit, NameOf(task.input) + ": out of memory"};
  } catch (const UsageError&) {
    throw;
  } catch (const std::exception& error) {
    return {kBadInput, NameOf(task.input) + ": " + error.what()};
  }
}

/// The folder of an output, which a mirrored tree may lack.
void MakeFolderOf(const std::string& output) {
  const fs::path folder = fs::path(output).parent_path();
  if (folder.empty()) return;
  std::error_code error;
  fs::create_directories(folder, error);
  if (error)
    throw Error(Failure::kOutput, folder.string(), "cannot be created: " + error.message());
}

Outcome RunPlanned(const PlannedTask& planned, bool isBatch,
                   const std::function<int(const Task&)>& work) {
  if (planned.skip) return {.code = kDone, .message = {}, .skipped = true};
  if (!planned.refusal.empty()) return {planned.code, planned.refusal};
  const auto start = std::chrono::steady_clock::now();
  Outcome outcome = RunWork(planned.task, [&](const Task& task) {
    if (isBatch) MakeFolderOf(task.output);
    return work(task);
  });
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return outcome;
}

/// The line of the report for a task.
Json ReportLine(const Task& task, const TaskNotes& notes, const Outcome& outcome) {
  Json line = {{"input", task.input}, {"output", task.output}};
  if (!notes.outputs.empty()) line["outputs"] = notes.outputs;
  std::error_code error;
  std::uintmax_t bytes = notes.outputs.empty() ? fs::file_size(task.output, error) : 0;
  for (const std::string& output : notes.outputs) bytes += fs::file_size(output, error);
  const bool isWritten = outcome.code == kDone || outcome.code == kIncompleteInput;
  if (!error && isWritten) line["bytes"] = bytes;
  if (outcome.skipped) line["skipped"] = true;
  line["seconds"] = outcome.seconds;
  if (notes.psnr) line["psnr"] = std::isinf(*notes.psnr) ? Json("identical") : Json(*notes.psnr);
  if (!notes.warnings.empty()) line["warnings"] = notes.warnings;
  line["code"] = outcome.code;
  if (!outcome.message.empty()) line["error"] = outcome.message;
  return line;
}

int RunPlan(TaskPlan& plan, const FileOptions& options,
            const std::function<int(const Task&)>& work) {
  if (plan.tasks.empty() && !options.quiet) PrintMessage("there are no files to work on");
  ProgressDisplay display(options.quiet ? "none" : options.progress, plan.tasks.size());
  Report report(options.report);
  std::mutex mutex;
  int code = kDone;
  std::size_t failures = 0;
  const unsigned threads = host::ThreadCount(options.jobs);
  const auto run = [&](unsigned, std::size_t index) {
    PlannedTask& planned = plan.tasks[index];
    TaskNotes notes;
    planned.task.notes = &notes;
    planned.task.verbose = options.verbose;
    planned.task.announce = options.verbose || (!plan.isBatch && display.IsShown());
    planned.task.threads = plan.tasks.size() == 1 ? threads : 1;
    if (display.IsShown()) {
      planned.task.progress = [&](std::size_t done, std::size_t total) {
        display.ShowPart(index, done, total, NameOf(planned.task.input));
      };
    }
    const host::LimitScope limited(options.limits);
    const Outcome outcome = RunPlanned(planned, plan.isBatch, work);
    display.ShowDone(index, NameOf(planned.task.input));
    const std::lock_guard lock(mutex);
    if (!outcome.message.empty()) {
      PrintMessage(outcome.message);
      ++failures;
    }
    report.Add(ReportLine(planned.task, notes, outcome));
    code = WorseOf(code, outcome.code);
  };
  host::ForEachIndex(plan.tasks.size(), threads, run);
  if (failures != 0 && plan.tasks.size() > 1) {
    PrintMessage(std::to_string(failures) + " of " + std::to_string(plan.tasks.size()) +
                 " files failed");
  }
  return code;
}

}  // namespace

void AddFileOptions(CLI::App& command, FileOptions& options) {
  command.add_option("files", options.files, "IN OUT, or IN... DIR")->type_name("FILE");
  command.add_option("-o,--output", options.output, "the output, or the folder for outputs")
      ->type_name("OUT");
  command
      .add_option("--output-dir", options.outputDir,
                  "folder for the outputs of many inputs\n"
                  "It is made when missing. The files are done side by side; failures are told as "
                  "they happen, and the rest is done.")
      ->type_name("DIR");
  AddListOption(command, options);
  command.add_flag("--recursive", options.recursive,
                   "take the files in folders, and mirror their tree");
  auto* overwrite = command.add_flag("--overwrite", options.overwrite,
                                     "replace files that exist in the output folder\n"
                                     "Without it a file that exists there is an error. An output "
                                     "that is one of the inputs is refused in any case.");
  command
      .add_flag("--no-overwrite", options.noOverwrite,
                "refuse to replace an output that exists, also a single one")
      ->excludes(overwrite);
  command
      .add_flag("--skip-existing", options.skipExisting,
                "pass over inputs whose output exists\nSo an interrupted run is resumed.")
      ->excludes(overwrite);
  command
      .add_option(
          "--report", options.report,
          "add a line of JSON for each input to a file\n"
          "It has input, output, bytes, seconds, PSNR where it was measured, warnings, exit "
          "code, and the error if there was one.")
      ->type_name("FILE");
  AddJobsOption(command, options);
  AddLimitOptions(command, options.limits);
  command
      .add_option("--progress", options.progress,
                  "bar, json or none [a bar where standard error is a terminal]\n"
                  "With json a line of JSON tells how many files are done, and which part of all.")
      ->type_name("MODE")
      ->check(CLI::IsMember({"auto", "bar", "json", "none"}));
  command.add_flag("--quiet", options.quiet, "no progress bar");
  command.add_flag("--verbose", options.verbose,
                   "tell what was done, and how fast\n"
                   "Failures then also tell where in the library they were noticed. Times are "
                   "those of coding itself, in megabytes (1000000 bytes) of samples per "
                   "second.");
}

void AddListOption(CLI::App& command, FileOptions& options) {
  command
      .add_option("--files-from", options.filesFrom,
                  "file that lists further inputs, one a line\n"
                  "A dash is standard input. Names may be separated by zero bytes instead.")
      ->type_name("FILE");
}

void AddJobsOption(CLI::App& command, FileOptions& options) {
  command
      .add_option("-j,--jobs", options.jobs,
                  "threads [one per processor]\nThe output is the same for any number.")
      ->type_name("N")
      ->check(CLI::Range(1, 1024));
}

void AddLimitOptions(CLI::App& command, host::Limits& limits) {
  command
      .add_option("--max-pixels", limits.maxPixels,
                  "refuse images of more pixels; 0: never [1G]\n"
                  "Units are K, M and G (of 1024).")
      ->type_name("COUNT")
      ->transform(CLI::AsSizeValue(false));
  command
      .add_option("--timeout", limits.seconds,
                  "stop the work on a file after so many seconds [never]")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber);
}

namespace {

/// Lets the system refuse what the process asks for beyond a limit, whoever in it asks: libraries
/// that read and write image files take memory of their own. Sanitizers need address space by the
/// terabyte.
void LimitProcess(std::uint64_t bytes) {
#if defined(RLIMIT_DATA) && !defined(KEL_SANITIZED)
  constexpr std::uint64_t kProgram = 64 << 20, kThreadStack = 9 << 20;
  if (bytes == 0 || bytes > INT64_MAX) return;
  const std::uint64_t threads = std::max(std::thread::hardware_concurrency(), 1U);
  rlimit limit{};
  if (getrlimit(RLIMIT_DATA, &limit) != 0) return;
  const auto wanted = static_cast<rlim_t>(bytes + kProgram + 2 * threads * kThreadStack);
  limit.rlim_cur = std::min(limit.rlim_max, wanted);
  setrlimit(RLIMIT_DATA, &limit);
#else
  static_cast<void>(bytes);
#endif
}

}  // namespace

void AddMemoryOption(CLI::App& command, std::uint64_t& bytes, const std::string& preset) {
  command
      .add_option("--max-memory", bytes,
                  "refuse images that need more; 0: never [" + preset +
                      "]\nUnits are K, M and G (of 1024). A container's limit counts as its "
                      "memory. What is given here the system holds the process to as well, with "
                      "some room for the program itself.")
      ->type_name("SIZE")
      ->transform(CLI::AsSizeValue(false))
      ->each([](const std::string& size) { LimitProcess(std::stoull(size)); });
}

int RunTasks(const FileOptions& options, const TaskSettings& settings,
             const std::function<int(const Task&)>& work) {
  ShowDetails(options.verbose);
  TaskPlan plan = PlanTasks(options, settings);
  return RunPlan(plan, options, work);
}

void Task::Warn(const std::string& text) const {
  PrintMessage(NameOf(input) + ": " + text);
  if (notes != nullptr) notes->warnings.push_back(text);
}

}  // namespace kel::tool
